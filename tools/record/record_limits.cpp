// Reading the environment. What cannot be understood is refused rather than guessed at.
#include "record_limits.h"

#include <cstdlib>
#include <cstring>

#include "operators.h"

namespace record {
namespace {

// A number from 1 on; with `units`, it may end in K, M or G.
bool read_count(const char* text, bool units, uint64_t& count) {
    uint64_t value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        if (__builtin_mul_overflow(value, 10, &value) || __builtin_add_overflow(value, *text - '0', &value))
            return false;
    }
    if (units && *text) {
        const char* const kUnits = "KMG";
        const char* const unit = std::strchr(kUnits, *text++);
        if (!unit || __builtin_mul_overflow(value, uint64_t{1024} << (10 * (unit - kUnits)), &value))
            return false;
    }
    count = value;
    return value > 0 && !*text;
}

bool read_operator(const char* text, int& id) {
    const tool::Operator* const op = tool::find_operator(text);
    id = op ? static_cast<int>(tool::id_of(*op)) : -1;
    return op;
}

bool read_switch(const char* text, bool& on) {
    on = std::strcmp(text, "1") == 0;
    return on || std::strcmp(text, "0") == 0;
}

}  // namespace

const char* read_limits(Limits& limits) {
    const auto of = [](const char* name) {
        const char* const value = std::getenv(name);
        return value && *value ? value : nullptr;
    };
    limits.file = of("KELRT_RECORD");
    const auto understood = [&](const char* name, auto read) {
        const char* const value = of(name);
        return !value || read(value);
    };
    const struct {
        const char* name;
        bool good;
    } rows[] = {
        {"KELRT_RECORD_CALLS",
         understood("KELRT_RECORD_CALLS",
                    [&](const char* text) { return read_count(text, false, limits.calls); })},
        {"KELRT_RECORD_BYTES",
         understood("KELRT_RECORD_BYTES",
                    [&](const char* text) { return read_count(text, true, limits.bytes); })},
        {"KELRT_RECORD_EVERY",
         understood("KELRT_RECORD_EVERY",
                    [&](const char* text) { return read_count(text, false, limits.every); })},
        {"KELRT_RECORD_OP",
         understood("KELRT_RECORD_OP",
                    [&](const char* text) { return read_operator(text, limits.operator_id); })},
        {"KELRT_RECORD_FAILED",
         understood("KELRT_RECORD_FAILED",
                    [&](const char* text) { return read_switch(text, limits.failed_only); })},
    };
    for (const auto& row : rows) {
        if (!row.good)
            return row.name;
    }
    return nullptr;
}

}  // namespace record
