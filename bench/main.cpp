// Measures the library's operations beside their physical limits and, on request, beside other libraries.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <regex>

#include "lines.h"
#include "measure.h"
#include "ours.h"
#include "peers/peers.h"
#include "result.h"

namespace bench {
namespace {

struct Options {
    std::string filter, json;
    bool peers = false, all = false, list = false;
    double seconds = 1;
};

[[noreturn]] void stop(const std::string& why) {
    std::fprintf(stderr, "kelrt_bench: %s\n", why.c_str());
    std::exit(1);
}

// The first result that differs by more than the tolerance, in words; empty when all agree.
std::string difference(const Problem& ours, const Problem& peer, double tolerance) {
    char text[128];
    for (size_t i = 0; i < ours.out_count; ++i) {
        const auto x = static_cast<double>(ours.out[i]), y = static_cast<double>(peer.out[i]);
        if (!(std::fabs(x - y) <= tolerance * (1 + std::fabs(x)))) {
            std::snprintf(text, sizeof text, "element %zu is %.9g, ours %.9g", i, y, x);
            return text;
        }
    }
    for (size_t i = 0; i < ours.bytes_count; ++i)
        if (std::abs(ours.bytes[i] - peer.bytes[i]) > tolerance) {
            std::snprintf(text, sizeof text, "byte %zu is %d, ours %d", i, peer.bytes[i], ours.bytes[i]);
            return text;
        }
    return {};
}

Result measure(const Line& line, const Rates& rates, const Options& options,
               std::vector<std::string>& errors) {
    const Problem ours_problem(line.op, line.shape);
    std::vector<Work> candidates = {ours(ours_problem)};
    candidates[0](1);

    std::vector<Timed> timed;
    std::vector<std::unique_ptr<Problem>> problems;
    if (options.peers)
        for (const Peer& peer : peers()) {
            auto problem = std::make_unique<Problem>(line.op, line.shape);
            Work work = peer.work(*problem);
            if (!work)
                continue;
            work(1);
            if (const std::string text = difference(ours_problem, *problem, line.tolerance); !text.empty()) {
                errors.push_back(line.text() + " by " + peer.name + ": " + text);
                std::printf("DIFFERS: %s\n", errors.back().c_str());
                continue;
            }
            timed.push_back({peer.name, 0});
            candidates.push_back(std::move(work));
            problems.push_back(std::move(problem));
        }

    std::vector<size_t> ways;  // of moving the bytes of each pass
    for (const Pass& pass : line.passes) {
        const std::vector<Work> works = moves(pass);
        ways.push_back(works.size());
        candidates.insert(candidates.end(), works.begin(), works.end());
    }

    const std::vector<double> seconds = least_seconds(candidates, options.seconds);
    for (size_t i = 0; i < timed.size(); ++i)
        timed[i].seconds = seconds[1 + i];
    std::sort(timed.begin(), timed.end(),
              [](const Timed& x, const Timed& y) { return x.seconds < y.seconds; });
    std::vector<double> moving;
    auto next = seconds.begin() + 1 + static_cast<std::ptrdiff_t>(timed.size());
    for (const size_t count : ways) {
        const auto end = next + static_cast<std::ptrdiff_t>(count);
        moving.push_back(count ? *std::min_element(next, end) : 0);
        next = end;
    }
    return {line, seconds[0], timed, limit_of(line.passes, moving, rates)};
}

std::vector<Line> chosen_lines(const std::string& filter) {
    std::vector<Line> lines = all_lines();
    try {
        const std::regex wanted(filter, std::regex::icase);
        std::erase_if(lines,
                      [&](const Line& l) { return !std::regex_search(l.group + ": " + l.text(), wanted); });
    } catch (const std::regex_error& e) {
        stop("'" + filter + "' is no regular expression: " + e.what());
    }
    if (lines.empty())
        stop("nothing is called '" + filter + "'; --list shows what there is");
    return lines;
}

int run(const Options& options) {
    const std::vector<Line> lines = chosen_lines(options.filter);
    if (options.list) {
        for (const Line& line : lines)
            std::printf("%s: %s\n", line.group.c_str(), line.text().c_str());
        return 0;
    }
    const double length = 1.3 * options.seconds * static_cast<double>(lines.size());
    std::printf("%zu lines, about %.0f %s", lines.size(), length < 90 ? length : length / 60,
                length < 90 ? "seconds" : "minutes");
    if (options.peers) {
        std::printf("; peers:");
        for (const Peer& peer : peers())
            std::printf(" %s", peer.name);
    }
    std::printf("\n");
    std::fflush(stdout);

    const Rates rates = measure_rates(0.2);
    std::vector<Result> results;
    std::vector<std::string> errors;
    for (const Line& line : lines) {
        if (results.empty() || results.back().line.group != line.group)
            print_heading(line.group, options.peers);
        results.push_back(measure(line, rates, options, errors));
        print(results.back(), options.peers, options.all);
    }
    print(groups_of(results), options.peers);
    if (!options.json.empty())
        write_json(options.json, results);
    for (const std::string& error : errors)
        std::fprintf(stderr, "kelrt_bench: results differ: %s\n", error.c_str());
    return errors.empty() ? 0 : 1;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    bench::Options options;
    CLI::App app("Measures the library's operations beside their physical limits.");
    app.add_option("FILTER", options.filter,
                   "Only lines whose `group: name/size` this regular expression finds");
    app.add_flag("--peers", options.peers,
                 "Beside the fastest of other libraries, too, whose results must agree");
    app.add_flag("--all", options.all, "Every peer's time");
    app.add_flag("--list", options.list, "Names the lines and measures nothing");
    app.add_option("--seconds", options.seconds, "Time for each line")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--json", options.json, "Writes all times to this file");
    CLI11_PARSE(app, argc, argv);
    return bench::run(options);
}
