// The reader of records believes nothing: a file cut anywhere, flipped anywhere or made up is refused by
// name, and the whole records in it are there all the same.
#include "records.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <random>

#include "kelRt_platform.h"
#include "replay.h"

namespace {

using Bytes = std::string;

template <typename T>
void put(Bytes& to, const T& value) {
    to.append(reinterpret_cast<const char*>(&value), sizeof value);
}

// Sets length and checksums right, whatever the body is.
Bytes sealed(const Bytes& body) {
    record::Prefix prefix;
    prefix.length = sizeof prefix + body.size();
    prefix.body_checksum = record::checksum(body.data(), body.size());
    prefix.checksum = record::checksum(&prefix, offsetof(record::Prefix, checksum));
    Bytes whole;
    put(whole, prefix);
    return whole + body;
}

// One float and another are three; `n` and the memories' size are to be spoiled.
Bytes body_of_sum(uint32_t n = 1, uint32_t size = 4) {
    record::Fixed fixed;
    fixed.status = NNA_STATUS_OK;
    fixed.num_args = 6;
    fixed.target = 1;
    fixed.arguments = 6;
    fixed.memories = 3;
    fixed.pieces = 3;
    Bytes body;
    put(body, fixed);
    const record::Argument arguments[] = {{1, 0, 4},  {1, 0, 4},  {2, 0, 70},
                                          {2, 0, 80}, {2, 0, 90}, {1, 0, n}};
    put(body, arguments);
    for (const uint32_t id : {70u, 80u, 90u})
        put(body, record::Memory{id, record::kAccelerator, size, NNA_STATUS_OK, id == 70});
    put(body, record::Piece{0, record::kAfter, 0, 4});
    put(body, record::Piece{1, record::kBefore, 0, 4});
    put(body, record::Piece{2, record::kBefore, 0, 4});
    for (const float value : {3.0f, 1.0f, 2.0f})
        put(body, value);
    return body;
}

class Records : public testing::Test {
  protected:
    ~Records() override { ::unlink(path_.c_str()); }

    void write(const Bytes& bytes) {
        std::FILE* const file = std::fopen(path_.c_str(), "wb");
        std::fwrite(bytes.data(), 1, bytes.size(), file);
        std::fclose(file);
    }
    int replayed(const Bytes& bytes) {
        g_log_lvl = 4;
        write(bytes);
        tool::ReplayOptions options;
        options.quiet = true;
        return tool::replay({path_}, options);
    }

    std::string path_ = "records_test." + std::to_string(::getpid());
};

TEST_F(Records, SurviveACutAtEveryByte) {
    const Bytes one = sealed(body_of_sum());
    Bytes three = one + one + one;
    for (size_t size = 0; size <= three.size(); ++size) {
        SCOPED_TRACE(size);
        write(three.substr(0, size));
        const tool::RecordFile file(path_);
        EXPECT_EQ(file.records().size(), size / one.size());
        const bool whole = size > 0 && size % one.size() == 0;
        ASSERT_EQ(file.damages().size(), whole ? 0u : 1u);
        if (!whole && size > 0) {
            EXPECT_TRUE(file.damages()[0].starts_with(path_ + ": byte " +
                                                      std::to_string(size / one.size() * one.size()) +
                                                      ": the record is cut short"))
                << file.damages()[0];
        }
    }
    EXPECT_EQ(replayed(three), 0);
    three.pop_back();
    EXPECT_EQ(replayed(three), 2);
}

TEST_F(Records, SurviveAFlipOfEveryByte) {
    const Bytes one = sealed(body_of_sum());
    Bytes three = one + one + one;
    for (size_t at = 0; at < three.size(); ++at) {
        for (const int flip : {0x01, 0xFF}) {
            SCOPED_TRACE(at);
            three[at] = static_cast<char>(three[at] ^ flip);
            write(three);
            const tool::RecordFile file(path_);
            EXPECT_EQ(file.records().size(), 2u);
            ASSERT_EQ(file.damages().size(), 1u);
            EXPECT_TRUE(file.damages()[0].starts_with(path_ + ": byte " +
                                                      std::to_string(at / one.size() * one.size()) + ": "));
            three[at] = static_cast<char>(three[at] ^ flip);
        }
    }
}

// Checksums are right, and the rest is not.
TEST_F(Records, AreNotBelievedForTheirChecksum) {
    const auto spoiled = [](size_t at, uint32_t value) {
        Bytes body = body_of_sum();
        std::memcpy(&body[at], &value, sizeof value);
        return body;
    };
    constexpr size_t kCounts = offsetof(record::Fixed, arguments);
    constexpr size_t kMemories = sizeof(record::Fixed) + 6 * sizeof(record::Argument),
                     kPieces = kMemories + 3 * sizeof(record::Memory);
    const struct {
        Bytes body;
        const char* what;
    } rows[] = {
        {{}, "its parts are longer than it is"},
        {spoiled(kCounts, 18), "it has 18 arguments, and 17 are the most"},
        {spoiled(kCounts + 4, UINT32_MAX), "it has 4294967295 memories, and 7 are the most"},
        {spoiled(kCounts + 8, 65), "it has 65 pieces, and 64 are the most"},
        {spoiled(kCounts + 12, 64), "its parts are longer than it is"},
        {spoiled(kCounts + 12, 65), "it has 65 faults, and 64 are the most"},
        {spoiled(kCounts, 5), "it has bytes of no memory"},
        {spoiled(kMemories, 80), "its memories make no sense"},
        {spoiled(kMemories, 71), "it names a memory that it does not describe"},
        {spoiled(kMemories + 4, 2), "its memories make no sense"},
        {spoiled(kPieces, 3), "it has bytes of no memory"},
        {spoiled(kPieces + 4, 2), "it has bytes of no memory"},
        {spoiled(kPieces + 8, 1), "it has bytes of no memory"},
        {spoiled(kPieces + 8, UINT32_MAX), "it has bytes of no memory"},
        {spoiled(kPieces + 12, 3), "its parts are shorter than it is"},
    };
    for (const auto& [body, what] : rows) {
        write(sealed(body));
        const tool::RecordFile file(path_);
        EXPECT_TRUE(file.records().empty());
        ASSERT_EQ(file.damages().size(), 1u) << what;
        EXPECT_NE(file.damages()[0].find(what), std::string::npos) << file.damages()[0];
    }
}

// What would touch bytes that nobody recorded is not run, and no size makes the tool ask for more than it
// has.
TEST_F(Records, RunOnlyWhereTheirBytesAre) {
    EXPECT_EQ(replayed(sealed(body_of_sum())), 0);
    for (const uint32_t n : {2u, 1u << 30, UINT32_MAX}) {
        for (const uint32_t size : {4u, 1u << 20, UINT32_MAX})
            EXPECT_EQ(replayed(sealed(body_of_sum(n, size))), 1) << n << " of " << size;
    }
    Bytes other = body_of_sum();
    other[other.size() - 12] = 1;  // the recorded sum
    EXPECT_EQ(replayed(sealed(other)), 1);
}

// Any body at all, under a checksum that fits: the seed is in the trace.
TEST_F(Records, OfGarbageAreReadAndReplayedWithoutHarm) {
    for (uint32_t seed = 0; seed < 1500; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        Bytes body = body_of_sum();
        // Mostly in the counts and tables, where a number can do harm.
        for (uint32_t k = 0, end = random() % 4 + 1; k < end; ++k) {
            const size_t at = random() % (random() % 2 ? body.size() : sizeof(record::Fixed)) / 4 * 4;
            const uint32_t values[] = {
                0, 1, 2, 3, 4, 15, 18, 64, 1u << 30, UINT32_MAX, static_cast<uint32_t>(random())};
            std::memcpy(&body[at], &values[random() % std::size(values)], 4);
        }
        const int code = replayed(sealed(body));
        EXPECT_TRUE(code >= 0 && code <= 2);
    }
}

}  // namespace
