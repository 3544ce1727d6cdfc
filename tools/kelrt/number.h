// Numbers as the user writes them, in a job or on the shell: an integer, a real number, or a bit pattern in
// hexadecimal ("0x3F000000"). What they become depends on where they stand, and what does not fit is refused.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <variant>

#include "npy.h"

namespace tool {

struct Bits {
    uint32_t value;
};

using Number = std::variant<int64_t, double, Bits>;

// "0x" and one to eight hexadecimal digits.
std::optional<Bits> read_bits(std::string_view text);
// Any of the three; -0 is a real number, so that it keeps its sign.
std::optional<Number> read_number(std::string_view text);

// An integer from 0 to 4294967295, or a bit pattern.
std::optional<uint32_t> to_u32(const Number& number);
// The bits of a finite float, or a bit pattern.
std::optional<uint32_t> to_float_bits(const Number& number);

// Appends the number as one more element; false if the array's type cannot hold it.
bool append(npy::Array& array, const Number& number);

inline constexpr const char* kU32Wanted =
    "an integer from 0 to 4294967295 or a bit pattern such as 0xFFFFFFFF";
inline constexpr const char* kFloatWanted = "a finite number or a bit pattern such as 0x3F000000";

}  // namespace tool
