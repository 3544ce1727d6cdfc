// Words of the form ARGUMENT=VALUE, and what VALUE may be.
#include "shell.h"

#include <algorithm>
#include <map>

#include "bad_input.h"
#include "check.h"
#include "number.h"

namespace tool {
namespace {

[[noreturn]] void fail(const std::string& where, const std::string& what) {
    throw BadInput(where + ": " + what);
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts(1);
    for (const char c : text) {
        if (c == separator)
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

// f4[2,3], zeros, or f4[2,3]:1,2,3,4,5,6. False if the text is not of that form at all.
bool read_inline(const std::string& text, const std::string& where, npy::Array& array) {
    const auto type = std::find_if(std::begin(npy::kTypes), std::end(npy::kTypes), [&](npy::Type candidate) {
        return text.starts_with(std::string(npy::name_of(candidate)) + "[");
    });
    if (type == std::end(npy::kTypes))
        return false;
    const size_t open = text.find('['), close = text.find(']');
    if (close == std::string::npos || (close + 1 < text.size() && text[close + 1] != ':'))
        fail(where, "a memory is written f4[2,3] or f4[2]:0.5,1");

    array = {*type, {}, {}};
    if (close > open + 1) {
        for (const std::string& word : split(text.substr(open + 1, close - open - 1), ',')) {
            const auto number = read_number(word);
            const auto dimension = number ? to_u32(*number) : std::nullopt;
            if (!dimension)
                fail(where, "'" + word + "' is not a dimension");
            array.shape.push_back(*dimension);
        }
    }
    size_t size = kMaxBytes + 1;
    try {
        size = npy::byte_size(array.type, array.shape);
    } catch (const npy::Error&) {
    }
    if (size > kMaxBytes || array.shape.size() > 32)
        fail(where, "the memory is too large");

    if (close + 1 == text.size()) {
        array.bytes.resize(size);
        return true;
    }
    for (const std::string& word : split(text.substr(close + 2), ',')) {
        const auto number = read_number(word);
        if (!number || !append(array, *number))
            fail(where, "'" + word + "' is not a number that " + npy::name_of(array.type) + " can hold");
    }
    if (array.bytes.size() != size)
        fail(where, std::to_string(array.count()) + " values are given and shape " +
                        npy::to_string(array.shape) + " has " +
                        std::to_string(size / npy::size_of(array.type)));
    return true;
}

npy::Array read_array(const std::string& text, const std::string& where) {
    npy::Array array;
    if (read_inline(text, where, array))
        return array;
    try {
        return npy::load(text, kMaxBytes);
    } catch (const npy::Error& error) {
        fail(where, error.what());
    }
}

class Words {
  public:
    Words(const Operator& op, const std::vector<std::string>& words) : op_(op) {
        for (const std::string& word : words)
            add(word);
    }

    Job job() {
        arguments_.resize(op_.arguments.size());
        if (moves_sram(id_of(op_)))
            add_sram();
        for (size_t i = 0; i < arguments_.size(); ++i) {
            if (!op_.arguments[i].is_memory())
                arguments_[i] = scalar(op_.arguments[i]);
            else
                add_memory(op_.arguments[i]);
        }
        // An argument may share a memory that is named after it.
        for (size_t i = 0; i < arguments_.size(); ++i) {
            if (op_.arguments[i].is_memory())
                arguments_[i] = operand(op_.arguments[i]);
        }
        for (size_t i = 0; i < arguments_.size(); ++i) {
            if (op_.arguments[i].is_memory() && !has(op_.arguments[i].name))
                size_output(i);
        }
        check_arguments(op_, arguments_, job_, [&](size_t i, const std::string& what) {
            fail(spelling(op_.arguments[i].name), what);
        });
        for (size_t i = 0; i < arguments_.size(); ++i) {
            const uint32_t id = arguments_[i].value;
            if (op_.arguments[i].is_published() && id != KEL_RT_NO_MEMORY_ID &&
                std::find(job_.outputs.begin(), job_.outputs.end(), id) == job_.outputs.end())
                job_.outputs.push_back(id);
        }
        if (job_.bytes > kMaxBytes)
            fail(op_.name, kTooMuch);
        job_.contexts.push_back(make_context(op_.name, id_of(op_), arguments_));
        job_.contexts.back().op = &op_;
        return std::move(job_);
    }

  private:
    void add(const std::string& word) {
        const size_t equals = word.find('=');
        if (equals == std::string::npos)
            fail(word, "an argument is written NAME=VALUE");
        const std::string key = word.substr(0, equals);
        if (!is_known(key)) {
            std::string known;
            for (const Argument& argument : op_.arguments)
                known += std::string(known.empty() ? "" : ", ") + argument.name;
            fail(word, std::string(op_.name) + " has no argument " + key + "; it has " + known);
        }
        if (!values_.emplace(key, word.substr(equals + 1)).second)
            fail(word, "the argument is there twice");
    }

    bool is_known(const std::string& key) const {
        if (moves_sram(id_of(op_)) && (key == kSramName || key == "sram.base"))
            return true;
        for (const Argument& argument : op_.arguments) {
            if (key == argument.name ||
                (argument.is_memory() && (key == argument.name + std::string(".offset") ||
                                          key == argument.name + std::string(".kind"))))
                return true;
        }
        return false;
    }

    bool has(const std::string& key) const { return values_.count(key) != 0; }
    const std::string& value(const std::string& key) const { return values_.at(key); }
    std::string spelling(const std::string& key) const { return has(key) ? key + "=" + value(key) : key; }

    uint32_t u32(const std::string& key) const {
        const auto number = read_number(value(key));
        const auto result = number ? to_u32(*number) : std::nullopt;
        if (!result)
            fail(spelling(key), std::string(kU32Wanted) + " is wanted");
        return *result;
    }

    KelRtContextArg scalar(const Argument& argument) const {
        if (!has(argument.name))
            fail(argument.name, std::string("the argument of ") + op_.name + " is missing");
        if (argument.type == KEL_RT_ARG_VAL)
            return {KEL_RT_ARG_VAL, 0, u32(argument.name)};
        const auto number = read_number(value(argument.name));
        const auto bits = number ? to_float_bits(*number) : std::nullopt;
        if (!bits)
            fail(spelling(argument.name), std::string(kFloatWanted) + " is wanted");
        return {KEL_RT_ARG_FLT, 0, *bits};
    }

    // Adds the memory of an argument that has one of its own. What is only written may be left out.
    void add_memory(const Argument& argument) {
        const std::string name = argument.name, kind = name + ".kind";
        bool on_cpu = false;
        if (has(kind)) {
            on_cpu = value(kind) == "cpu";
            if (!on_cpu && value(kind) != "accelerator")
                fail(spelling(kind), "the kind of a memory is accelerator or cpu");
        }
        if (!has(name)) {
            if (argument.use != Use::Output)
                fail(name, std::string("the argument of ") + op_.name + " is missing");
            hold({name, on_cpu, {}});
        } else if (value(name) != "none" && !value(name).starts_with('@')) {
            hold({name, on_cpu, read_array(value(name), spelling(name))});
        } else if (has(kind)) {
            fail(spelling(kind), name + " has no memory of its own");
        }
    }

    KelRtContextArg operand(const Argument& argument) const {
        const std::string name = argument.name, offset = name + ".offset";
        KelRtContextArg arg = {KEL_RT_ARG_MEM, has(offset) ? u32(offset) : 0, KEL_RT_NO_MEMORY_ID};
        if (has(name) && value(name) == "none")
            return arg;
        const bool shared = has(name) && value(name).starts_with('@');
        const auto id = job_.find_memory(shared ? value(name).substr(1) : name);
        if (!id)
            fail(spelling(name), "no argument has a memory of that name");
        arg.value = *id;
        return arg;
    }

    void hold(Memory memory) {
        const std::string name = memory.name;
        if (!job_.add_memory(std::move(memory)))
            fail(spelling(name), kTooMuch);
    }

    // Makes an output that was left out as the operator fills it; behind an offset it is a plain vector.
    void size_output(size_t i) {
        const Tensor tensor = op_.arguments[i].tensor(values_of(arguments_));
        const uint64_t offset = moves_sram(id_of(op_)) ? 0 : arguments_[i].offset, size = tensor.bytes();
        if (size > kMaxBytes || offset + size > kMaxBytes)
            fail(op_.arguments[i].name, "the operator needs more than 512 MiB for it");

        npy::Array& array = job_.memories[arguments_[i].value].initial;
        array.type = type_of(tensor);
        array.shape.assign(tensor.shape.begin(), tensor.shape.begin() + tensor.rank);
        const size_t element = npy::size_of(array.type);
        if (tensor.type == Tensor::Type::Like)
            array.shape.back() /= element;
        if (offset != 0)
            array.shape = {static_cast<size_t>(offset + size + element - 1) / element};
        array.bytes.resize(npy::byte_size(array.type, array.shape));
        job_.bytes += array.bytes.size();
    }

    npy::Type type_of(const Tensor& tensor) const {
        switch (tensor.type) {
            case Tensor::Type::Float:
                return npy::Type::f4;
            case Tensor::Type::Int8:
                return npy::Type::i1;
            case Tensor::Type::Bytes:
                return npy::Type::u1;
            case Tensor::Type::Like:
                break;
        }
        if (tensor.like == 0)
            return whole_elements(job_.sram->initial.type, 0, tensor);
        const KelRtContextArg& like = arguments_[tensor.like - kFirstArgument];
        if (like.value == KEL_RT_NO_MEMORY_ID)
            return npy::Type::u1;
        return whole_elements(job_.memories[like.value].initial.type, like.offset, tensor);
    }

    // `type`, or raw bytes where it is cut into.
    static npy::Type whole_elements(npy::Type type, uint32_t offset, const Tensor& tensor) {
        const size_t size = npy::size_of(type);
        return tensor.shape[tensor.rank - 1] % size || offset % size ? npy::Type::u1 : type;
    }

    void add_sram() {
        if (!has(kSramName))
            fail(op_.name, "the SRAM is missing; it is given as sram=FILE.npy or sram=u1[64]");
        if (!job_.add_sram(
                {has("sram.base") ? u32("sram.base") : 0, read_array(value(kSramName), spelling(kSramName))}))
            fail(spelling(kSramName), kTooMuch);
        if (uint64_t{job_.sram->base} + job_.sram->initial.bytes.size() > uint64_t{1} << 32)
            fail(spelling(kSramName), "the SRAM reaches beyond 32-bit addresses");
        job_.sram_is_output = id_of(op_) == op::kSramSet;
    }

    const Operator& op_;
    std::map<std::string, std::string> values_;
    std::vector<KelRtContextArg> arguments_;
    Job job_;
};

}  // namespace

Job job_from_words(const std::string& operator_name, const std::vector<std::string>& words) {
    const Operator* const op = find_operator(operator_name);
    if (!op)
        fail(operator_name, "there is no such operator (see kelrt ops)");
    return Words(*op, words).job();
}

}  // namespace tool
