// The rows, and what follows from their scripts.
#include "rows.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "kelRt_platform.h"

namespace rows {
namespace {

using rig::flt;
using rig::mem;
using rig::val;

KelRtContextArg t(uint32_t tensor) {
    return mem(tensor, offset_of(tensor));
}
float* f(uint8_t* pointer) {
    return reinterpret_cast<float*>(pointer);
}

template <auto kernel>
uint32_t lstm(Pointers m, uint32_t*, uint8_t*) {
    return kernel(f(m[0]), f(m[1]), f(m[2]), 5);
}
const std::vector<KelRtContextArg> kLstm = {t(0), t(1), t(2), val(5)};
constexpr char kLstmScript[] = "F2 F3 F4 T2 T3 D4", kLstmDump[] = "@0 @1 @2 0x00000005";
constexpr char kNormScript[] = "F2 F3 F4 F9 F10 F11 F12 T2 T3 D4 D9 D10 D11 D12";

// Three rows of five bytes, nine apart, packed from the memory's first byte on: the offset does not count.
uint32_t sram(Pointers m, uint32_t*, uint8_t*) {
    for (uint8_t i = 0; i < 15; ++i)
        m[0][i - int{offset_of(0)}] = static_cast<uint8_t>(7 + i % 5 + i / 5 * 9);
    return NNA_STATUS_OK;
}
const std::vector<KelRtContextArg> kSram = {val(0x1007), val(kSramRow), val(9), val(3), t(0)};

}  // namespace

// clang-format off
const std::vector<Operator> kOperators = {
    {0, "cpu_onnx_inst_norm", {t(0), t(1), val(6), flt(2), flt(0.5f)}, {24, 24}, "A2 F3 T2 D3",
     "@0 @1 0x00000006 2.000000 0.500000", "Bad Address Input *1 Output *0", 24,
     [](auto m, auto b, auto) { return kelRt_instanceNorm(f(m[0]), f(m[1]), 6, 2, 0.5f, b); }},
    {1, "cpu_lstm_states", kLstm, {20, 20, 80}, kLstmScript, kLstmDump, "", 0, lstm<kelRt_lstmStates>},
    {2, "cpu_copy_fmt_conv", {t(0), val(8), val(7), val(0), t(1), val(16), val(3), val(5), val(6)}, {6, 24},
     "A2 F6 T2 D6",
     "output: memid=0, ofs=1, ele_sz=1, bytes=6\ninput: memid=1, ofs=3, ele_sz=2, bytes=12\n"
     "#0 0x00000008 0x00000007 0x00000000 #1 0x00000010 0x00000003 0x00000005 0x00000006", "", 6,
     [](auto m, auto b, auto s) { return kelRt_copyFormatConv(m[0], 8, 7, 0, m[1], 16, 3, 5, 6, s, b); }},
    {3, "cpu_onnx_onehot", {t(0), t(1), val(4), flt(1e6f), flt(-0.25f)}, {16, 4}, "A2 F3 T2 D3",
     "@0 @1 0x00000004 1000000.000000 -0.250000", "", 16,
     [](auto m, auto b, auto) { return kelRt_oneHot(f(m[0]), f(m[1]), 4, 0x49742400, 0xBE800000, b); }},
    {4, "cpu_ewop_add", {t(0), t(1), t(2), val(6)}, {24, 24, 24}, "A2 F3 F4 T2 D3 D4",
     "@0 @1 @2 0x00000006", "Bad Address Input 0 *1 Input 1 *2 Output *0", 24,
     [](auto m, auto b, auto) { return kelRt_ewopAdd(f(m[0]), f(m[1]), f(m[2]), 6, b); }},
    {5, "cpu_softmax", {t(0), t(1), val(7)}, {28, 28}, "A2 F3 T2 D3",
     "#0 #1 0x00000007", "Bad Address Input *1 Output *0", 28,
     [](auto m, auto b, auto) { return kelRt_softMax(f(m[0]), f(m[1]), 7, b); }},
    {6, "cpu_hw32_fmt_conv", {t(0), t(1), val(20), val(1)}, {80, 80}, "A2 F3 T2 D3",
     "+0 #1 0x00000014 0x00000001\n"
     "kelRt_hw32FmtConvParam size=20, num_store_chunks=2, dir=1, nna_out_line_sz=8",
     "Bad Address Input *1 Output *0", 80,
     [](auto m, auto b, auto) { return kelRt_hw32FmtConv(m[0], m[1], 20, 1, b); }},
    {7, "cpu_embedding", {t(0), t(1), t(2), val(3)}, {12, 4, 36}, "A2 F3 F4 T2 D3 D4",
     "#0 #1 #2 0x00000003", "", 12,
     [](auto m, auto b, auto) { return kelRt_embedding(f(m[0]), f(m[1]), f(m[2]), 3, b); }},
    {8, "cpu_lstm_states_cpu_activation", kLstm, {20, 20, 80}, kLstmScript, kLstmDump, "", 0,
     lstm<kelRt_lstmStatesActivation>},
    // Input first. Its dump has no line ends, and a test of its own.
    {9, "cpu_im2col", {t(0), t(1), val(5), val(7), val(2), val(3), val(4), val(99), val(1), val(3)}, {70, 144},
     "F2 A3 T3 D2", nullptr, "Bad Address Input *0 Output *1", 0,
     [](auto m, auto, auto) { return kelRt_im2col(m[0], m[1], 5, 7, 2, 3, 4, 99, 1, 3); }},
    {10, "cpu_matmul", {t(0), t(1), t(2), val(3), val(2), val(4), val(3), val(1), val(1)}, {24, 48, 32},
     "F2 F3 A4 T4 D2 D3", "", "Bad Address Input1 *0 Input2 *1 Output *2", 0,
     [](auto m, auto, auto) { return kelRt_matmul(f(m[0]), f(m[1]), f(m[2]), 3, 2, 4, 3, 1, 1); }},
    // Hands the inputs back before it publishes. The last frame is not whole.
    {11, "cpu_featurenorm", {t(0), val(8), t(1), t(2), val(3), t(3)}, {32, 12, 12, 32},
     "F2 F4 F5 A7 D2 D4 D5 T7", "", "Bad Address Input *0 mean *1 var *2 Output *3", 0,
     [](auto m, auto, auto) { return kelRt_featurenorm(f(m[0]), 8, f(m[1]), f(m[2]), 3, f(m[3])); }},
    // Input first, and handed back before the output is published.
    {12, "cpu_split", {t(0), t(1), val(11)}, {11, 11}, "F2 A3 D2 T3",
     "#0 #1 0x0000000B", "Bad Address Input *0 Output *1", 0,
     [](auto m, auto, auto) { return kelRt_split(m[0], m[1], 11); }},
    {13, "cpu_lstm_states_cifg", kLstm, {20, 20, 80}, kLstmScript, kLstmDump, "", 0,
     lstm<kelRt_lstmStatesCifg>},
    {14, "cpu_lstm_states_cpu_activation_cifg", kLstm, {20, 20, 80}, kLstmScript, kLstmDump, "", 0,
     lstm<kelRt_lstmStatesActivationCifg>},
    // Fetches its parameters whatever the flags say.
    {15, "cpu_lstm_states_norm_cifg_cpuactv",
     {t(0), t(1), t(2), val(2), val(0), val(0xAB), flt(0.125f), t(3), t(4), t(5), t(6), val(8), val(0),
      val(0xC), val(0)}, {8, 8, 32, 32, 32, 8, 8}, kNormScript,
     "@0 @1 @2 0x00000002 0x00000000 0x000000AB args[9]=3 args[10]=4 args[11]=5 args[12]=6\n"
     "0x00000008 0x00000000 0x0000000C 0x00000000\n0.125000 @3 @4 @5 @6", "", 0,
     [](auto m, auto, auto) {
         return kelRt_lstmStatesCifgActivationNorm(f(m[0]), f(m[1]), f(m[2]), 2, 0, 0xAB, 0.125f, f(m[3]),
                                                   f(m[4]), f(m[5]), f(m[6]), 8, 0, 0xC, 0); }},
    {15, "cpu_lstm_states_norm_cifg_cpuactv",
     {t(0), t(1), t(2), val(2), val(1), val(2), flt(0), t(3), t(4), t(5), t(6), val(0xF), val(3), val(0),
      val(0)}, {8, 8, 32, 14, 14, 1, 1}, kNormScript,
     "@0 @1 @2 0x00000002 0x00000001 0x00000002 args[9]=3 args[10]=4 args[11]=5 args[12]=6\n"
     "0x0000000F 0x00000003 0x00000000 0x00000000\n0.000000 @3 @4 @5 @6", "", 0,
     [](auto m, auto, auto) {
         return kelRt_lstmStatesCifgActivationNorm(f(m[0]), f(m[1]), f(m[2]), 2, 1, 2, 0, f(m[3]), f(m[4]),
                                                   nullptr, nullptr, 0xF, 3, 0, 0); }, 5},
    {16, "cpu_hw32_fmt_conv_param", {t(0), t(1), val(20), val(0), val(9)}, {80, 80}, "A2 F3 T2 D3",
     "+0 #1 0x00000014 0x00000000 0x00000009\n"
     "kelRt_hw32FmtConvParam size=20, num_store_chunks=2, dir=0, nna_out_line_sz=9",
     "Bad Address Input *1 Output *0", 80,
     [](auto m, auto b, auto) { return kelRt_hw32FmtConvParam(m[0], m[1], 20, 0, 9, b); }},
    {17, "nna_sram_get", kSram, {14}, "A6 S S S D6", "", "", 0, sram, 0},
    {18, "nna_sram_set", kSram, {14}, "A6 S S S D6", "", "", 0, sram, 0},
    {2, "cpu_copy_fmt_conv", {t(0), val(UINT32_MAX), val(0), val(1), t(1), val(8), val(2), val(3), val(6)}, {24, 6},
     "A2 F6 T2 D6",
     "output: memid=0, ofs=1, ele_sz=4, bytes=24\ninput: memid=1, ofs=3, ele_sz=1, bytes=6\n"
     "#0 0xFFFFFFFF 0x00000000 0x00000001 #1 0x00000008 0x00000002 0x00000003 0x00000006", "", 24,
     [](auto m, auto b, auto s) { return kelRt_copyFormatConv(m[0], UINT32_MAX, 0, 1, m[1], 8, 2, 3, 6, s, b); }},
};
// clang-format on

std::vector<KelRtContextArg> Operator::args_at(uint32_t first) const {
    std::vector<KelRtContextArg> placed = args;
    for (KelRtContextArg& arg : placed)
        arg.value += arg.type == KEL_RT_ARG_MEM ? first : 0;
    return placed;
}

std::vector<Step> steps(const Operator& op) {
    std::vector<Step> steps;
    std::istringstream script(op.script);
    char what;
    for (uint32_t arg = 2; script >> what; steps.push_back({what, op.args[arg - 2].value}))
        if (what != 'S')
            script >> arg;
    return steps;
}

std::vector<Bytes> contents(const Operator& op, uint32_t variation) {
    std::vector<Bytes> contents;
    for (uint32_t i = 0; i < op.bytes.size(); ++i) {
        Bytes& content = contents.emplace_back(offset_of(i) + op.bytes[i]);
        for (uint32_t k = 0; 4 * k < op.bytes[i]; ++k) {
            const float value =
                1 + 0.25f * static_cast<float>(i) + 0.5f * static_cast<float>((k * k + variation) % 7);
            std::memcpy(&content[offset_of(i) + 4 * k], &value, std::min(4u, op.bytes[i] - 4 * k));
        }
    }
    return contents;
}

Bench::Bench(size_t entries) : Rig(entries) {
    nna_sim_set_sram(sim, 0x1000, 64);
    for (uint8_t i = 0; i < 64; ++i)
        nna_sim_sram(sim)[i] = i;
}

uint32_t Bench::add(const Operator& op) {
    uint32_t last = 0;
    for (const Bytes& content : contents(op))
        last = memory_of(content);
    return last + 1 - static_cast<uint32_t>(op.bytes.size());
}

uint32_t Bench::size(uint32_t memid) const {
    uint32_t bytes = 0;
    tivNnaMemorySize(sim, memid, &bytes);
    return bytes;
}

Bytes Bench::view(uint32_t memid) const {
    const uint8_t* const bytes = nna_sim_cpu_view(sim, memid);
    return {bytes, bytes + size(memid)};
}

// One platform call, as a script expects it and as the simulator recorded it.
static std::string call_text(NnaSimFunction function, uint32_t memid, uint32_t direction) {
    constexpr const char* kNames[] = {"ptr ", "size ", "sync ", "sram "};
    return kNames[function] + std::to_string(memid) +
           (function == NNA_SIM_MEMORY_SYNC ? " dir " + std::to_string(direction) : "");
}

Lines Bench::called() const {
    Lines lines;
    for (const NnaSimCall& call : calls())
        lines.push_back(call_text(call.function, call.memid, call.direction));
    return lines;
}

Expectation::Expectation(const Operator& op, Fault fault, Refusal refusal, std::vector<bool> buffered)
    : synced(op.bytes.size()), published(op.bytes.size()), fault_(fault), buffered_(std::move(buffered)) {
    buffered_.resize(op.bytes.size());
    std::vector<uint32_t> held;
    for (const Step& step : steps(op)) {
        const uint32_t memid = step.tensor;
        if (std::strchr("DT", step.what) && status == NNA_STATUS_OK)
            status = refusal.status;
        if (step.what != 'S' && memid == refusal.null)
            continue;
        bool good = status == NNA_STATUS_OK;
        if (std::strchr("AF", step.what)) {
            const bool coherent = step.what == 'A' || sync(memid, 1);
            good = coherent && pointer(memid);
            // A failing platform that leaves a pointer gets it back, but not from the SRAM operators.
            if (good || (coherent && done() && !op.moves_sram()))
                held.push_back(memid);
            computed = good && refusal.status == NNA_STATUS_OK;
        } else if (step.what == 'S') {  // the last row alone counts
            row_status_ = call(NNA_SIM_DUMP_SRAM, 0) ? uint32_t{NNA_STATUS_OK} : fault_.status;
            moved.push_back(done());
        } else if (row_status_ != NNA_STATUS_OK) {
            status = row_status_;
            messages.push_back(failure("Error executing operator "));
            good = false;
        } else if (good && step.what == 'D') {
            pointer(memid);
            status = NNA_STATUS_OK;  // what hand-back says is ignored
        } else if (good) {
            good = sync(memid, 0);
        }
        if (!good)
            break;
    }
    if (status == NNA_STATUS_OK)
        return;
    const uint32_t result = status;
    for (size_t i = held.size(); i-- > 0;)
        pointer(held[i]);
    status = result;
    messages.push_back("Error " + std::to_string(static_cast<int32_t>(status)) + " kelrt op 1");
}

bool Expectation::call(NnaSimFunction function, uint32_t memid, uint32_t direction) {
    calls.push_back(call_text(function, memid, direction));
    failed_ = calls.size() == fault_.call ||
              (fault_.when == Fault::FromThenOn && fault_.call > 0 && calls.size() > fault_.call);
    return !failed_;
}

bool Expectation::done() const {
    return !failed_ || fault_.when == Fault::Late;
}

std::string Expectation::failure(const char* text) const {
    return text + std::to_string(static_cast<int32_t>(fault_.status));
}

bool Expectation::pointer(uint32_t memid) {
    if (buffered_[memid] || call(NNA_SIM_MEMORY_PTR, memid))
        return true;
    status = fault_.status;
    return false;
}

bool Expectation::sync(uint32_t memid, uint32_t direction) {
    if (buffered_[memid])
        return true;
    if (!call(NNA_SIM_MEMORY_SIZE, memid)) {
        messages.push_back(failure("tivNnaMemorySize failed, err = "));
    } else {
        const bool good = call(NNA_SIM_MEMORY_SYNC, memid, direction);
        (direction == 1 ? synced : published)[memid] = done();
        if (good)
            return true;
        messages.push_back(failure("tivNnaMemorySyncCache failed. Err = "));
    }
    status = NNA_STATUS_MEMORY_SYNC_FAILED;
    return false;
}

}  // namespace rows
