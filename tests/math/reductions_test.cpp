// Sum, variance and least and largest element by their definitions: four columns in order, then the tail, and
// only the columns by the rules of lanes.
#include <gtest/gtest.h>

#include <algorithm>

#include "kelRt.h"
#include "support/floats.h"
#include "support/guarded.h"
#include "support/mode.h"

namespace {

using floats::Floats;
using guarded::Wall;
namespace lane = floats::lane;

constexpr float kMean = 0.3f;

struct Results {
    float sum, variance, least, most;
    Floats all() const { return {sum, variance, least, most}; }
};

float smaller(float a, float b) {
    a = static_cast<float>(lane::operand(a)), b = static_cast<float>(lane::operand(b));
    if (std::isnan(a) || std::isnan(b))
        return NAN;
    return a < b || (a == b && std::signbit(a)) ? a : b;
}

// By columns in lanes, and the rest in the mode given.
Results by_definition(const Floats& x, uint32_t n, mode::Word callers) {
    const uint32_t whole = n / 4 * 4;
    float sums[4] = {}, squares[4] = {}, low[4], high[4];
    for (uint32_t i = 0; i < std::max(whole, 4u); ++i) {  // four elements are looked at in any case
        float &l = low[i % 4], &h = high[i % 4];
        l = i < 4 ? x[i] : smaller(l, x[i]);
        h = i < 4 ? x[i] : -smaller(-h, -x[i]);
        if (i >= whole)
            continue;
        const float d = lane::sub(x[i], kMean);
        sums[i % 4] = lane::add(sums[i % 4], x[i]);
        squares[i % 4] = lane::add(squares[i % 4], lane::mul(d, d));
    }
    Results r{0, 0, x[0], x[0]};
    mode::kept_in(callers, [&] {
        for (uint32_t j = 0; j < 4; ++j) {
            r.sum += sums[j];
            r.variance += squares[j];
            r.least = low[j] < r.least ? low[j] : r.least;
            r.most = high[j] > r.most ? high[j] : r.most;
        }
        for (uint32_t i = whole; i < n; ++i) {
            const float d = x[i] - kMean;
            r.sum += x[i];
            r.variance = static_cast<float>(static_cast<double>(r.variance) + double{d} * double{d});
            r.most = x[i] > r.most ? x[i] : r.most;
            r.least = x[i] < r.least ? x[i] : r.least;
        }
        r.variance /= static_cast<float>(n);
    });
    return r;
}

void expect_results(const Floats& x, uint32_t n, Wall wall = Wall::After,
                    mode::Word callers = mode::kScalar[0]) {
    guarded::Bytes in(4 * x.size(), wall, n % 4), out(16, wall, n % 4);
    std::memcpy(in.data(), x.data(), 4 * x.size());
    float* const y = out.floats();
    EXPECT_TRUE(mode::kept_in(callers, [&] {
        kelRt_sumf(in.floats(), y, n);
        kelRt_variancef(in.floats(), kMean, y + 1, n);
        kelRt_minMaxf(in.floats(), y + 2, y + 3, n);
    }));
    Floats found(4);
    std::memcpy(found.data(), y, 16);
    const Floats expected = by_definition(x, n, callers).all();
    const size_t at = floats::differ_at(found, expected);
    ASSERT_EQ(at, 4u) << "result " << at << " of " << n << " elements is " << found[at] << ", not "
                      << expected[at];
    EXPECT_TRUE(in.intact() && out.intact());
}

TEST(Reductions, EverySmallSizeOfEverySortOfFloat) {
    for (uint32_t n = 0; n <= 40; ++n) {
        for (uint32_t seed = 0; seed < 40; ++seed) {
            const size_t size = std::max(n, 4u);  // that many are read
            const Wall wall = seed % 2 ? Wall::After : Wall::Before;
            expect_results(floats::wild(size, 41 * seed + n), n, wall);
            expect_results(floats::plain(size, seed), n, wall);
            if (HasFatalFailure())
                return;
        }
    }
}

TEST(Reductions, SpecialElementsAmongOrdinaryOnes) {
    floats::Random random(1);
    for (const uint32_t n : {48u, 64u, 65u, 127u, 128u, 131u, 255u, 256u, 258u, 515u}) {
        Floats x = floats::plain(n, n);
        for (uint32_t i = 0; i < n; ++i) {
            const float kept = x[i];
            x[i] = floats::from_bits(floats::special(random()));
            expect_results(x, n, Wall::After, mode::kScalar[i % std::size(mode::kScalar)]);
            x[i] = kept * 0x1p-20f;  // two orders of summing would differ
            if (HasFatalFailure())
                return;
        }
    }
}

TEST(Reductions, ExtremesTrapNothing) {
    Floats x = floats::plain(512, 1);
    x[100] = 0x1p-140f;
    Floats found(2);
    EXPECT_TRUE(mode::kept_in(mode::kTraps, [&] { kelRt_minMaxf(x.data(), &found[0], &found[1], 512); }));
    EXPECT_EQ(found, Floats({*std::min_element(x.begin(), x.end()), *std::max_element(x.begin(), x.end())}));
}

TEST(Reductions, OfTinyNumbersFlushOnlyInLanes) {
    const float tiny = 0x1p-140f;
    expect_results({tiny, 0x1p-126f, -0x1.8p-126f, 0}, 4);  // adding up the lanes does not flush
    expect_results({tiny, tiny, tiny, tiny}, 4);            // one block's least is taken as it is
    expect_results({1, 1, 1, 1, tiny, 1, 1, 1}, 8);
    expect_results({1, 1, 1, 1, tiny}, 5);
    expect_results({1, -0.0f, 1, 1, 1, 0.0f, 1, 1}, 8);
}

}  // namespace
