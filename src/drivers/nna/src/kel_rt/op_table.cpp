// The nineteen rows, in the order of their ids.
#include "op_table.h"

#include "adapters/adapters.h"

namespace kelrt {
namespace {

constexpr uint8_t VAL = KEL_RT_ARG_VAL;
constexpr uint8_t MEM = KEL_RT_ARG_MEM;
constexpr uint8_t FLT = KEL_RT_ARG_FLT;

// Type codes of one row; arguments 0 (count) and 1 (operator id) are the same for all.
template <uint8_t... operator_args>
constexpr uint8_t kTypes[] = {VAL, VAL, operator_args...};

template <uint32_t total>
constexpr KelRtOpEntry row(const char* name, const uint8_t (&types)[total], KelRtOpHandler handler) {
    return {name, total, total - 2, types, handler};
}

}  // namespace

// clang-format off
constexpr KelRtOpEntry kOpTable[KEL_RT_NUM_OPS] = {
    /*  0 */ row("cpu_onnx_inst_norm",                  kTypes<MEM, MEM, VAL, FLT, FLT>,                          run_instanceNorm),
    /*  1 */ row("cpu_lstm_states",                     kTypes<MEM, MEM, MEM, VAL>,                               run_lstmStates),
    /*  2 */ row("cpu_copy_fmt_conv",                   kTypes<MEM, VAL, VAL, VAL, MEM, VAL, VAL, VAL, VAL>,      run_copyFormatConv),
    /*  3 */ row("cpu_onnx_onehot",                     kTypes<MEM, MEM, VAL, FLT, FLT>,                          run_oneHot),
    /*  4 */ row("cpu_ewop_add",                        kTypes<MEM, MEM, MEM, VAL>,                               run_ewopAdd),
    /*  5 */ row("cpu_softmax",                         kTypes<MEM, MEM, VAL>,                                    run_softMax),
    /*  6 */ row("cpu_hw32_fmt_conv",                   kTypes<MEM, MEM, VAL, VAL>,                               run_hw32FmtConv),
    /*  7 */ row("cpu_embedding",                       kTypes<MEM, MEM, MEM, VAL>,                               run_embedding),
    /*  8 */ row("cpu_lstm_states_cpu_activation",      kTypes<MEM, MEM, MEM, VAL>,                               run_lstmStates),
    /*  9 */ row("cpu_im2col",                          kTypes<MEM, MEM, VAL, VAL, VAL, VAL, VAL, VAL, VAL, VAL>, run_im2col),
    /* 10 */ row("cpu_matmul",                          kTypes<MEM, MEM, MEM, VAL, VAL, VAL, VAL, VAL, VAL>,      run_matmul),
    /* 11 */ row("cpu_featurenorm",                     kTypes<MEM, VAL, MEM, MEM, VAL, MEM>,                     run_featurenorm),
    /* 12 */ row("cpu_split",                           kTypes<MEM, MEM, VAL>,                                    run_split),
    /* 13 */ row("cpu_lstm_states_cifg",                kTypes<MEM, MEM, MEM, VAL>,                               run_lstmStates),
    /* 14 */ row("cpu_lstm_states_cpu_activation_cifg", kTypes<MEM, MEM, MEM, VAL>,                               run_lstmStates),
    /* 15 */ row("cpu_lstm_states_norm_cifg_cpuactv",   kTypes<MEM, MEM, MEM, VAL, VAL, VAL, FLT, MEM, MEM, MEM, MEM,
                                                               VAL, VAL, VAL, VAL>,                               run_lstmStatesNorm),
    /* 16 */ row("cpu_hw32_fmt_conv_param",             kTypes<MEM, MEM, VAL, VAL, VAL>,                          run_hw32FmtConvParam),
    /* 17 */ row("nna_sram_get",                        kTypes<VAL, VAL, VAL, VAL, MEM>,                          run_sram),
    /* 18 */ row("nna_sram_set",                        kTypes<VAL, VAL, VAL, VAL, MEM>,                          run_sram),
};
// clang-format on
static_assert(kOpTable[KEL_RT_NUM_OPS - 1].total_args > 0,
              "KEL_RT_NUM_OPS counts an operator that has no row");

}  // namespace kelrt
