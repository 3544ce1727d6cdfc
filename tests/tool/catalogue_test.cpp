// The tool's catalogue says of every operator what the library's own table says, and nothing that is at odds
// with itself.
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
        for (const tool::Overlap& overlap : op.overlaps)
            EXPECT_TRUE(overlap.a < overlap.b && op.at(overlap.a).is_memory() &&
                        op.at(overlap.b).is_memory());
        for (const tool::Lookup& lookup : op.lookups)
            EXPECT_TRUE(op.at(lookup.index).is_memory() && op.at(lookup.table).is_memory());
        EXPECT_EQ(tool::find_operator(row.name), &op);
        EXPECT_EQ(tool::find_operator(std::to_string(id)), &op);
    }
    for (const char* unknown : {"", "19", "-1", "4294967300", "4 ", "cpu_ewop_ad", "cpu_ewop_add "})
        EXPECT_EQ(tool::find_operator(unknown), nullptr) << unknown;
}

}  // namespace
