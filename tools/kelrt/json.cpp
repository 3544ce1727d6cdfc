// Parsing that refuses repeated keys, and access that says where a value is.
#include "json.h"

#include <algorithm>
#include <functional>
#include <set>

#include "bad_input.h"

namespace tool {
namespace {

constexpr size_t kMaxDepth = 16;

using Event = nlohmann::ordered_json::parse_event_t;

// Follows the parser, to know the path of the value that is being read and the keys of every open object.
class Follower {
  public:
    explicit Follower(const std::string& file) : file_(file) {}

    bool operator()(int, Event event, Json::Value& value) {
        // The document is copied and freed by recursion, and no job is deep.
        if (levels_.size() > kMaxDepth)
            throw BadInput(file_ + ": " + path() + ": this is nested too deeply");
        switch (event) {
            case Event::object_start:
                levels_.push_back({false, 0, {}, {}});
                break;
            case Event::array_start:
                levels_.push_back({true, 0, {}, {}});
                break;
            case Event::key:
                levels_.back().key = value.get<std::string>();
                if (!levels_.back().keys.insert(levels_.back().key).second)
                    throw BadInput(file_ + ": " + path() + ": the key is there twice");
                break;
            case Event::object_end:
            case Event::array_end:
                levels_.pop_back();
                [[fallthrough]];
            case Event::value:
                if (!levels_.empty())
                    ++levels_.back().index;
                break;
        }
        return true;
    }

    std::string path() const {
        std::string path;
        for (const Level& level : levels_) {
            if (level.array)
                path.append("[").append(std::to_string(level.index)).append("]");
            else if (!level.key.empty())
                path += (path.empty() ? "" : ".") + level.key;
        }
        return path;
    }

  private:
    struct Level {
        bool array;
        size_t index;
        std::string key;
        std::set<std::string> keys;
    };
    const std::string& file_;
    std::vector<Level> levels_;
};

std::string read_file(const std::string& file) {
    try {
        return npy::read_file(file);
    } catch (const npy::Error& error) {
        throw BadInput(error.what());
    }
}

}  // namespace

Json::Value read_json(const std::string& file) {
    const std::string text = read_file(file);
    Follower follower(file);
    try {
        return Json::Value::parse(text, std::ref(follower));
    } catch (const nlohmann::json::parse_error& error) {
        const size_t at = std::min(error.byte > 0 ? error.byte - 1 : 0, text.size());
        const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<ptrdiff_t>(at), '\n');
        throw BadInput(file + ": line " + std::to_string(line) + ": this is not JSON");
    } catch (const nlohmann::json::out_of_range&) {
        const std::string path = follower.path();
        throw BadInput(file + ": " + path + ": the number is too large");
    }
}

void Json::fail(const std::string& what) const {
    throw BadInput(file_ + ": " + (path_.empty() ? "" : path_ + ": ") + what);
}

void Json::allow_only(std::initializer_list<const char*> known) const {
    for (const auto& [key, member] : members()) {
        if (std::find(known.begin(), known.end(), key) != known.end())
            continue;
        std::string list;
        for (const char* name : known)
            list += std::string(list.empty() ? "" : ", ") + name;
        member.fail("unknown key; known are " + list);
    }
}

std::vector<std::pair<std::string, Json>> Json::members() const {
    if (!value_->is_object())
        fail("an object is wanted here");
    std::vector<std::pair<std::string, Json>> members;
    for (const auto& [key, value] : value_->items())
        members.emplace_back(key, Json(value, file_, path_ + (path_.empty() ? "" : ".") + key));
    return members;
}

std::optional<Json> Json::find(const std::string& key) const {
    for (auto& [name, member] : members()) {
        if (name == key)
            return member;
    }
    return std::nullopt;
}

Json Json::at(const std::string& key) const {
    const auto member = find(key);
    if (!member)
        fail("the key " + key + " is missing");
    return *member;
}

std::vector<Json> Json::elements() const {
    if (!value_->is_array())
        fail("a list is wanted here");
    std::vector<Json> elements;
    for (size_t i = 0; i < value_->size(); ++i)
        elements.emplace_back((*value_)[i], file_, path_ + "[" + std::to_string(i) + "]");
    return elements;
}

std::string Json::text() const {
    if (!value_->is_string())
        fail("a text is wanted here");
    return value_->get<std::string>();
}

Number Json::number(const char* wanted) const {
    if (value_->is_string()) {
        if (const auto bits = read_bits(value_->get<std::string>()))
            return *bits;
    } else if (value_->is_number_unsigned()) {
        if (const auto value = value_->get<uint64_t>(); value <= INT64_MAX)
            return static_cast<int64_t>(value);
    } else if (value_->is_number_integer()) {
        // Only a minus sign makes a signed zero of it.
        if (const auto value = value_->get<int64_t>(); value != 0)
            return value;
        return -0.0;
    } else if (value_->is_number_float()) {
        return value_->get<double>();
    }
    fail(std::string(wanted) + " is wanted here");
}

uint32_t Json::u32() const {
    const auto value = to_u32(number(kU32Wanted));
    if (!value)
        fail(std::string(kU32Wanted) + " is wanted here");
    return *value;
}

uint32_t Json::float_bits() const {
    const auto value = to_float_bits(number(kFloatWanted));
    if (!value)
        fail(std::string(kFloatWanted) + " is wanted here");
    return *value;
}

bool Json::truth() const {
    if (!value_->is_boolean())
        fail("true or false is wanted here");
    return value_->get<bool>();
}

}  // namespace tool
