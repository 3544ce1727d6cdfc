// Pages of which a program writes parts: text, markers around the generated parts, files.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

namespace docs {

inline std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
inline std::string format(const char* pattern, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, pattern);
    std::vsnprintf(text, sizeof text, pattern, arguments);
    va_end(arguments);
    return text;
}

inline std::string read(const std::string& path) {  // empty if there is no such file
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

[[nodiscard]] inline bool write(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary);
    return static_cast<bool>((file << content).flush());
}

// Puts `content` between the markers `name` of a page; false if it has none.
[[nodiscard]] inline bool replace_section(std::string& page, const std::string& name, const std::string& content) {
    const std::string begin = "<!-- " + name + ": written by the program -->\n", end = "<!-- end of " + name + " -->";
    const size_t from = page.find(begin), to = page.find(end);
    if (from == std::string::npos || to == std::string::npos || to < from)
        return false;
    page.replace(from + begin.size(), to - from - begin.size(), "\n" + content + "\n");
    return true;
}

}  // namespace docs
