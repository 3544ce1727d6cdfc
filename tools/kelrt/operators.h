// The catalogue: what each operator is called, what its arguments are called and mean, and how many bytes of
// each memory it touches.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "kelRt.h"

namespace tool {

enum class Use : uint8_t { Scalar, Input, Output, InOut };

// What a memory argument holds. A memory of raw bytes (u1) fits every argument.
enum class Element : uint8_t { None, Float, Byte, Any };

// The values of a context's arguments, by position in the context: arguments of the operator start at 2.
using Values = std::span<const uint32_t>;

struct Argument {
    const char* name;
    KelRtArgType type;
    Use use;
    Element element;
    const char* meaning;
    // Bytes that the operator reads or writes from the operand's start; a double, because no product of
    // 32-bit numbers wraps in it.
    double (*extent)(Values values);
    // Whether the operator leaves the operand changed though it is no result; null: never.
    bool (*is_changed)(Values values) = nullptr;

    bool is_memory() const { return type == KEL_RT_ARG_MEM; }
    bool is_written() const { return use == Use::Output || use == Use::InOut; }
};

struct Operator {
    const char* name;
    const char* summary;
    std::span<const Argument> arguments;  // without arguments 0 and 1
};

// Indexed by operator id.
extern const std::span<const Operator, KEL_RT_NUM_OPS> kOperators;

// By name, or by id in decimal; null when there is none.
const Operator* find_operator(std::string_view name_or_id);

inline uint32_t id_of(const Operator& op) {
    return static_cast<uint32_t>(&op - kOperators.data());
}

inline bool moves_sram(uint32_t operator_id) {
    return operator_id == 17 || operator_id == 18;
}

// "integer", "memory" or "float".
const char* name_of(KelRtArgType type);

// `kelrt ops` and `kelrt ops NAME`, on standard output.
void print_operators();
void print_operator(const Operator& op);

}  // namespace tool
