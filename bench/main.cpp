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
#include "report.h"
#include "result.h"

namespace bench {
namespace {

struct Options {
    std::string filter, json;
    bool peers = false, all = false, list = false, write = false;
    double seconds = 0.3;
};

[[noreturn]] void stop(const std::string& why) {
    std::fprintf(stderr, "kelrt_bench: %s\n", why.c_str());
    std::exit(1);
}

// How far a peer's results are from ours at most: relative to the result and the mean of all by magnitude; of
// bytes the plain difference.
struct Distance {
    double worst = 0;
    std::string where;

    void take(double distance, size_t i, double ours, double peer) {
        if (distance <= worst)  // which a NaN is not
            return;
        char text[96];
        std::snprintf(text, sizeof text, "element %zu is %.9g, ours %.9g", i, peer, ours);
        worst = std::isnan(distance) ? INFINITY : distance;
        where = text;
    }
};

Distance distance(const Problem& ours, const Problem& peer) {
    Distance d;
    double mean = 0;
    for (size_t i = 0; i < ours.out_count; ++i)
        mean += std::fabs(static_cast<double>(ours.out[i])) / static_cast<double>(ours.out_count);
    for (size_t i = 0; i < ours.out_count; ++i) {
        const auto x = static_cast<double>(ours.out[i]), y = static_cast<double>(peer.out[i]);
        d.take(std::fabs(x - y) / (mean + std::fabs(x)), i, x, y);
    }
    for (size_t i = 0; i < ours.bytes_count; ++i)
        d.take(std::abs(ours.bytes[i] - peer.bytes[i]), i, ours.bytes[i], peer.bytes[i]);
    return d;
}

Result measure(const Line& line, const Options& options, std::vector<std::string>& errors) {
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
            const Distance from_ours = distance(ours_problem, *problem);
            if (from_ours.worst > line.tolerance) {
                errors.push_back(line.text() + " by " + peer.name + ": " + from_ours.where);
                std::printf("DIFFERS: %s\n", errors.back().c_str());
                continue;
            }
            timed.push_back({peer.name, 0, from_ours.worst});
            candidates.push_back(std::move(work));
            problems.push_back(std::move(problem));
        }

    for (Work& work : rate_works())
        candidates.push_back(std::move(work));
    std::vector<size_t> ways;  // of moving the bytes of each pass
    for (const Pass& pass : line.passes) {
        const std::vector<Work> works = moves(pass);
        ways.push_back(works.size());
        candidates.insert(candidates.end(), works.begin(), works.end());
    }

    const std::vector<double> seconds = least_seconds(candidates, options.seconds);
    const double* next = seconds.data();
    const double our_time = *next++;
    for (Timed& peer : timed)
        peer.seconds = *next++;
    std::sort(timed.begin(), timed.end(),
              [](const Timed& x, const Timed& y) { return x.seconds < y.seconds; });
    const Rates rates = rates_from(next);
    next += rate_works().size();
    std::vector<double> moving;
    for (const size_t count : ways) {
        moving.push_back(count ? *std::min_element(next, next + count) : 0);
        next += count;
    }
    return {line, our_time, timed, limit_of(line.passes, moving, rates)};
}

// The rare input's time; the usual one's is the limit.
Result measure_subnormal(const Line& line, const Options& options) {
    const Problem rare(line.op, line.shape, line.input), usual(line.op, line.shape);
    const std::vector<double> seconds = least_seconds({ours(rare), ours(usual)}, options.seconds);
    return {line, seconds[0], {}, {seconds[1], "ordinary"}};
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
    // (in writing the page the drawings take another quarter of a minute)
    const double length = (options.seconds + 0.15) * static_cast<double>(lines.size());
    std::printf("%zu lines, about %.0f %s", lines.size(), length < 90 ? length : length / 60,
                length < 90 ? "seconds" : "minutes");
    if (options.peers) {
        std::printf("; peers:");
        for (const Peer& peer : peers())
            std::printf(" %s", peer.name);
        if (peers().size() == 1)
            std::printf(" (the others are built with KELRT_BENCH_PEERS, where they are installed)");
    }
    std::printf("\n");
    std::fflush(stdout);

    std::vector<Result> results;
    std::vector<std::string> errors;
    for (const Line& line : lines) {
        if (results.empty() || results.back().line.group != line.group)
            print_heading(line.group, options.peers);
        results.push_back(line.input == Problem::Input::subnormal ? measure_subnormal(line, options)
                                                                  : measure(line, options, errors));
        print(results.back(), options.peers, options.all);
    }
    print(groups_of(results), options.peers);
    std::fflush(stdout);
    if (options.write && errors.empty()) {
        std::printf("\nmeasuring cost over size\n");
        if (const std::string wrong = write_report("docs", "./dev bench --peers --write", results);
            !wrong.empty())
            stop(wrong);
    }
    if (!options.json.empty())
        write_json(options.json, results);
    for (const std::string& error : errors)
        std::fprintf(stderr, "kelrt_bench: results differ%s: %s\n", options.write ? ", nothing written" : "",
                     error.c_str());
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
    app.add_flag("--write", options.write, "Writes docs/performance.md's tables and drawings")
        ->needs("--peers")
        ->excludes("FILTER");
    CLI11_PARSE(app, argc, argv);
    return bench::run(options);
}
