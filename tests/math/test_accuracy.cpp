// Holds the vector formulas to the figures that docs/accuracy.md shows, by a reference in double precision: a
// constant that is wrong in every backend alike is seen here.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "functions.h"

namespace {

using namespace accuracy;

struct RangeFigures {
    double largest;  // units in the last place
    float at;
};
struct Figures {
    std::map<std::string, RangeFigures> ranges;  // by name, bits of low and high, mirrored
    std::map<std::string, float> limits;
};

std::string name_of(const std::string& function, const Range& range) {
    std::ostringstream text;
    text << function << std::hex << ' ' << std::bit_cast<uint32_t>(range.low) << ' '
         << std::bit_cast<uint32_t>(range.high) << ' ' << range.mirrored;
    return text.str();
}

Figures read_figures() {
    Figures figures;
    std::ifstream file(KELRT_FIGURES);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string kind, name;
        uint32_t low, high, bits;
        bool mirrored;
        double largest;
        words >> kind >> name >> std::hex;
        if (kind == "range" && words >> low >> high >> mirrored >> largest >> bits)
            figures.ranges[name_of(name, {std::bit_cast<float>(low), std::bit_cast<float>(high), mirrored})] =
                {largest, std::bit_cast<float>(bits)};
        else if (kind == "limit" && words >> bits)
            figures.limits[name] = std::bit_cast<float>(bits);
        else
            EXPECT_EQ(line.substr(0, 1), "#") << line;
    }
    return figures;
}

double error(const Function& f, float x, float y) {
    return error_in_units(y, f.exact(static_cast<double>(x)));
}

TEST(Accuracy, IsAsDocumented) {
    const Figures figures = read_figures();
    size_t ranges = 0;
    for (const Function& f : kFunctions)
        for (const Range& range : f.ranges) {
            ++ranges;
            SCOPED_TRACE(name_of(f.name, range));
            const auto found = figures.ranges.find(name_of(f.name, range));
            ASSERT_NE(found, figures.ranges.end());
            const RangeFigures documented = found->second;
            const double slack = 1e-6 * (1 + documented.largest);
            EXPECT_NEAR(error(f, documented.at, one(f.run, documented.at)), documented.largest, slack);

            constexpr int64_t kSamples = 4096;
            for (const float sign : {1.0f, -1.0f}) {
                const int64_t low = key(range.low), high = key(range.high);
                std::vector<float> x(kSamples), y(kSamples), twin(kSamples);
                for (int64_t i = 0; i < kSamples; ++i)
                    x[static_cast<size_t>(i)] = sign * from_key(low + (high - low) * i / (kSamples - 1));
                f.run(x.data(), y.data(), kSamples);
                for (size_t i = 0; i < kSamples; ++i)
                    ASSERT_LE(error(f, x[i], y[i]), documented.largest + slack) << "at " << x[i];
                if (f.twin) {
                    f.twin(x.data(), twin.data(), kSamples);
                    EXPECT_EQ(std::memcmp(twin.data(), y.data(), kSamples * sizeof(float)), 0);
                }
                if (!range.mirrored)
                    break;
            }
        }
    EXPECT_EQ(figures.ranges.size(), ranges) << "figures of ranges that are no more";
}

TEST(Accuracy, LimitsAreAsDocumented) {
    const Figures figures = read_figures();
    for (const Limit& limit : kLimits) {
        SCOPED_TRACE(limit.name);
        int64_t holds = key(limit.from), lost = key(limit.to);
        EXPECT_TRUE(limit.holds(one(limit.run, limit.from)));
        EXPECT_FALSE(limit.holds(one(limit.run, limit.to)));
        while (std::abs(lost - holds) > 1) {
            const int64_t middle = holds + (lost - holds) / 2;
            (limit.holds(one(limit.run, from_key(middle))) ? holds : lost) = middle;
        }
        ASSERT_TRUE(figures.limits.count(limit.name));
        EXPECT_EQ(from_key(holds), figures.limits.at(limit.name));
    }
    EXPECT_EQ(figures.limits.size(), std::size(kLimits));
}

}  // namespace
