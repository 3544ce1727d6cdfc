// Measurements of one context.
#pragma once

#include <algorithm>
#include <vector>

namespace tool {

// Microseconds; what is asked of them may reorder them, and asks for one at least.
class Times {
  public:
    void add(double microseconds) { samples_.push_back(static_cast<float>(microseconds)); }

    size_t count() const { return samples_.size(); }
    double least() const { return *std::min_element(samples_.begin(), samples_.end()); }
    double median() {
        const auto middle = samples_.begin() + static_cast<ptrdiff_t>(count() / 2);
        std::nth_element(samples_.begin(), middle, samples_.end());
        const double below = count() % 2 ? *middle : *std::max_element(samples_.begin(), middle);
        return (below + *middle) / 2;
    }

  private:
    std::vector<float> samples_;
};

}  // namespace tool
