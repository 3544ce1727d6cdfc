// Jobs and records alike become a job that is audited; then the findings as text and as JSON.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>

#include "audit.h"
#include "bad_input.h"
#include "endings.h"
#include "json_writer.h"
#include "records.h"
#include "status.h"

namespace tool {
namespace {

// Only a regular file can be looked into and then read from its start. The first record may be damaged, and
// no JSON has the bytes that one begins with.
bool holds_records(const std::string& file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat info {};
    std::vector<uint8_t> front(1 << 16);
    const bool is_regular = fd >= 0 && ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    const ssize_t count = is_regular ? ::read(fd, front.data(), front.size()) : 0;
    if (fd >= 0)
        ::close(fd);
    const auto end = front.begin() + std::max<ssize_t>(count, 0);
    return std::search(front.begin(), end, record::kMagic.begin(), record::kMagic.end()) != end;
}

// The calls of a file in their order, as one job. A memory whose size or kind changes is another memory from
// then on.
class RecordedJob {
  public:
    explicit RecordedJob(const RecordFile& file) : file_(file) {
        job.file = file.path();
        job.is_recorded = true;
        for (const Record& record : file.records())
            add(record);
    }

    std::optional<float> index(size_t context, const KelRtContextArg& argument) const {
        const Record& record = file_.records()[context];
        for (size_t i = kFirstArgument; record.op && i < record.arguments.size(); ++i) {
            const KelRtContextArg& given = job.contexts[context].args[i];
            if (!record.op->at(i).is_memory() || given.value != argument.value ||
                given.offset != argument.offset)
                continue;
            const auto bytes = record.bytes(record.find_memory(record.arguments[i].value), record::kBefore,
                                            {argument.offset, uint64_t{argument.offset} + 4});
            float value;
            if (bytes.size() == sizeof value) {
                std::memcpy(&value, bytes.data(), sizeof value);
                return value;
            }
        }
        return std::nullopt;
    }

    Job job;

  private:
    void add(const Record& record) {
        Context context;
        context.title = record.title();
        context.label = "call " + std::to_string(record.fixed.number);
        context.null = record.fixed.null_context;
        context.target = record.fixed.target;
        context.num_args = record.fixed.num_args;
        context.args = record.arguments;
        for (size_t i = kFirstArgument; record.op && i < context.args.size(); ++i) {
            uint32_t& id = context.args[i].value;
            if (record.op->at(i).is_memory() && id != KEL_RT_NO_MEMORY_ID)
                id = job_id(record.memories[record.find_memory(id)]);
        }
        job.contexts.push_back(std::move(context));
    }

    uint32_t job_id(const record::Memory& memory) {
        const auto key = std::make_tuple(memory.id, memory.kind, memory.size, memory.size_status);
        const auto [known, is_new] = ids_.emplace(key, static_cast<uint32_t>(job.memories.size()));
        if (is_new) {
            Memory added{
                std::to_string(memory.id), memory.kind == record::kCpuBuffer, {npy::Type::u1, {}, {}}};
            added.elsewhere = memory.size;
            added.size_status = memory.size_status;
            job.memories.push_back(std::move(added));
        }
        return known->second;
    }

    const RecordFile& file_;
    std::map<std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>, uint32_t> ids_;
};

size_t show(const Job& job, const std::vector<Finding>& findings, bool errors) {
    size_t count = 0;
    for (const Finding& finding : findings) {
        if (finding.is_error != errors)
            continue;
        ++count;
        const bool whole = finding.context == Finding::kWholeJob;
        const std::string place = whole ? "" : name_of(job.contexts[finding.context], finding.context) + ": ";
        const std::string argument = finding.argument.empty() ? "" : finding.argument + ": ";
        std::printf("%s\n", readable(job.file + ": " + place + (errors ? "error: " : "warning: ") + argument +
                                     finding.what)
                                .c_str());
    }
    return count;
}

void write(const Job& job, const std::vector<Finding>& findings, const std::vector<std::string>& damages,
           const std::string& report) {
    JsonWriter json;
    json.begin('{').key("job").text(job.file).key("contexts").number(job.contexts.size());
    json.key("findings").begin('[');
    for (const Finding& finding : findings) {
        json.begin('{').key("severity").text(finding.is_error ? "error" : "warning");
        json.key("job").text(job.file);
        if (finding.context != Finding::kWholeJob) {
            const Context& context = job.contexts[finding.context];
            json.key("context").number(finding.context).key("op").text(context.title);
            if (!context.label.empty())
                json.key("label").text(context.label);
        }
        if (!finding.argument.empty())
            json.key("argument").text(finding.argument);
        if (finding.status != 0)
            json.key("status").number(finding.status);
        json.key("what").text(finding.what).end();
    }
    json.end().key("damages").begin('[');
    for (const std::string& damage : damages)
        json.text(damage);
    json.end().end();
    write_document("--report", report, json.document());
}

int finish(const Job& job, const std::vector<Finding>& findings, const std::vector<std::string>& damages,
           const std::string& report) {
    const size_t errors = show(job, findings, true), warnings = show(job, findings, false);
    std::printf("%zu error%s, %zu warning%s in %zu context%s\n", errors, errors == 1 ? "" : "s", warnings,
                warnings == 1 ? "" : "s", job.contexts.size(), job.contexts.size() == 1 ? "" : "s");
    for (const std::string& damage : damages)
        std::fprintf(stderr, "kelrt: %s\n", readable(damage).c_str());
    finish_report();
    if (!report.empty())
        write(job, findings, damages, report);
    return !damages.empty() ? 2 : findings.empty() ? 0 : 1;
}

}  // namespace

int check_file(const std::string& file, const std::string& report) {
    if (holds_records(file)) {
        const RecordFile records(file);
        RecordedJob recorded(records);
        const auto findings = audit(recorded.job, [&](size_t context, const KelRtContextArg& argument) {
            return recorded.index(context, argument);
        });
        return finish(recorded.job, findings, records.damages(), report);
    }
    Job job = read_job(file, true);
    const auto findings = audit(job, [&](size_t, const KelRtContextArg& argument) -> std::optional<float> {
        const Memory& memory = job.memories[argument.value];
        float index;
        if (memory.written || memory.initial.bytes.size() < argument.offset + sizeof index)
            return std::nullopt;
        std::memcpy(&index, memory.initial.bytes.data() + argument.offset, sizeof index);
        return index;
    });
    return finish(job, findings, {}, report);
}

}  // namespace tool
