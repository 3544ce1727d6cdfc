// Prints what the network saw and thought: text pictures with bars, a confusion table, a table of times.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

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
    double microseconds;  // from the picture in memory to the probabilities
};

struct Symbols;

// Colours go to a terminal that has them, unless NO_COLOR asks for none; block elements to a UTF-8 locale,
// plain ASCII elsewhere. Nothing is wider than 60 columns but pictures side by side, on a terminal with room
// for them.
class Printer {
  public:
    Printer();
    // A bar that grows in place, on a terminal only; gone when all is done.
    void progress(uint32_t done, uint32_t total) const;
    std::string microseconds(double time) const;
    void readings(std::span<const Reading> readings) const;
    void confusion(const Confusion& confusion) const;
    void times(std::span<const OperatorTime> times) const;
    void headline(const char* text) const;

  private:
    std::string reading_line(const Reading& reading, uint32_t line) const;
    std::string bar(float fraction) const;
    std::string paint(const char* code, const std::string& what) const;

    const Symbols& symbols_;
    bool terminal_, colour_;
    uint32_t columns_ = 80;
};
