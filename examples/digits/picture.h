// Prints what the network saw and thought: text pictures with bars, a confusion table, a table of times.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "driver.h"

inline constexpr uint32_t kSide = 8;     // pixels on each side of a picture
inline constexpr uint32_t kDigits = 10;  // classes
inline constexpr uint8_t kFullInk = 16;  // the darkest pixel

using Scores = std::array<float, kDigits>;  // the probability of each digit
// [what was written][what was read]
using Confusion = std::array<std::array<uint32_t, kDigits>, kDigits>;

struct Reading {
    std::span<const uint8_t> picture;  // kSide rows of kSide pixels
    uint32_t written, read;
    Scores scores;
};

// Colours go to a terminal only, and not where NO_COLOR asks for none.
class Printer {
  public:
    Printer();
    // A bar that grows in place, on a terminal only; gone when all is done.
    void progress(uint32_t done, uint32_t total) const;
    void readings(std::span<const Reading> readings) const;
    void confusion(const Confusion& confusion) const;
    void times(std::span<const OperatorTime> times) const;
    void headline(const char* text) const;

  private:
    bool terminal_, colour_;
};
