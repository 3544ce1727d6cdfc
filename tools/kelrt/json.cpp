// Parsing that refuses repeated keys, and access that says where a value is.
#include "json.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>

#include "bad_input.h"
#include "input_file.h"

namespace tool {
namespace {

// No job is deep.
constexpr size_t kMaxDepth = 16;

// The characters of a file, a block at a time, for the parser.
class Characters {
  public:
    explicit Characters(const std::string& file) : file_(file), input_(file), block_(kBlock, '\0') {
        refill();
    }

    bool at_end() const { return next_ == size_; }
    char current() const { return block_[next_]; }
    void advance() {
        if (++next_ == size_)
            refill();
    }

  private:
    static constexpr size_t kBlock = 65536;

    void refill() {
        size_ = input_.read(block_.data(), kBlock);
        next_ = 0;
        total_ += size_;
        // To the parser it would be the end.
        if (std::memchr(block_.data(), '\0', size_))
            throw BadInput(file_ + ": this is not JSON: there is a NUL in it");
        if (total_ > kMaxDocument)
            throw BadInput(file_ + ": the file is longer than " + std::to_string(kMaxDocument >> 20) +
                           " MiB");
    }

    const std::string& file_;
    npy::InputFile input_;
    std::string block_;
    size_t next_ = 0, size_ = 0;
    uint64_t total_ = 0;
};

// The same as an iterator; a null one is the end.
struct CharacterIterator {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = ptrdiff_t;
    using pointer = const char*;
    using reference = char;

    Characters* characters;

    char operator*() const { return characters->current(); }
    CharacterIterator& operator++() {
        characters->advance();
        return *this;
    }
    bool operator==(const CharacterIterator& other) const { return is_end() == other.is_end(); }
    bool is_end() const { return !characters || characters->at_end(); }
};

void append_index(std::string& path, size_t index) {
    path.append("[").append(std::to_string(index)).append("]");
}

void append_key(std::string& path, std::string_view key) {
    path.append(path.empty() ? "" : ".").append(key);
}

}  // namespace

// Takes the parser's events. Values wait until the list or object around them ends, and then move to their
// places together.
class DocumentReader {
  public:
    using Kind = Document::Kind;

    explicit DocumentReader(Document& document) : document_(document) {}

    void read() {
        Characters characters(document_.file_);
        nlohmann::json::sax_parse(CharacterIterator{&characters}, CharacterIterator{nullptr}, this);
        place(waiting_);
    }

    bool null() { return value(Kind::Null, 0); }
    bool boolean(bool value_) { return value(value_ ? Kind::True : Kind::False, 0); }
    bool number_integer(int64_t integer) {
        // Of the integers those with a minus sign, which makes a signed zero.
        return integer == 0 ? real(-0.0) : value(Kind::Integer, integer);
    }
    bool number_unsigned(uint64_t integer) {
        const bool huge = integer > INT64_MAX;
        return value(huge ? Kind::Huge : Kind::Integer, huge ? 0 : static_cast<int64_t>(integer));
    }
    bool number_float(double number, const std::string&) { return real(number); }
    bool string(const std::string& text) { return characters(Kind::Text, text); }
    bool binary(const std::vector<uint8_t>&) { return false; }  // JSON has none
    bool key(const std::string& text) { return characters(Kind::Key, text); }
    bool start_object(size_t) { return open(Kind::Object); }
    bool start_array(size_t) { return open(Kind::List); }
    bool end_object() {
        refuse_repeated_keys();
        return close();
    }
    bool end_array() { return close(); }

    bool parse_error(size_t, const std::string&, const nlohmann::json::exception& error) {
        constexpr int kOutOfRange = 406;
        if (error.id == kOutOfRange)
            fail((levels_.empty() ? "" : path() + ": ") + "the number is too large");
        // "[...] parse error at line 2, column 14: syntax error while parsing value - unexpected '}'; last
        // read:
        // ...; expected ..."
        const std::string text = error.what();
        const size_t place = text.find("line "), end = text.find(": ", place), reason = text.find(" - ", end);
        if (reason == std::string::npos)
            fail("this is not JSON");
        const size_t last_read = text.find("; last read: ", reason), expected = text.rfind("; expected ");
        fail(text.substr(place, end - place) +
             ": this is not JSON: " + text.substr(reason + 3, last_read - (reason + 3)) +
             (last_read < expected && expected != std::string::npos ? text.substr(expected) : ""));
    }

  private:
    struct Level {
        Kind kind;
        size_t first;  // of waiting_
    };

    [[noreturn]] void fail(const std::string& what) const { throw BadInput(document_.file_ + ": " + what); }

    void add(const Document::Node& node) { waiting_.push_back(node); }

    bool value(Kind kind, int64_t integer) {
        Document::Node node{};
        node.kind = kind;
        node.integer = integer;
        add(node);
        return true;
    }

    bool real(double number) {
        Document::Node node{};
        node.kind = Kind::Real;
        node.real = number;
        add(node);
        return true;
    }

    bool part(Kind kind, size_t first, size_t count) {
        Document::Node node{};
        node.kind = kind;
        node.part = {static_cast<uint32_t>(first), static_cast<uint32_t>(count)};
        add(node);
        return true;
    }

    bool characters(Kind kind, const std::string& text) {
        document_.characters_ += text;
        return part(kind, document_.characters_.size() - text.size(), text.size());
    }

    bool open(Kind kind) {
        levels_.push_back({kind, waiting_.size()});
        if (levels_.size() > kMaxDepth)
            fail(path() + ": this is nested too deeply");
        return true;
    }

    bool close() {
        const Level level = levels_.back();
        const std::span inside = std::span(waiting_).subspan(level.first);
        const size_t first = document_.nodes_.size(), count = inside.size();
        place(inside);
        waiting_.resize(level.first);
        levels_.pop_back();
        return part(level.kind, first, count);
    }

    // Gives nodes their places, and those inside them their parents.
    void place(std::span<const Document::Node> nodes) {
        for (const Document::Node& node : nodes) {
            if (node.kind >= Kind::List) {
                for (size_t i = 0; i < node.part.count; ++i)
                    document_.nodes_[node.part.first + i].parent =
                        static_cast<uint32_t>(document_.nodes_.size());
            }
            document_.nodes_.push_back(node);
        }
    }

    // Sorted, so that many keys are no burden.
    void refuse_repeated_keys() {
        keys_.clear();
        for (size_t i = levels_.back().first; i < waiting_.size(); i += 2)
            keys_.push_back(document_.text_of(waiting_[i]));
        std::sort(keys_.begin(), keys_.end());
        const auto repeated = std::adjacent_find(keys_.begin(), keys_.end());
        if (repeated == keys_.end())
            return;
        std::string path = path_around(levels_.size() - 1);
        append_key(path, *repeated);
        fail(path + ": the key is there twice");
    }

    // The path to the value that is being read.
    std::string path() const { return path_around(levels_.size()); }

    std::string path_around(size_t depth) const {
        std::string path;
        for (size_t i = 0; i < depth; ++i) {
            const size_t first = levels_[i].first;
            const size_t end = i + 1 < levels_.size() ? levels_[i + 1].first : waiting_.size();
            if (levels_[i].kind == Kind::List)
                append_index(path, end - first);
            else if (end > first)
                append_key(path, document_.text_of(waiting_[(end - first) % 2 ? end - 1 : end - 2]));
        }
        return path;
    }

    Document& document_;
    std::vector<Document::Node> waiting_;
    std::vector<Level> levels_;
    std::vector<std::string_view> keys_;
};

Document::Document(std::string file) : file_(std::move(file)) {
    try {
        DocumentReader(*this).read();
    } catch (const npy::Error& error) {
        throw BadInput(file_ + ": " + error.what());
    }
}

Json Document::root() const {
    return Json(*this, nodes_.size() - 1);
}

std::string Document::path_of(size_t node) const {
    std::vector<size_t> ways;  // from the value up
    for (; node != nodes_.size() - 1; node = nodes_[node].parent)
        ways.push_back(node);
    std::string path;
    for (auto way = ways.rbegin(); way != ways.rend(); ++way) {
        const Node& around = nodes_[nodes_[*way].parent];
        if (around.kind == Kind::List) {
            append_index(path, *way - around.part.first);
            if (const auto label = Json(*this, *way).label())
                path.append(" (").append(*label).append(")");
        } else
            append_key(path, text_of(nodes_[*way - 1]));
    }
    return path;
}

std::optional<std::string_view> Json::label() const {
    const auto label = is_object() ? find("label") : std::nullopt;
    return label && label->is_text() ? std::optional(document_->text_of(label->node())) : std::nullopt;
}

void Json::fail(const std::string& what) const {
    const std::string path = document_->path_of(node_);
    throw BadInput(document_->file_ + ": " + (path.empty() ? "" : path + ": ") + what);
}

void Json::want_object() const {
    if (!is_object())
        fail("an object is wanted here");
}

std::vector<std::pair<std::string_view, Json>> Json::members() const {
    want_object();
    std::vector<std::pair<std::string_view, Json>> members;
    for (size_t i = begin(); i < end(); i += 2)
        members.emplace_back(document_->text_of(document_->nodes_[i]), Json(*document_, i + 1));
    return members;
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

std::optional<Json> Json::find(std::string_view key) const {
    want_object();
    for (size_t i = begin(); i < end(); i += 2) {
        if (document_->text_of(document_->nodes_[i]) == key)
            return Json(*document_, i + 1);
    }
    return std::nullopt;
}

Json Json::at(std::string_view key) const {
    const auto member = find(key);
    if (!member)
        fail("the key " + std::string(key) + " is missing");
    return *member;
}

std::vector<Json> Json::elements() const {
    if (node().kind != Document::Kind::List)
        fail("a list is wanted here");
    std::vector<Json> elements;
    elements.reserve(node().part.count);
    for (size_t i = begin(); i < end(); ++i)
        elements.emplace_back(*document_, i);
    return elements;
}

std::string Json::text() const {
    if (!is_text())
        fail("a text is wanted here");
    return std::string(document_->text_of(node()));
}

Number Json::number(const char* wanted) const {
    if (is_text()) {
        if (const auto bits = read_bits(document_->text_of(node())))
            return *bits;
    } else if (node().kind == Document::Kind::Integer) {
        return node().integer;
    } else if (node().kind == Document::Kind::Real) {
        return node().real;
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
    const Document::Kind kind = node().kind;
    if (kind != Document::Kind::True && kind != Document::Kind::False)
        fail("true or false is wanted here");
    return kind == Document::Kind::True;
}

}  // namespace tool
