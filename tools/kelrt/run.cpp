// The report goes to standard output, where the library logs, so that the two stay in order; log lines begin
// with their time stamp in brackets.
#include "run.h"

#include <algorithm>
#include <cstdio>
#include <optional>

#include "bad_input.h"
#include "check.h"
#include "endings.h"
#include "json_writer.h"
#include "machine.h"
#include "output_files.h"
#include "profile.h"
#include "progress.h"
#include "status.h"
#include "times.h"
#include "warnings.h"

namespace tool {
namespace {

constexpr size_t kShownElements = 64;

// Measurements that are kept for the median, 256 MiB of them.
constexpr uint64_t kMaxSamples = uint64_t{1} << 26;

// Calls action(element) for each, in the type that it has.
template <typename Action>
void each_value(const npy::Array& array, Action action) {
    const auto each = [&](auto values) { std::for_each(values.begin(), values.end(), action); };
    switch (array.type) {
        case npy::Type::f4:
            return each(array.values<float>());
        case npy::Type::i4:
            return each(array.values<int32_t>());
        case npy::Type::i2:
            return each(array.values<int16_t>());
        case npy::Type::i1:
            return each(array.values<int8_t>());
        case npy::Type::u1:
            return each(array.values<uint8_t>());
    }
}

void print_array(const std::string& name, const npy::Array& array, bool is_written) {
    std::printf("%s  %s %s", readable(name).c_str(), npy::name_of(array.type),
                npy::to_string(array.shape).c_str());
    if (array.count() <= kShownElements) {
        std::printf(" =");
        each_value(array, [](auto value) { std::printf(" %.9g", static_cast<double>(value)); });
    } else if (!is_written) {
        std::printf("  too many to show; --out DIR writes them");
    }
    std::printf("\n");
}

void write_array(JsonWriter& json, const std::string& name, const npy::Array& array) {
    json.begin('{').key("memory").text(name).key("dtype").text(npy::name_of(array.type));
    json.key("shape").begin('[');
    for (const size_t dimension : array.shape)
        json.number(dimension);
    json.end();
    if (array.count() <= kShownElements) {
        json.key("values").begin('[');
        each_value(array, [&](auto value) { json.real(static_cast<double>(value)); });
        json.end();
    }
    json.end();
}

// Times as text and as members of an object.
void print_times(Times& times) {
    if (times.count() == 1)
        std::printf("%.1f us", times.least());
    else
        std::printf("least %.1f us, median %.1f us of %zu", times.least(), times.median(), times.count());
}

void write_times(JsonWriter& json, Times& times) {
    json.key("least_us").real(times.least()).key("median_us").real(times.median());
}

class Run {
  public:
    Run(const Job& job, const Options& options)
        : job_(job),
          options_(options),
          machine_(job),
          times_(job.contexts.size()),
          profile_(!options.trace.empty()),
          progress_(job.contexts.size() * options.repeat) {
        report_.begin('{').key("job").text(job.file).key("warnings").begin('[');
        for (const Finding& warning : warnings_of(job))
            show_warning(warning);
        report_.end().key("contexts").begin('[');
    }

    int run() {
        for (uint32_t turn = 1; turn <= options_.repeat; ++turn) {
            machine_.reset();
            double total = 0;
            for (size_t i = 0; i < job_.contexts.size(); ++i) {
                const Machine::Result result = execute(i);
                total += result.microseconds;
                const bool failed = result.status != NNA_STATUS_OK;
                if (failed || turn == options_.repeat)
                    show_context(i, result);
                if (failed) {
                    std::printf("stopped: %s failed, no outputs\n", name_of(job_.contexts[i], i).c_str());
                    finish();
                    return 1;
                }
            }
            total_.add(total);
        }
        progress_.clear();
        show_total();
        bring_out();
        return 0;
    }

  private:
    void show_warning(const Finding& warning) {
        const std::string context = name_of(job_.contexts[warning.context], warning.context);
        std::fprintf(stderr, "kelrt: warning: %s\n", readable(context + ": " + warning.what).c_str());
        report_.begin('{').key("context").number(warning.context).key("argument").text(warning.argument);
        report_.key("what").text(warning.what).end();
    }

    Machine::Result execute(size_t index) {
        const Context& context = job_.contexts[index];
        if (context.op)
            refuse_lookups(index, *context.op, context.own());
        const CrashSite site(job_.file, index, context.title, context.label);
        const Machine::Result result = machine_.execute(context);
        times_[index].add(result.microseconds);
        if (options_.profile || !options_.trace.empty())
            profile_.add(context, index, result.microseconds);
        progress_.step();
        return result;
    }

    // Now that the contexts before it have made the indices.
    void refuse_lookups(size_t index, const Operator& op, std::span<const KelRtContextArg> arguments) {
        if (op.lookups.empty())
            return;
        check_lookups(
            op, arguments, job_,
            [&](size_t i, const std::string& what) {
                const Context& context = job_.contexts[index];
                const std::string label = context.label.empty() ? "" : " (" + context.label + ")",
                                  argument = context.by_name ? std::string(".") + op.arguments[i].name
                                                             : "[" + std::to_string(i) + "]";
                throw BadInput(job_.file + ": contexts[" + std::to_string(index) + "]" + label + ".args" +
                               argument + ": " + what);
            },
            [&](const KelRtContextArg& argument) { return machine_.read_float(argument); });
    }

    // The scale that the operator has chosen; 0 if it was not asked to.
    static uint32_t chosen_scale(const Context& context, const Machine::Result& result) {
        const bool chosen = context.op && result.status == NNA_STATUS_OK &&
                            chooses_scale(id_of(*context.op), values_of(context.own()));
        return chosen ? 1u << result.out_shift : 0;
    }

    void show_context(size_t index, const Machine::Result& result) {
        const Context& context = job_.contexts[index];
        const uint32_t scale = chosen_scale(context, result);
        if (!options_.quiet || result.status != NNA_STATUS_OK) {
            progress_.clear();
            std::printf("%3zu  %-36s %s  ", index, context.title.c_str(), status_text(result.status).c_str());
            print_times(times_[index]);
            if (scale)
                std::printf("  scale %u", scale);
            if (!context.label.empty())
                std::printf("  (%s)", readable(context.label).c_str());
            std::printf("\n");
        }
        if (options_.report.empty())
            return;
        report_.begin('{').key("context").number(index).key("op").text(context.title);
        if (!context.label.empty())
            report_.key("label").text(context.label);
        report_.key("status").number(result.status);
        write_times(report_, times_[index]);
        if (scale)
            report_.key("scale").number(scale);
        report_.end();
    }

    void show_total() {
        const uint64_t to_cpu = machine_.synced_bytes(1) / options_.repeat,
                       back = machine_.synced_bytes(0) / options_.repeat;
        if (!options_.quiet) {
            std::printf("total  %zu context%s  ", job_.contexts.size(), job_.contexts.size() == 1 ? "" : "s");
            print_times(total_);
            std::printf("  caches carried %llu bytes to the CPU, %llu bytes back\n",
                        static_cast<unsigned long long>(to_cpu), static_cast<unsigned long long>(back));
        }
        report_.end().key("total").begin('{');
        write_times(report_, total_);
        report_.key("bytes_to_cpu").number(to_cpu).key("bytes_back").number(back).end();
        report_.key("outputs").begin('[');
    }

    // The files appear last, when nothing can fail any more but their appearance.
    void bring_out() {
        std::optional<npy::OutputFiles> files;
        try {
            if (!options_.out.empty())
                files.emplace(options_.out);
            const auto bring = [&](const std::string& name, const npy::Array& array) {
                if (!options_.quiet)
                    print_array(name, array, files.has_value());
                write_array(report_, name, array);
                if (files)
                    files->add(file_name_of(name), array);
            };
            for (const uint32_t id : job_.outputs)
                bring(job_.memories[id].name, machine_.read(id));
            if (job_.sram_is_output)
                bring(kSramName, machine_.read_sram());
            if (options_.profile)
                profile_.print();
            finish_report();
            if (files)
                files->commit();
        } catch (const npy::Error& wrong) {
            throw BadInput(std::string("--out ") + wrong.what());
        }
        files.reset();
        finish();
    }

    // Closes the report inside whatever list it is in.
    void finish() {
        report_.end();
        write_results(options_, report_, profile_);
    }

    const Job& job_;
    const Options& options_;
    Machine machine_;
    std::vector<Times> times_;
    Times total_;
    Profile profile_;
    Progress progress_;
    JsonWriter report_;
};

}  // namespace

int run_job(const Job& job, const Options& options) {
    if ((job.contexts.size() + 1) * uint64_t{options.repeat} > kMaxSamples)
        throw BadInput("--repeat " + std::to_string(options.repeat) + ": that often, " +
                       std::to_string(job.contexts.size()) + " contexts are more than " +
                       std::to_string(kMaxSamples) + " measurements");
    return Run(job, options).run();
}

}  // namespace tool
