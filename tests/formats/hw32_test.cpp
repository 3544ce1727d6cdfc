// hw32 layout: every converter against the one-line definition of the layout, between guard pages, in place
// and overlapping; the kernel's grouping into lines.
#include <gtest/gtest.h>

#include <numeric>

#include "kelRt.h"
#include "support/floats.h"
#include "support/guarded.h"

namespace {

using floats::noise;
using guarded::Wall;
using Bytes = std::vector<uint8_t>;

// Byte p of element i is byte i of plane p. The whole definition.
Bytes converted(const Bytes& line, bool to_linear) {
    const size_t L = line.size() / 4;
    Bytes other(4 * L);
    for (size_t i = 0; i < L; ++i)
        for (size_t p = 0; p < 4; ++p)
            (to_linear ? other[4 * i + p] : other[p * L + i]) = line[to_linear ? p * L + i : 4 * i + p];
    return other;
}

std::vector<uint32_t> line_lengths() {
    std::vector<uint32_t> lengths(65);
    std::iota(lengths.begin(), lengths.end(), 0u);
    // Around the block size of in-place conversion, and far above it.
    lengths.insert(lengths.end(), {1000, 4095, 4096, 4097, 8193, 30011, 40000});
    return lengths;
}

using Lines = uint8_t* const*;
const struct {
    size_t lines;
    bool to_linear;
    void (*convert)(Lines d, Lines s, uint32_t L);
} kConverters[] = {
    {1, false, [](Lines d, Lines s, uint32_t L) { kelRt_hw32FmtConvParam(d[0], s[0], L, 1, L, nullptr); }},
    {1, true, [](Lines d, Lines s, uint32_t L) { convert_hw_lin(d[0], s[0], L); }},
    {1, true, [](Lines d, Lines s, uint32_t L) { convert_hw_lin_neon_1(d[0], s[0], L); }},
    {2, true, [](Lines d, Lines s, uint32_t L) { convert_hw_lin_neon_2(d[0], s[0], d[1], s[1], L); }},
    {4, true,
     [](Lines d, Lines s, uint32_t L) {
         convert_hw_lin_neon_4(d[0], s[0], d[1], s[1], d[2], s[2], d[3], s[3], L);
     }},
    {8, true,
     [](Lines d, Lines s, uint32_t L) {
         convert_hw_lin_neon_8(d[0], s[0], d[1], s[1], d[2], s[2], d[3], s[3], d[4], s[4], d[5], s[5], d[6],
                               s[6], d[7], s[7], L);
     }},
};

TEST(Hw32Line, AllConvertersGiveTheSameBytesAndStayInBounds) {
    for (const uint32_t L : line_lengths()) {
        for (const Wall wall : {Wall::Before, Wall::After}) {
            for (const auto& converter : kConverters) {
                SCOPED_TRACE(testing::Message() << converter.lines << " lines of " << L);
                std::vector<std::unique_ptr<guarded::Bytes>> src, dst;
                std::vector<uint8_t*> d, s;
                for (uint32_t line = 0; line < converter.lines; ++line) {
                    src.push_back(std::make_unique<guarded::Bytes>(noise(4 * L, L + line), wall));
                    dst.push_back(std::make_unique<guarded::Bytes>(4 * L, wall));
                    s.push_back(src.back()->data()), d.push_back(dst.back()->data());
                }
                converter.convert(d.data(), s.data(), L);
                for (size_t line = 0; line < converter.lines; ++line) {
                    ASSERT_EQ(dst[line]->copy(), converted(src[line]->copy(), converter.to_linear));
                    EXPECT_TRUE(dst[line]->intact() && src[line]->intact());
                }
            }
        }
    }
}

TEST(Hw32Line, ConvertsInPlaceAndOverlapping) {
    for (const uint32_t L : line_lengths()) {
        const size_t bytes = 4 * L;
        const Bytes original = noise(bytes, 7 * L);
        for (const size_t shift : {size_t{0}, size_t{1}, size_t{2}, size_t{L}, bytes / 2 + 3, bytes}) {
            for (const bool forward : {false, true}) {
                SCOPED_TRACE("L " + std::to_string(L) + " shift " + std::to_string(shift));
                Bytes area(bytes + shift + 1);
                uint8_t* const src = area.data() + (forward ? 0 : shift);
                uint8_t* const dst = area.data() + (forward ? shift : 0);
                std::copy(original.begin(), original.end(), src);
                kelRt_hw32FmtConvParam(dst, src, L, 1, L, nullptr);
                ASSERT_EQ(Bytes(dst, dst + bytes), converted(original, false));
                std::memmove(src, dst, bytes);
                convert_hw_lin(dst, src, L);
                ASSERT_EQ(Bytes(dst, dst + bytes), original) << "round trip";
            }
        }
    }
}

// The kernel by its definition: whole lines in ascending order, the rest as it was.
Bytes convert_lines(Bytes area, size_t dst, size_t src, uint32_t size, uint32_t dir, uint32_t L) {
    for (size_t c = 0; L != 0 && c < size / L; ++c) {
        const auto from = area.begin() + static_cast<ptrdiff_t>(src + 4 * L * c);
        const Bytes line(from, from + 4 * static_cast<ptrdiff_t>(L));
        const Bytes other = converted(line, dir == 0);
        std::copy(other.begin(), other.end(), area.begin() + static_cast<ptrdiff_t>(dst + 4 * L * c));
    }
    return area;
}

TEST(Hw32Kernel, ConvertsWholeLinesAndLeavesTheRest) {
    // In place, more lines than are converted at once, and lines longer than that.
    std::vector<std::pair<uint32_t, uint32_t>> cases = {
        {1, 500}, {3, 5000}, {64, 130 * 64 + 7}, {1000, 9003}, {5000, 10001}};
    for (uint32_t L = 0; L <= 64; ++L)
        for (const uint32_t size : {0u, 1u, L - (L > 0), L, L + 1, 2 * L, 3 * L + L / 2, 7 * L, 15 * L + 5})
            cases.emplace_back(L, size);
    for (const auto& [L, size] : cases) {
        for (const uint32_t dir : {0u, 1u, 2u, 5u}) {
            SCOPED_TRACE(testing::Message() << "L " << L << " size " << size << " dir " << dir);
            const size_t bytes = 4 * size;
            for (const Wall wall : {Wall::Before, Wall::After}) {
                guarded::Bytes in(noise(bytes, size + L), wall), out(bytes, wall);
                uint32_t out_bytes = 1;
                ASSERT_EQ(kelRt_hw32FmtConvParam(out.data(), in.data(), size, dir, L, &out_bytes),
                          NNA_STATUS_OK);
                Bytes expected(bytes, guarded::kFill);
                const Bytes input = in.copy();
                expected.insert(expected.end(), input.begin(), input.end());
                expected = convert_lines(expected, 0, bytes, size, dir, L);
                expected.resize(bytes);
                ASSERT_EQ(out.copy(), expected);
                EXPECT_TRUE(out.intact());
                ASSERT_EQ(out_bytes, bytes) << "counts the elements that are left, too";
            }
            // In place, and over itself by less than a line, by a line and by more.
            for (const size_t shift : {size_t{0}, size_t{4}, size_t{4 * L}, size_t{8 * L + 1}}) {
                const Bytes area = noise(bytes + shift + 1, size);
                for (const bool forward : {false, true}) {
                    const size_t dst = forward ? shift : 0, src = forward ? 0 : shift;
                    Bytes actual = area;
                    ASSERT_EQ(kelRt_hw32FmtConvParam(actual.data() + dst, actual.data() + src, size, dir, L,
                                                     nullptr),
                              NNA_STATUS_OK);
                    ASSERT_EQ(actual, convert_lines(area, dst, src, size, dir, L)) << "shift " << shift;
                }
            }
        }
    }
}

TEST(Hw32Kernel, HugeLinesConvertNothingAndReportWrappedBytes) {
    Bytes in(4, 1), out(4, 2);
    uint32_t out_bytes = 0;
    for (const uint32_t dir : {0u, 1u}) {
        EXPECT_EQ(kelRt_hw32FmtConvParam(out.data(), in.data(), 0x40000001, dir, UINT32_MAX, &out_bytes),
                  NNA_STATUS_OK);
        EXPECT_EQ(out_bytes, 4u);
        EXPECT_EQ(kelRt_hw32FmtConv(out.data(), in.data(), 7, dir, &out_bytes), NNA_STATUS_OK);
        EXPECT_EQ(out_bytes, 28u);
    }
    EXPECT_EQ(out, Bytes(4, 2));
}

}  // namespace
