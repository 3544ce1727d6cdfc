// A record at a time: its job on a machine of its own, what the platform did then done to it, and then the
// results side by side.
#include "replay.h"

#include <algorithm>
#include <cstdio>

#include "bad_input.h"
#include "check.h"
#include "compare.h"
#include "dump.h"
#include "endings.h"
#include "json_writer.h"
#include "machine.h"
#include "profile.h"
#include "progress.h"
#include "record_job.h"
#include "status.h"

namespace tool {
namespace {

// What is shown of them; the report has all.
constexpr size_t kMaxShown = 20;

// A result that is not as recorded.
struct Deviation {
    std::string argument;  // or "status", "out_shift"
    std::string recorded, here;
    std::optional<Difference> difference;  // of tensors

    bool by_maths_alone() const { return difference && difference->by_maths == difference->different; }
};

struct Outcome {
    std::string not_run;  // why; empty: it ran
    std::vector<Deviation> deviations;

    bool by_maths_alone() const {
        return std::all_of(deviations.begin(), deviations.end(),
                           [](const Deviation& deviation) { return deviation.by_maths_alone(); });
    }
};

// The type that a result's elements are compared as.
npy::Type element_type(const Record& record, size_t position, Values values) {
    const Argument& argument = record.op->at(position);
    if (argument.element == Element::Byte)
        return npy::Type::u1;
    if (argument.element == Element::Float)
        return npy::Type::f4;
    if (argument.tensor && argument.tensor(values).type == Tensor::Type::Float)
        return npy::Type::f4;
    if (argument.tensor && argument.tensor(values).type == Tensor::Type::Int8)
        return npy::Type::i1;
    return argument.alignment(values) == 4 ? npy::Type::i4 : npy::Type::u1;
}

class RecordReplay {
  public:
    RecordReplay(const std::string& file, const Record& record)
        : file_(file), record_(record), recorded_(job_of(record)), machine_(recorded_.job) {
        for (const KelRtContextArg& argument : record.arguments)
            values_.push_back(argument.value);
    }

    const Context& context() const { return recorded_.job.contexts.front(); }

    // "" or why running it would touch bytes that nobody recorded, or mean nothing: what comes of operands
    // over each other that must lie apart is not the same everywhere.
    std::string unsafe() {
        std::string why;
        if (!record_.op)
            return why;
        for (size_t i = kFirstArgument; i < record_.arguments.size(); ++i) {
            if (record_.fixed.status == NNA_STATUS_OK && lacks_bytes(i))
                return std::string("the record lacks bytes of ") + record_.op->at(i).name;
        }
        const auto complain = [&](size_t, const std::string& what) { why = what; };
        const auto own = context().own();
        if (!check_extents(*record_.op, own, recorded_.job, complain) ||
            !check_overlaps(*record_.op, own, recorded_.job, complain))
            return why;
        check_lookups(*record_.op, own, recorded_.job, complain, [&](const KelRtContextArg& argument) {
            float index;
            std::memcpy(&index, &recorded_.job.memories[argument.value].initial.bytes[argument.offset], 4);
            return std::optional(index);
        });
        return why;
    }

    Machine::Result run() {
        machine_.reset();
        machine_.show_memories();
        machine_.set_out_shift(record_.fixed.out_shift_before);
        for (const record::Fault& fault : record_.faults)
            machine_.fail_call(fault.call, fault.status);
        const CrashSite site(file_, record_.index, context().title, context().label);
        return machine_.execute(context());
    }

    std::vector<Deviation> deviations(const Machine::Result& result) {
        std::vector<Deviation> all;
        if (result.status != record_.fixed.status)
            all.push_back({"status", status_text(record_.fixed.status), status_text(result.status), {}});
        if (record_.op && result.out_shift != record_.fixed.out_shift_after)
            all.push_back({"out_shift",
                           std::to_string(record_.fixed.out_shift_after),
                           std::to_string(result.out_shift),
                           {}});
        for (size_t i = kFirstArgument; record_.op && i < record_.arguments.size(); ++i) {
            if (!record_.op->at(i).is_memory() || record_.arguments[i].value == KEL_RT_NO_MEMORY_ID)
                continue;
            const Difference difference = compare_argument(i);
            if (difference.different > 0)
                all.push_back({record_.op->at(i).name, difference.recorded, difference.here, difference});
        }
        return all;
    }

  private:
    // Whether a call that went well had bytes that are not here: what it read, or what it left for others.
    bool lacks_bytes(size_t position) const {
        const size_t memory = record_.find_memory(record_.arguments[position].value);
        if (!record_.op->at(position).is_memory() || memory == record_.memories.size())
            return false;
        const auto lacks = [&](record::When when, Range range) {
            return range.length() > 0 && record_.bytes(memory, when, range).empty();
        };
        const auto is_table = [&](const Lookup& lookup) { return lookup.table == position; };
        const bool looked_up = std::any_of(record_.op->lookups.begin(), record_.op->lookups.end(), is_table);
        const record::Memory& row = record_.memories[memory];
        const bool is_left = row.kind == record::kCpuBuffer || row.published;
        return (!looked_up && lacks(record::kBefore, read_bytes(record_, position))) ||
               (is_left && lacks(record::kAfter, written_bytes(record_, position)));
    }

    Difference compare_argument(size_t position) {
        const size_t memory = record_.find_memory(record_.arguments[position].value);
        const Range range = written_bytes(record_, position);
        const auto recorded = record_.bytes(memory, record::kAfter, range);
        if (recorded.empty())
            return {};
        const uint32_t left_out = recorded_.left_out[memory];
        const auto begin = static_cast<size_t>(range.begin - left_out);
        return compare(element_type(record_, position, values_), recorded,
                       std::span<const uint8_t>(contents(memory)).subspan(begin, recorded.size()),
                       record_.op->by_maths, values_);
    }

    // The side of the memory that was recorded: what was published, or what the CPU sees.
    const std::vector<uint8_t>& contents(size_t memory) {
        const auto id = static_cast<uint32_t>(memory);
        contents_ = machine_.read(id).bytes;
        const record::Memory& row = record_.memories[memory];
        if (row.kind == record::kAccelerator && !row.published)
            std::copy_n(machine_.view(id), contents_.size(), contents_.begin());
        return contents_;
    }

    const std::string& file_;
    const Record& record_;
    const RecordJob recorded_;
    Machine machine_;
    std::vector<uint32_t> values_;
    std::vector<uint8_t> contents_;
};

// Per operator.
struct Row {
    size_t records = 0, equal = 0, by_maths = 0, different = 0, not_run = 0;
    double recorded_us = 0, here_us = 0;
};

// A row for each operator, one for contexts that were refused, and one for all.
const char* name_of_row(size_t row) {
    return row < KEL_RT_NUM_OPS ? kOperators[row].name : row == KEL_RT_NUM_OPS ? "(refused)" : "total";
}

class Replay {
  public:
    // With what was wrong with files that could not even be read.
    Replay(const ReplayOptions& options, size_t records, std::vector<std::string> damages)
        : options_(options),
          damages_(std::move(damages)),
          profile_(!options.trace.empty()),
          progress_(records * options.repeat) {
        report_.begin('{').key("records").begin('[');
    }

    void add(const RecordFile& file) {
        for (const Record& record : file.records()) {
            if (is_wanted(record))
                add(file.path(), record);
        }
        damages_.insert(damages_.end(), file.damages().begin(), file.damages().end());
    }

    int finish() {
        progress_.clear();
        for (const std::string& damage : damages_)
            std::fprintf(stderr, "kelrt: %s\n", readable(damage).c_str());
        if (!options_.quiet)
            print_summary();
        if (options_.profile)
            profile_.print();
        finish_report();
        write_reports();
        const Row& all = rows_.back();
        return !damages_.empty() ? 2 : all.equal < all.records ? 1 : 0;
    }

  private:
    bool is_wanted(const Record& record) const {
        if (options_.index && record.index != *options_.index)
            return false;
        return options_.only.empty() || record.op == find_operator(options_.only);
    }

    void add(const std::string& file, const Record& record) {
        Outcome outcome;
        double microseconds = 0;
        try {
            RecordReplay replay(file, record);
            microseconds = run(replay, record, outcome);
        } catch (const BadInput& wrong) {
            outcome.not_run = wrong.what();
        }
        if (!options_.dump.empty())
            dump(options_.dump, file, record);
        count(rows_[record.op ? id_of(*record.op) : KEL_RT_NUM_OPS], record, outcome, microseconds);
        count(rows_.back(), record, outcome, microseconds);
        show(file, record, outcome);
        write(file, record, outcome, microseconds);
    }

    // The time of all turns.
    double run(RecordReplay& replay, const Record& record, Outcome& outcome) {
        double microseconds = 0;
        outcome.not_run = replay.unsafe();
        for (uint32_t turn = 0; turn < options_.repeat && outcome.not_run.empty(); ++turn) {
            const Machine::Result result = replay.run();
            microseconds += result.microseconds;
            if (options_.profile || !options_.trace.empty())
                profile_.add(replay.context(), record.index, result.microseconds);
            if (outcome.deviations.empty())
                outcome.deviations = replay.deviations(result);
            progress_.step();
        }
        return microseconds;
    }

    void count(Row& row, const Record& record, const Outcome& outcome, double microseconds) const {
        ++row.records;
        row.not_run += !outcome.not_run.empty();
        if (!outcome.not_run.empty())
            return;
        ++(outcome.deviations.empty() ? row.equal : outcome.by_maths_alone() ? row.by_maths : row.different);
        row.recorded_us += static_cast<double>(record.fixed.duration_ns) / 1000;
        row.here_us += microseconds / options_.repeat;
    }

    void show(const std::string& file, const Record& record, const Outcome& outcome) {
        if ((outcome.not_run.empty() && outcome.deviations.empty()) || shown_++ >= kMaxShown)
            return;
        progress_.clear();
        const std::string name = readable(file);
        std::printf("%s: record %zu, %s\n", name.c_str(), record.index, record.title().c_str());
        if (!outcome.not_run.empty())
            std::printf("    not run: %s\n", readable(outcome.not_run).c_str());
        for (const Deviation& deviation : outcome.deviations)
            show(deviation);
        std::printf("    again: kelrt replay '%s' --index %zu\n", name.c_str(), record.index);
    }

    static void show(const Deviation& deviation) {
        const char* const argument = deviation.argument.c_str();
        if (!deviation.difference) {
            std::printf("    %s: recorded %s, here %s\n", argument, deviation.recorded.c_str(),
                        deviation.here.c_str());
            return;
        }
        const Difference& d = *deviation.difference;
        const char* const unit = d.is_float ? " ULP" : "";
        const auto number = [](uint64_t value) { return static_cast<unsigned long long>(value); };
        std::printf("    %s: %llu of %llu elements differ; element %llu: recorded %s, here %s, %llu%s apart",
                    argument, number(d.different), number(d.elements), number(d.first), d.recorded.c_str(),
                    d.here.c_str(), number(d.ulps), unit);
        std::printf("; most: %llu%s, element %llu\n", number(d.most_ulps), unit, number(d.worst));
        if (d.by_maths > 0)
            std::printf(
                "    %s: %llu of them where the maths library computes, which rounds as its machine does\n",
                argument, number(d.by_maths));
    }

    void print_summary() const {
        const Row& all = rows_.back();
        if (shown_ > kMaxShown)
            std::printf("%zu more that differ; --report FILE.json has them all\n", shown_ - kMaxShown);
        std::printf("%-36s %8s %8s %8s %8s %8s %12s %12s\n", "operator", "records", "equal", "maths",
                    "differ", "not run", "recorded us", "here us");
        for (size_t i = 0; i < rows_.size(); ++i) {
            const Row& row = rows_[i];
            if (row.records == 0 && i + 1 < rows_.size())
                continue;
            std::printf("%-36s %8zu %8zu %8zu %8zu %8zu %12.1f %12.1f\n", name_of_row(i), row.records,
                        row.equal, row.by_maths, row.different, row.not_run, row.recorded_us, row.here_us);
        }
        if (all.by_maths > 0)
            std::printf(
                "maths: they differ only where the C maths library computes, in the elements beyond the "
                "last block of four\n");
        if (!damages_.empty())
            std::printf("%zu place%s in the files where a record is damaged\n", damages_.size(),
                        damages_.size() == 1 ? "" : "s");
    }

    void write(const std::string& file, const Record& record, const Outcome& outcome, double microseconds) {
        if (options_.report.empty())
            return;
        const record::Fixed& fixed = record.fixed;
        report_.begin('{').key("file").text(file).key("record").number(record.index);
        report_.key("op").text(record.title()).key("status").number(fixed.status);
        report_.key("call").number(fixed.number).key("thread").number(fixed.thread);
        report_.key("start_ns").number(fixed.start_ns);
        report_.key("recorded_us").real(static_cast<double>(fixed.duration_ns) / 1000);
        if (outcome.not_run.empty())
            report_.key("here_us").real(microseconds / options_.repeat);
        else
            report_.key("not_run").text(outcome.not_run);
        report_.key("equal").truth(outcome.not_run.empty() && outcome.deviations.empty());
        report_.key("differences").begin('[');
        for (const Deviation& deviation : outcome.deviations)
            write(deviation);
        report_.end().end();
    }

    void write(const Deviation& deviation) {
        report_.begin('{').key("argument").text(deviation.argument);
        report_.key("recorded").text(deviation.recorded).key("here").text(deviation.here);
        if (const auto& d = deviation.difference) {
            report_.key("elements").number(d->elements).key("different").number(d->different);
            report_.key("first").number(d->first).key(d->is_float ? "ulps" : "distance").number(d->ulps);
            report_.key(d->is_float ? "most_ulps" : "most_distance").number(d->most_ulps);
            report_.key("worst").number(d->worst).key("by_maths").number(d->by_maths);
        }
        report_.end();
    }

    void write_reports() {
        const Row& all = rows_.back();
        report_.end().key("damages").begin('[');
        for (const std::string& damage : damages_)
            report_.text(damage);
        report_.end().key("operators").begin('[');
        for (size_t i = 0; i + 1 < rows_.size(); ++i) {
            if (rows_[i].records == 0)
                continue;
            report_.begin('{').key("op").text(name_of_row(i));
            write(rows_[i]);
            report_.end();
        }
        report_.end().key("total").begin('{');
        write(all);
        report_.end();
        write_results(options_, report_, profile_);
    }

    void write(const Row& row) {
        report_.key("records").number(row.records).key("equal").number(row.equal);
        report_.key("maths").number(row.by_maths).key("different").number(row.different);
        report_.key("not_run").number(row.not_run);
        report_.key("recorded_us").real(row.recorded_us).key("here_us").real(row.here_us);
    }

    const ReplayOptions& options_;
    std::array<Row, KEL_RT_NUM_OPS + 2> rows_;
    std::vector<std::string> damages_;
    size_t shown_ = 0;
    Profile profile_;
    Progress progress_;
    JsonWriter report_;
};

}  // namespace

int replay(const std::vector<std::string>& files, const ReplayOptions& options) {
    if (!options.only.empty() && !find_operator(options.only))
        throw BadInput("--only " + options.only + ": there is no such operator (see kelrt ops)");
    std::vector<std::unique_ptr<RecordFile>> read;
    std::vector<std::string> damages;
    size_t records = 0;
    for (const std::string& file : files) {
        try {
            read.push_back(std::make_unique<RecordFile>(file));
            records += read.back()->records().size();
        } catch (const BadInput& wrong) {
            damages.emplace_back(wrong.what());
        }
    }
    for (const auto& file : read) {
        if (options.index && *options.index >= file->records().size() && file->damages().empty())
            throw BadInput("--index " + std::to_string(*options.index) + ": " + file->path() + " has " +
                           std::to_string(file->records().size()) + " records, numbered from 0");
    }
    const auto may_be_wanted = [&](const auto& file) {
        return !file->damages().empty() ||
               std::any_of(file->records().begin(), file->records().end(),
                           [&](const Record& record) { return record.op == find_operator(options.only); });
    };
    if (!options.only.empty() && damages.empty() && std::none_of(read.begin(), read.end(), may_be_wanted))
        throw BadInput("--only " + options.only + ": no record is of this operator");
    Replay replay(options, records, std::move(damages));
    for (const auto& file : read)
        replay.add(*file);
    return replay.finish();
}

}  // namespace tool
