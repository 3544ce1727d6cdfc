// The catalogue: what each operator is called, what its arguments are called and mean, and its footprint:
// which bytes of which operand it reads and writes, what may lie over what, and what is looked up where.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "kelRt.h"

namespace tool {

enum class Use : uint8_t { Scalar, Input, Output, InOut };

// What a memory argument holds. A memory of raw bytes (u1) fits every argument.
enum class Element : uint8_t { None, Float, Byte, Any };

// The values of a context's arguments, by position in the context: arguments of the operator start at 2.
// Everything in the catalogue names an argument so.
using Values = std::span<const uint32_t>;
inline constexpr size_t kFirstArgument = 2;

// Operator ids, of those that rules are written for.
namespace op {
inline constexpr uint32_t kLstm = 1, kCopyFormat = 2, kOneHot = 3, kHw32 = 6, kEmbedding = 7,
                          kLstmActivated = 8, kIm2col = 9, kMatmul = 10, kFeatureNorm = 11, kLstmCifg = 13,
                          kLstmActivatedCifg = 14, kLstmNormalised = 15, kHw32Lines = 16, kSramGet = 17,
                          kSramSet = 18;
}

// The format conversion's total bits of a float.
inline constexpr uint32_t kFloatBits = UINT32_MAX;

// Bytes of an operand, counted from its start.
struct Range {
    uint64_t begin = 0, end = 0;

    uint64_t length() const { return end > begin ? end - begin : 0; }
};

// What an output holds: its shape, and its type. Where the operator moves elements without knowing their
// type, it is that of another operand (`like`), and the last axis counts bytes.
struct Tensor {
    enum class Type : uint8_t { Float, Int8, Bytes, Like } type = Type::Bytes;
    size_t rank = 1;
    std::array<uint64_t, 2> shape{};
    size_t like = 0;  // position of that operand; 0 is the SRAM

    uint64_t bytes() const;
};

struct Argument {
    const char* name;
    KelRtArgType type;
    Use use;
    Element element;
    const char* meaning;
    // Of memories. Null is no byte, and an output writes all of its tensor. An input that is written is
    // scratch: what it holds afterwards is not published.
    Range (*reads)(Values values) = nullptr;
    Range (*writes)(Values values) = nullptr;
    Tensor (*tensor)(Values values) = nullptr;  // of outputs
    // Bytes of one element where it is not plain floats or bytes. Kernels take operands at any byte; one that
    // cuts its elements' grid is slow, though, and seldom meant.
    uint64_t (*element_bytes)(Values values) = nullptr;

    bool is_memory() const { return type == KEL_RT_ARG_MEM; }
    bool is_published() const { return use == Use::Output || use == Use::InOut; }
    Range read_range(Values values) const { return reads ? reads(values) : Range{}; }
    Range written_range(Values values) const;
    uint64_t alignment(Values values) const;
};

// Two operands may lie over each other although one of them is written: anyhow, or as the same array from the
// same byte on.
struct Overlap {
    enum Kind : uint8_t { Anyhow, AsSame } kind;
    uint8_t a, b;
    // Null, or says for which values it holds.
    bool (*holds)(Values values) = nullptr;
};

// The operator takes a row of `table` by the float at the start of `index`, and does not check it.
struct Lookup {
    uint8_t index, table;
    uint64_t (*row_bytes)(Values values);

    // Bytes of the table that are read for this index, which a row count of 32 bits may wrap.
    Range row(float index_value, Values values) const;
};

struct Operator {
    const char* name;
    const char* summary;
    std::span<const Argument> arguments;  // without arguments 0 and 1
    std::span<const Overlap> overlaps = {};
    std::span<const Lookup> lookups = {};

    // Whether an element of a result hangs on the C maths library, whose roundings differ from machine to
    // machine: it serves the elements that do not fill a block of four. Null: none does.
    bool (*by_maths)(Values values, uint64_t element) = nullptr;
    // Whether the memories of all arguments are fetched from the accelerator, those only written too.
    bool fetches_outputs = false;

    const Argument& at(size_t position) const { return arguments[position - kFirstArgument]; }
    // Whether two of its arguments, one of which is written, may lie over each other.
    bool may_overlap(size_t a, size_t b, Overlap::Kind kind, Values values) const;
};

// Indexed by operator id.
extern const std::span<const Operator, KEL_RT_NUM_OPS> kOperators;

// By name, or by id in decimal; null when there is none.
const Operator* find_operator(std::string_view name_or_id);

// The operator that the library runs for these records, which begin with arguments 0 and 1; null if it
// refuses them for their number, types or operator id.
const Operator* accepted(std::span<const KelRtContextArg> records);

// Bytes that are read and bytes that are written, of all operands.
uint64_t touched_bytes(const Operator& op, Values values);

inline uint32_t id_of(const Operator& op) {
    return static_cast<uint32_t>(&op - kOperators.data());
}

inline bool moves_sram(uint32_t operator_id) {
    return operator_id == op::kSramGet || operator_id == op::kSramSet;
}

// Where an operand begins in its memory: the SRAM operators ignore the offset.
inline uint32_t start_of(const Operator& op, uint32_t offset) {
    return moves_sram(id_of(op)) ? 0 : offset;
}

// Addresses that the rows of an SRAM operator take; beyond 32 bits they wrap.
Range sram_addresses(Values values);

// Whether a context lets the operator choose the scale of its output, which it tells as a shift.
bool chooses_scale(uint32_t operator_id, Values values);

// The row that an index stands for, as the operators that look one up take it.
uint32_t row_of(float index);

// "integer", "memory" or "float".
const char* name_of(KelRtArgType type);

// `kelrt ops` and `kelrt ops NAME`, on standard output.
void print_operators();
void print_operator(const Operator& op);

}  // namespace tool
