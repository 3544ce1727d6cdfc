// hw32 layout: every converter against the one-line definition of the layout, between guard pages, in place
// and overlapping; the kernel's grouping into lines; both operators' dumps and failures.
#include <gtest/gtest.h>

#include <numeric>

#include "support/guarded.h"
#include "operators/hw32_shuffle.h"
#include "support/probe.h"
#include "support/rig.h"

namespace {

using guarded::Wall;
using rig::mem;
using rig::val;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

// Byte p of element i is byte i of plane p. The whole definition.
Bytes to_linear(const Bytes& planes, size_t L) {
    Bytes linear(4 * L);
    for (size_t i = 0; i < L; ++i) {
        for (size_t p = 0; p < 4; ++p)
            linear[4 * i + p] = planes[p * L + i];
    }
    return linear;
}

Bytes to_hw32(const Bytes& linear, size_t L) {
    Bytes planes(4 * L);
    for (size_t i = 0; i < L; ++i) {
        for (size_t p = 0; p < 4; ++p)
            planes[p * L + i] = linear[4 * i + p];
    }
    return planes;
}

// Bytes without a pattern that a shuffle could map to itself.
Bytes noise(size_t count, uint32_t seed) {
    Bytes bytes(count);
    for (uint8_t& byte : bytes) {
        seed = seed * 1664525 + 1013904223;
        byte = static_cast<uint8_t>(seed >> 24);
    }
    return bytes;
}

std::vector<uint32_t> line_lengths() {
    std::vector<uint32_t> lengths(65);
    std::iota(lengths.begin(), lengths.end(), 0u);
    // Around the block size of in-place conversion, and far above it.
    lengths.insert(lengths.end(), {1000, 4095, 4096, 4097, 8193, 30011, 40000});
    return lengths;
}

TEST(Hw32Line, IsFourPlanesLeastSignificantFirst) {
    Bytes planes(32), expected(32), linear(32);
    for (uint8_t i = 0; i < 8; ++i) {
        for (uint8_t p = 0; p < 4; ++p) {
            planes[p * 8u + i] = static_cast<uint8_t>(p * 16 + i);
            expected[i * 4u + p] = static_cast<uint8_t>(p * 16 + i);
        }
    }
    convert_hw_lin(linear.data(), planes.data(), 8);
    EXPECT_EQ(linear, expected);
    EXPECT_EQ((Bytes{linear.begin(), linear.begin() + 5}), (Bytes{0x00, 0x10, 0x20, 0x30, 0x01}));
}

// Calls the converter of `lines` lines on guarded pairs, each at its own place, and compares every line.
void check_converter(int lines, uint32_t L, Wall wall) {
    SCOPED_TRACE(std::to_string(lines) + " lines of " + std::to_string(L));
    std::vector<std::unique_ptr<guarded::Bytes>> src, dst;
    for (uint32_t line = 0; line < 8; ++line) {
        src.push_back(std::make_unique<guarded::Bytes>(noise(4 * L, L + line), wall));
        dst.push_back(std::make_unique<guarded::Bytes>(4 * L, wall));
    }
    const auto d = [&](size_t i) { return dst[i]->data(); };
    const auto s = [&](size_t i) { return src[i]->data(); };
    switch (lines) {
        case 0:
            convert_hw_lin(d(0), s(0), L);
            break;
        case 1:
            convert_hw_lin_neon_1(d(0), s(0), L);
            break;
        case 2:
            convert_hw_lin_neon_2(d(0), s(0), d(1), s(1), L);
            break;
        case 4:
            convert_hw_lin_neon_4(d(0), s(0), d(1), s(1), d(2), s(2), d(3), s(3), L);
            break;
        default:
            convert_hw_lin_neon_8(d(0), s(0), d(1), s(1), d(2), s(2), d(3), s(3), d(4), s(4), d(5), s(5),
                                  d(6), s(6), d(7), s(7), L);
    }
    for (size_t line = 0; line < 8; ++line) {
        const bool converted = line < static_cast<size_t>(std::max(lines, 1));
        ASSERT_EQ(dst[line]->copy(), converted ? to_linear(src[line]->copy(), L) : Bytes(4 * L, 0xEE))
            << "line " << line;
    }
}

TEST(Hw32Line, AllConvertersGiveTheSameBytesAndStayInBounds) {
    for (const uint32_t L : line_lengths()) {
        for (const Wall wall : {Wall::Before, Wall::After}) {
            for (const int lines : {0, 1, 2, 4, 8})
                check_converter(lines, L, wall);
            const guarded::Bytes linear(noise(4 * L, L), wall);
            guarded::Bytes planes(4 * L, wall);
            kelrt::convert_lin_hw(planes.data(), const_cast<guarded::Bytes&>(linear).data(), L);
            ASSERT_EQ(planes.copy(), to_hw32(linear.copy(), L)) << L;
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
                kelrt::convert_lin_hw(dst, src, L);
                ASSERT_EQ(Bytes(dst, dst + bytes), to_hw32(original, L));
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
        const Bytes converted = dir == 0 ? to_linear(line, L) : to_hw32(line, L);
        std::copy(converted.begin(), converted.end(), area.begin() + static_cast<ptrdiff_t>(dst + 4 * L * c));
    }
    return area;
}

TEST(Hw32Kernel, ConvertsWholeLinesAndLeavesTheRest) {
    for (uint32_t L = 0; L <= 64; ++L) {
        for (const uint32_t size : {0u, 1u, L - (L > 0), L, L + 1, 2 * L, 3 * L + L / 2, 7 * L, 15 * L + 5}) {
            for (const uint32_t dir : {0u, 1u, 2u, 5u}) {
                SCOPED_TRACE("L " + std::to_string(L) + " size " + std::to_string(size) + " dir " +
                             std::to_string(dir));
                const size_t bytes = 4 * size;
                for (const Wall wall : {Wall::Before, Wall::After}) {
                    guarded::Bytes in(noise(bytes, size + L), wall), out(bytes, wall);
                    uint32_t out_bytes = 1;
                    ASSERT_EQ(kelRt_hw32FmtConvParam(out.data(), in.data(), size, dir, L, &out_bytes),
                              NNA_STATUS_OK);
                    Bytes expected(bytes, 0xEE);
                    const Bytes input = in.copy();
                    expected.insert(expected.end(), input.begin(), input.end());
                    expected = convert_lines(expected, 0, bytes, size, dir, L);
                    ASSERT_EQ(out.copy(),
                              Bytes(expected.begin(), expected.begin() + static_cast<ptrdiff_t>(bytes)));
                    ASSERT_EQ(out_bytes, bytes) << "counts the elements that are left, too";
                }
                // In place, and over itself by less than a line, by a line and by more.
                for (const size_t shift : {size_t{0}, size_t{4}, size_t{4 * L}, size_t{8 * L + 1}}) {
                    const Bytes area = noise(bytes + shift + 1, size);
                    for (const bool forward : {false, true}) {
                        const size_t dst = forward ? shift : 0, src = forward ? 0 : shift;
                        Bytes actual = area;
                        ASSERT_EQ(kelRt_hw32FmtConvParam(actual.data() + dst, actual.data() + src, size, dir,
                                                         L, nullptr),
                                  NNA_STATUS_OK);
                        ASSERT_EQ(actual, convert_lines(area, dst, src, size, dir, L)) << "shift " << shift;
                    }
                }
            }
        }
    }
}

// More lines than are converted at once in place, and lines longer than that.
TEST(Hw32Kernel, ConvertsLargeBuffersInPlace) {
    for (const auto& [L, size] :
         {std::pair{3u, 5000u}, {64u, 130 * 64 + 7u}, {1000u, 9003u}, {5000u, 10001u}}) {
        for (const uint32_t dir : {0u, 1u}) {
            const Bytes area = noise(4 * size, L);
            Bytes actual = area;
            EXPECT_EQ(kelRt_hw32FmtConvParam(actual.data(), actual.data(), size, dir, L, nullptr),
                      NNA_STATUS_OK);
            EXPECT_EQ(actual, convert_lines(area, 0, 0, size, dir, L)) << L;
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

TEST(Hw32Operator, ConvertsMemoriesBothWaysAtByteOffsets) {
    for (const uint32_t offset : {0u, 1u, 3u}) {
        rig::Rig rig;
        const Bytes linear = noise(4 * 20, offset);
        const uint32_t in = rig.memory_of(linear, offset), planes = rig.memory(80 + offset),
                       back = rig.memory(80 + offset);
        EXPECT_EQ(rig.run(6, {mem(planes, offset), mem(in, offset), val(20), val(1)}), NNA_STATUS_OK);
        Bytes expected(80, NNA_SIM_STALE_BYTE);
        for (ptrdiff_t line = 0; line < 2; ++line) {
            const Bytes one = to_hw32(Bytes(linear.begin() + 32 * line, linear.begin() + 32 * line + 32), 8);
            std::copy(one.begin(), one.end(), expected.begin() + 32 * line);
        }
        EXPECT_EQ(rig.device<uint8_t>(planes, 80, offset), expected);

        EXPECT_EQ(rig.run(16, {mem(planes, offset), mem(in, offset), val(20), val(9), val(20)}),
                  NNA_STATUS_OK);
        EXPECT_EQ(rig.device<uint8_t>(planes, 80, offset), to_hw32(linear, 20));
        EXPECT_EQ(rig.run(16, {mem(back, offset), mem(planes, offset), val(20), val(0), val(20)}),
                  NNA_STATUS_OK);
        EXPECT_EQ(rig.device<uint8_t>(back, 80, offset), linear);
        EXPECT_EQ(rig.run(16, {mem(in, offset), mem(in, offset), val(20), val(1), val(10)}), NNA_STATUS_OK);
        EXPECT_EQ(rig.run(16, {mem(in, offset), mem(in, offset), val(20), val(0), val(10)}), NNA_STATUS_OK);
        EXPECT_EQ(rig.device<uint8_t>(in, 80, offset), linear) << "in place";
    }
}

TEST(Hw32Operator, DumpsTheOutputAdvancedAndTheInputNot) {
    rig::Rig rig;
    const uint32_t out = rig.memory(40), in = rig.memory(40);
    probe::Probe probe;
    g_log_lvl = 0;
    EXPECT_EQ(rig.run(6, {mem(out, 5), mem(in, 3), val(8), val(0)}), NNA_STATUS_OK);
    EXPECT_EQ(rig.run(16, {mem(out, 5), mem(in, 3), val(4), val(2), val(0)}), NNA_STATUS_OK);
    char dump[128];
    std::snprintf(dump, sizeof dump, "0x%p(ID=0x00) 0x%p(ID=0x01) ",
                  static_cast<void*>(nna_sim_cpu_view(rig.sim, out) + 5),
                  static_cast<void*>(nna_sim_cpu_view(rig.sim, in)));
    const std::string tensors = dump;
    EXPECT_EQ(probe.messages(),
              (Lines{"KEL RT executing operator cpu_hw32_fmt_conv", tensors + "0x00000008 0x00000000",
                     "kelRt_hw32FmtConvParam size=8, num_store_chunks=1, dir=0, nna_out_line_sz=8",
                     "KEL RT executing operator cpu_hw32_fmt_conv_param",
                     tensors + "0x00000004 0x00000002 0x00000000",
                     "kelRt_hw32FmtConvParam size=4, num_store_chunks=0, dir=2, nna_out_line_sz=0"}));
}

TEST(Hw32Operator, WithoutATensorTheKernelRefuses) {
    for (const uint32_t id : {6u, 16u}) {
        rig::Rig rig;
        const uint32_t out = rig.memory(32);
        std::vector<KelRtContextArg> args = {mem(out), mem(KEL_RT_NO_MEMORY_ID), val(8), val(0), val(8)};
        args.resize(id == 6 ? 4 : 5);
        probe::Probe probe;
        EXPECT_EQ(rig.run(id, args), NNA_STATUS_NULL_POINTER);
        char bad[96];
        std::snprintf(bad, sizeof bad, "Bad Address Input (nil) Output %p",
                      static_cast<void*>(nna_sim_cpu_view(rig.sim, out)));
        EXPECT_EQ(probe.messages(), (Lines{bad, "Error executing operator 1056", "Error 1056 kelrt op 1"}));
        EXPECT_EQ(nna_sim_synced_bytes(rig.sim, 0), 0u);
    }
}

}  // namespace
