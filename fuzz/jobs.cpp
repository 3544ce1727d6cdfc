// Job files: what is refused is refused by one sentence that begins with the file; what is accepted is within
// its limits, is the same job when it is written out and read again, and runs.
#include "job.h"

#include <algorithm>

#include "audit.h"
#include "bad_input.h"
#include "fuzz.h"
#include "json_writer.h"
#include "run.h"

namespace {

using fuzz::must;

// Of what is written out again and run.
constexpr uint64_t kMaxJobBytes = 1 << 16, kMaxWork = 1 << 20;

std::optional<tool::Job> read(const std::string& file, bool unchecked) {
    try {
        return tool::read_job(file, unchecked);
    } catch (const tool::BadInput& refusal) {
        const std::string why = refusal.what();
        must(why.starts_with(file + ": ") && why.size() > file.size() + 2, "a refusal names the file");
        must(why == tool::readable(why), "a refusal is one line");
        return std::nullopt;
    }
}

// ---- a job as a file, every value as its bits ----

std::string bits_of(const uint8_t* at, size_t size) {
    char text[16];
    uint32_t bits = 0;
    for (size_t i = size; i-- > 0;)
        bits = bits << 8 | at[i];
    std::snprintf(text, sizeof text, "0x%X", bits);
    return text;
}

void write_array(tool::JsonWriter& json, const npy::Array& array) {
    json.key("dtype").text(npy::name_of(array.type)).key("shape").begin('[');
    for (const size_t dimension : array.shape)
        json.number(dimension);
    json.end().key("values").begin('[');
    const size_t size = npy::size_of(array.type);
    for (size_t at = 0; at < array.bytes.size(); at += size)
        json.text(bits_of(&array.bytes[at], size));
    json.end();
}

void write_argument(tool::JsonWriter& json, const KelRtContextArg& arg, const tool::Job& job) {
    if (arg.type == KEL_RT_ARG_VAL) {
        json.number(arg.value);
        return;
    }
    json.begin('{');
    if (arg.type == KEL_RT_ARG_FLT)
        json.key("flt").text(bits_of(reinterpret_cast<const uint8_t*>(&arg.value), sizeof arg.value));
    else if (arg.value == KEL_RT_NO_MEMORY_ID)
        json.key("mem").null().key("offset").number(arg.offset);
    else
        json.key("mem").text(job.memories[arg.value].name).key("offset").number(arg.offset);
    json.end();
}

void write_context(tool::JsonWriter& json, const tool::Context& context, const tool::Job& job,
                   bool unchecked) {
    json.begin('{');
    if (context.null) {
        json.key("null").truth(true);
    } else if (unchecked) {
        json.key("raw").begin('[');
        for (const KelRtContextArg& arg : context.args)
            json.begin('[').number(arg.type).number(arg.offset).number(arg.value).end();
        json.end().key("target").number(context.target);
        json.key("num_args").number(static_cast<uint32_t>(context.num_args));
    } else {
        json.key("op").text(context.op->name).key("args").begin('[');
        for (const KelRtContextArg& arg : context.own())
            write_argument(json, arg, job);
        json.end();
    }
    if (!context.label.empty())
        json.key("label").text(context.label);
    json.end();
}

std::string write(const tool::Job& job, bool unchecked) {
    tool::JsonWriter json;
    json.begin('{').key("memories").begin('{');
    for (const tool::Memory& memory : job.memories) {
        json.key(memory.name).begin('{').key("kind").text(memory.on_cpu ? "cpu" : "accelerator");
        write_array(json, memory.initial);
        json.end();
    }
    json.end();
    if (job.sram) {
        json.key("sram").begin('{').key("base").number(job.sram->base);
        write_array(json, job.sram->initial);
        json.end();
    }
    json.key("contexts").begin('[');
    for (const tool::Context& context : job.contexts)
        write_context(json, context, job, unchecked);
    json.end().key("outputs").begin('[');
    for (const uint32_t id : job.outputs)
        json.text(job.memories[id].name);
    if (job.sram_is_output)
        json.text(tool::kSramName);
    json.end().end();
    return json.document();
}

// ---- what must hold ----

bool same(const npy::Array& a, const npy::Array& b) {
    return a.type == b.type && a.shape == b.shape && a.bytes == b.bytes;
}

bool same(const tool::Context& a, const tool::Context& b) {
    const auto same_argument = [](const KelRtContextArg& x, const KelRtContextArg& y) {
        return x.type == y.type && x.offset == y.offset && x.value == y.value;
    };
    return a.null == b.null && a.label == b.label && a.op == b.op && a.target == b.target &&
           a.num_args == b.num_args &&
           std::equal(a.args.begin(), a.args.end(), b.args.begin(), b.args.end(), same_argument);
}

bool same(const tool::Job& a, const tool::Job& b) {
    const auto same_memory = [](const tool::Memory& x, const tool::Memory& y) {
        return x.name == y.name && x.on_cpu == y.on_cpu && same(x.initial, y.initial);
    };
    return a.bytes == b.bytes && a.outputs == b.outputs && a.sram_is_output == b.sram_is_output &&
           std::equal(a.memories.begin(), a.memories.end(), b.memories.begin(), b.memories.end(),
                      same_memory) &&
           a.sram.has_value() == b.sram.has_value() &&
           (!a.sram || (a.sram->base == b.sram->base && same(a.sram->initial, b.sram->initial))) &&
           std::equal(a.contexts.begin(), a.contexts.end(), b.contexts.begin(), b.contexts.end(),
                      [](const tool::Context& x, const tool::Context& y) { return same(x, y); });
}

void check(const tool::Job& job, bool unchecked) {
    uint64_t bytes = job.sram ? job.sram->initial.bytes.size() : 0;
    for (const tool::Memory& memory : job.memories) {
        must(memory.initial.bytes.size() == npy::byte_size(memory.initial.type, memory.initial.shape),
             "a memory has the bytes of its shape");
        bytes += memory.initial.bytes.size();
    }
    must(bytes == job.bytes && bytes <= tool::kMaxBytes, "a job is within the machine's capacity");
    must(job.memory_ids.size() == job.memories.size(), "each memory has a name of its own");
    for (const uint32_t id : job.outputs)
        must(id < job.memories.size(), "an output is a memory");
    for (const tool::Context& context : job.contexts) {
        must(unchecked || (context.op && tool::operator_of(context) == context.op),
             "a checked context is one that the library runs");
    }
}

// Matrices cost more than their bytes.
bool is_quick(const tool::Job& job) {
    uint64_t work = 0;
    for (const tool::Context& context : job.contexts)
        work += tool::touched_bytes(*context.op, tool::values_of(context.own()));
    return work <= kMaxWork && job.contexts.size() < 100;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const fuzz::Folder folder;
    fuzz::quiet(4);
    const std::string file = folder.write("job.json", {data, size});
    const auto checked = read(file, false);
    for (const bool unchecked : {false, true}) {
        auto job = unchecked ? read(file, true) : checked;
        must(job || !unchecked || !checked, "what is accepted with checks is accepted without");
        if (!job)
            continue;
        check(*job, unchecked);
        if (job->bytes > kMaxJobBytes)
            continue;
        const std::string text = write(*job, unchecked);
        const auto again =
            read(folder.write("again.json", {reinterpret_cast<const uint8_t*>(text.data()), text.size()}),
                 unchecked);
        must(again && same(*job, *again), "a job that is written out is the same when it is read");
        tool::audit(*job, [](size_t, const KelRtContextArg&) { return std::nullopt; });
    }
    if (checked && checked->bytes <= kMaxJobBytes && is_quick(*checked)) {
        tool::Options options;
        options.quiet = true;
        try {
            must(tool::run_job(*checked, options) <= 1, "a job that is accepted runs");
        } catch (const tool::BadInput&) {
            // A row that only an earlier context's result has named is not there.
        }
    }
    return 0;
}
