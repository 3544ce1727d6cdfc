// What was measured of a line, and what follows from it.
#pragma once

#include <string>
#include <vector>

#include "lines.h"

namespace bench {

struct Timed {
    std::string name;
    double seconds;
    double distance;  // of its results from ours
};

struct Result {
    Line line;
    double ours;               // seconds
    std::vector<Timed> peers;  // fastest first
    Limit limit;

    double fraction() const { return limit.seconds / ours; }
    double ratio() const { return peers.front().seconds / ours; }  // only with peers
};

struct Group {
    std::string name;
    size_t lines;
    bool ordered;
    double ratio;     // geometric mean of best peer's time / ours; 0 without peers
    double fraction;  // geometric mean of limit / ours
};
std::string time_text(double seconds);

std::vector<Group> groups_of(const std::vector<Result>& results);

void print_heading(const std::string& group, bool with_peers);
void print(const Result& result, bool with_peers, bool all);
void print(const std::vector<Group>& groups, bool with_peers);

void write_json(const std::string& path, const std::vector<Result>& results);

}  // namespace bench
