// The report goes to standard output, where the library logs, so that the two stay in order; log lines begin
// with their time stamp in brackets.
#include "run.h"

#include <cstdio>
#include <optional>

#include "bad_input.h"
#include "check.h"
#include "endings.h"
#include "machine.h"
#include "output_files.h"
#include "status.h"
#include "times.h"
#include "warnings.h"

namespace tool {
namespace {

constexpr size_t kShownElements = 64;

// Measurements that are kept for the median, 256 MiB of them.
constexpr uint64_t kMaxSamples = uint64_t{1} << 26;

template <typename T>
void print_values(const npy::Array& array, const char* format) {
    for (const T value : array.values<T>())
        std::printf(format, value);
}

void print_array(const std::string& name, const npy::Array& array, bool is_written) {
    std::printf("%s  %s %s", name.c_str(), npy::name_of(array.type), npy::to_string(array.shape).c_str());
    if (array.count() <= kShownElements) {
        std::printf(" =");
        switch (array.type) {
            case npy::Type::f4:
                print_values<float>(array, " %.9g");
                break;
            case npy::Type::i4:
                print_values<int32_t>(array, " %d");
                break;
            case npy::Type::i2:
                print_values<int16_t>(array, " %d");
                break;
            case npy::Type::i1:
                print_values<int8_t>(array, " %d");
                break;
            case npy::Type::u1:
                print_values<uint8_t>(array, " %d");
                break;
        }
    } else if (!is_written) {
        std::printf("  too many to show; --out DIR writes them");
    }
    std::printf("\n");
}

class Run {
  public:
    Run(const Job& job, const RunOptions& options)
        : job_(job), options_(options), machine_(job), times_(job.contexts.size()) {}

    int run() {
        for (uint32_t turn = 1; turn <= options_.repeat; ++turn) {
            machine_.reset();
            double total = 0;
            for (size_t i = 0; i < job_.contexts.size(); ++i) {
                const Machine::Result result = execute(i);
                times_[i].add(result.microseconds);
                total += result.microseconds;
                if (result.status != NNA_STATUS_OK || turn == options_.repeat)
                    print_context(i, result);
                if (result.status != NNA_STATUS_OK) {
                    std::printf("stopped: context %zu failed, no outputs\n", i);
                    return 1;
                }
            }
            total_.add(total);
        }
        print_total();
        bring_out();
        return 0;
    }

  private:
    static void print_times(Times& times) {
        if (times.count() == 1)
            std::printf("%.1f us", times.least());
        else
            std::printf("least %.1f us, median %.1f us of %zu", times.least(), times.median(), times.count());
    }

    Machine::Result execute(size_t index) {
        const Context& context = job_.contexts[index];
        if (context.op)
            refuse_lookups(index, *context.op, context.own());
        const CrashSite site(job_.file, index, context.title);
        return machine_.execute(context);
    }

    // Now that the contexts before it have made the indices.
    void refuse_lookups(size_t index, const Operator& op, std::span<const KelRtContextArg> arguments) {
        check_lookups(
            op, arguments, job_,
            [&](size_t i, const std::string& what) {
                throw BadInput(job_.file + ": contexts[" + std::to_string(index) + "].args[" +
                               std::to_string(i) + "]: " + what);
            },
            [&](const KelRtContextArg& argument) { return machine_.read_float(argument); });
    }

    void print_context(size_t index, const Machine::Result& result) {
        const Context& context = job_.contexts[index];
        std::printf("%3zu  %-36s %s  ", index, context.title.c_str(), status_text(result.status).c_str());
        print_times(times_[index]);
        if (context.op && result.status == NNA_STATUS_OK &&
            chooses_scale(id_of(*context.op), values_of(context.own())))
            std::printf("  scale %u", 1u << result.out_shift);
        std::printf("\n");
    }

    void print_total() {
        std::printf("total  %zu context%s  ", job_.contexts.size(), job_.contexts.size() == 1 ? "" : "s");
        print_times(total_);
        std::printf("  caches carried %llu bytes to the CPU, %llu bytes back\n",
                    static_cast<unsigned long long>(machine_.synced_bytes(1) / options_.repeat),
                    static_cast<unsigned long long>(machine_.synced_bytes(0) / options_.repeat));
    }

    // The files appear last, when nothing can fail any more but their appearance.
    void bring_out() {
        std::optional<npy::OutputFiles> files;
        try {
            if (!options_.out.empty())
                files.emplace(options_.out);
            const auto bring = [&](const std::string& name, const npy::Array& array) {
                print_array(name, array, files.has_value());
                if (files)
                    files->add(name, array);
            };
            for (const uint32_t id : job_.outputs)
                bring(job_.memories[id].name, machine_.read(id));
            if (job_.sram_is_output)
                bring(kSramName, machine_.read_sram());
            finish_report();
            if (files)
                files->commit();
        } catch (const npy::Error& wrong) {
            throw BadInput(std::string("--out ") + wrong.what());
        }
    }

    const Job& job_;
    const RunOptions& options_;
    Machine machine_;
    std::vector<Times> times_;
    Times total_;
};

}  // namespace

int run_job(const Job& job, const RunOptions& options) {
    if ((job.contexts.size() + 1) * uint64_t{options.repeat} > kMaxSamples)
        throw BadInput("--repeat " + std::to_string(options.repeat) + ": that often, " +
                       std::to_string(job.contexts.size()) + " contexts are more than " +
                       std::to_string(kMaxSamples) + " measurements");
    for (const std::string& warning : warnings_of(job))
        std::fprintf(stderr, "kelrt: warning: %s\n", warning.c_str());
    return Run(job, options).run();
}

}  // namespace tool
