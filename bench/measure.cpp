#include "measure.h"

#include <algorithm>
#include <chrono>

namespace bench {
namespace {

constexpr double kBatch = 40e-6;  // long beside a look at the clock, short beside a tick of the scheduler
constexpr double kLong = 1e-3;    // a call that refills the caches by itself
constexpr int kLeastRounds = 6;

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double seconds_of(const Work& work, size_t times) {
    const double start = now();
    work(times);
    return now() - start;
}

// How many calls fill a batch.
size_t batch_of(const Work& work) {
    size_t times = 1;
    for (double seconds; (seconds = seconds_of(work, times)) < kBatch;)
        times = seconds > kBatch / 16 ? static_cast<size_t>(static_cast<double>(times) * kBatch / seconds) + 1
                                      : times * 8;
    return times;
}

}  // namespace

std::vector<double> least_seconds(const std::vector<Work>& candidates, double budget) {
    struct Candidate {
        const Work& work;
        size_t times;
        bool warm_up;
        double least = 1e9;
    };
    std::vector<Candidate> turns;
    for (const Work& work : candidates) {
        const size_t times = batch_of(work);
        turns.push_back({work, times, times > 1 || seconds_of(work, 1) < kLong});
    }
    const double start = now();
    for (int round = 0; round < kLeastRounds || now() - start < budget; ++round)
        for (Candidate& c : turns) {
            if (c.warm_up)
                c.work(1);
            c.least = std::min(c.least, seconds_of(c.work, c.times) / static_cast<double>(c.times));
        }
    std::vector<double> seconds;
    for (const Candidate& c : turns)
        seconds.push_back(c.least);
    return seconds;
}

}  // namespace bench
