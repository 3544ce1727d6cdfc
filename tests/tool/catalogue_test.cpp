// The tool's catalogue says of every operator what the library's own table says; the library touches what its
// footprints say and no byte more; and what breaks the header's rules is refused.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <sstream>

#include "bad_input.h"
#include "check.h"
#include "json_writer.h"
#include "machine.h"
#include "op_table.h"
#include "operators.h"
#include "times.h"

namespace {

TEST(Catalogue, AgreesWithTheOperatorTable) {
    for (uint32_t id = 0; id < KEL_RT_NUM_OPS; ++id) {
        const tool::Operator& op = tool::kOperators[id];
        const kelrt::KelRtOpEntry& row = kelrt::kOpTable[id];
        SCOPED_TRACE(row.name);
        EXPECT_STREQ(op.name, row.name);
        ASSERT_EQ(op.arguments.size(), row.op_args);
        std::set<std::string> names;
        bool published = false;
        for (uint32_t i = 0; i < row.op_args; ++i) {
            const tool::Argument& argument = op.arguments[i];
            SCOPED_TRACE(argument.name);
            EXPECT_EQ(argument.type, row.types[i + 2]);
            EXPECT_TRUE(names.insert(argument.name).second);
            EXPECT_EQ(argument.is_memory(), argument.reads || argument.tensor);
            EXPECT_EQ(argument.use == tool::Use::Output, argument.tensor != nullptr);
            EXPECT_TRUE(argument.use != tool::Use::InOut || argument.writes);
            published |= argument.is_published();
        }
        EXPECT_TRUE(published || op.name == std::string_view("nna_sram_set"));
        for (const tool::Lookup& lookup : op.lookups)
            EXPECT_TRUE(op.at(lookup.index).is_memory() && op.at(lookup.table).is_memory());
        EXPECT_EQ(tool::find_operator(row.name), &op);
        EXPECT_EQ(tool::find_operator(std::to_string(id)), &op);
    }
    for (const char* unknown : {"", "19", "-1", "4294967300", "4 ", "cpu_ewop_ad", "cpu_ewop_add "})
        EXPECT_EQ(tool::find_operator(unknown), nullptr) << unknown;
}

// A context written "cpu_split in:7 out:7 nbytes=7": scalars by value, memories by the bytes they have.
struct Example {
    const tool::Operator* op = nullptr;
    std::vector<KelRtContextArg> arguments;
    std::vector<uint32_t> sizes;  // of arguments that are memories

    explicit Example(const std::string& text) {
        std::istringstream words(text);
        std::string word;
        words >> word;
        op = tool::find_operator(word);
        arguments.resize(op->arguments.size());
        sizes.resize(op->arguments.size());
        while (words >> word) {
            const size_t end = word.find_first_of(":=");
            size_t i = 0;
            while (op->arguments[i].name != word.substr(0, end))
                ++i;
            const auto number = static_cast<uint32_t>(std::stoul(word.substr(end + 1), nullptr, 0));
            arguments[i] = {op->arguments[i].type, 0, number};
            sizes[i] = op->arguments[i].is_memory() ? number : 0;
        }
    }

    // Each operand in a memory of its own; in CPU buffers, so that what is not published shows too.
    tool::Job job() {
        tool::Job job;
        EXPECT_TRUE(job.add_sram({0, {npy::Type::u1, {64}, std::vector<uint8_t>(64)}}));
        for (size_t i = 0; i < arguments.size(); ++i) {
            if (!op->arguments[i].is_memory())
                continue;
            arguments[i].value = static_cast<uint32_t>(job.memories.size());
            EXPECT_TRUE(job.add_memory({op->arguments[i].name, true, of_size(sizes[i])}));
        }
        return job;
    }

    // As floats 0.18: a sensible number, and index 0.
    static npy::Array of_size(uint32_t size) {
        return {npy::Type::u1, {size}, std::vector<uint8_t>(size, 0x3E)};
    }

    // "" or the first complaint.
    std::string complaint(tool::Job& job) const {
        std::string first;
        tool::check_arguments(*op, arguments, job, [&](size_t, const std::string& what) {
            if (first.empty())
                first = what;
        });
        return first;
    }
};

const char* const kExamples[] = {
    "cpu_onnx_inst_norm out:20 in:20 n=5 scale=0x3F800000 bias=0",
    "cpu_lstm_states out:12 cell:12 gates:48 n=3",
    "cpu_lstm_states_cpu_activation out:12 cell:12 gates:48 n=3",
    "cpu_lstm_states_cifg out:12 cell:12 gates:48 n=3",
    "cpu_lstm_states_cpu_activation_cifg out:12 cell:12 gates:48 n=3",
    "cpu_copy_fmt_conv out:20 out_tot_bits=0xFFFFFFFF out_frac_bits=0 out_scale=1 in:10 inp_tot_bits=16 "
    "inp_frac_bits=0 inp_scale=1 count=5",
    "cpu_copy_fmt_conv out:20 out_tot_bits=0xFFFFFFFF out_frac_bits=0 out_scale=1 in:20 inp_tot_bits=32 "
    "inp_frac_bits=0 inp_scale=1 count=5",
    "cpu_copy_fmt_conv out:5 out_tot_bits=8 out_frac_bits=0 out_scale=1 in:20 inp_tot_bits=0xFFFFFFFF "
    "inp_frac_bits=0 "
    "inp_scale=1 count=5",
    "cpu_copy_fmt_conv out:5 out_tot_bits=8 out_frac_bits=0 out_scale=1 in:20 inp_tot_bits=32 "
    "inp_frac_bits=0 "
    "inp_scale=1 count=5",
    "cpu_copy_fmt_conv out:5 out_tot_bits=8 out_frac_bits=0 out_scale=0 in:20 inp_tot_bits=8 inp_frac_bits=0 "
    "inp_scale=1 count=5",
    "cpu_copy_fmt_conv out:1 out_tot_bits=8 out_frac_bits=0 out_scale=0 in:16 inp_tot_bits=0xFFFFFFFF "
    "inp_frac_bits=0 "
    "inp_scale=1 count=1",
    "cpu_onnx_onehot out:12 index:4 depth=3 on_value=0x3F800000 off_value=0",
    "cpu_ewop_add out:28 a:28 b:28 n=7",
    "cpu_softmax out:28 in:28 n=7",
    "cpu_hw32_fmt_conv out:64 in:64 size=17 dir=0",
    "cpu_hw32_fmt_conv_param out:68 in:68 size=17 dir=1 nna_out_line_sz=17",
    "cpu_hw32_fmt_conv_param out:40 in:40 size=10 dir=0 nna_out_line_sz=5",
    "cpu_hw32_fmt_conv_param out:0 in:0 size=4 dir=0 nna_out_line_sz=5",
    "cpu_embedding out:12 index:4 table:12 w=3",
    "cpu_im2col in:60 out:96 rows=5 cols=4 channels=3 kernelHeight=3 kernelWidth=2 filters=1 rowStride=2 "
    "colStride=2",
    "cpu_im2col in:60 out:96 rows=6 cols=4 channels=3 kernelHeight=3 kernelWidth=2 filters=1 rowStride=2 "
    "colStride=2",
    "cpu_im2col in:14 out:24 rows=18 cols=1 channels=1 kernelHeight=1 kernelWidth=2 filters=1 rowStride=6 "
    "colStride=0",
    "cpu_matmul a:24 b:60 c:40 aRows=2 aCols=3 bRows=3 bCols=5 transA=0 transB=0",
    "cpu_matmul a:24 b:60 c:40 aRows=3 aCols=2 bRows=5 bCols=3 transA=1 transB=1",
    "cpu_matmul a:24 b:324 c:72 aRows=2 aCols=3 bRows=9 bCols=9 transA=0 transB=1",
    "cpu_matmul a:24 b:0 c:0 aRows=3 aCols=2 bRows=3 bCols=0 transA=1 transB=0",
    "cpu_matmul a:0 b:0 c:0 aRows=2 aCols=3 bRows=3 bCols=0 transA=0 transB=0",
    "cpu_matmul a:0 b:0 c:0 aRows=0 aCols=3 bRows=3 bCols=5 transA=0 transB=0",
    "cpu_matmul a:0 b:60 c:0 aRows=0xFFFFFFFF aCols=3 bRows=5 bCols=3 transA=0 transB=1",
    "cpu_matmul a:12 b:12 c:36 aRows=1 aCols=3 bRows=3 bCols=1 transA=1 transB=1",
    "cpu_featurenorm in:36 total=11 mean:12 var:12 featureLen=3 out:36",
    "cpu_featurenorm in:0 total=2 mean:0 var:0 featureLen=3 out:0",
    "cpu_split in:7 out:7 nbytes=7",
    "nna_sram_get sram_address=0 row_size=3 sram_stride=8 rows=2 mem:6",
    "nna_sram_set sram_address=0 row_size=3 sram_stride=8 rows=2 mem:6",
};

// The normalised LSTM of 4 units, by its flags.
std::string lstm_norm(int parameters, int cell, const std::string& flags) {
    const std::string gates = std::to_string(parameters), cells = std::to_string(cell);
    return "cpu_lstm_states_norm_cifg_cpuactv out:16 cell:16 gates:64 n=4 epsilon=0x3F800000 gateGamma:" +
           gates + " gateBeta:" + gates + " cellGamma:" + cells + " cellBeta:" + cells +
           " cellNormInPlace=0 " + flags;
}

std::vector<std::string> examples() {
    std::vector<std::string> all(std::begin(kExamples), std::end(kExamples));
    all.push_back(lstm_norm(0, 0, "cifg=1 cpuActivation=0 gateNorm=0 perGateNorm=1 cellNorm=0"));
    all.push_back(lstm_norm(0, 0, "cifg=0 cpuActivation=0 gateNorm=1 perGateNorm=0 cellNorm=0"));
    all.push_back(lstm_norm(0, 16, "cifg=0 cpuActivation=0 gateNorm=0 perGateNorm=0 cellNorm=1"));
    all.push_back(lstm_norm(28, 0, "cifg=0 cpuActivation=1 gateNorm=1 perGateNorm=1 cellNorm=0"));
    all.push_back(lstm_norm(28, 0, "cifg=1 cpuActivation=1 gateNorm=1 perGateNorm=1 cellNorm=0"));
    all.push_back(lstm_norm(52, 0, "cifg=1 cpuActivation=1 gateNorm=1 perGateNorm=0 cellNorm=0"));
    all.push_back(lstm_norm(64, 16, "cifg=0 cpuActivation=1 gateNorm=1 perGateNorm=0 cellNorm=1"));
    return all;
}

// Each memory is admitted with the bytes given here and refused with one less. Under a sanitizer running it
// shows that no byte more is touched.
TEST(Catalogue, FootprintsAreTheBytesTouched) {
    std::set<const tool::Operator*> shown;
    for (const std::string& text : examples()) {
        SCOPED_TRACE(text);
        Example example(text);
        shown.insert(example.op);
        tool::Job job = example.job();
        ASSERT_EQ(example.complaint(job), "");
        tool::Machine machine(job);
        machine.reset();
        machine.execute(tool::make_context("", tool::id_of(*example.op), example.arguments));
        const std::vector<uint32_t> values = tool::values_of(example.arguments);

        for (size_t i = 0; i < example.sizes.size(); ++i) {
            const tool::Argument& argument = example.op->arguments[i];
            if (!argument.is_memory())
                continue;
            SCOPED_TRACE(argument.name);
            const uint32_t id = example.arguments[i].value, size = example.sizes[i];
            const tool::Range written = argument.written_range(values);
            const npy::Array after = machine.read(id);
            for (size_t byte = 0; byte < size; ++byte)
                EXPECT_TRUE((byte >= written.begin && byte < written.end) || after.bytes[byte] == 0x3E)
                    << byte;
            if (size == 0)
                continue;
            tool::Job smaller = job;
            smaller.memories[id].initial = Example::of_size(size - 1);
            EXPECT_NE(example.complaint(smaller).find(argument.name + std::string(" of ") + example.op->name +
                                                      " needs " + std::to_string(size) + " bytes"),
                      std::string::npos);
        }
    }
    for (const tool::Operator& op : tool::kOperators)
        EXPECT_TRUE(shown.count(&op)) << "there is no example of " << op.name;
}

// Which operands may begin together, or lie anyhow: by the header. Everything else must lie apart, unless
// both are only read.
TEST(Catalogue, OperandsOverlapOnlyWhereTheHeaderSaysSo) {
    const std::set<std::string> as_same = {"cpu_onnx_inst_norm out in",
                                           "cpu_ewop_add out a",
                                           "cpu_ewop_add out b",
                                           "cpu_softmax out in",
                                           "cpu_hw32_fmt_conv out in",
                                           "cpu_featurenorm in out",
                                           "cpu_hw32_fmt_conv_param out in"};
    const std::set<std::string> anyhow = {"cpu_im2col in out", "cpu_matmul a b", "cpu_matmul a c",
                                          "cpu_matmul b c"};
    const auto converts_in_place = [](const std::string& text) {
        return text.find("out:20 ") != text.npos ? text.find("in:20 ") != text.npos
                                                 : text.find("inp_tot_bits=0xFFFFFFFF") == text.npos;
    };
    for (const std::string& text : examples()) {
        Example example(text);
        tool::Job job = example.job();
        const auto writes = [&](size_t i) {
            return example.op->arguments[i].written_range(tool::values_of(example.arguments)).end > 0;
        };
        for (size_t j = 0; j < example.sizes.size(); ++j) {
            for (size_t i = 0; i < j; ++i) {
                if (example.sizes[i] == 0 || example.sizes[j] == 0)
                    continue;
                const std::string pair = example.op->name + std::string(" ") + example.op->arguments[i].name +
                                         " " + example.op->arguments[j].name;
                SCOPED_TRACE(text + ": " + pair);
                const bool free = anyhow.count(pair) || !(writes(i) || writes(j));
                const bool same =
                    as_same.count(pair) || (pair == "cpu_copy_fmt_conv out in" && converts_in_place(text));
                tool::Job shared = job;
                const auto id = static_cast<uint32_t>(shared.memories.size());
                EXPECT_TRUE(shared.add_memory(
                    {"shared", true, Example::of_size(example.sizes[i] + example.sizes[j])}));
                Example moved = example;
                moved.arguments[i].value = moved.arguments[j].value = id;
                const auto is_refused = [&](uint32_t offset) {
                    moved.arguments[j].offset = offset;
                    return moved.complaint(shared).find(" both touch bytes ") != std::string::npos;
                };
                EXPECT_EQ(is_refused(0), !free && !same);
                EXPECT_EQ(is_refused(1), !free && example.sizes[i] > 1);
                EXPECT_FALSE(is_refused(example.sizes[i]));
            }
        }
    }
}

TEST(Times, HaveALeastAndAMedian) {
    tool::Times times;
    for (const double sample : {5.0, 1.0, 3.0})
        times.add(sample);
    EXPECT_EQ(times.median(), 3);
    times.add(4);
    EXPECT_EQ(times.median(), 3.5);
    EXPECT_EQ(times.least(), 1);
}

TEST(Sentences, FitOnAScreenAndCutNoCharacter) {
    const std::string x(500, 'x');
    std::string umlauts;
    while (umlauts.size() < 600)
        umlauts += "\xC3\xA4";
    const struct {
        std::string sentence, readable;
    } rows[] = {
        {"a\nb\x7F\x1B\tc", "a?b???c"},
        {x, x},
        {x + "y", x.substr(0, 240) + " ... " + x.substr(0, 239) + "y"},
        {"x" + umlauts + "x", "x" + umlauts.substr(0, 238) + " ... " + umlauts.substr(0, 238) + "x"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(tool::readable(row.sentence), row.readable);
}

TEST(JsonWriter, BeginsALineForEachMemberOfTheOuterTwoLevels) {
    tool::JsonWriter json;
    json.begin('{').key("a").number(1).key("b").begin('[').begin('{').key("c").real(-HUGE_VAL).key("d").real(
        HUGE_VAL);
    json.end().number(2).end().key("e").begin('[').end().key("f").text("\xFF").end();
    EXPECT_EQ(json.document(),
              "{\n\"a\": 1,\n\"b\": [\n{\"c\": \"-inf\", \"d\": \"inf\"},\n2\n],\n\"e\": [],\n"
              "\"f\": \"\xEF\xBF\xBD\"\n}\n");
}

}  // namespace
