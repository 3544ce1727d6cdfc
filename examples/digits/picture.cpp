// What the terminal can show is asked once; all that is printed follows from it.
#include "picture.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

struct Symbols {
    const char* shades[5];   // of ink
    const char* eighths[8];  // of a bar's last column
    const char *full, *dot, *micro;
};

namespace {

constexpr Symbols kBlocks{{" ", "░", "▒", "▓", "█"}, {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"}, "█", "·", "µ"};
constexpr Symbols kAscii{{" ", ".", "+", "%", "@"}, {"", ".", ".", "-", "-", "-", "=", "="}, "#", ".", "u"};

constexpr uint32_t kBarColumns = 10;
constexpr uint32_t kPictureColumns =
    2 * kSide;  // a pixel is two characters wide, which makes it about square
constexpr uint32_t kReadingColumns = 2 + kPictureColumns + 2 + 2 + kBarColumns + 7;
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

std::string environment(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "";
}

const Symbols& symbols_of_locale() {
    std::setlocale(LC_CTYPE, "");
    return std::string_view(nl_langinfo(CODESET)) == "UTF-8" ? kBlocks : kAscii;
}

}  // namespace

Printer::Printer()
    : symbols_(symbols_of_locale()),
      // A dumb terminal is asked for nothing but lines.
      terminal_(isatty(STDOUT_FILENO) && !environment("TERM").empty() && environment("TERM") != "dumb"),
      colour_(terminal_ && environment("NO_COLOR").empty()) {
    struct winsize size {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        columns_ = size.ws_col;
}

std::string Printer::paint(const char* code, const std::string& what) const {
    return colour_ ? "\033[" + std::string(code) + "m" + what + "\033[0m" : what;
}

// `fraction` of the bar's columns, to an eighth of a column, and blanks up to its end.
std::string Printer::bar(float fraction) const {
    const float clamped = fraction > 0 ? std::min(fraction, 1.0f) : 0.0f;  // NaN is an empty bar
    const auto eighths = static_cast<uint32_t>(std::lround(clamped * kBarColumns * 8));
    const uint32_t blanks = kBarColumns - (eighths + 7) / 8;
    return repeat(symbols_.full, eighths / 8) + symbols_.eighths[eighths % 8] + std::string(blanks, ' ');
}

std::string Printer::microseconds(double time) const {
    return text("%.1f %ss", time, symbols_.micro);
}

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
    std::printf("\n%s\n", paint(kBold, headline).c_str());
}

// One line of a reading: the picture on the left, the bar of the digit `line` on the right.
std::string Printer::reading_line(const Reading& reading, uint32_t line) const {
    const bool right = reading.read == reading.written;
    std::string left;
    if (line < kSide) {
        for (const uint8_t ink : reading.picture.subspan(line * kSide, kSide))
            left += repeat(symbols_.shades[std::min((ink * 4 + kFullInk / 2) / kFullInk, 4)], 2);
    } else if (line == kSide) {
        left = "in " + microseconds(reading.microseconds);
        const size_t columns = left.size() - std::string_view(symbols_.micro).size() + 1;
        left.append(kPictureColumns - std::min<size_t>(kPictureColumns, columns), ' ');
    } else {
        left = paint(right ? kGood : kBad, text("a %u, read as %u  ", reading.written, reading.read));
    }
    const float probability = reading.scores[line];
    const std::string bars = text("%u ", line) + bar(probability) + text("%6.1f%%", 100 * probability);
    const char* const code = line != reading.read ? kFaint : right ? kGood : kBad;
    return "  " + left + "  " + paint(code, bars);
}

void Printer::readings(std::span<const Reading> readings) const {
    const size_t abreast = columns_ >= 2 * kReadingColumns ? 2 : 1;
    for (size_t first = 0; first < readings.size(); first += abreast) {
        const auto row = readings.subspan(first, std::min(abreast, readings.size() - first));
        std::printf("\n");
        for (uint32_t line = 0; line < kDigits; ++line) {
            for (const Reading& reading : row)
                std::printf("%s", reading_line(reading, line).c_str());
            std::printf("\n");
        }
    }
}

void Printer::confusion(const Confusion& confusion) const {
    std::printf("  read as    ");
    for (uint32_t read = 0; read < kDigits; ++read)
        std::printf("%3u", read);
    std::printf("    right\n");
    for (uint32_t written = 0; written < kDigits; ++written) {
        uint32_t total = 0;
        std::printf(written == 0 ? "  written  %u " : "           %u ", written);
        for (uint32_t read = 0; read < kDigits; ++read) {
            const uint32_t count = confusion[written][read];
            total += count;
            const char* const code = count == 0 ? kFaint : read == written ? kGood : kBad;
            const std::string shown = count == 0 ? std::string("  ") + symbols_.dot : text("%3u", count);
            std::printf("%s", paint(code, shown).c_str());
        }
        if (total > 0)
            std::printf("   %5.1f %%", 100.0 * confusion[written][written] / total);
        std::printf("\n");
    }
}

void Printer::times(std::span<const OperatorTime> times) const {
    std::printf("  %-30s %6s %8s  median %ss\n", "operator", "calls", "total ms", symbols_.micro);
    for (const OperatorTime& time : times)
        std::printf("  %-30s %6zu %8.2f %10.2f\n", time.op.name, time.calls, time.total_us / 1000,
                    time.median_us);
}
