// The nineteen operators, each argument with its meaning and the bytes it covers. Functions of a context's
// values name an argument by its position, as the context does.
#include "operators.h"

#include <algorithm>
#include <charconv>

#include "im2col_geometry.h"

namespace tool {
namespace {

// ---- how much of a memory an operator touches ----

double dimension(uint32_t value) {
    return std::max(0.0, static_cast<double>(static_cast<int32_t>(value)));
}

uint32_t quotient(uint32_t dividend, uint32_t divisor) {
    return divisor == 0 ? 0 : dividend / divisor;
}

// `times` floats for each unit of argument `position`.
template <int position, int times = 1>
double floats(Values v) {
    return 4.0 * times * v[position];
}

template <int position>
double bytes(Values v) {
    return v[position];
}

double one_float(Values) {
    return 4;
}

double format_size(uint32_t total_bits) {
    return total_bits == UINT32_MAX ? 4 : total_bits / 8;
}

double copy_output(Values v) {
    return format_size(v[3]) * v[10];
}

// With an automatic scale the input is also read as floats, whatever its format.
double copy_input(Values v) {
    const bool automatic = v[3] == 8 && v[5] == 0;
    // The automatic scale looks at the input as floats, four of them at least.
    return std::max(format_size(v[7]) * v[10], automatic ? 4.0 * std::max(v[10], 4u) : 0.0);
}

// Whole lines only.
double hw32(uint32_t size, uint32_t line) {
    return 4.0 * quotient(size, line) * line;
}

double hw32_fixed(Values v) {
    return hw32(v[4], 8);
}

double hw32_param(Values v) {
    return hw32(v[4], v[6]);
}

kelrt::Im2colGeometry geometry(Values v) {
    return {v[4], v[5], v[6], v[7], v[8], v[10], v[11]};
}

double patches_input(Values v) {
    return static_cast<double>(geometry(v).input_bytes());
}

double patches_output(Values v) {
    return static_cast<double>(geometry(v).output_bytes());
}

struct Matmul {
    explicit Matmul(Values v)
        : m(dimension(v[v[9] ? 6 : 5])),
          k(dimension(v[v[9] ? 5 : 6])),
          n(dimension(v[v[10] ? 7 : 8])),
          stored_a(v[9] ? dimension(v[5]) * dimension(v[6]) : 0),
          stored_b(v[10] ? dimension(v[7]) * dimension(v[8]) : 0) {}
    double m, k, n, stored_a, stored_b;
};

double matmul_a(Values v) {
    const Matmul p(v);
    return 4 * std::max(p.n > 0 ? p.m * p.k : 0, p.stored_a);
}

double matmul_b(Values v) {
    const Matmul p(v);
    return 4 * std::max(p.m > 0 ? p.k * p.n : 0, p.stored_b);
}

double matmul_c(Values v) {
    const Matmul p(v);
    return 4 * p.m * p.n;
}

// Whether transposing moves any element.
template <int flag, int rows, int cols>
bool transposes(Values v) {
    return v[flag] != 0 && dimension(v[rows]) > 1 && dimension(v[cols]) > 1;
}

double frames(Values v) {
    const uint32_t total = v[3], length = v[6];
    return length > total ? 0 : 4.0 * quotient(total, length) * length;
}

double frame(Values v) {
    return v[6] > v[3] ? 0 : 4.0 * v[6];
}

// The parameters of gate block k start k*n bytes, not floats, after the vector's start.
double gate_parameters(Values v) {
    const bool cifg = v[6], normalise = v[13], per_gate = v[14];
    if (!normalise)
        return 0;
    return (per_gate ? 7.0 : cifg ? 13.0 : 16.0) * v[5];
}

double cell_parameters(Values v) {
    return v[15] ? 4.0 * v[5] : 0;
}

bool always(Values) {
    return true;
}

double sram_rows(Values v) {
    return 1.0 * v[3] * v[5];
}

// ---- the arguments ----

using Extent = double (*)(Values);

constexpr Argument in(const char* name, Extent extent, const char* meaning,
                      Element element = Element::Float) {
    return {name, KEL_RT_ARG_MEM, Use::Input, element, meaning, extent};
}

constexpr Argument out(const char* name, Extent extent, const char* meaning,
                       Element element = Element::Float) {
    return {name, KEL_RT_ARG_MEM, Use::Output, element, meaning, extent};
}

constexpr Argument inout(const char* name, Extent extent, const char* meaning) {
    return {name, KEL_RT_ARG_MEM, Use::InOut, Element::Float, meaning, extent};
}

// An operand that the operator works in. Only the CPU's view of accelerator memory shows it, until something
// else in that memory is published; a CPU buffer keeps it.
constexpr Argument scratch(const char* name, Extent extent, bool (*is_changed)(Values), const char* meaning) {
    return {name, KEL_RT_ARG_MEM, Use::Input, Element::Float, meaning, extent, is_changed};
}

constexpr Argument val(const char* name, const char* meaning) {
    return {name, KEL_RT_ARG_VAL, Use::Scalar, Element::None, meaning, nullptr};
}

constexpr Argument flt(const char* name, const char* meaning) {
    return {name, KEL_RT_ARG_FLT, Use::Scalar, Element::None, meaning, nullptr};
}

constexpr Argument kInstanceNorm[] = {
    out("out", floats<4>, "n values, normalised, scaled and shifted"),
    in("in", floats<4>, "n values of one channel"),
    val("n", "number of values"),
    flt("scale", "multiplies every normalised value"),
    flt("bias", "is added to every scaled value"),
};

constexpr Argument kLstm[] = {
    out("out", floats<5>, "new hidden state, n values"),
    inout("cell", floats<5>, "cell state, n values: the previous one, replaced by the new one"),
    scratch("gates", floats<5, 4>, always,
            "4 blocks of n values: input, forget, output gate, cell candidate; left changed"),
    val("n", "number of units"),
};

constexpr Argument kCopyFormat[] = {
    out("out", copy_output, "the converted values", Element::Any),
    val("out_tot_bits", "8 for fixed point, 0xFFFFFFFF for float"),
    val("out_frac_bits", "fraction bits of the output"),
    val("out_scale", "integer scale of the output; 0 chooses one from the data's range"),
    in("in", copy_input, "the values to convert", Element::Any),
    val("inp_tot_bits", "8, 16 or 32 for fixed point, 0xFFFFFFFF for float"),
    val("inp_frac_bits", "fraction bits of the input"),
    val("inp_scale", "integer scale of the input"),
    val("count", "number of values"),
};

constexpr Argument kOneHot[] = {
    out("out", floats<4>, "depth values"),      in("index", one_float, "the index, as one float"),
    val("depth", "number of values"),           flt("on_value", "what the element at the index becomes"),
    flt("off_value", "what the others become"),
};

constexpr Argument kAdd[] = {
    out("out", floats<5>, "n sums; may be a or b"),
    in("a", floats<5>, "n values"),
    in("b", floats<5>, "n values"),
    val("n", "number of values"),
};

constexpr Argument kSoftmax[] = {
    out("out", floats<4>, "n probabilities; may be in"),
    in("in", floats<4>, "n values, exponentiated as they stand"),
    val("n", "number of values"),
};

constexpr Argument kHw32[] = {
    out("out", hw32_fixed, "the converted elements", Element::Any),
    in("in", hw32_fixed, "the elements to convert", Element::Any),
    val("size", "number of 32-bit elements"),
    val("dir", "0: hw32 to linear; otherwise linear to hw32"),
};

constexpr Argument kHw32Param[] = {
    out("out", hw32_param, "the converted elements", Element::Any),
    in("in", hw32_param, "the elements to convert", Element::Any),
    val("size", "number of 32-bit elements"),
    val("dir", "0: hw32 to linear; otherwise linear to hw32"),
    val("nna_out_line_sz", "elements of one hw32 line"),
};

constexpr Argument kEmbedding[] = {
    out("out", floats<5>, "the row at the index"),
    in("index", one_float, "the index, as one float; not checked against the table"),
    in("table", floats<5>, "rows of w values"),
    val("w", "values of one row"),
};

constexpr Argument kIm2col[] = {
    in("in", patches_input, "rows x cols x channels bytes", Element::Byte),
    out("out", patches_output, "a patch per position, each padded with zeros to a multiple of 8 bytes",
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
    scratch("a", matmul_a, transposes<9, 5, 6>, "aRows x aCols values; left transposed by transA"),
    scratch("b", matmul_b, transposes<10, 7, 8>, "bRows x bCols values; left transposed by transB"),
    out("c", matmul_c, "the product"),
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
    out("out", frames, "the normalised frames"),
};

constexpr Argument kSplit[] = {
    in("in", bytes<4>, "nbytes bytes", Element::Any),
    out("out", bytes<4>, "their copy; must not overlap in", Element::Any),
    val("nbytes", "number of bytes"),
};

constexpr Argument kLstmNorm[] = {
    out("out", floats<5>, "new hidden state, n values"),
    inout("cell", floats<5>, "cell state, n values: the previous one, replaced by the new one"),
    scratch("gates", floats<5, 4>, always,
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
    out("mem", sram_rows, "the rows, packed; its offset is ignored and its cache not maintained",
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

constexpr Operator kCatalogue[KEL_RT_NUM_OPS] = {
    {"cpu_onnx_inst_norm", "normalises one channel to zero mean and unit deviation", kInstanceNorm},
    {"cpu_lstm_states", "LSTM state update, gates already activated", kLstm},
    {"cpu_copy_fmt_conv", "copies values from one number format to another", kCopyFormat},
    {"cpu_onnx_onehot", "sets one element on and the others off", kOneHot},
    {"cpu_ewop_add", "adds two vectors element by element", kAdd},
    {"cpu_softmax", "exponentials divided by their sum", kSoftmax},
    {"cpu_hw32_fmt_conv", "converts between hw32 lines of 8 elements and linear layout", kHw32},
    {"cpu_embedding", "copies one row of a table", kEmbedding},
    {"cpu_lstm_states_cpu_activation", "LSTM state update that activates the gates", kLstm},
    {"cpu_im2col", "lays convolution patches out one after another", kIm2col},
    {"cpu_matmul", "multiplies two matrices, either of which may be transposed", kMatmul},
    {"cpu_featurenorm", "subtracts a mean from and divides every frame of features", kFeatureNorm},
    {"cpu_split", "copies bytes", kSplit},
    {"cpu_lstm_states_cifg", "LSTM state update with coupled gates, already activated", kLstm},
    {"cpu_lstm_states_cpu_activation_cifg", "LSTM state update with coupled gates that activates them",
     kLstm},
    {"cpu_lstm_states_norm_cifg_cpuactv", "LSTM state update that normalises gates and cell state",
     kLstmNorm},
    {"cpu_hw32_fmt_conv_param", "converts between hw32 lines of any length and linear layout", kHw32Param},
    {"nna_sram_get", "copies rows from SRAM to a memory", kSramGet},
    {"nna_sram_set", "copies rows from a memory to SRAM", kSramSet},
};

}  // namespace

constexpr std::span<const Operator, KEL_RT_NUM_OPS> kOperators(kCatalogue);

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
