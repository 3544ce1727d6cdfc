// Reading numbers, and what they become.
#include "number.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace tool {
namespace {

template <typename T, typename... Base>
std::optional<T> read_all(std::string_view text, Base... base) {
    T value{};
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base...);
    if (error != std::errc() || stop != end)
        return std::nullopt;
    return value;
}

int64_t least_of(npy::Type type) {
    switch (type) {
        case npy::Type::i4:
            return std::numeric_limits<int32_t>::min();
        case npy::Type::i2:
            return std::numeric_limits<int16_t>::min();
        case npy::Type::i1:
            return std::numeric_limits<int8_t>::min();
        default:
            return 0;
    }
}

}  // namespace

std::optional<Bits> read_bits(std::string_view text) {
    if (!text.starts_with("0x") || text.size() > 10)
        return std::nullopt;
    const auto value = read_all<uint32_t>(text.substr(2), 16);
    if (!value)
        return std::nullopt;
    return Bits{*value};
}

std::optional<Number> read_number(std::string_view text) {
    if (const auto bits = read_bits(text))
        return *bits;
    const auto integer = read_all<int64_t>(text);
    if (integer && !(*integer == 0 && text.front() == '-'))
        return *integer;
    if (const auto real = read_all<double>(text); real && std::isfinite(*real))
        return *real;
    return std::nullopt;
}

std::optional<uint32_t> to_u32(const Number& number) {
    if (const Bits* const bits = std::get_if<Bits>(&number))
        return bits->value;
    const int64_t* const integer = std::get_if<int64_t>(&number);
    if (!integer || *integer < 0 || *integer > UINT32_MAX)
        return std::nullopt;
    return static_cast<uint32_t>(*integer);
}

std::optional<uint32_t> to_float_bits(const Number& number) {
    if (const Bits* const bits = std::get_if<Bits>(&number))
        return bits->value;
    const double* const real = std::get_if<double>(&number);
    const float value = real ? static_cast<float>(*real) : static_cast<float>(std::get<int64_t>(number));
    if (!std::isfinite(value))
        return std::nullopt;
    return std::bit_cast<uint32_t>(value);
}

bool append(npy::Array& array, const Number& number) {
    const size_t size = npy::size_of(array.type);
    uint32_t raw = 0;
    if (array.type == npy::Type::f4) {
        const auto bits = to_float_bits(number);
        if (!bits)
            return false;
        raw = *bits;
    } else if (const Bits* const bits = std::get_if<Bits>(&number)) {
        raw = bits->value;
        if (size < 4 && raw >> (8 * size) != 0)
            return false;
    } else {
        const int64_t* const integer = std::get_if<int64_t>(&number);
        const int64_t least = least_of(array.type);
        const int64_t greatest = least + (int64_t{1} << (8 * size)) - 1;
        if (!integer || *integer < least || *integer > greatest)
            return false;
        raw = static_cast<uint32_t>(*integer);
    }
    // The low bytes come first in memory.
    uint8_t bytes[4];
    std::memcpy(bytes, &raw, 4);
    array.bytes.insert(array.bytes.end(), bytes, bytes + size);
    return true;
}

}  // namespace tool
