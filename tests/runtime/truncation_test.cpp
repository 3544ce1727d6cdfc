// The log against the simulated platform's own truncation: a file that it began stays under its limit, give
// or take what one message adds, and says when it was cut; a file that it did not begin stays whole.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "kelRt.h"
#include "nna_sim.h"

namespace {

std::string contents(const char* path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Logs 20 errors; the greatest length that the file had.
size_t longest_after_errors(const char* path) {
    size_t longest = 0;
    for (int i = 0; i < 20; ++i) {
        kelRt_executeContext(nullptr, nullptr);
        std::fflush(stdout);
        longest = std::max(longest, contents(path).size());
    }
    return longest;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    const char* const path = argv[1];
    if (nna_sim_begin_log("/", 0) != -1 || nna_sim_begin_log("/dev/null", 0) != -1 ||
        nna_sim_begin_log(path, 500) != 0)
        return 3;
    const size_t longest = longest_after_errors(path);
    const std::string cut = contents(path);
    // Past the limit by one line, before the next message cuts it; never by two.
    if (longest <= 500 || longest >= 700 || cut.find("Log file truncated") == std::string::npos ||
        cut[0] != '[')
        return 4;

    // Somebody else's file, with somebody else's lines, longer than the limit from the start.
    const std::string lines(600, '#'), other = std::string(path) + ".other";
    std::ofstream(other) << lines;
    if (!std::freopen(other.c_str(), "a", stdout))
        return 2;
    longest_after_errors(other.c_str());
    const std::string whole = contents(other.c_str());
    return whole.starts_with(lines) && whole.size() > 20 * 130 ? 0 : 5;
}
