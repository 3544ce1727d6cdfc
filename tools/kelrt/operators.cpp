// The nineteen operators, each argument with its meaning and the bytes that are touched.
#include "operators.h"

#include <algorithm>
#include <charconv>

#include "float_index.h"
#include "im2col_geometry.h"

namespace tool {
namespace {

// ---- footprints ----
// 64 bits hold every product here: of two 32-bit numbers, of a third that is small, or of two dimensions of
// 31 bits and an element's 4 bytes.

uint64_t dimension(uint32_t value) {
    return value > INT32_MAX ? 0 : value;
}

uint32_t quotient(uint32_t dividend, uint32_t divisor) {
    return divisor == 0 ? 0 : dividend / divisor;
}

Tensor vector_of(Tensor::Type type, uint64_t count, size_t like = 0) {
    return {type, 1, {count}, like};
}

Tensor matrix_of(Tensor::Type type, uint64_t rows, uint64_t cols, size_t like = 0) {
    return {type, 2, {rows, cols}, like};
}

// `times` floats for each unit of argument `position`.
template <int position, int times = 1>
Range floats(Values v) {
    return {0, uint64_t{4} * times * v[position]};
}

template <int position>
Tensor float_vector(Values v) {
    return vector_of(Tensor::Type::Float, v[position]);
}

template <int position>
Range bytes(Values v) {
    return {0, v[position]};
}

Range one_float(Values) {
    return {0, 4};
}

uint64_t format_size(uint32_t total_bits) {
    return total_bits == kFloatBits ? 4 : total_bits / 8;
}

// Float to float copies nothing, but an output it has all the same.
bool copies_nothing(Values v) {
    return v[3] == kFloatBits && v[7] == kFloatBits;
}

Tensor converted(Values v) {
    const bool is_float = v[3] == kFloatBits;
    return is_float ? vector_of(Tensor::Type::Float, v[10])
                    : vector_of(Tensor::Type::Int8, format_size(v[3]) * v[10]);
}

Range copy_output(Values v) {
    return {0, copies_nothing(v) ? 0 : converted(v).bytes()};
}

// The automatic scale looks at the input as floats, whatever its format, four of them at least.
Range copy_input(Values v) {
    const uint64_t converts = copies_nothing(v) ? 0 : format_size(v[7]) * v[10];
    const uint64_t measures = chooses_scale(2, v) ? uint64_t{4} * std::max(v[10], 4u) : 0;
    return {0, std::max(converts, measures)};
}

template <int position>
uint64_t format_bytes(Values v) {
    return std::max<uint64_t>(format_size(v[position]), 1);
}

// Lines of 32-bit elements, in either layout.
uint64_t word(Values) {
    return 4;
}

bool copies_in_place(Values v) {
    return format_size(v[3]) == format_size(v[7]) || (v[3] == 8 && v[7] != kFloatBits);
}

// Whole lines only.
uint64_t whole_lines(uint32_t size, uint32_t line) {
    return uint64_t{4} * quotient(size, line) * line;
}

Range hw32_fixed(Values v) {
    return {0, whole_lines(v[4], 8)};
}

Range hw32_param(Values v) {
    return {0, whole_lines(v[4], v[6])};
}

// Linear elements are of the input's type; byte planes are not elements.
template <Range (*lines)(Values)>
Tensor hw32(Values v) {
    return vector_of(v[5] == 0 ? Tensor::Type::Like : Tensor::Type::Bytes, lines(v).end, 3);
}

uint64_t row_bytes(Values v) {
    return uint64_t{4} * v[5];
}

kelrt::Im2colGeometry geometry(Values v) {
    return {v[4], v[5], v[6], v[7], v[8], v[10], v[11]};
}

Range patches_input(Values v) {
    return {0, geometry(v).input_bytes()};
}

Tensor patches(Values v) {
    const kelrt::Im2colGeometry g = geometry(v);
    const uint64_t count = uint64_t{g.out_height()} * g.out_width();
    return matrix_of(Tensor::Type::Like, count, count ? g.output_bytes() / count : 0, 2);
}

struct Matmul {
    explicit Matmul(Values v)
        : m(dimension(v[v[9] ? 6 : 5])),
          k(dimension(v[v[9] ? 5 : 6])),
          n(dimension(v[v[10] ? 7 : 8])),
          transposed_a(v[9] ? moved(dimension(v[5]), dimension(v[6])) : 0),
          transposed_b(v[10] ? moved(dimension(v[7]), dimension(v[8])) : 0) {}

    // Transposing a single row or column moves nothing.
    static uint64_t moved(uint64_t rows, uint64_t cols) { return rows > 1 && cols > 1 ? 4 * rows * cols : 0; }

    uint64_t m, k, n;
    uint64_t transposed_a, transposed_b;  // bytes
};

Range matmul_a(Values v) {
    const Matmul p(v);
    return {0, std::max(p.n > 0 ? 4 * p.m * p.k : 0, p.transposed_a)};
}

Range transposed_a(Values v) {
    return {0, Matmul(v).transposed_a};
}

Range matmul_b(Values v) {
    const Matmul p(v);
    return {0, std::max(p.m > 0 ? 4 * p.k * p.n : 0, p.transposed_b)};
}

Range transposed_b(Values v) {
    return {0, Matmul(v).transposed_b};
}

Tensor product(Values v) {
    const Matmul p(v);
    return matrix_of(Tensor::Type::Float, p.m, p.n);
}

// A frame of nothing, or of more than there is, makes no frames.
Tensor normalised_frames(Values v) {
    return matrix_of(Tensor::Type::Float, quotient(v[3], v[6]), v[6]);
}

Range frames(Values v) {
    return {0, normalised_frames(v).bytes()};
}

Range frame(Values v) {
    return {0, quotient(v[3], v[6]) > 0 ? uint64_t{4} * v[6] : 0};
}

// The parameters of gate block k start k*n bytes, not floats, after the vector's start, and the coupled input
// gate, block 0, has none. Either each block has n of them, or all blocks are normalised as one.
Range gate_parameters(Values v) {
    const bool cifg = v[6], activation = v[7], normalise = v[13], per_gate = v[14];
    if (!normalise || !activation)
        return {};
    const uint64_t n = v[5], first = cifg ? 1 : 0;
    return {first * n, per_gate ? (3 + 4) * n : (first + 4 * (4 - first)) * n};
}

Range cell_parameters(Values v) {
    return {0, v[15] ? uint64_t{4} * v[5] : 0};
}

Tensor split_off(Values v) {
    return vector_of(Tensor::Type::Like, v[4], 2);
}

Range sram_rows(Values v) {
    return {0, uint64_t{v[3]} * v[5]};
}

Tensor sram_tensor(Values v) {
    return matrix_of(Tensor::Type::Like, v[5], v[3], 0);
}

// ---- results that hang on the maths library ----

// The values of every gate, and of the states, that come last.
bool in_tail(Values v, uint64_t element) {
    return v[5] != 0 && element % v[5] >= v[5] - v[5] % 4;
}

// Through the sum each exponential of the tail is in every element.
bool through_sum(Values v, uint64_t) {
    return v[4] % 4 != 0;
}

// Normalising the cell state spreads its tail likewise.
bool in_tail_or_normalised(Values v, uint64_t element) {
    return v[15] ? v[5] % 4 != 0 : in_tail(v, element);
}

// ---- the arguments ----

using Touch = Range (*)(Values);

constexpr Argument in(const char* name, Touch reads, const char* meaning, Element element = Element::Float) {
    return {name, KEL_RT_ARG_MEM, Use::Input, element, meaning, reads};
}

// An input whose memory the operator writes as well.
constexpr Argument scratch(const char* name, Touch reads, Touch writes, const char* meaning) {
    return {name, KEL_RT_ARG_MEM, Use::Input, Element::Float, meaning, reads, writes};
}

constexpr Argument out(const char* name, Tensor (*tensor)(Values), const char* meaning,
                       Element element = Element::Float) {
    return {name, KEL_RT_ARG_MEM, Use::Output, element, meaning, nullptr, nullptr, tensor};
}

constexpr Argument inout(const char* name, Touch touches, const char* meaning) {
    return {name, KEL_RT_ARG_MEM, Use::InOut, Element::Float, meaning, touches, touches};
}

// The same with elements of another size than floats and bytes.
constexpr Argument with_elements(Argument argument, uint64_t (*element_bytes)(Values),
                                 Touch writes = nullptr) {
    argument.element_bytes = element_bytes;
    argument.writes = writes;
    return argument;
}

constexpr Argument val(const char* name, const char* meaning) {
    return {name, KEL_RT_ARG_VAL, Use::Scalar, Element::None, meaning};
}

constexpr Argument flt(const char* name, const char* meaning) {
    return {name, KEL_RT_ARG_FLT, Use::Scalar, Element::None, meaning};
}

constexpr Argument kInstanceNorm[] = {
    out("out", float_vector<4>, "n values, normalised, scaled and shifted"),
    in("in", floats<4>, "n values of one channel"),
    val("n", "number of values"),
    flt("scale", "multiplies every normalised value"),
    flt("bias", "is added to every scaled value"),
};

constexpr Argument kLstm[] = {
    out("out", float_vector<5>, "new hidden state, n values"),
    inout("cell", floats<5>, "cell state, n values: the previous one, replaced by the new one"),
    scratch("gates", floats<5, 4>, floats<5, 4>,
            "4 blocks of n values: input, forget, output gate, cell candidate; left changed"),
    val("n", "number of units"),
};

constexpr Argument kCopyFormat[] = {
    with_elements(out("out", converted, "the converted values", Element::Any), format_bytes<3>, copy_output),
    val("out_tot_bits", "8 for fixed point, 0xFFFFFFFF for float"),
    val("out_frac_bits", "fraction bits of the output"),
    val("out_scale", "integer scale of the output; 0 chooses one from the data's range"),
    with_elements(in("in", copy_input, "the values to convert", Element::Any), format_bytes<7>),
    val("inp_tot_bits", "8, 16 or 32 for fixed point, 0xFFFFFFFF for float"),
    val("inp_frac_bits", "fraction bits of the input"),
    val("inp_scale", "integer scale of the input"),
    val("count", "number of values"),
};

constexpr Argument kOneHot[] = {
    out("out", float_vector<4>, "depth values"),
    in("index", one_float, "the index, as one float"),
    val("depth", "number of values"),
    flt("on_value", "what the element at the index becomes"),
    flt("off_value", "what the others become"),
};

constexpr Argument kAdd[] = {
    out("out", float_vector<5>, "n sums; may be a or b"),
    in("a", floats<5>, "n values"),
    in("b", floats<5>, "n values"),
    val("n", "number of values"),
};

constexpr Argument kSoftmax[] = {
    out("out", float_vector<4>, "n probabilities; may be in"),
    in("in", floats<4>, "n values, exponentiated as they stand"),
    val("n", "number of values"),
};

constexpr Argument kHw32[] = {
    with_elements(out("out", hw32<hw32_fixed>, "the converted elements", Element::Any), word),
    with_elements(in("in", hw32_fixed, "the elements to convert", Element::Any), word),
    val("size", "number of 32-bit elements"),
    val("dir", "0: hw32 to linear; otherwise linear to hw32"),
};

constexpr Argument kHw32Param[] = {
    with_elements(out("out", hw32<hw32_param>, "the converted elements", Element::Any), word),
    with_elements(in("in", hw32_param, "the elements to convert", Element::Any), word),
    val("size", "number of 32-bit elements"),
    val("dir", "0: hw32 to linear; otherwise linear to hw32"),
    val("nna_out_line_sz", "elements of one hw32 line"),
};

constexpr Argument kEmbedding[] = {
    out("out", float_vector<5>, "the row at the index"),
    in("index", one_float, "the index, as one float; not checked against the table by the library"),
    in("table", floats<5>, "rows of w values"),
    val("w", "values of one row"),
};

constexpr Argument kIm2col[] = {
    in("in", patches_input, "rows x cols x channels bytes", Element::Byte),
    out("out", patches, "a patch per position, each padded with zeros to a multiple of 8 bytes",
        Element::Byte),
    val("rows", "height of the input"),
    val("cols", "width of the input"),
    val("channels", "bytes of one point of the input"),
    val("kernelHeight", "height of the receptive field"),
    val("kernelWidth", "width of the receptive field"),
    val("filters", "only logged"),
    val("rowStride", "rows between positions"),
    val("colStride", "columns between positions"),
};

constexpr Argument kMatmul[] = {
    scratch("a", matmul_a, transposed_a, "aRows x aCols values; left transposed by transA"),
    scratch("b", matmul_b, transposed_b, "bRows x bCols values; left transposed by transB"),
    out("c", product, "the product"),
    val("aRows", "rows of a as stored"),
    val("aCols", "columns of a as stored"),
    val("bRows", "rows of b as stored"),
    val("bCols", "columns of b as stored"),
    val("transA", "not 0: a is transposed first"),
    val("transB", "not 0: b is transposed first"),
};

constexpr Argument kFeatureNorm[] = {
    in("in", frames, "total values: frames of featureLen values"),
    val("total", "number of values; a trailing partial frame is left out"),
    in("mean", frame, "featureLen values that are subtracted"),
    in("var", frame, "featureLen values that are divided by, as they stand"),
    val("featureLen", "values of one frame"),
    out("out", normalised_frames, "the normalised frames"),
};

constexpr Argument kSplit[] = {
    in("in", bytes<4>, "nbytes bytes", Element::Any),
    out("out", split_off, "their copy; must not overlap in", Element::Any),
    val("nbytes", "number of bytes"),
};

constexpr Argument kLstmNorm[] = {
    out("out", float_vector<5>, "new hidden state, n values"),
    inout("cell", floats<5>, "cell state, n values: the previous one, replaced by the new one"),
    scratch("gates", floats<5, 4>, floats<5, 4>,
            "4 blocks of n values: input, forget, output gate, cell candidate; left changed"),
    val("n", "number of units"),
    val("cifg", "not 0: the input gate is 1 - forget gate"),
    val("cpuActivation", "not 0: the gates are raw and activated here"),
    flt("epsilon", "is added to each variance"),
    in("gateGamma", gate_parameters, "scales of the gates, block k from byte k*n; gateNorm only"),
    in("gateBeta", gate_parameters, "shifts of the gates, block k from byte k*n; gateNorm only"),
    in("cellGamma", cell_parameters, "n scales of the cell state; cellNorm only"),
    in("cellBeta", cell_parameters, "n shifts of the cell state; cellNorm only"),
    val("gateNorm", "not 0: the gates are normalised; needs cpuActivation"),
    val("perGateNorm", "not 0: each gate block by itself"),
    val("cellNorm", "not 0: the new cell state is normalised"),
    val("cellNormInPlace", "not 0: the stored cell state is the normalised one"),
};

constexpr Argument kSramGet[] = {
    val("sram_address", "address of the first row"),
    val("row_size", "bytes of one row"),
    val("sram_stride", "bytes between rows in SRAM"),
    val("rows", "number of rows"),
    out("mem", sram_tensor, "the rows, packed; its offset is ignored and its cache not maintained",
        Element::Any),
};

constexpr Argument kSramSet[] = {
    val("sram_address", "address of the first row"),
    val("row_size", "bytes of one row"),
    val("sram_stride", "bytes between rows in SRAM"),
    val("rows", "number of rows"),
    in("mem", sram_rows, "the rows, packed; its offset is ignored and its cache not maintained",
       Element::Any),
};

// ---- what may lie over what, and what is looked up ----

constexpr Overlap kOutIsIn[] = {{Overlap::AsSame, 2, 3}};
constexpr Overlap kOutIsAOrB[] = {{Overlap::AsSame, 2, 3}, {Overlap::AsSame, 2, 4}};
constexpr Overlap kConvertsInPlace[] = {{Overlap::AsSame, 2, 6, copies_in_place}};
constexpr Overlap kPatches[] = {{Overlap::Anyhow, 2, 3}};
constexpr Overlap kProduct[] = {{Overlap::Anyhow, 2, 3}, {Overlap::Anyhow, 2, 4}, {Overlap::Anyhow, 3, 4}};
constexpr Overlap kNormalisesInPlace[] = {{Overlap::AsSame, 2, 7}};
constexpr Lookup kRows[] = {{3, 4, row_bytes}};

constexpr Operator lstm(const char* name, const char* summary, std::span<const Argument> arguments,
                        bool (*by_maths)(Values, uint64_t) = in_tail) {
    return {name, summary, arguments, {}, {}, by_maths, true};
}

constexpr Operator kCatalogue[KEL_RT_NUM_OPS] = {
    {"cpu_onnx_inst_norm", "normalises one channel to zero mean and unit deviation", kInstanceNorm, kOutIsIn},
    lstm("cpu_lstm_states", "LSTM state update, gates already activated", kLstm),
    {"cpu_copy_fmt_conv", "copies values from one number format to another", kCopyFormat, kConvertsInPlace},
    {"cpu_onnx_onehot", "sets one element on and the others off", kOneHot},
    {"cpu_ewop_add", "adds two vectors element by element", kAdd, kOutIsAOrB},
    {"cpu_softmax", "exponentials divided by their sum", kSoftmax, kOutIsIn, {}, through_sum},
    {"cpu_hw32_fmt_conv", "converts between hw32 lines of 8 elements and linear layout", kHw32, kOutIsIn},
    {"cpu_embedding", "copies one row of a table", kEmbedding, {}, kRows},
    lstm("cpu_lstm_states_cpu_activation", "LSTM state update that activates the gates", kLstm),
    {"cpu_im2col", "lays convolution patches out one after another", kIm2col, kPatches},
    {"cpu_matmul", "multiplies two matrices, either of which may be transposed", kMatmul, kProduct},
    {"cpu_featurenorm", "subtracts a mean from and divides every frame of features", kFeatureNorm,
     kNormalisesInPlace},
    {"cpu_split", "copies bytes", kSplit},
    lstm("cpu_lstm_states_cifg", "LSTM state update with coupled gates, already activated", kLstm),
    lstm("cpu_lstm_states_cpu_activation_cifg", "LSTM state update with coupled gates that activates them",
         kLstm),
    lstm("cpu_lstm_states_norm_cifg_cpuactv", "LSTM state update that normalises gates and cell state",
         kLstmNorm, in_tail_or_normalised),
    {"cpu_hw32_fmt_conv_param", "converts between hw32 lines of any length and linear layout", kHw32Param,
     kOutIsIn},
    {"nna_sram_get", "copies rows from SRAM to a memory", kSramGet},
    {"nna_sram_set", "copies rows from a memory to SRAM", kSramSet},
};
static_assert(kCatalogue[KEL_RT_NUM_OPS - 1].name, "KEL_RT_NUM_OPS counts an operator that is not here");

}  // namespace

constexpr std::span<const Operator, KEL_RT_NUM_OPS> kOperators(kCatalogue);

uint64_t Tensor::bytes() const {
    return shape[0] * (rank == 2 ? shape[1] : 1) * (type == Type::Float ? 4 : 1);
}

Range Argument::written_range(Values values) const {
    return writes ? writes(values) : tensor ? Range{0, tensor(values).bytes()} : Range{};
}

uint64_t Argument::alignment(Values values) const {
    return element_bytes ? element_bytes(values) : element == Element::Float ? 4 : 1;
}

bool Operator::may_overlap(size_t a, size_t b, Overlap::Kind kind, Values values) const {
    return std::any_of(overlaps.begin(), overlaps.end(), [&](const Overlap& overlap) {
        const bool meant = (overlap.a == a && overlap.b == b) || (overlap.a == b && overlap.b == a);
        return meant && overlap.kind == kind && (!overlap.holds || overlap.holds(values));
    });
}

Range Lookup::row(float index_value, Values values) const {
    const uint64_t size = row_bytes(values);
    const auto begin = static_cast<uint32_t>(row_of(index_value) * size);  // as the kernel wraps it
    return {begin, begin + size};
}

Range sram_addresses(Values v) {
    const uint64_t address = v[2], row_size = v[3], stride = v[4], rows = v[5];
    return {address, rows == 0 ? address : address + (rows - 1) * stride + row_size};
}

bool chooses_scale(uint32_t operator_id, Values values) {
    return operator_id == op::kCopyFormat && values[3] == 8 && values[5] == 0;
}

uint32_t row_of(float index) {
    return kelrt::float_index(index);
}

const Operator* find_operator(std::string_view name_or_id) {
    for (const Operator& op : kOperators) {
        if (name_or_id == op.name)
            return &op;
    }
    unsigned id = 0;
    const char* const end = name_or_id.data() + name_or_id.size();
    const auto [stop, error] = std::from_chars(name_or_id.data(), end, id);
    return error == std::errc() && stop == end && id < KEL_RT_NUM_OPS ? &kOperators[id] : nullptr;
}

// Of types the library compares the low byte, and an operator's id is a byte too.
const Operator* accepted(std::span<const KelRtContextArg> records) {
    const auto has_type = [&](size_t i, KelRtArgType type) { return (records[i].type & 0xFF) == type; };
    if (records.size() < kFirstArgument || !has_type(0, KEL_RT_ARG_VAL) || !has_type(1, KEL_RT_ARG_VAL))
        return nullptr;
    const uint32_t id = records[1].value & 0xFF;
    if (id >= KEL_RT_NUM_OPS)
        return nullptr;
    const Operator& op = kOperators[id];
    const size_t count = op.arguments.size();
    if (records[0].value != count || records.size() < kFirstArgument + count)
        return nullptr;
    for (size_t i = 0; i < count; ++i) {
        if (!has_type(i + kFirstArgument, op.arguments[i].type))
            return nullptr;
    }
    return &op;
}

uint64_t touched_bytes(const Operator& op, Values values) {
    uint64_t bytes = 0;
    for (const Argument& argument : op.arguments)
        bytes += argument.read_range(values).length() + argument.written_range(values).length();
    return bytes;
}

const char* name_of(KelRtArgType type) {
    switch (type) {
        case KEL_RT_ARG_VAL:
            return "integer";
        case KEL_RT_ARG_MEM:
            return "memory";
        case KEL_RT_ARG_FLT:
            return "float";
        default:
            return "nothing";
    }
}

}  // namespace tool
