// Sums in the order that decides their bits: four lane accumulators over whole blocks, these in lane order,
// then a tail in ascending order.
#pragma once

#include "math/lanes.h"

namespace kelrt {
namespace {

// Four accumulators, from zero. What adds belongs into a vector part, or where all is normal.
class LaneSums {
  public:
    void add_blocks(const float* x, size_t count) {
        lanes::Floats sums = sums_;  // in a register for the loop, whoever else can see this
        for (size_t i = 0; i < count; i += 4)
            sums = add(sums, lanes::Floats::load(x + i));
        sums_ = sums;
    }
    // Adds up the squares of the distances from `mean`.
    void add_squares(const float* x, float mean, size_t count) {
        lanes::Floats sums = sums_;
        for (size_t i = 0; i < count; i += 4) {
            const lanes::Floats d = sub(lanes::Floats::load(x + i), lanes::Floats::splat(mean));
            sums = mul_add(sums, d, d);
        }
        sums_ = sums;
    }
    // Leaves them where scalar code finds them; the last step of a vector part.
    void finish() { store(finished_, sums_); }
    // Scalar work: nothing is flushed.
    float total() const { return (((0.0f + finished_[0]) + finished_[1]) + finished_[2]) + finished_[3]; }

  private:
    lanes::Floats sums_ = lanes::Floats::splat(0.0f);
    float finished_[4] = {};
};

}  // namespace
}  // namespace kelrt
