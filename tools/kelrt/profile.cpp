// Bytes touched are those read and those written, as the footprints say; a memory copy counts both likewise.
#include "profile.h"

#include <cstdio>
#include <cstring>
#include <memory>

namespace tool {
namespace {

constexpr size_t kCopied = size_t{16} << 20;  // larger than most caches
constexpr int kCopies = 5;

const char* name_of_row(size_t row) {
    return row < KEL_RT_NUM_OPS ? kOperators[row].name : "(others)";
}

// Bytes per microsecond are megabytes per second; a thousand of them are a gigabyte.
double gigabytes_per_second(uint64_t bytes, double microseconds) {
    return microseconds > 0 ? static_cast<double>(bytes) / microseconds / 1000 : 0;
}

}  // namespace

void Profile::add(const Context& context, size_t index, double microseconds) {
    const Operator* const op = operator_of(context);
    const size_t row = op ? id_of(*op) : kOthers;
    const uint64_t bytes = op ? touched_bytes(*op, values_of(context.own())) : 0;
    rows_[row].times.add(microseconds);
    rows_[row].bytes += bytes;
    if (traced_ && calls_.size() < kMaxCalls) {
        const std::chrono::duration<double, std::micro> end = Clock::now() - start_;
        calls_.push_back({end.count() - microseconds, microseconds, index, row, bytes, context.label});
    }
}

double Profile::total() const {
    double total = 0;
    for (const Row& row : rows_)
        total += row.times.total();
    return total;
}

// The best of some copies, in GB/s.
double Profile::copy_speed() {
    if (copy_speed_ > 0)
        return copy_speed_;
    const auto from = std::make_unique<char[]>(kCopied), to = std::make_unique<char[]>(kCopied);
    for (int i = 0; i < kCopies; ++i) {
        const Clock::time_point start = Clock::now();
        std::memcpy(to.get(), from.get(), kCopied);
        asm volatile("" : : "r"(to.get()) : "memory");  // the copy is wanted for its own sake
        const std::chrono::duration<double, std::micro> time = Clock::now() - start;
        copy_speed_ = std::max(copy_speed_, gigabytes_per_second(2 * kCopied, time.count()));
    }
    return copy_speed_;
}

void Profile::print() {
    std::printf("\n%-36s %8s %11s %9s %9s %9s %9s %9s %10s %8s %7s\n", "operator (times in us)", "calls",
                "total", "mean", "least", "median", "p99", "most", "bytes", "GB/s", "share");
    const double all = total();
    for (size_t i = 0; i < rows_.size(); ++i) {
        auto& [times, bytes] = rows_[i];
        if (times.count() == 0)
            continue;
        std::printf("%-36s %8zu %11.1f %9.2f %9.2f %9.2f %9.2f %9.2f %10llu %8.2f %5.1f %%\n", name_of_row(i),
                    times.count(), times.total(), times.mean(), times.least(), times.median(),
                    times.percentile_99(), times.most(), static_cast<unsigned long long>(bytes),
                    gigabytes_per_second(bytes, times.total()), all > 0 ? 100 * times.total() / all : 0);
    }
    std::printf("a memory copy on this machine, read and written bytes: %.2f GB/s\n", copy_speed());
    if (calls_.size() == kMaxCalls)
        std::printf("the trace has the first %zu calls\n", kMaxCalls);
}

void Profile::write(JsonWriter& json) {
    const double all = total();
    json.key("profile").begin('{').key("memory_copy_gb_per_s").real(copy_speed()).key("operators").begin('[');
    for (size_t i = 0; i < rows_.size(); ++i) {
        auto& [times, bytes] = rows_[i];
        if (times.count() == 0)
            continue;
        json.begin('{').key("op").text(name_of_row(i)).key("calls").number(times.count());
        json.key("total_us").real(times.total()).key("mean_us").real(times.mean());
        json.key("least_us").real(times.least()).key("median_us").real(times.median());
        json.key("p99_us").real(times.percentile_99()).key("most_us").real(times.most());
        json.key("bytes").number(bytes);
        json.key("gb_per_s").real(gigabytes_per_second(bytes, times.total()));
        json.key("share").real(all > 0 ? times.total() / all : 0).end();
    }
    json.end().end();
}

std::string Profile::trace() const {
    JsonWriter json;
    json.begin('{').key("displayTimeUnit").text("ns").key("traceEvents").begin('[');
    for (const Call& call : calls_) {
        json.begin('{').key("name").text(name_of_row(call.row)).key("cat").text("kelRt").key("ph").text("X");
        json.key("ts").real(call.begin).key("dur").real(call.microseconds);
        json.key("pid").number(1).key("tid").number(1).key("args").begin('{');
        json.key("context").number(call.index).key("bytes").number(call.bytes);
        if (!call.label.empty())
            json.key("label").text(call.label);
        json.end().end();
    }
    json.end().end();
    return json.document();
}

void write_results(const Options& options, JsonWriter& report, Profile& profile) {
    if (options.profile)
        profile.write(report);
    report.end();
    if (!options.report.empty())
        write_document("--report", options.report, report.document());
    if (!options.trace.empty())
        write_document("--trace", options.trace, profile.trace());
}

}  // namespace tool
