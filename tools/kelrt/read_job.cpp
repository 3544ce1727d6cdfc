// The JSON form of a job. README.md describes it; everything that it does not describe is refused.
#include <algorithm>
#include <filesystem>
#include <set>

#include "check.h"
#include "job.h"
#include "json.h"

namespace tool {
namespace {

class JobReader {
  public:
    JobReader(const std::string& file, bool unchecked) : unchecked_(unchecked) { job_.file = file; }

    Job read() {
        const Document document(job_.file);
        const Json root = document.root();
        root.allow_only({"memories", "sram", "contexts", "outputs"});
        if (const auto memories = root.find("memories"))
            read_memories(*memories);
        if (const auto sram = root.find("sram")) {
            if (job_.find_memory(kSramName))
                sram->fail("a memory has the name sram too");
            read_sram(*sram);
        }
        const std::vector<Json> contexts = root.at("contexts").elements();
        job_.contexts.reserve(contexts.size());
        for (const Json& context : contexts)
            job_.contexts.push_back(read_context(context));
        if (const auto outputs = root.find("outputs"))
            read_outputs(*outputs);
        return std::move(job_);
    }

  private:
    // ---- memories ----

    void read_memories(const Json& memories) {
        for (const auto& [key, memory] : memories.members()) {
            const std::string name(key);
            memory.allow_only({"npy", "dtype", "shape", "values", "kind"});
            bool on_cpu = false;
            if (const auto kind = memory.find("kind")) {
                on_cpu = kind->text() == "cpu";
                if (!on_cpu && kind->text() != "accelerator")
                    kind->fail("the kind of a memory is \"accelerator\" or \"cpu\"");
            }
            const bool is_given = memory.find("npy") || memory.find("values");
            if (!job_.add_memory({name, on_cpu, read_array(memory), false, is_given}))
                memory.fail(kTooMuch);
        }
    }

    void read_sram(const Json& sram) {
        sram.allow_only({"base", "npy", "dtype", "shape", "values"});
        const auto base = sram.find("base");
        if (!job_.add_sram({base ? base->u32() : 0, read_array(sram)}))
            sram.fail(kTooMuch);
        if (uint64_t{job_.sram->base} + job_.sram->initial.bytes.size() > uint64_t{1} << 32)
            sram.fail("the SRAM reaches beyond 32-bit addresses");
    }

    // From a file, whose type and shape may be stated as well; or from type and shape, zeros or values.
    npy::Array read_array(const Json& memory) {
        const auto file = memory.find("npy"), dtype = memory.find("dtype"), shape = memory.find("shape");
        if (!file) {
            npy::Array array{read_dtype(memory.at("dtype")), read_shape(memory.at("shape")), {}};
            const size_t size = size_of(array, memory.at("shape"));
            if (const auto values = memory.find("values"))
                read_values(*values, array, size);
            else
                array.bytes.resize(size);
            return array;
        }
        if (const auto values = memory.find("values"))
            values->fail("a memory has either a file or values");
        npy::Array array = load(*file, dtype ? std::optional(read_dtype(*dtype)) : std::nullopt);
        if (dtype && read_dtype(*dtype) != array.type)
            dtype->fail("the file " + file->text() + " holds " + npy::name_of(array.type));
        if (shape && read_shape(*shape) != array.shape)
            shape->fail("the file " + file->text() + " has shape " + npy::to_string(array.shape));
        return array;
    }

    npy::Array load(const Json& file, std::optional<npy::Type> wanted) const {
        const std::string name = file.text();
        if (name.find('\0') != std::string::npos)
            file.fail("a file's name has no NUL in it");
        try {
            return npy::load((std::filesystem::path(job_.file).parent_path() / name).string(), kMaxBytes,
                             wanted);
        } catch (const npy::Error& error) {
            file.fail(error.what());
        }
    }

    static npy::Type read_dtype(const Json& dtype) {
        for (const npy::Type type : npy::kTypes) {
            if (dtype.text() == npy::name_of(type))
                return type;
        }
        dtype.fail("the dtype is one of f4, i4, i2, i1 and u1");
    }

    static npy::Shape read_shape(const Json& shape) {
        npy::Shape dimensions;
        for (const Json& dimension : shape.elements())
            dimensions.push_back(dimension.u32());
        if (dimensions.size() > 32)
            shape.fail("a shape has at most 32 dimensions");
        return dimensions;
    }

    static size_t size_of(const npy::Array& array, const Json& shape) {
        try {
            const size_t size = npy::byte_size(array.type, array.shape);
            if (size <= kMaxBytes)
                return size;
        } catch (const npy::Error&) {
        }
        shape.fail("a memory of shape " + npy::to_string(array.shape) + " takes more than 512 MiB");
    }

    static void read_values(const Json& values, npy::Array& array, size_t size) {
        constexpr const char* kWanted = "a number that the dtype can hold, or its bit pattern such as 0x7F";
        for (const Json& value : values.elements()) {
            if (!append(array, value.number(kWanted)))
                value.fail(std::string(kWanted) + ", is wanted here");
        }
        if (array.bytes.size() != size)
            values.fail(std::to_string(array.count()) + " values are given and shape " +
                        npy::to_string(array.shape) + " has " +
                        std::to_string(size / npy::size_of(array.type)));
    }

    // ---- contexts ----

    Context read_context(const Json& json) {
        json.allow_only({"op", "args", "label", "raw", "target", "num_args", "null"});
        if (!unchecked_) {
            for (const char* key : {"raw", "target", "num_args", "null"}) {
                if (const auto member = json.find(key))
                    member->fail("this needs --unchecked");
            }
        }
        if (const auto null = json.find("null"); null && null->truth()) {
            json.allow_only({"null", "label"});
            Context context;
            context.title = "(null context)";
            context.null = true;
            return context;
        }

        const auto raw = json.find("raw");
        Context context = raw ? read_raw(json, *raw) : read_operator(json);
        if (const auto label = json.find("label"))
            context.label = label->text();
        if (const auto target = json.find("target"))
            context.target = target->u32();
        if (const auto num_args = json.find("num_args"))
            context.num_args = static_cast<int32_t>(num_args->u32());
        return context;
    }

    Context read_operator(const Json& json) {
        const Json op_json = json.at("op"), args_json = json.at("args");
        const auto [title, id] = read_operator_id(op_json);
        const bool by_name = args_json.is_object();
        const std::vector<Json> elements =
            by_name ? in_order(args_json, find_operator(title)) : args_json.elements();
        std::vector<KelRtContextArg> arguments;
        arguments.reserve(elements.size());
        for (const Json& element : elements)
            arguments.push_back(read_argument(element));
        if (unchecked_)
            return make_context(title, id, arguments);

        const Operator& op = kOperators[id];
        if (arguments.size() != op.arguments.size())
            args_json.fail(std::string(op.name) + " takes " + std::to_string(op.arguments.size()) +
                           " arguments (" + names_of(op) + ") and " + std::to_string(arguments.size()) +
                           " are given");
        check_arguments(op, arguments, job_,
                        [&](size_t i, const std::string& what) { elements[i].fail(what); });
        if (moves_sram(id) && !job_.sram)
            op_json.fail(std::string(op.name) + " needs the job to have \"sram\"");
        Context context = make_context(title, id, arguments);
        context.op = &op;
        context.by_name = by_name;
        return context;
    }

    static std::string names_of(const Operator& op) {
        std::string names;
        for (const Argument& argument : op.arguments)
            names += std::string(names.empty() ? "" : ", ") + argument.name;
        return names;
    }

    // Arguments given by name, in the operator's order.
    static std::vector<Json> in_order(const Json& args, const Operator* op) {
        if (!op)
            args.fail("the arguments of an operator without a name have none either");
        // First, since a misspelled one is missing too.
        for (const auto& [name, member] : args.members()) {
            const auto is_called = [&key = name](const Argument& argument) { return key == argument.name; };
            if (std::none_of(op->arguments.begin(), op->arguments.end(), is_called))
                member.fail(std::string(op->name) + " has no such argument; it has " + names_of(*op));
        }
        std::vector<Json> elements;
        elements.reserve(op->arguments.size());
        for (const Argument& argument : op->arguments) {
            const auto element = args.find(argument.name);
            if (!element)
                args.fail("the argument " + std::string(argument.name) + " of " + op->name + " is missing");
            elements.push_back(*element);
        }
        return elements;
    }

    // A name of the catalogue or an id; unchecked, an id of any size.
    std::pair<std::string, uint32_t> read_operator_id(const Json& json) const {
        if (json.is_text()) {
            if (const Operator* const op = find_operator(json.text()))
                return {op->name, id_of(*op)};
            json.fail("there is no operator " + json.text() + " (see kelrt ops)");
        }
        const uint32_t id = json.u32();
        if (id < KEL_RT_NUM_OPS)
            return {kOperators[id].name, id};
        if (!unchecked_)
            json.fail("there is no operator " + std::to_string(id) + " (see kelrt ops)");
        return {"(operator " + std::to_string(id) + ")", id};
    }

    KelRtContextArg read_argument(const Json& json) const {
        if (!json.is_object())
            return {KEL_RT_ARG_VAL, 0, json.u32()};
        if (const auto flt = json.find("flt")) {
            json.allow_only({"flt"});
            return {KEL_RT_ARG_FLT, 0, flt->float_bits()};
        }
        json.allow_only({"mem", "offset"});
        const auto offset = json.find("offset");
        return {KEL_RT_ARG_MEM, offset ? offset->u32() : 0, read_memory_id(json.at("mem"))};
    }

    uint32_t read_memory_id(const Json& json) const {
        if (json.is_null())
            return KEL_RT_NO_MEMORY_ID;
        const auto id = job_.find_memory(json.text());
        if (!id)
            json.fail("there is no memory " + json.text());
        return *id;
    }

    // Records as they stand: [type, offset, value], arguments 0 and 1 included.
    Context read_raw(const Json& json, const Json& raw) const {
        for (const char* key : {"op", "args"}) {
            if (const auto member = json.find(key))
                member->fail("a raw context has records only");
        }
        Context context;
        context.title = "(raw context)";
        for (const Json& record : raw.elements()) {
            const std::vector<Json> words = record.elements();
            if (words.size() != 3)
                record.fail("a record is [type, offset, value]");
            const bool named = words[2].is_object();
            if (named)
                words[2].allow_only({"mem"});
            const KelRtContextArg arg = {words[0].u32(), words[1].u32(),
                                         named ? read_memory_id(words[2].at("mem")) : words[2].u32()};
            if ((arg.type & 0xFF) == KEL_RT_ARG_MEM && arg.value > kMaxMemoryId &&
                arg.value != KEL_RT_NO_MEMORY_ID)
                words[2].fail("the driver's buffer table ends at memory id 0xFFFFF");
            context.args.push_back(arg);
        }
        context.num_args = static_cast<int32_t>(context.args.size());
        return context;
    }

    // ---- outputs ----

    void read_outputs(const Json& outputs) {
        std::set<std::string> names;
        for (const Json& output : outputs.elements()) {
            const std::string name = output.text();
            if (!names.insert(name).second)
                output.fail("memory " + name + " is there twice");
            if (job_.sram && name == kSramName) {
                job_.sram_is_output = true;
                continue;
            }
            const auto id = job_.find_memory(name);
            if (!id)
                output.fail("there is no memory " + name);
            job_.outputs.push_back(*id);
        }
    }

    const bool unchecked_;
    Job job_;
};

}  // namespace

Job read_job(const std::string& file, bool unchecked) {
    return JobReader(file, unchecked).read();
}

}  // namespace tool
