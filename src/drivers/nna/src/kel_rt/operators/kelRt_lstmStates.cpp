// The LSTM state update: from the gate values of one time step and the previous cell state to the new cell
// and hidden states, with the variants that the five LSTM operators need.
//
//   c = i * g + f * c      h = o * tanh(c)
//
// The gate buffer is scratch: activations and a coupled input gate are written back into it, so that no
// kernel here needs memory of its own.
#include <array>
#include <cmath>

#include "instruction_sets.h"
#include "log.h"
#include "math/lane_sums.h"

namespace kelrt::KELRT_SET {

namespace {

// The four blocks of the gate buffer, n floats each.
struct Gates {
    float *input, *forget, *output, *candidate;

    Gates(float* gates, size_t n)
        : input(gates), forget(gates + n), output(gates + 2 * n), candidate(gates + 3 * n) {}
};

void activate(const Gates& gates, uint32_t n, bool cifg) {
    if (!cifg)  // a coupled input gate is made from the forget gate instead
        kelRt_sigmoidf(gates.input, gates.input, n);
    kelRt_tanhf(gates.candidate, gates.candidate, n);
    kelRt_sigmoidf(gates.forget, gates.forget, n);
    kelRt_sigmoidf(gates.output, gates.output, n);
}

// From raw gate values to the new cell state.
void update_cell_state(float* cell_state, const Gates& gates, uint32_t n, bool cpu_activation, bool cifg) {
    if (cpu_activation)
        activate(gates, n, cifg);
    if (cifg)
        kelRt_complementf(gates.forget, gates.input, n);
    kelRt_dotproductf(gates.input, gates.forget, gates.candidate, cell_state, cell_state, n);
}

void make_hidden_state(float* output, const float* cell_state, const Gates& gates, uint32_t n) {
    kelRt_tanhf(cell_state, output, n);
    kelRt_mulf(gates.output, output, output, n);
}

uint32_t kelRt_lstmStatesHelper(float* output, float* cellState, float* gates, uint32_t n, bool cpuActivation,
                                bool cifg) {
    if (!output || !cellState || !gates)
        return NNA_STATUS_NULL_POINTER;
    if (n == 0)
        return NNA_STATUS_INVALID_ARGUMENT;
    const kelrt::ProfileScope profile("kelRt_lstmStatesHelper");
    const Gates blocks(gates, n);
    update_cell_state(cellState, blocks, n, cpuActivation, cifg);
    make_hidden_state(output, cellState, blocks, n);
    return NNA_STATUS_OK;
}

}  // namespace

uint32_t kelRt_lstmStates(float* output, float* cellState, float* gates, uint32_t n) {
    return kelRt_lstmStatesHelper(output, cellState, gates, n, false, false);
}

uint32_t kelRt_lstmStatesCifg(float* output, float* cellState, float* gates, uint32_t n) {
    return kelRt_lstmStatesHelper(output, cellState, gates, n, false, true);
}

uint32_t kelRt_lstmStatesActivation(float* output, float* cellState, float* gates, uint32_t n) {
    return kelRt_lstmStatesHelper(output, cellState, gates, n, true, false);
}

uint32_t kelRt_lstmStatesActivationCifg(float* output, float* cellState, float* gates, uint32_t n) {
    return kelRt_lstmStatesHelper(output, cellState, gates, n, true, true);
}

namespace {

struct LayerNorm {
    float* dst;
    const float *src, *gamma, *beta;
};

// Layer normalisations of n elements each; no one's results are another's operands.
template <size_t count>
void layer_norms(const std::array<LayerNorm, count>& layers, uint32_t n, float epsilon) {
    Arrays<count> sources;
    for (size_t k = 0; k < count; ++k)
        sources[k] = layers[k].src;
    std::array<float, count> means = sums_of<count>(sources, n);
    for (float& mean : means)
        mean /= static_cast<float>(n);
    const std::array<float, count> variances = variances_of<count>(sources, means, n);
    for (size_t k = 0; k < count; ++k) {
        const float sd = std::sqrt(variances[k] + epsilon);
        KEL_LOG_DEBUG("sd=%0.3f, ", static_cast<double>(sd));
        KEL_LOG_DEBUG("mean=%0.3f, ", static_cast<double>(means[k]));
        kelRt_normf(layers[k].src, layers[k].gamma, layers[k].beta, means[k], sd, layers[k].dst, n);
    }
}

}  // namespace

uint32_t kelRt_lstmLayerNorm(float* dst, const float* src, uint32_t n, const float* gamma, const float* beta,
                             float epsilon) {
    layer_norms<1>({{{dst, src, gamma, beta}}}, n, epsilon);
    return NNA_STATUS_OK;
}

namespace {

// The parameters of gate block k start k * n bytes, not floats, into their vectors: this is how the networks
// in the field were laid out. The vectors of successive blocks overlap, and their floats sit at any address.
const float* parameters_of_block(const float* vector, size_t k, size_t n) {
    return reinterpret_cast<const float*>(reinterpret_cast<uintptr_t>(vector) + k * n);
}

void normalise_gates(const Gates& gates, uint32_t n, bool cifg, bool per_gate, const float* gamma,
                     const float* beta, float epsilon) {
    const auto layer = [&](float* values, size_t first_block) {
        return LayerNorm{values, values, parameters_of_block(gamma, first_block, n),
                         parameters_of_block(beta, first_block, n)};
    };
    const LayerNorm forget = layer(gates.forget, 1), output = layer(gates.output, 2),
                    candidate = layer(gates.candidate, 3);
    if (per_gate && cifg)
        layer_norms<3>({forget, output, candidate}, n, epsilon);
    else if (per_gate)
        layer_norms<4>({layer(gates.input, 0), forget, output, candidate}, n, epsilon);
    else if (cifg)
        layer_norms<1>({forget}, 3 * n, epsilon);
    else
        layer_norms<1>({layer(gates.input, 0)}, 4 * n, epsilon);
}

}  // namespace

uint32_t kelRt_lstmStatesCifgActivationNorm(float* output, float* cellState, float* gates, uint32_t n,
                                            int32_t cifg, int32_t cpuActivation, float epsilon,
                                            const float* gateGamma, const float* gateBeta,
                                            const float* cellGamma, const float* cellBeta, int32_t gateNorm,
                                            int32_t perGateNorm, int32_t cellNorm, int32_t cellNormInPlace) {
    if (!output || !cellState || !gates)
        return NNA_STATUS_NULL_POINTER;
    if (n == 0)
        return NNA_STATUS_INVALID_ARGUMENT;
    if (gateNorm && (!gateGamma || !gateBeta))
        return NNA_STATUS_NULL_POINTER;
    if (cellNorm && (!cellGamma || !cellBeta))
        return NNA_STATUS_NULL_POINTER;
    const kelrt::ProfileScope profile("kelRt_lstmStatesCifgActivationNorm");
    if (gateNorm && !cpuActivation) {
        KEL_LOG_ERR("Gate Normalization without CPU activation not supported");
        return NNA_STATUS_UNSUPPORTED;
    }

    const Gates blocks(gates, n);
    if (gateNorm)
        normalise_gates(blocks, n, cifg != 0, perGateNorm != 0, gateGamma, gateBeta, epsilon);
    update_cell_state(cellState, blocks, n, cpuActivation != 0, cifg != 0);

    const float* into_tanh = cellState;
    if (cellNorm) {
        // Not in place, the stored cell state stays as it is and the normalised one goes by way of output.
        float* normalised = cellNormInPlace ? cellState : output;
        kelRt_lstmLayerNorm(normalised, cellState, n, cellGamma, cellBeta, epsilon);
        into_tanh = normalised;
    }
    make_hidden_state(output, into_tanh, blocks, n);
    return NNA_STATUS_OK;
}

}  // namespace kelrt::KELRT_SET
