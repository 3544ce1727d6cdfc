// A rule is a line: of which operator, at which argument, when, and what it means.
#include "oddities.h"

namespace tool {
namespace {

struct Rule {
    uint32_t op;
    bool is_error;
    size_t position;  // in the context, as everywhere
    bool (*holds)(Values v);
    const char* what;
};

bool is_negative(uint32_t value) {
    return value > INT32_MAX;
}

template <int position>
bool negative(Values v) {
    return is_negative(v[position]);
}

bool inner_dimensions_differ(Values v) {
    return v[v[9] ? 5 : 6] != v[v[10] ? 8 : 7];
}

bool measures_integers(Values v) {
    return chooses_scale(op::kCopyFormat, v) && v[7] != kFloatBits;
}

bool reaches_past_32_bits(Values v) {
    return sram_addresses(v).end > uint64_t{1} << 32;
}

bool rows_meet(Values v) {
    return v[5] > 1 && v[4] < v[3];
}

constexpr const char* kWrapped = "addresses of SRAM rows wrap at 32 bits";
constexpr const char* kRowsMeet = "rows of SRAM overlap: the stride is smaller than a row";
constexpr const char* kNegative = "a negative dimension makes no work";

constexpr Rule kRules[] = {
    {op::kCopyFormat, false, 5, measures_integers,
     "an automatic scale reads integers as if they were floats"},
    {op::kHw32, false, 4, [](Values v) { return v[4] % 8 != 0; },
     "elements after the last whole line of 8 are not converted"},
    {op::kIm2col, true, 4, [](Values v) { return v[7] > v[4]; },
     "the geometry wraps: the kernel is higher than the input"},
    {op::kIm2col, true, 5, [](Values v) { return v[8] > v[5]; },
     "the geometry wraps: the kernel is wider than the input"},
    {op::kIm2col, false, 10, [](Values v) { return v[10] == 0 && v[7] < v[4]; },
     "a stride of 0 makes one row of patches"},
    {op::kIm2col, false, 11, [](Values v) { return v[11] == 0 && v[8] < v[5]; },
     "a stride of 0 makes one column of patches"},
    {op::kMatmul, true, 7, inner_dimensions_differ,
     "the inner dimensions differ; b is taken to have as many rows as a has columns"},
    {op::kMatmul, false, 5, negative<5>, kNegative},
    {op::kMatmul, false, 6, negative<6>, kNegative},
    {op::kMatmul, false, 7, negative<7>, kNegative},
    {op::kMatmul, false, 8, negative<8>, kNegative},
    {op::kFeatureNorm, false, 6, [](Values v) { return v[6] > v[3]; },
     "a frame longer than the input: nothing is written"},
    {op::kFeatureNorm, false, 3, [](Values v) { return v[6] && v[6] <= v[3] && v[3] % v[6] != 0; },
     "the last frame is not whole, and is not normalised"},
    {op::kHw32Lines, false, 4, [](Values v) { return v[6] == 0 || v[4] % v[6] != 0; },
     "elements after the last whole line are not converted"},
    {op::kSramGet, true, 2, reaches_past_32_bits, kWrapped},
    {op::kSramSet, true, 2, reaches_past_32_bits, kWrapped},
    {op::kSramGet, false, 4, rows_meet, kRowsMeet},
    {op::kSramSet, false, 4, rows_meet, kRowsMeet},
};

}  // namespace

void check_oddities(const Operator& op, std::span<const KelRtContextArg> arguments, const Job& job,
                    const ComplainOdd& complain) {
    const std::vector<uint32_t> values = values_of(arguments);
    for (const Rule& rule : kRules) {
        if (rule.op == id_of(op) && rule.holds(values))
            complain(rule.is_error, rule.position - kFirstArgument, rule.what);
    }
    for (size_t i = 0; i < arguments.size(); ++i) {
        const Argument& argument = op.arguments[i];
        const KelRtContextArg& given = arguments[i];
        if (!argument.is_memory() || given.value == KEL_RT_NO_MEMORY_ID)
            continue;
        if (argument.use == Use::Output && argument.written_range(values).length() == 0 &&
            argument.tensor(values).bytes() > 0)
            complain(false, i, "float to float copies nothing: the output stays as it was");
        const uint64_t alignment = argument.alignment(values);
        if (moves_sram(id_of(op)) && given.offset != 0)
            complain(false, i, "an offset of the memory of SRAM rows is ignored");
        else if (given.offset % alignment != 0)
            complain(false, i,
                     "offset " + std::to_string(given.offset) + " cuts elements of " +
                         std::to_string(alignment) + " bytes");
    }
    if (!moves_sram(id_of(op)) || !job.sram)
        return;
    const Range rows = sram_addresses(values);
    const uint64_t sram_end = job.sram->base + job.sram->initial.bytes.size();
    if (rows.length() > 0 && (rows.begin < job.sram->base || rows.end > sram_end))
        complain(true, 0,
                 "rows lie outside the SRAM, from " + std::to_string(job.sram->base) + " to " +
                     std::to_string(sram_end));
}

}  // namespace tool
