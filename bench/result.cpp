#include "result.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

namespace bench {
namespace {

std::string ratio_text(double ratio) {
    if (ratio == 0)
        return "";
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", ratio);
    return text;
}

}  // namespace

std::string time_text(double seconds) {
    char text[32];
    const double ns = seconds * 1e9;
    if (ns < 1e4)
        std::snprintf(text, sizeof text, ns < 100 ? "%.1f ns" : "%.0f ns", ns);
    else if (ns < 1e7)
        std::snprintf(text, sizeof text, "%.1f us", ns / 1e3);
    else
        std::snprintf(text, sizeof text, "%.1f ms", ns / 1e6);
    return text;
}

std::vector<Group> groups_of(const std::vector<Result>& results) {
    std::vector<Group> groups;
    for (const Result& r : results) {
        if (groups.empty() || groups.back().name != r.line.group)
            groups.push_back({r.line.group, 0, r.line.ordered, 0, 0});
        Group& g = groups.back();  // sums of logarithms until all are in
        ++g.lines;
        g.ratio += r.peers.empty() ? -INFINITY : std::log(r.ratio());
        g.fraction += std::log(r.fraction());
    }
    for (Group& g : groups) {
        g.ratio = std::exp(g.ratio / static_cast<double>(g.lines));
        g.fraction = std::exp(g.fraction / static_cast<double>(g.lines));
    }
    return groups;
}

void print_heading(const std::string& group, bool with_peers) {
    std::printf("\n%s\n%-50s %10s", group.c_str(), "", "ours");
    if (with_peers)
        std::printf(" %10s %-9s %9s", "best peer", "", "peer/ours");
    std::printf(" %10s %-11s %8s\n", "limit", "", "of limit");
}

void print(const Result& r, bool with_peers, bool all) {
    std::printf("%-50s %10s", r.line.text().c_str(), time_text(r.ours).c_str());
    if (with_peers) {
        if (r.peers.empty())
            std::printf(" %10s %-9s %9s", "", "none", "");
        else
            std::printf(" %10s %-9s %9.2f", time_text(r.peers[0].seconds).c_str(), r.peers[0].name.c_str(),
                        r.ratio());
    }
    std::printf(" %10s %-11s %8.2f\n", time_text(r.limit.seconds).c_str(), r.limit.kind, r.fraction());
    if (all)
        for (const Timed& peer : r.peers)
            std::printf("    %-9s %10s  differs by %.1e\n", peer.name.c_str(),
                        time_text(peer.seconds).c_str(), peer.distance);
    std::fflush(stdout);
}

void print(const std::vector<Group>& groups, bool with_peers) {
    std::printf("\nGeometric means\n%-28s %5s %9s %8s\n", "", "lines", with_peers ? "peer/ours" : "",
                "of limit");
    for (const Group& g : groups)
        std::printf("%-28s %5zu %9s %8.2f%s\n", g.name.c_str(), g.lines,
                    with_peers ? ratio_text(g.ratio).c_str() : "", g.fraction,
                    g.ordered ? "  (the limit is the measure: the order of sums is kept)" : "");
}

void write_json(const std::string& path, const std::vector<Result>& results) {
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    for (const Result& r : results) {
        nlohmann::ordered_json peers = nlohmann::ordered_json::object();
        for (const Timed& peer : r.peers)
            peers[peer.name] = peer.seconds;
        all.push_back({{"group", r.line.group},
                       {"name", r.line.text()},
                       {"seconds", r.ours},
                       {"peers", peers},
                       {"limit", r.limit.seconds},
                       {"limit_kind", r.limit.kind}});
    }
    std::ofstream file(path);
    if (!(file << all.dump(1) << '\n').flush()) {
        std::fprintf(stderr, "kelrt_bench: cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

}  // namespace bench
