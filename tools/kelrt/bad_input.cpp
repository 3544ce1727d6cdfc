// Sentences that fit on a screen.
#include "bad_input.h"

namespace tool {
namespace {

constexpr size_t kLongest = 500, kKept = 240;  // in all, and at either end of what is longer

// Bytes after the first of a character in UTF-8.
bool continues(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

}  // namespace

std::string readable(std::string sentence) {
    if (sentence.size() > kLongest) {
        size_t from = kKept, to = sentence.size() - kKept;
        while (from > 0 && continues(sentence[from]))
            --from;
        while (to < sentence.size() && continues(sentence[to]))
            ++to;
        sentence.replace(from, to - from, " ... ");
    }
    for (char& c : sentence) {
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7F')
            c = '?';
    }
    return sentence;
}

}  // namespace tool
