// im2col against a byte-by-byte reference, between pages that nobody may touch.
#include <gtest/gtest.h>

#include "kelRt.h"
#include "support/floats.h"
#include "support/guarded.h"
#include "support/probe.h"

namespace {

using guarded::Wall;
using Bytes = std::vector<uint8_t>;

struct Geometry {
    uint32_t rows, cols, channels, kernel_height, kernel_width, row_stride, col_stride;

    uint32_t out_height() const { return row_stride ? (rows - kernel_height) / row_stride + 1 : 1; }
    uint32_t out_width() const { return col_stride ? (cols - kernel_width) / col_stride + 1 : 1; }
    // Up to the last byte that a patch takes, which may be before the end of the map or, where a kernel is
    // larger than the input, behind it.
    uint32_t input_bytes() const {
        const uint32_t row = (out_height() - 1) * row_stride + kernel_height - 1;
        return (row * cols + (out_width() - 1) * col_stride + kernel_width) * channels;
    }
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

void expect_matches(const Geometry& g) {
    SCOPED_TRACE(testing::Message() << g);
    Bytes input = floats::noise(g.input_bytes(), g.rows);
    for (uint8_t& byte : input)
        byte |= 1;  // never 0, which is what padding is
    Bytes expected(g.output_bytes());
    reference(g, input.data(), expected.data());
    for (const Wall wall : {Wall::Before, Wall::After}) {
        guarded::Bytes in(input, wall), out(expected.size(), wall);
        ASSERT_EQ(im2col(g, in.data(), out.data()), NNA_STATUS_OK);
        ASSERT_EQ(out.copy(), expected);
        EXPECT_TRUE(out.intact());
    }
}

TEST(Im2col, EqualsTheReferenceWithoutTouchingABytePastEitherEnd) {
    floats::Random random(20);
    for (uint32_t turn = 0; turn < 1500; ++turn) {
        Geometry g{};
        g.kernel_height = 1 + random.below(5);
        g.kernel_width = 1 + random.below(5);
        g.rows = g.kernel_height + random.below(6);
        g.cols = g.kernel_width + random.below(6);
        g.channels = 1 + random.below(turn % 3 == 0 ? 70 : 8);
        g.row_stride = 1 + random.below(3);
        g.col_stride = 1 + random.below(3);
        expect_matches(g);
        if (HasFatalFailure())
            return;
    }
    const Geometry real[] = {{20, 21, 64, 3, 3, 1, 1}, {40, 33, 3, 5, 5, 1, 1}, {40, 33, 3, 7, 7, 2, 2},
                             {9, 9, 257, 1, 3, 2, 1},  {8, 8, 8, 3, 3, 1, 1},   {8, 8, 3, 3, 3, 1, 1},
                             {1, 40, 1, 1, 1, 1, 1},   {5, 5, 16, 5, 5, 1, 1},  {5, 4, 1, 5, 4, 9, 9},
                             {1, 40, 1, 1, 1, 1, 20},  {18, 1, 1, 1, 2, 6, 0},  {1, 40, 1, 3, 2, 0, 3}};
    for (const Geometry& g : real)
        expect_matches(g);
}

// Overlap is no use to anyone, but what comes of it is still the order of the bytes.
TEST(Im2col, OverlappingSidesMoveByteByByte) {
    for (const Geometry& g : {Geometry{6, 6, 17, 2, 2, 1, 1}, Geometry{9, 9, 3, 2, 2, 3, 3}}) {
        const auto reach = static_cast<ptrdiff_t>(std::max(g.output_bytes(), g.input_bytes()));
        for (ptrdiff_t shift = -reach; shift <= reach; shift += shift / 4 == 0 ? 1 : 7) {
            Bytes actual = floats::noise(3 * static_cast<size_t>(reach), 5), expected = actual;
            reference(g, expected.data() + reach, expected.data() + reach + shift);
            EXPECT_EQ(im2col(g, actual.data() + reach, actual.data() + reach + shift), NNA_STATUS_OK);
            ASSERT_EQ(actual, expected) << g << " shift " << shift;
        }
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

}  // namespace
