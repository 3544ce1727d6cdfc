// The file of records, for whoever writes one (recorder.cpp) and whoever reads one (kelrt replay).
//
// A file is one record after another and nothing else, so files can be put together with cat. Numbers are
// little-endian and of fixed width, whatever machine wrote them. A record is
//
//     Prefix        32 bytes; its own checksum covers the bytes before it
//     Fixed         80 bytes; from here on the prefix's checksum covers everything
//     arguments     12 bytes each, as the library read them: type, offset, value
//     memories      20 bytes each: every memory that the context names
//     pieces        16 bytes each: which bytes of which memory, before or after the call
//     faults        8 bytes each: which platform call of the wrapped call failed, counted from 1, and how
//     bytes         of the pieces, in their order
//
// A record whose end is missing or whose checksum differs is damaged: a writer was interrupted, or a disk was
// full. Its neighbours are not: the next one begins with the magic bytes again.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace record {

static_assert(std::endian::native == std::endian::little,
              "records are written and read as they lie in memory");

constexpr std::array<uint8_t, 8> kMagic = {0x89, 'k', 'e', 'l', 'R', 'e', 'c', '\n'};
constexpr uint32_t kVersion = 1;

struct Prefix {
    std::array<uint8_t, 8> magic = kMagic;
    uint32_t version = kVersion;
    uint32_t reserved = 0;
    uint64_t length = 0;         // of the whole record, this prefix included
    uint32_t body_checksum = 0;  // of everything after the prefix
    uint32_t checksum = 0;       // of the prefix up to here
};
static_assert(sizeof(Prefix) == 32);

enum Machine : uint8_t { kOther = 0, kX86_64 = 1, kArm = 2, kArm64 = 3 };

struct Fixed {
    uint64_t number = 0;       // of the call within its process, from 0; all calls count, recorded or not
    uint64_t start_ns = 0;     // since 1970
    uint64_t duration_ns = 0;  // of the wrapped call
    uint32_t process = 0, thread = 0;
    uint32_t status = 0;
    int32_t log_level = 0;  // the threshold when the call began
    int32_t num_args = 0;   // as the context says
    uint32_t target = 0;
    uint8_t machine = kOther, pointer_bytes = 0;
    uint8_t null_context = 0;                           // 1: the call got none
    uint8_t out_shift_before = 0, out_shift_after = 0;  // of the instance; 0 where the library did not see it
    uint8_t reserved[3] = {};
    uint32_t arguments = 0, memories = 0, pieces = 0, faults = 0;  // how many of each follow
    uint32_t reserved2[2] = {};
};
static_assert(sizeof(Fixed) == 80);

struct Argument {
    uint32_t type, offset, value;
};
static_assert(sizeof(Argument) == 12);

enum MemoryKind : uint32_t { kAccelerator = 0, kCpuBuffer = 1 };

struct Memory {
    uint32_t id, kind;
    uint32_t size;         // as the platform or the buffer table has it
    uint32_t size_status;  // of asking the platform; 1001, or the size is not known and no piece is there
    uint32_t published;    // 1: the call made the caches coherent for the accelerator
};
static_assert(sizeof(Memory) == 20);

enum When : uint32_t { kBefore = 0, kAfter = 1 };

struct Piece {
    uint32_t memory;  // index into the memories of this record
    uint32_t when;
    uint32_t begin, length;  // bytes of the memory
};
static_assert(sizeof(Piece) == 16);

struct Fault {
    uint32_t call, status;
};
static_assert(sizeof(Fault) == 8);

// What one record can have at most of each.
constexpr uint32_t kMaxArguments = 17, kMaxMemories = 7, kMaxPieces = 64, kMaxFaults = 64;

// ---- the checksum: CRC-32 with the polynomial of Ethernet, eight bytes a step ----
// A byte a step would take longer than many an operator.

constexpr std::array<std::array<uint32_t, 256>, 8> make_checksum_tables() {
    std::array<std::array<uint32_t, 256>, 8> tables{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit)
            value = value >> 1 ^ (value & 1 ? 0xEDB88320 : 0);
        tables[0][byte] = value;
    }
    for (size_t k = 1; k < 8; ++k) {
        for (uint32_t byte = 0; byte < 256; ++byte)
            tables[k][byte] = tables[k - 1][byte] >> 8 ^ tables[0][tables[k - 1][byte] & 0xFF];
    }
    return tables;
}

inline constexpr auto kChecksumTables = make_checksum_tables();

inline uint32_t checksum(const void* data, size_t size) {
    const auto& t = kChecksumTables;
    const uint8_t* at = static_cast<const uint8_t*>(data);
    uint32_t value = 0xFFFFFFFF;
    for (; size >= 8; size -= 8, at += 8) {
        uint32_t low, high;
        __builtin_memcpy(&low, at, 4);
        __builtin_memcpy(&high, at + 4, 4);
        low ^= value;
        value = t[7][low & 0xFF] ^ t[6][low >> 8 & 0xFF] ^ t[5][low >> 16 & 0xFF] ^ t[4][low >> 24] ^
                t[3][high & 0xFF] ^ t[2][high >> 8 & 0xFF] ^ t[1][high >> 16 & 0xFF] ^ t[0][high >> 24];
    }
    for (; size > 0; --size, ++at)
        value = value >> 8 ^ t[0][(value ^ *at) & 0xFF];
    return ~value;
}

}  // namespace record
