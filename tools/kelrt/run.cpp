// The report goes to standard output, where the library logs, so that the two stay in order; log lines begin
// with their time stamp in brackets.
#include "run.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "bad_input.h"
#include "machine.h"
#include "status.h"
#include "warnings.h"

namespace tool {
namespace {

constexpr size_t kShownElements = 64;

struct Output {
    std::string name;
    npy::Array array;
};

template <typename T>
void print_values(const npy::Array& array, const char* format) {
    for (const T value : array.values<T>())
        std::printf(format, value);
}

void print_output(const Output& output) {
    const npy::Array& array = output.array;
    std::printf("%s  %s %s", output.name.c_str(), npy::name_of(array.type),
                npy::to_string(array.shape).c_str());
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
    }
    std::printf("\n");
}

// All files are whole before the first one appears.
void write_outputs(const std::vector<Output>& outputs, const std::string& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error)
        throw BadInput("--out " + folder + ": cannot make the folder (" + error.message() + ")");
    std::vector<npy::StagedFile> files;
    try {
        for (const Output& output : outputs)
            files.emplace_back((std::filesystem::path(folder) / (output.name + ".npy")).string(),
                               npy::format(output.array));
        for (npy::StagedFile& file : files)
            file.commit();
    } catch (const npy::Error& wrong) {
        throw BadInput(std::string("--out ") + wrong.what());
    }
}

// Sorted samples of one context, in microseconds.
struct Times {
    std::vector<double> samples;

    void add(double microseconds) {
        samples.insert(std::upper_bound(samples.begin(), samples.end(), microseconds), microseconds);
    }
    double least() const { return samples.front(); }
    double median() const {
        const size_t half = samples.size() / 2;
        return samples.size() % 2 ? samples[half] : (samples[half - 1] + samples[half]) / 2;
    }
};

class Run {
  public:
    Run(const Job& job, const RunOptions& options)
        : job_(job), options_(options), machine_(job), times_(job.contexts.size()) {}

    int run() {
        for (uint32_t turn = 1; turn <= options_.repeat; ++turn) {
            machine_.reset();
            double total = 0;
            for (size_t i = 0; i < job_.contexts.size(); ++i) {
                const auto [status, microseconds] = machine_.execute(job_.contexts[i]);
                times_[i].add(microseconds);
                total += microseconds;
                if (status != NNA_STATUS_OK || turn == options_.repeat)
                    print_context(i, status);
                if (status != NNA_STATUS_OK) {
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
    void print_times(const Times& times) const {
        if (options_.repeat == 1)
            std::printf("%.1f us", times.least());
        else
            std::printf("least %.1f us, median %.1f us of %zu", times.least(), times.median(),
                        times.samples.size());
    }

    void print_context(size_t index, uint32_t status) const {
        std::printf("%3zu  %-36s %s  ", index, job_.contexts[index].title.c_str(),
                    status_text(status).c_str());
        print_times(times_[index]);
        std::printf("\n");
    }

    void print_total() const {
        std::printf("total  %zu context%s  ", job_.contexts.size(), job_.contexts.size() == 1 ? "" : "s");
        print_times(total_);
        std::printf("  caches carried %llu bytes to the CPU, %llu bytes back\n",
                    static_cast<unsigned long long>(machine_.synced_bytes(1) / options_.repeat),
                    static_cast<unsigned long long>(machine_.synced_bytes(0) / options_.repeat));
    }

    void bring_out() {
        std::vector<Output> outputs;
        for (const uint32_t id : job_.outputs)
            outputs.push_back({job_.memories[id].name, machine_.read(id)});
        if (job_.sram_is_output)
            outputs.push_back({kSramName, machine_.read_sram()});
        if (!options_.out.empty())
            write_outputs(outputs, options_.out);
        for (const Output& output : outputs)
            print_output(output);
    }

    const Job& job_;
    const RunOptions& options_;
    Machine machine_;
    std::vector<Times> times_;
    Times total_;
};

}  // namespace

int run_job(const Job& job, const RunOptions& options) {
    for (const std::string& warning : warnings_of(job))
        std::fprintf(stderr, "kelrt: warning: %s\n", warning.c_str());
    return Run(job, options).run();
}

}  // namespace tool
