// The job says what the record says, arguments by name; what the library refused is a raw context, for
// --unchecked.
#include "dump.h"

#include <algorithm>

#include "bad_input.h"
#include "json_writer.h"
#include "output_files.h"
#include "record_job.h"

namespace tool {
namespace {

// Floats where every argument that names the memory holds floats, and bytes otherwise.
npy::Type type_of(const Record& record, size_t memory, size_t size) {
    bool floats = record.op && size % 4 == 0 && size > 0;
    for (size_t i = kFirstArgument; floats && i < record.arguments.size(); ++i) {
        const bool names_it =
            record.op->at(i).is_memory() && record.arguments[i].value == record.memories[memory].id;
        floats = !names_it || record.op->at(i).element == Element::Float;
    }
    return floats ? npy::Type::f4 : npy::Type::u1;
}

npy::Array typed(npy::Array array, npy::Type type) {
    array.type = type;
    array.shape = {array.bytes.size() / npy::size_of(type)};
    return array;
}

void write_arguments(JsonWriter& json, const Context& context, const Job& job) {
    if (!context.op) {
        json.key("raw").begin('[');
        for (const KelRtContextArg& arg : context.args)
            json.begin('[').number(arg.type).number(arg.offset).number(arg.value).end();
        json.end();
        return;
    }
    json.key("op").text(context.op->name).key("args").begin('{');
    for (size_t i = 0; i < context.op->arguments.size(); ++i) {
        const KelRtContextArg& arg = context.own()[i];
        json.key(context.op->arguments[i].name);
        char bits[16];
        std::snprintf(bits, sizeof bits, "0x%08X", arg.value);
        if (context.op->arguments[i].type == KEL_RT_ARG_FLT)
            json.begin('{').key("flt").text(bits).end();
        else if (!context.op->arguments[i].is_memory())
            json.number(arg.value);
        else if (arg.value == KEL_RT_NO_MEMORY_ID)
            json.begin('{').key("mem").null().key("offset").number(arg.offset).end();
        else
            json.begin('{')
                .key("mem")
                .text(job.memories[arg.value].name)
                .key("offset")
                .number(arg.offset)
                .end();
    }
    json.end();
}

std::string job_text(const Job& job, const std::string& number, const std::string& label) {
    const Context& context = job.contexts.front();
    JsonWriter json;
    json.begin('{').key("memories").begin('{');
    for (const Memory& memory : job.memories) {
        json.key(memory.name).begin('{').key("npy").text(number + "." + memory.name + ".npy");
        json.key("kind").text(memory.on_cpu ? "cpu" : "accelerator").end();
    }
    json.end();
    if (job.sram)
        json.key("sram")
            .begin('{')
            .key("base")
            .number(job.sram->base)
            .key("npy")
            .text(number + ".sram.npy")
            .end();
    json.key("contexts").begin('[').begin('{');
    if (context.null)
        json.key("null").truth(true);
    else
        write_arguments(json, context, job);
    if (!context.null && context.target != KEL_RT_TARGET_CPU)
        json.key("target").number(context.target);
    if (!context.null && static_cast<size_t>(context.num_args) != context.args.size() && !context.op)
        json.key("num_args").number(static_cast<uint32_t>(context.num_args));
    json.key("label").text(label).end().end();
    json.key("outputs").begin('[');
    for (const uint32_t id : job.outputs)
        json.text(job.memories[id].name);
    json.end().end();
    return json.document();
}

}  // namespace

void dump(const std::string& folder, const std::string& file, const Record& record) {
    const std::string number = std::to_string(record.index);
    try {
        const RecordJob recorded = job_of(record);
        npy::OutputFiles files(folder);
        for (size_t i = 0; i < recorded.job.memories.size(); ++i) {
            npy::Array array = recorded.job.memories[i].initial;
            const npy::Type type = type_of(record, i, array.bytes.size());
            const std::string name = number + "." + recorded.job.memories[i].name;
            files.add(name, typed(array, type));
            for (const Record::Piece& piece : record.pieces) {
                if (piece.memory == i && piece.when == record::kAfter)
                    std::copy(piece.bytes.begin(), piece.bytes.end(),
                              array.bytes.begin() +
                                  static_cast<ptrdiff_t>(piece.range.begin - recorded.left_out[i]));
            }
            files.add(name + ".after", typed(array, type));
        }
        if (recorded.job.sram)
            files.add(number + ".sram", recorded.job.sram->initial);
        const std::string label = "record " + number + " of " + file;
        files.add_file(number + ".json", {job_text(recorded.job, number, label)});
        files.commit();
    } catch (const npy::Error& wrong) {
        throw BadInput(std::string("--dump ") + wrong.what());
    } catch (const BadInput& wrong) {
        throw BadInput("--dump " + file + ": record " + number + ": " + wrong.what());
    }
}

}  // namespace tool
