// The tool's catalogue says of every operator what the library's own table says.
#include <gtest/gtest.h>

#include <set>

#include "op_table.h"
#include "operators.h"

namespace {

TEST(Catalogue, AgreesWithTheOperatorTable) {
    for (uint32_t id = 0; id < KEL_RT_NUM_OPS; ++id) {
        const tool::Operator& op = tool::kOperators[id];
        const kelrt::KelRtOpEntry& row = kelrt::kOpTable[id];
        SCOPED_TRACE(row.name);
        EXPECT_STREQ(op.name, row.name);
        ASSERT_EQ(op.arguments.size(), row.op_args);
        std::set<std::string> names;
        bool written = false;
        for (uint32_t i = 0; i < row.op_args; ++i) {
            const tool::Argument& argument = op.arguments[i];
            EXPECT_EQ(argument.type, row.types[i + 2]) << argument.name;
            EXPECT_EQ(argument.is_memory(), argument.extent != nullptr) << argument.name;
            EXPECT_TRUE(names.insert(argument.name).second) << argument.name << " is there twice";
            written |= argument.is_written();
        }
        EXPECT_TRUE(written || op.name == std::string_view("nna_sram_set"));
        EXPECT_EQ(tool::find_operator(row.name), &op);
        EXPECT_EQ(tool::find_operator(std::to_string(id)), &op);
    }
    for (const char* unknown : {"", "19", "-1", "4294967300", "4 ", "cpu_ewop_ad", "cpu_ewop_add "})
        EXPECT_EQ(tool::find_operator(unknown), nullptr) << unknown;
}

}  // namespace
