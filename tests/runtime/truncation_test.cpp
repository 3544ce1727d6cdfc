// The log against the simulated platform's own truncation: a file behind standard output stays under its
// limit, give or take what one message adds, and says when it was cut.
#include <fstream>
#include <iterator>
#include <string>

#include "kelRt.h"
#include "kelRt_platform.h"

int main(int argc, char** argv) {
    if (argc != 2 || !std::freopen(argv[1], "w", stdout))
        return 2;
    g_log_file_max_size = 500;
    size_t longest = 0;
    std::string text;
    for (int i = 0; i < 20; ++i) {
        kelRt_executeContext(nullptr, nullptr);
        std::fflush(stdout);
        std::ifstream file(argv[1]);
        text.assign(std::istreambuf_iterator<char>(file), {});
        longest = text.size() > longest ? text.size() : longest;
    }
    // Past the limit by one line, before the next message cuts it; never by two.
    const bool bounded = longest > 500 && longest < 700;
    const bool noted = text.find("Log file truncated") != std::string::npos && text.front() == '[';
    return bounded && noted ? 0 : 1;
}
