// Bit for bit; distances only tell how far apart.
#include "compare.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>

namespace tool {
namespace {

uint32_t element_at(std::span<const uint8_t> bytes, size_t element, size_t size) {
    uint32_t bits = 0;
    const size_t begin = element * size;
    std::memcpy(&bits, &bytes[begin], std::min(size, bytes.size() - begin));
    return bits;
}

int64_t integer(npy::Type type, uint32_t bits) {
    switch (type) {
        case npy::Type::i4:
            return static_cast<int32_t>(bits);
        case npy::Type::i2:
            return static_cast<int16_t>(bits);
        case npy::Type::i1:
            return static_cast<int8_t>(bits);
        default:
            return bits;
    }
}

std::string text(npy::Type type, uint32_t bits) {
    char text[48];
    if (type == npy::Type::f4)
        std::snprintf(text, sizeof text, "%.9g (0x%08X)", static_cast<double>(std::bit_cast<float>(bits)),
                      bits);
    else
        std::snprintf(text, sizeof text, "%lld", static_cast<long long>(integer(type, bits)));
    return text;
}

}  // namespace

uint64_t ulp_distance(uint32_t a_bits, uint32_t b_bits) {
    const float a = std::bit_cast<float>(a_bits), b = std::bit_cast<float>(b_bits);
    if (std::isnan(a) || std::isnan(b))
        return std::isnan(a) && std::isnan(b) ? 0 : UINT32_MAX;
    const auto place = [](uint32_t bits) {
        const int64_t magnitude = bits & 0x7FFFFFFF;
        return bits >> 31 ? -magnitude : magnitude;
    };
    return static_cast<uint64_t>(std::abs(place(a_bits) - place(b_bits)));
}

Difference compare(npy::Type type, std::span<const uint8_t> recorded, std::span<const uint8_t> here,
                   ByMaths by_maths, std::span<const uint32_t> values) {
    const size_t size = npy::size_of(type);
    Difference result;
    result.elements = (recorded.size() + size - 1) / size;
    result.is_float = type == npy::Type::f4;
    if (std::equal(recorded.begin(), recorded.end(), here.begin(), here.end()))
        return result;
    for (size_t i = 0; i < result.elements; ++i) {
        const uint32_t a = element_at(recorded, i, size), b = element_at(here, i, size);
        if (a == b)
            continue;
        const uint64_t distance = result.is_float
                                      ? ulp_distance(a, b)
                                      : static_cast<uint64_t>(std::abs(integer(type, a) - integer(type, b)));
        if (result.different++ == 0) {
            result.first = result.worst = i;
            result.recorded = text(type, a);
            result.here = text(type, b);
            result.ulps = distance;
        }
        if (distance > result.most_ulps) {
            result.most_ulps = distance;
            result.worst = i;
        }
        result.by_maths += by_maths && by_maths(values, i);
    }
    return result;
}

}  // namespace tool
