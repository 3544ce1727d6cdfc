// Measurements of one context, or of all that ran one operator.
#pragma once

#include <algorithm>
#include <numeric>
#include <vector>

namespace tool {

// Microseconds; what is asked of them may reorder them, and asks for one at least.
class Times {
  public:
    void add(double microseconds) { samples_.push_back(static_cast<float>(microseconds)); }

    size_t count() const { return samples_.size(); }
    double total() const { return std::accumulate(samples_.begin(), samples_.end(), 0.0); }
    double mean() const { return total() / static_cast<double>(count()); }
    double least() const { return *std::min_element(samples_.begin(), samples_.end()); }
    double most() const { return *std::max_element(samples_.begin(), samples_.end()); }
    double median() {
        const auto middle = samples_.begin() + static_cast<ptrdiff_t>(count() / 2);
        std::nth_element(samples_.begin(), middle, samples_.end());
        const double below = count() % 2 ? *middle : *std::max_element(samples_.begin(), middle);
        return (below + *middle) / 2;
    }
    // The least time that 99 of 100 calls did not exceed.
    double percentile_99() {
        const auto rank = samples_.begin() + static_cast<ptrdiff_t>((count() * 99 + 99) / 100 - 1);
        std::nth_element(samples_.begin(), rank, samples_.end());
        return *rank;
    }

  private:
    std::vector<float> samples_;
};

}  // namespace tool
