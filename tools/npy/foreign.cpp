// Conversion, an element at a time: an integer or a real number comes out of the file and goes into the type.
#include "foreign.h"

#include <cmath>
#include <limits>
#include <variant>

namespace npy {
namespace {

constexpr Foreign kForeign[] = {
    {"<i8", 8, Foreign::Signed}, {"<u2", 2, Foreign::Unsigned}, {"<u4", 4, Foreign::Unsigned},
    {"<f8", 8, Foreign::Real},   {"|b1", 1, Foreign::Truth},    {"<f2", 2, Foreign::Real},
};

using Value = std::variant<int64_t, double>;

// 10 bits of fraction, 5 of exponent, the sign.
double half(uint16_t bits) {
    const int exponent = bits >> 10 & 31, fraction = bits & 1023;
    double value = 0;
    if (exponent == 31)
        value = fraction ? std::numeric_limits<double>::quiet_NaN() : std::numeric_limits<double>::infinity();
    else
        value = std::ldexp(exponent ? fraction + 1024 : fraction, (exponent ? exponent : 1) - 25);
    return bits >> 15 ? -value : value;
}

Value value_at(const Foreign& type, const uint8_t* at) {
    uint64_t bits = 0;
    std::memcpy(&bits, at, type.size);
    switch (type.kind) {
        case Foreign::Signed:
            return static_cast<int64_t>(bits);
        case Foreign::Truth:
            return int64_t{bits != 0};
        case Foreign::Unsigned:
            return static_cast<int64_t>(bits);  // of 4 bytes at most
        case Foreign::Real:
            break;
    }
    if (type.size == 2)
        return half(static_cast<uint16_t>(bits));
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

template <typename T>
bool put_integer(Value value, uint8_t* at) {
    const int64_t* const integer = std::get_if<int64_t>(&value);
    if (!integer || *integer < std::numeric_limits<T>::min() || *integer > std::numeric_limits<T>::max())
        return false;
    const T element = static_cast<T>(*integer);
    std::memcpy(at, &element, sizeof element);
    return true;
}

bool put_float(Value value, uint8_t* at) {
    const float element = std::visit([](auto number) { return static_cast<float>(number); }, value);
    const double* const real = std::get_if<double>(&value);
    if (std::isinf(element) && real && !std::isinf(*real))
        return false;
    std::memcpy(at, &element, sizeof element);
    return true;
}

bool put(Type type, Value value, uint8_t* at) {
    switch (type) {
        case Type::f4:
            return put_float(value, at);
        case Type::i4:
            return put_integer<int32_t>(value, at);
        case Type::i2:
            return put_integer<int16_t>(value, at);
        case Type::i1:
            return put_integer<int8_t>(value, at);
        case Type::u1:
            return put_integer<uint8_t>(value, at);
    }
    return false;
}

}  // namespace

const Foreign* find_foreign(std::string_view descr) {
    for (const Foreign& type : kForeign) {
        if (descr == type.descr)
            return &type;
    }
    return nullptr;
}

std::vector<uint8_t> convert(const Foreign& from, Type to, const std::vector<uint8_t>& bytes) {
    if (from.kind == Foreign::Real && to != Type::f4)
        throw Error(std::string("elements of type '") + from.descr + "' become f4, not " + name_of(to));
    const size_t count = bytes.size() / from.size, size = size_of(to);
    std::vector<uint8_t> converted(count * size);
    for (size_t i = 0; i < count; ++i) {
        if (!put(to, value_at(from, &bytes[i * from.size]), &converted[i * size]))
            throw Error("element " + std::to_string(i) + " of type '" + from.descr + "' does not fit into " +
                        name_of(to));
    }
    return converted;
}

std::vector<uint8_t> from_fortran_order(const std::vector<uint8_t>& bytes, const Shape& shape,
                                        size_t element_size) {
    std::vector<uint8_t> result(bytes.size());
    Shape index(shape.size());
    // The first index runs fastest in the file; `to` follows it through the row-major array.
    Shape stride(shape.size(), element_size);
    for (size_t axis = shape.size(); axis-- > 1;)
        stride[axis - 1] = stride[axis] * shape[axis];
    size_t to = 0;
    for (size_t from = 0; from < bytes.size(); from += element_size) {
        std::memcpy(&result[to], &bytes[from], element_size);
        for (size_t axis = 0; axis < shape.size(); ++axis) {
            to += stride[axis];
            if (++index[axis] < shape[axis])
                break;
            to -= shape[axis] * stride[axis];
            index[axis] = 0;
        }
    }
    return result;
}

}  // namespace npy
