// Everything is at most 80 columns wide, in Unicode's block elements.
#include "picture.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr uint32_t kBarColumns = 10;
constexpr const char* kGood = "32";
constexpr const char* kBad = "31";
constexpr const char* kFaint = "2";
constexpr const char* kBold = "1";

template <typename... Values>
std::string text(const char* format, Values... values) {
    char line[160];
    std::snprintf(line, sizeof line, format, values...);
    return line;
}

std::string repeat(const char* symbol, uint32_t count) {
    std::string line;
    while (count-- > 0)
        line += symbol;
    return line;
}

std::string paint(bool colour, const char* code, const std::string& what) {
    return colour ? "\033[" + std::string(code) + "m" + what + "\033[0m" : what;
}

// A pixel is two characters wide, which makes it about square.
std::string pixel_row(std::span<const uint8_t> pixels) {
    static constexpr const char* kShades[] = {" ", "░", "▒", "▓", "█"};
    std::string line;
    for (const uint8_t ink : pixels)
        line += repeat(kShades[std::min((ink * 4 + kFullInk / 2) / kFullInk, 4)], 2);
    return line;
}

// `fraction` of the bar's columns, to an eighth of a column, and blanks up to its end.
std::string bar(float fraction) {
    static constexpr const char* kEighths[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
    const float clamped = fraction > 0 ? std::min(fraction, 1.0f) : 0.0f;  // NaN is an empty bar
    const auto eighths = static_cast<uint32_t>(std::lround(clamped * kBarColumns * 8));
    const uint32_t blanks = kBarColumns - (eighths + 7) / 8;
    return repeat("█", eighths / 8) + kEighths[eighths % 8] + std::string(blanks, ' ');
}

// One line of a reading: the picture on the left, the bar of the digit `line` on the right.
std::string reading_line(const Reading& reading, uint32_t line, bool colour) {
    const bool right = reading.read == reading.written;
    std::string left(2 * kSide, ' ');
    if (line < kSide)
        left = pixel_row(reading.picture.subspan(line * kSide, kSide));
    else if (line == kDigits - 1)
        left = paint(colour, right ? kGood : kBad, text("a %u, read as %u  ", reading.written, reading.read));

    const float probability = reading.scores[line];
    const std::string bars = text("%u ", line) + bar(probability) + text("%6.1f%%", 100 * probability);
    const char* const code = line != reading.read ? kFaint : right ? kGood : kBad;
    return left + "  " + paint(colour, code, bars);
}

}  // namespace

Printer::Printer() : terminal_(isatty(STDOUT_FILENO)), colour_(terminal_ && !std::getenv("NO_COLOR")) {}

void Printer::progress(uint32_t done, uint32_t total) const {
    if (!terminal_)
        return;
    if (done < total)
        std::printf("\r%s %u of %u", bar(static_cast<float>(done) / static_cast<float>(total)).c_str(), done,
                    total);
    else
        std::printf("\r\033[K");
    std::fflush(stdout);
}

void Printer::headline(const char* headline) const {
    std::printf("\n%s\n", paint(colour_, kBold, headline).c_str());
}

void Printer::readings(std::span<const Reading> readings) const {
    for (size_t i = 0; i < readings.size(); i += 2) {
        std::printf("\n");
        for (uint32_t line = 0; line < kDigits; ++line) {
            std::printf("  %s", reading_line(readings[i], line, colour_).c_str());
            if (i + 1 < readings.size())
                std::printf("  %s", reading_line(readings[i + 1], line, colour_).c_str());
            std::printf("\n");
        }
    }
}

void Printer::confusion(const Confusion& confusion) const {
    std::printf("  read as    ");
    for (uint32_t read = 0; read < kDigits; ++read)
        std::printf("%4u", read);
    std::printf("    right\n");
    for (uint32_t written = 0; written < kDigits; ++written) {
        uint32_t total = 0;
        std::printf(written == 0 ? "  written  %u " : "           %u ", written);
        for (uint32_t read = 0; read < kDigits; ++read) {
            const uint32_t count = confusion[written][read];
            total += count;
            const char* const code = count == 0 ? kFaint : read == written ? kGood : kBad;
            std::printf("%s", paint(colour_, code, count == 0 ? "   ·" : text("%4u", count)).c_str());
        }
        if (total > 0)
            std::printf("   %5.1f %%", 100.0 * confusion[written][written] / total);
        std::printf("\n");
    }
}

void Printer::times(std::span<const OperatorTime> times) const {
    std::printf("  %-32s %8s %12s %12s\n", "operator", "calls", "total", "median");
    for (const OperatorTime& time : times)
        std::printf("  %-32s %8zu %9.3f ms %9.3f µs\n", time.op.name, time.calls, time.total_us / 1000,
                    time.median_us);
}
