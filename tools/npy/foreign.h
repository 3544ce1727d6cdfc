// Element types that tensors do not have here and that other programs write: taken as raw bytes or converted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "npy.h"

namespace npy {

struct Foreign {
    const char* descr;
    size_t size;
    enum Kind : uint8_t { Signed, Unsigned, Real, Truth } kind;
};

// Null when `descr` is none of them.
const Foreign* find_foreign(std::string_view descr);

// Elements of type `to`. Real numbers become f4 alone, rounded to nearest; a number that `to` cannot hold is
// refused by npy::Error.
std::vector<uint8_t> convert(const Foreign& from, Type to, const std::vector<uint8_t>& bytes);

// Row-major elements from column-major ones.
std::vector<uint8_t> from_fortran_order(const std::vector<uint8_t>& bytes, const Shape& shape,
                                        size_t element_size);

}  // namespace npy
