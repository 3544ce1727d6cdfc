// Random valid arguments of every operator: scalars by a rule each, operands of sensible floats.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "operators.h"

namespace contexts {

using Random = std::mt19937;

inline uint32_t below(Random& random, uint32_t end) {
    return static_cast<uint32_t>(random() % end);
}

// Geometry is a few units each way, so that tails and whole blocks both come up.
inline uint32_t scalar(const tool::Operator& op, const char* name, Random& random) {
    const auto is = [&](const char* other) { return std::strcmp(name, other) == 0; };
    const auto one_of = [&](std::initializer_list<uint32_t> values) {
        return *(values.begin() + below(random, static_cast<uint32_t>(values.size())));
    };
    if (is("out_tot_bits"))
        return one_of({8, UINT32_MAX});
    if (is("inp_tot_bits"))
        return one_of({8, 16, 32, UINT32_MAX});
    if (is("out_frac_bits") || is("inp_frac_bits"))
        return below(random, 8);
    if (is("out_scale"))
        return below(random, 3);
    if (is("cifg") || is("transA") || is("transB") || is("dir") || op.at(2).type == 0 ||
        std::strstr(name, "Norm") || is("cpuActivation"))
        return below(random, 2);
    if (is("scale") || is("bias") || is("on_value") || is("off_value") || is("epsilon"))
        return 0x3E000000 + below(random, 0x1000000);
    if (is("sram_address"))
        return 4096;
    if (is("kernelHeight") || is("kernelWidth"))
        return 1 + below(random, 3);
    if (is("rows") || is("cols"))
        return 3 + below(random, 9);
    return 1 + below(random, 20);
}

// Values by position in the context, memories still without an id; the rules between them hold.
inline std::vector<uint32_t> values(const tool::Operator& op, Random& random) {
    std::vector<uint32_t> v(tool::kFirstArgument);
    for (const tool::Argument& argument : op.arguments)
        v.push_back(argument.is_memory() ? 0 : scalar(op, argument.name, random));
    switch (tool::id_of(op)) {
        case 10:  // the inner dimensions agree
            v[v[10] ? 8 : 7] = v[v[9] ? 5 : 6];
            break;
        case 11:
            v[3] += v[6];
            break;
        case 15:  // the one combination that is not supported
            v[7] |= v[13];
            break;
        case 17:
        case 18:
            v[4] = v[3] + below(random, 5);  // a stride that keeps rows apart
            break;
    }
    return v;
}

// Floats from -2 to 2, the first of them an index; as bytes they are anything.
inline std::vector<uint8_t> operand(size_t size, uint32_t index, Random& random) {
    std::vector<uint8_t> bytes(size);
    for (size_t at = 0; at < size; at += 4) {
        const float value = at == 0 ? static_cast<float>(index)
                                    : static_cast<float>(static_cast<int>(below(random, 4001)) - 2000) / 1000;
        std::memcpy(&bytes[at], &value, std::min<size_t>(4, size - at));
    }
    return bytes;
}

}  // namespace contexts
