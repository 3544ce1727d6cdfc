// im2col against a byte-by-byte reference, between pages that nobody may touch.
#include <gtest/gtest.h>

#include <random>

#include "support/guarded.h"
#include "support/probe.h"
#include "support/rig.h"

namespace {

using guarded::Wall;
using rig::mem;
using rig::val;
using Bytes = std::vector<uint8_t>;

struct Geometry {
    uint32_t rows, cols, channels, kernel_height, kernel_width, row_stride, col_stride;

    uint32_t out_height() const { return (rows - kernel_height) / row_stride + 1; }
    uint32_t out_width() const { return (cols - kernel_width) / col_stride + 1; }
    uint32_t input_bytes() const { return rows * cols * channels; }
    uint32_t patch_bytes() const { return (kernel_height * kernel_width * channels + 7) / 8 * 8; }
    uint32_t output_bytes() const { return out_height() * out_width() * patch_bytes(); }
};

std::ostream& operator<<(std::ostream& out, const Geometry& g) {
    return out << "rows " << g.rows << " cols " << g.cols << " channels " << g.channels << " kernel "
               << g.kernel_height << " x " << g.kernel_width << " strides " << g.row_stride << " "
               << g.col_stride;
}

uint32_t im2col(const Geometry& g, const uint8_t* input, uint8_t* output) {
    return kelRt_im2col(input, output, g.rows, g.cols, g.channels, g.kernel_height, g.kernel_width, 1,
                        g.row_stride, g.col_stride);
}

// One byte at a time, wherever input and output lie.
void reference(const Geometry& g, const uint8_t* input, uint8_t* output) {
    for (uint32_t oy = 0; oy < g.out_height(); ++oy) {
        for (uint32_t ox = 0; ox < g.out_width(); ++ox) {
            uint8_t* patch = output + (oy * g.out_width() + ox) * g.patch_bytes();
            uint8_t* at = patch;
            for (uint32_t ky = 0; ky < g.kernel_height; ++ky)
                for (uint32_t kx = 0; kx < g.kernel_width; ++kx)
                    for (uint32_t channel = 0; channel < g.channels; ++channel) {
                        const uint32_t row = oy * g.row_stride + ky, col = ox * g.col_stride + kx;
                        *at++ = input[(row * g.cols + col) * g.channels + channel];
                    }
            while (at < patch + g.patch_bytes())
                *at++ = 0;
        }
    }
}

Bytes random_bytes(size_t n, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes bytes(n);
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(random() | 1);  // never 0, which is what padding is
    return bytes;
}

void expect_matches(const Geometry& g, uint32_t seed) {
    SCOPED_TRACE(testing::Message() << g << " seed " << seed);
    const Bytes input = random_bytes(g.input_bytes(), seed);
    Bytes expected(g.output_bytes());
    reference(g, input.data(), expected.data());
    for (Wall wall : {Wall::Before, Wall::After}) {
        guarded::Bytes in(input, wall), out(expected.size(), wall);
        ASSERT_EQ(im2col(g, in.data(), out.data()), NNA_STATUS_OK);
        ASSERT_EQ(out.copy(), expected);
        ASSERT_EQ(in.copy(), input);
    }
}

TEST(Im2col, EqualsTheReferenceWithoutTouchingABytePastEitherEnd) {
    std::mt19937 random(20);
    const auto one_to = [&](uint32_t most) {
        return std::uniform_int_distribution<uint32_t>(1, most)(random);
    };
    for (uint32_t seed = 0; seed < 1500; ++seed) {
        Geometry g{};
        g.kernel_height = one_to(5);
        g.kernel_width = one_to(5);
        g.rows = g.kernel_height + one_to(6) - 1;
        g.cols = g.kernel_width + one_to(6) - 1;
        g.channels = seed % 3 == 0 ? one_to(70) : one_to(8);
        g.row_stride = one_to(3);
        g.col_stride = one_to(3);
        expect_matches(g, seed);
        if (HasFatalFailure())
            return;
    }
    const Geometry real[] = {{20, 21, 64, 3, 3, 1, 1}, {40, 33, 3, 5, 5, 1, 1}, {40, 33, 3, 7, 7, 2, 2},
                             {9, 9, 257, 1, 3, 2, 1},  {8, 8, 8, 3, 3, 1, 1},   {8, 8, 3, 3, 3, 1, 1},
                             {1, 40, 1, 1, 1, 1, 1},   {5, 5, 16, 5, 5, 1, 1},  {5, 4, 1, 5, 4, 9, 9},
                             {1, 40, 1, 1, 1, 1, 20}};
    for (const Geometry& g : real)
        expect_matches(g, 7);
}

// Overlap is no use to anyone, but what comes of it is still the order of the bytes.
TEST(Im2col, OverlappingSidesMoveByteByByte) {
    const Geometry g{6, 6, 17, 2, 2, 1, 1};
    const auto distance = static_cast<ptrdiff_t>(g.output_bytes());
    for (ptrdiff_t shift : {-distance + 1, ptrdiff_t{-40}, ptrdiff_t{0}, ptrdiff_t{1}, ptrdiff_t{15},
                            static_cast<ptrdiff_t>(g.input_bytes()) - 1}) {
        SCOPED_TRACE(shift);
        Bytes actual = random_bytes(3 * g.output_bytes(), 5), expected = actual;
        reference(g, expected.data() + distance, expected.data() + distance + shift);
        EXPECT_EQ(im2col(g, actual.data() + distance, actual.data() + distance + shift), NNA_STATUS_OK);
        EXPECT_EQ(actual, expected);
    }
}

TEST(Im2col, DegenerateGeometry) {
    const struct {
        const char* what;
        Geometry geometry;
        Bytes written;
    } cases[] = {
        {"no channels", {2, 2, 0, 1, 1, 1, 1}, {}},
        {"no kernel columns", {2, 2, 1, 1, 0, 1, 1}, {}},
        {"no kernel rows", {2, 2, 1, 0, 1, 1, 1}, {}},
        {"no channels, and counts that wrapped to 2^31", {0, 0, 0, 1, 1, 2, 2}, {}},
        {"a kernel one row too high: the count wraps to 0", {1, 2, 1, 2, 1, 1, 1}, {}},
        {"a kernel one column too wide: the count wraps to 0", {2, 1, 1, 1, 2, 1, 1}, {}},
        {"no columns, and rows whose count wrapped to nearly 2^32", {2, 1, 1, 4, 2, 1, 1}, {}},
        {"row stride 0 counts once", {4, 1, 1, 2, 1, 0, 1}, {1, 2, 0, 0, 0, 0, 0, 0}},
        {"column stride 0 counts once", {1, 4, 1, 1, 2, 1, 0}, {1, 2, 0, 0, 0, 0, 0, 0}},
        {"remainders are skipped", {1, 4, 2, 1, 1, 1, 5}, {1, 2, 0, 0, 0, 0, 0, 0}},
        {"exactly one patch, no padding", {2, 4, 1, 2, 4, 1, 1}, {1, 2, 3, 4, 5, 6, 7, 8}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes expected = c.written;
        expected.resize(32, 0xEE);
        const Bytes input = {1, 2, 3, 4, 5, 6, 7, 8};
        Bytes output(32, 0xEE);
        EXPECT_EQ(im2col(c.geometry, input.data(), output.data()), NNA_STATUS_OK);
        EXPECT_EQ(output, expected);
    }
}

// The padding of a patch is found by a signed division, which shows from 2^31 bytes on; no row of patches is
// written.
TEST(Im2col, PadsByASignedDivision) {
    const struct {
        uint32_t channels;
        const char* pad;
    } cases[] = {{4, "0"}, {5, "6"}, {0x3FFFFFFD, "14"}, {0x3FFFFFFE, "12"}, {0x40000001, "14"}};
    uint8_t bytes[16] = {};
    for (const auto& c : cases) {
        probe::Probe probe;
        g_log_lvl = 0;
        EXPECT_EQ(im2col({1, 1, c.channels, 2, 1, 1, 1}, bytes, bytes), NNA_STATUS_OK);
        const std::string text = probe.text(), line = "Output height = 0 Output width = 1 Pad = ";
        EXPECT_NE(text.find(line + c.pad), std::string::npos) << text;
    }
}

TEST(Im2col, RefusesNullPointers) {
    uint8_t byte = 0;
    probe::Probe probe;
    EXPECT_EQ(im2col({1, 1, 1, 1, 1, 1, 1}, nullptr, &byte), NNA_STATUS_NULL_POINTER);
    EXPECT_EQ(im2col({1, 1, 1, 1, 1, 1, 1}, &byte, nullptr), NNA_STATUS_NULL_POINTER);
    char no_input[128], no_output[128];
    std::snprintf(no_input, sizeof no_input, "Bad Address Input (nil) Output %p", static_cast<void*>(&byte));
    std::snprintf(no_output, sizeof no_output, "Bad Address Input %p Output (nil)",
                  static_cast<void*>(&byte));
    EXPECT_EQ(probe.messages(), (std::vector<std::string>{no_input, no_output}));
}

TEST(Im2col, RunsFromAContextAtByteOffsets) {
    const Geometry g{3, 3, 2, 2, 2, 1, 1};
    const Bytes input = random_bytes(g.input_bytes(), 1);
    Bytes expected(g.output_bytes());
    reference(g, input.data(), expected.data());
    rig::Rig rig;
    const uint32_t in = rig.memory_of(input, 3), out = rig.memory(expected.size() + 5);
    EXPECT_EQ(rig.run(9, {mem(in, 3), mem(out, 5), val(3), val(3), val(2), val(2), val(2), val(99), val(1),
                          val(1)}),
              NNA_STATUS_OK);
    EXPECT_EQ(rig.device<uint8_t>(out, expected.size(), 5), expected);
}

}  // namespace
