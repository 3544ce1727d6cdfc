// A strict reader and writer of .npy files: format versions 1 and 2, the five element types that tensors have
// here, and six more (foreign.h) as raw bytes or converted. A file that is not exactly that is refused, never
// repaired: a truncated one above all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "error.h"

namespace npy {

enum class Type : uint8_t { f4, i4, i2, i1, u1 };

constexpr Type kTypes[] = {Type::f4, Type::i4, Type::i2, Type::i1, Type::u1};

// "f4" and so on.
const char* name_of(Type type);
// Bytes of one element.
size_t size_of(Type type);

template <typename T>
constexpr Type type_of() {
    if constexpr (std::is_same_v<T, float>)
        return Type::f4;
    else if constexpr (std::is_same_v<T, int32_t>)
        return Type::i4;
    else if constexpr (std::is_same_v<T, int16_t>)
        return Type::i2;
    else if constexpr (std::is_same_v<T, int8_t>)
        return Type::i1;
    else {
        static_assert(std::is_same_v<T, uint8_t>, "no such element type");
        return Type::u1;
    }
}

using Shape = std::vector<size_t>;

// A dense row-major array. An empty shape is a single element.
struct Array {
    Type type = Type::f4;
    Shape shape;
    std::vector<uint8_t> bytes;

    size_t count() const { return bytes.size() / size_of(type); }

    // The elements, which must be of type T.
    template <typename T>
    std::vector<T> values() const {
        if (type != type_of<T>())
            throw Error(std::string("the array holds ") + name_of(type) + ", not " + name_of(type_of<T>()));
        std::vector<T> result(count());
        if (!bytes.empty())
            std::memcpy(result.data(), bytes.data(), bytes.size());
        return result;
    }
};

// Bytes of an array of this type and shape; throws when there is no such number.
size_t byte_size(Type type, const Shape& shape);

// "(2, 3)", as the file writes it.
std::string to_string(const Shape& shape);

// Reads on in some file: fills `to`, with fewer bytes only at its end.
using Read = std::function<size_t(void* to, size_t size)>;

// The array that a file holds. One with more than `max_bytes` of elements is refused before they are read,
// and no more of a file is read than its header announces, and one byte. Elements in Fortran order are
// brought into rows, so that element [i, j] stays element [i, j]. Elements of a foreign type are converted to
// `wanted` or, where nothing is wanted, are raw bytes: of type u1, the last axis counting bytes. What has one
// of the five types is never converted.
Array read(const Read& from, size_t max_bytes, std::optional<Type> wanted = std::nullopt);
// Complaints begin with the path.
Array load(const std::string& path, size_t max_bytes = SIZE_MAX, std::optional<Type> wanted = std::nullopt);

// The file of an array, up to its elements.
std::string header_of(const Array& array);

}  // namespace npy
