// The example driver itself: that a failing context cannot go unnoticed, and that its argument lists become
// the records that the operators expect.
#include "driver.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace {

TEST(ExampleDriver, TheTypeOfAnArgumentDecidesItsRecord) {
    const KelRtContextArg tensor = Argument(Tensor{7, 12}.at(8)).record;
    EXPECT_EQ(tensor.type, uint32_t{KEL_RT_ARG_MEM});
    EXPECT_EQ(tensor.value, 7u);
    EXPECT_EQ(tensor.offset, 20u);
    const KelRtContextArg negative = Argument(-2).record;
    EXPECT_EQ(negative.type, uint32_t{KEL_RT_ARG_VAL});
    EXPECT_EQ(negative.value, 0xFFFFFFFEu);
    const KelRtContextArg real = Argument(1.5f).record;
    EXPECT_EQ(real.type, uint32_t{KEL_RT_ARG_FLT});
    EXPECT_EQ(real.value, 0x3FC00000u);
}

// Adds at odd offsets, from accelerator memory and a CPU buffer into a CPU buffer and into accelerator
// memory.
TEST(ExampleDriver, ReachesBothKindsOfMemory) {
    constexpr std::array<float, 3> kValues{1.5f, -2.0f, 1e10f};
    Driver driver;
    const Tensor shared = driver.accelerator_memory(64).at(5);
    const Tensor local = driver.cpu_buffer(64).at(3);
    driver.write(shared, std::as_bytes(std::span(kValues)));
    driver.write(local, std::as_bytes(std::span(kValues)));
    driver.run(kEwopAdd, {local, shared, local, 3});
    driver.run(kEwopAdd, {shared, shared, local, 3});
    for (const auto& [tensor, factor] : {std::pair(local, 2.0f), std::pair(shared, 3.0f)}) {
        std::array<float, 3> result{};
        driver.read(tensor, std::as_writable_bytes(std::span(result)));
        for (size_t i = 0; i < result.size(); ++i)
            EXPECT_EQ(result[i], factor * kValues[i]) << tensor.memory << " " << i;
    }
    ASSERT_EQ(driver.times().size(), 1u);
    EXPECT_EQ(driver.times()[0].calls, 2u);
}

TEST(ExampleDriver, EveryFailureIsThrown) {
    Driver driver;
    const Tensor memory = driver.accelerator_memory(16);
    const Tensor buffer = driver.cpu_buffer(16);
    std::array<std::byte, 17> bytes{};
    EXPECT_THROW(driver.write(memory, bytes), DriverError);
    EXPECT_THROW(driver.read(buffer, bytes), DriverError);
    EXPECT_THROW(driver.run(kEwopAdd, {memory, memory, memory}), DriverError);

    nna_sim_fail_call(driver.simulator(), 1, 4711);
    try {
        driver.run(kEwopAdd, {buffer, buffer, memory, 4});
        ADD_FAILURE() << "the fault went unnoticed";
    } catch (const DriverError& error) {
        EXPECT_STREQ(error.what(), "operator cpu_ewop_add failed with status 1070");
    }
    EXPECT_TRUE(driver.times().empty());
    driver.run(kEwopAdd, {buffer, buffer, memory, 4});
}

}  // namespace
