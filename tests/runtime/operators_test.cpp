// Every operator as a context: one row says what its adapter does, and each test walks all rows: arguments
// reach the kernel, from accelerator memory and from CPU buffers; every platform call fails in turn; DEBUG
// dumps; null tensors; wrong types and counts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <latch>
#include <sstream>
#include <thread>

#include "support/probe.h"
#include "support/rig.h"

namespace {

using rig::flt;
using rig::mem;
using rig::val;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;
using Pointers = uint8_t* const*;  // of the tensors, offsets added

// Tensor i is memory i from an odd byte on.
constexpr uint32_t offset_of(uint32_t tensor) {
    return 2 * tensor + 1;
}
KelRtContextArg t(uint32_t tensor) {
    return mem(tensor, offset_of(tensor));
}

struct Operator {
    uint32_t id;
    const char* name;
    std::vector<KelRtContextArg> args;
    std::vector<uint32_t> bytes;  // of each tensor
    // What the adapter does with which argument: A allocate, F copyFrom, S move an SRAM row, T copyTo,
    // D deallocate. From it follow the platform calls (A: pointer; F: size, sync 1, pointer; T: size, sync 0;
    // D: pointer) and, for a failure at each of them, everything else.
    const char* script;
    // DEBUG dump, and what the kernel logs of null pointers: @1 is tensor 1 with id and offset, #1 without
    // offset, +1 with its pointer advanced, *1 only that.
    const char *dump, *refusal;
    uint32_t out_bytes;  // 0: reports none
    uint32_t (*kernel)(Pointers m, uint32_t* out_bytes, uint8_t* out_shift);
    uint32_t refused = 7;  // so many tensors must not be null
};

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
const std::vector<KelRtContextArg> kSram = {val(0x1007), val(5), val(9), val(3), t(0)};

// clang-format off
const Operator kOperators[] = {
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
    {10, "cpu_matmul", {t(0), t(1), t(2), val(2), val(3), val(4), val(3), val(0), val(1)}, {24, 48, 32},
     "F2 F3 A4 T4 D2 D3", "", "Bad Address Input1 *0 Input2 *1 Output *2", 0,
     [](auto m, auto, auto) { return kelRt_matmul(f(m[0]), f(m[1]), f(m[2]), 2, 3, 4, 3, 0, 1); }},
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

constexpr uint32_t kFailure = 4242;

struct Step {
    char what;
    uint32_t tensor;
};
std::vector<Step> steps(const Operator& op) {
    std::vector<Step> steps;
    std::istringstream script(op.script);
    char what;
    for (uint32_t arg = 2; script >> what; steps.push_back({what, op.args[arg - 2].value}))
        if (what != 'S')
            script >> arg;
    return steps;
}

// A rig whose memories hold floats from their odd bytes on, and SRAM that counts.
struct Bench : rig::Rig {
    explicit Bench(const Operator& op) {
        for (uint32_t i = 0; i < op.bytes.size(); ++i) {
            Bytes content(offset_of(i) + op.bytes[i]);
            for (uint32_t k = 0; 4 * k < op.bytes[i]; ++k) {
                const float value = 1 + 0.25f * static_cast<float>(i) + 0.5f * static_cast<float>(k * k % 7);
                std::memcpy(&content[offset_of(i) + 4 * k], &value, std::min(4u, op.bytes[i] - 4 * k));
            }
            memory_of(content);
        }
        nna_sim_set_sram(sim, 0x1000, 64);
        for (uint8_t i = 0; i < 64; ++i)
            nna_sim_sram(sim)[i] = i;
    }
    uint32_t size(uint32_t memid) const {
        uint32_t bytes = 0;
        tivNnaMemorySize(sim, memid, &bytes);
        return bytes;
    }
    Bytes image(uint32_t memid) const { return device<uint8_t>(memid, size(memid)); }
    Bytes view(uint32_t memid) const {
        const uint8_t* const bytes = nna_sim_cpu_view(sim, memid);
        return {bytes, bytes + size(memid)};
    }
};

// The kernel called directly, on memories as the adapter would find them.
struct Direct {
    std::vector<Bytes> memories;
    std::vector<uint8_t*> pointers;
    uint32_t out_bytes = 99;
    uint8_t out_shift = 77;

    explicit Direct(const Operator& op) {
        const Bench bench(op);
        for (uint32_t i = 0; i < op.bytes.size(); ++i)
            memories.push_back(bench.image(i));
        for (const Step& step : steps(op))
            if (step.what == 'A')
                std::fill(memories[step.tensor].begin(), memories[step.tensor].end(), NNA_SIM_STALE_BYTE);
        for (uint32_t i = 0; i < op.bytes.size(); ++i)
            pointers.push_back(memories[i].data() + offset_of(i));
    }
};

// One platform call, as the script expects it and as the simulator recorded it.
std::string call_text(NnaSimFunction function, uint32_t memid, uint32_t direction) {
    constexpr const char* kNames[] = {"ptr ", "size ", "sync ", "sram "};
    return kNames[function] + std::to_string(memid) +
           (function == NNA_SIM_MEMORY_SYNC ? " dir " + std::to_string(direction) : "");
}

Lines calls_of(const rig::Rig& rig) {
    Lines lines;
    for (const NnaSimCall& call : rig.calls())
        lines.push_back(call_text(call.function, call.memid, call.direction));
    return lines;
}

// The script, played against a platform whose k-th call fails (k = 0: none does), `late` if it does its work
// first; or a kernel that refuses, without the tensor `null`.
class Expectation {
  public:
    uint32_t status = NNA_STATUS_OK;
    Lines calls, messages;
    std::vector<uint32_t> published;  // memory ids

    explicit Expectation(const Operator& op, size_t k = 0, bool late = false, uint32_t null = UINT32_MAX)
        : fail_at_(k) {
        const bool sram = op.id >= 17;
        std::vector<uint32_t> held;
        for (const Step& step : steps(op)) {
            const uint32_t memid = step.tensor;
            if (std::strchr("DT", step.what) && null != UINT32_MAX)
                status = NNA_STATUS_NULL_POINTER;
            if (memid == null)
                continue;
            bool good = status == NNA_STATUS_OK;
            if (std::strchr("AF", step.what)) {
                const bool coherent = step.what == 'A' || sync(memid, 1);
                good = coherent && pointer(memid);
                // A failing platform that leaves a pointer gets it back, but not from the SRAM operators.
                if (good || (coherent && late && !sram))
                    held.push_back(memid);
            } else if (step.what == 'S') {  // the last row alone counts
                row_status_ = call(NNA_SIM_DUMP_SRAM, 0) ? uint32_t{NNA_STATUS_OK} : kFailure;
            } else if (sram && row_status_ != NNA_STATUS_OK) {
                messages.push_back("Error executing operator " + std::to_string(row_status_));
                status = row_status_;
                good = false;
            } else if (good && step.what == 'D') {
                pointer(memid);
                status = NNA_STATUS_OK;  // what hand-back says is ignored
            } else if (good) {
                good = sync(memid, 0);
                if (good || (late && calls.back().starts_with("sync")))
                    published.push_back(memid);
            }
            if (!good)
                break;
        }
        if (status == NNA_STATUS_OK)
            return;
        for (size_t i = held.size(); i-- > 0;)
            call(NNA_SIM_MEMORY_PTR, held[i]);
        messages.push_back("Error " + std::to_string(status) + " kelrt op 1");
    }

  private:
    bool call(NnaSimFunction function, uint32_t memid, uint32_t direction = 0) {
        calls.push_back(call_text(function, memid, direction));
        return calls.size() != fail_at_;
    }
    bool pointer(uint32_t memid) {
        if (call(NNA_SIM_MEMORY_PTR, memid))
            return true;
        status = kFailure;
        return false;
    }
    bool sync(uint32_t memid, uint32_t direction) {
        const std::string code = std::to_string(kFailure);
        if (!call(NNA_SIM_MEMORY_SIZE, memid))
            messages.push_back("tivNnaMemorySize failed, err = " + code);
        else if (!call(NNA_SIM_MEMORY_SYNC, memid, direction))
            messages.push_back("tivNnaMemorySyncCache failed. Err = " + code);
        else
            return true;
        status = NNA_STATUS_MEMORY_SYNC_FAILED;
        return false;
    }

    size_t fail_at_;
    uint32_t row_status_ = NNA_STATUS_OK;
};

__attribute__((format(printf, 1, 2))) std::string text(const char* format, ...) {
    char buffer[128];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return buffer;
}

// A dump's or refusal's lines, of memories that begin at `base`.
Lines expand(const char* lines, const std::vector<uint8_t*>& base) {
    Lines expanded;
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line); expanded.push_back(line)) {
        for (size_t at = 0; (at = line.find_first_of("@#+*", at)) != std::string::npos; ++at) {
            const auto i = static_cast<uint32_t>(line[at + 1] - '0');
            const char kind = line[at];
            void* const advanced = base[i] ? base[i] + offset_of(i) : nullptr;
            std::string tensor = kind == '@'   ? text("0x%p(ID=0x%02X)(offset=%#X)",
                                                      static_cast<void*>(base[i]), i, offset_of(i))
                                 : kind == '#' ? text("0x%p(ID=0x%02X)", static_cast<void*>(base[i]), i)
                                 : kind == '+' ? text("0x%p(ID=0x%02X)", advanced, i)
                                               : text("%p", advanced);
            line.replace(at, 2, tensor);
            at += tensor.size();
        }
    }
    return expanded;
}

class Operators : public testing::TestWithParam<Operator> {};

TEST_P(Operators, GiveWhatTheKernelGivesFromEitherKindOfMemory) {
    const Operator& op = GetParam();
    Direct direct(op);
    ASSERT_EQ(op.kernel(direct.pointers.data(), &direct.out_bytes, &direct.out_shift), NNA_STATUS_OK);
    EXPECT_EQ(direct.out_bytes, op.out_bytes ? op.out_bytes : 99);

    Bench bench(op);
    bench.instance.out_shift = 77;
    ASSERT_EQ(bench.run(op.id, op.args), NNA_STATUS_OK);
    EXPECT_EQ(bench.instance.out_shift, direct.out_shift);
    for (uint32_t memid = 0; memid < op.bytes.size(); ++memid)
        EXPECT_EQ(bench.view(memid), direct.memories[memid]) << "memory " << memid;

    Bench buffers(op);
    const Direct before(op);
    for (uint32_t memid = 0; memid < op.bytes.size(); ++memid) {
        const auto size = static_cast<uint32_t>(before.memories[memid].size());
        tivNnaCpuMemAlloc(&buffers.instance, memid, size);
        tivNnaCpuMemWrite(&buffers.instance, memid, 0, before.memories[memid].data(), size);
    }
    nna_sim_clear_calls(buffers.sim);
    ASSERT_EQ(buffers.run(op.id, op.args), NNA_STATUS_OK);
    EXPECT_EQ(calls_of(buffers), (op.id < 17 ? Lines{} : Lines(3, "sram 0")));
    for (uint32_t memid = 0; memid < op.bytes.size(); ++memid)
        EXPECT_EQ(std::memcmp(buffers.table[memid].ptr, direct.memories[memid].data(),
                              direct.memories[memid].size()),
                  0)
            << "buffer " << memid;
}

// Each thread on memories of its own, all operators in another order: the library keeps nothing that one call
// could leave for another.
TEST(AllOperators, GiveTheSameSideBySide) {
    constexpr size_t kThreads = 8, kRounds = 20;
    const auto results = [](const Operator& op) {
        Bench bench(op);
        std::vector<Bytes> views;
        if (bench.run(op.id, op.args) == NNA_STATUS_OK)
            for (uint32_t memid = 0; memid < op.bytes.size(); ++memid)
                views.push_back(bench.view(memid));
        return views;
    };
    std::vector<std::vector<Bytes>> alone;
    for (const Operator& op : kOperators)
        alone.push_back(results(op));
    std::vector<size_t> equal(kThreads);
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (size_t i = 0; i < kRounds * std::size(kOperators); ++i) {
                const size_t row = (i * (t + 1) + t) % std::size(kOperators);
                equal[t] += !alone[row].empty() && results(kOperators[row]) == alone[row];
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(equal, std::vector<size_t>(kThreads, kRounds * std::size(kOperators)));
}

TEST_P(Operators, SurviveEveryFailingCall) {
    const Operator& op = GetParam();
    const size_t total_calls = Expectation(op).calls.size();
    for (size_t turn = 0; turn < 2 * (total_calls + 1); ++turn) {
        const size_t k = turn / 2;
        const bool late = turn % 2;
        SCOPED_TRACE("failing call " + std::to_string(k) + (late ? ", late" : ""));
        Bench bench(op);
        std::vector<Bytes> before;
        for (uint32_t memid = 0; memid < op.bytes.size(); ++memid)
            before.push_back(bench.image(memid));
        nna_sim_clear_calls(bench.sim);
        if (k > 0)
            (late ? nna_sim_fail_call_late : nna_sim_fail_call)(bench.sim, static_cast<uint32_t>(k),
                                                                kFailure);
        probe::Probe probe;
        const uint32_t status = bench.run(op.id, op.args);
        const Expectation expected(op, k, late);
        EXPECT_EQ(status, expected.status);
        EXPECT_EQ(probe.messages(), expected.messages);
        EXPECT_EQ(calls_of(bench), expected.calls);
        for (uint32_t memid = 0; memid < op.bytes.size(); ++memid) {
            const bool published =
                std::count(expected.published.begin(), expected.published.end(), memid) > 0;
            EXPECT_EQ(bench.image(memid), published ? bench.view(memid) : before[memid])
                << "memory " << memid;
        }
    }
}

std::vector<uint8_t*> views(const Bench& bench, const Operator& op, uint32_t null = UINT32_MAX) {
    std::vector<uint8_t*> views;
    for (uint32_t i = 0; i < op.bytes.size(); ++i)
        views.push_back(i == null ? nullptr : nna_sim_cpu_view(bench.sim, i));
    return views;
}

TEST_P(Operators, DumpWhatTheyResolvedAtDebug) {
    const Operator& op = GetParam();
    if (!op.dump)
        return;
    Bench bench(op);
    probe::Probe probe;
    g_log_lvl = 0;
    ASSERT_EQ(bench.run(op.id, op.args), NNA_STATUS_OK);
    Lines expected = expand(op.dump, views(bench, op)), found = probe.messages();
    expected.insert(expected.begin(), "KEL RT executing operator " + std::string(op.name));
    if (op.id == 15)
        found.resize(expected.size());  // the layer normalisation has records of its own
    EXPECT_EQ(found, expected);
    for (const probe::Record& record : probe.records())
        EXPECT_EQ(record.level, "NNA_LOG_DEBUG");
    EXPECT_TRUE(probe.android.empty());
}

// A dump comes as soon as its tensors are resolved: formats after the output, the LSTM's state before its
// parameters.
TEST(Dumps, ComeBetweenThePlatformCalls) {
    const struct {
        size_t row;
        uint32_t failing_call;
        size_t lines;
    } cases[] = {{2, 1, 0}, {2, 2, 2}, {4, 7, 0}, {15, 9, 0}, {15, 10, 1}};
    for (const auto& c : cases) {
        const Operator& op = kOperators[c.row];
        Bench bench(op);
        nna_sim_fail_call(bench.sim, c.failing_call, kFailure);
        probe::Probe probe;
        g_log_lvl = 0;
        bench.run(op.id, op.args);
        Lines dump = expand(op.dump, views(bench, op));
        dump.resize(c.lines);
        const Lines found = probe.messages();
        ASSERT_GT(found.size(), c.lines + 1);
        EXPECT_EQ(Lines(found.begin() + 1, found.begin() + 1 + static_cast<ptrdiff_t>(c.lines)), dump);
        EXPECT_NE(found[c.lines + 1].find("4242"), std::string::npos) << found[c.lines + 1];
    }
}

TEST_P(Operators, RefuseEachNullTensor) {
    const Operator& op = GetParam();
    for (uint32_t null = 0; null < std::min<size_t>(op.refused, op.bytes.size()); ++null) {
        SCOPED_TRACE(null);
        // The kernel by itself: nothing written, nothing reported.
        Direct direct(op);
        const Direct before(op);
        direct.pointers[null] = nullptr;
        probe::Probe probe;
        EXPECT_EQ(op.kernel(direct.pointers.data(), &direct.out_bytes, &direct.out_shift),
                  NNA_STATUS_NULL_POINTER);
        EXPECT_EQ(direct.memories, before.memories);
        EXPECT_EQ(direct.out_bytes, 99u);
        std::vector<uint8_t*> base;
        for (Bytes& memory : direct.memories)
            base.push_back(memory.data());
        base[null] = nullptr;
        EXPECT_EQ(probe.messages(), expand(op.refusal, base));

        // By a context: everything is handed back and nothing published.
        Bench bench(op);
        std::vector<KelRtContextArg> args = op.args;
        for (KelRtContextArg& arg : args)
            if (arg.type == KEL_RT_ARG_MEM && arg.value == null)
                arg = mem(KEL_RT_NO_MEMORY_ID);
        probe.clear();
        EXPECT_EQ(bench.run(op.id, args), NNA_STATUS_NULL_POINTER);
        const Expectation expected(op, 0, false, null);
        EXPECT_EQ(calls_of(bench), expected.calls);
        Lines messages = expand(op.refusal, views(bench, op, null));
        messages.push_back(op.id == 12 ? "Error executing operator 1056s" : "Error executing operator 1056");
        messages.insert(messages.end(), expected.messages.begin(), expected.messages.end());
        EXPECT_EQ(probe.messages(), messages);
    }
    if (op.out_bytes) {
        Direct direct(op);
        EXPECT_EQ(op.kernel(direct.pointers.data(), nullptr, &direct.out_shift), NNA_STATUS_OK);
    }
}

TEST_P(Operators, TakeArgumentsOfTheirTypesAndCountOnly) {
    const Operator& op = GetParam();
    constexpr const char* kTypes[] = {"init_none", "init_to_val", "init_to_mem_idx", "init_to_flt"};
    const auto count = static_cast<uint32_t>(op.args.size());
    Bench bench(op);
    probe::Probe probe;
    for (uint32_t i = 0; i <= count; ++i) {
        rig::Context context(op.id, op.args);
        std::string line;
        if (i == count) {
            context.args[0].value = count + 1;
            line = "Number of Context args do not match";
        } else {
            uint32_t& type = context.args[i + 2].type;
            line = text("Context Argument[%u] Type Mismatch expected %s actual ", i + 2, kTypes[type]);
            type = type == KEL_RT_ARG_VAL ? uint32_t{KEL_RT_ARG_FLT} : type - 1;
            line += kTypes[type];
        }
        probe.clear();
        EXPECT_EQ(kelRt_executeContext(&bench.instance, &context.record),
                  uint32_t{i == count ? NNA_STATUS_INVALID_ARGUMENT : NNA_STATUS_TYPE_MISMATCH});
        EXPECT_EQ(probe.messages().at(0), line);
        if (i == count) {
            EXPECT_EQ(probe.messages().at(1), text("Expected %u Actual %u", count, count + 1));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Of, Operators, testing::ValuesIn(kOperators),
                         [](const auto& row) { return std::to_string(row.index) + "_" + row.param.name; });

// Two records without line ends, so that the next record follows on the same physical line.
TEST(Im2colDump, LeavesItsLineOpen) {
    Bench bench(kOperators[9]);
    probe::Probe probe;
    probe.time = {{7, 5}};
    g_log_lvl = 0;
    ASSERT_EQ(bench.run(9, kOperators[9].args), NNA_STATUS_OK);
    std::string dump = probe.text();
    dump.erase(0, dump.find('\n') + 1);
    for (size_t at; (at = dump.find("[7.000005]  NNA_LOG_DEBUG  src/")) != std::string::npos;)
        dump.replace(at, dump.find("  | ", at) + 4 - at, "<>");
    EXPECT_EQ(dump,
              "<>Input rows = 5 Input cols = 7 Input Channels = 2                     Kernel height = 3 "
              "Kernel Width = 4 Filters = 99 Row stride = 1                     Col Stride = 3"
              "<>Output height = 3 Output width = 2 Pad = 0");
}

}  // namespace
