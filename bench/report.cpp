#include "report.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <map>

#include "chart.h"
#include "measure.h"
#include "ours.h"
#include "page.h"
#include "peers/peers.h"

namespace bench {
namespace {

using docs::format;

// ---- the machine

// The first value of a key of /proc/cpuinfo.
std::string processor(const std::string& key) {
    const std::string info = docs::read("/proc/cpuinfo");
    const size_t line = info.find(key + "\t"), colon = info.find(": ", line);
    return line == std::string::npos ? "?" : info.substr(colon + 2, info.find('\n', colon) - colon - 2);
}

std::string machine(const std::string& command) {
    const std::string flags = processor("flags").append(" ");
    const char* widest = "SSE2";
    for (const auto& [flag, name] : {std::pair{" avx ", "AVX"}, {" avx2 ", "AVX2"}, {" avx512f ", "AVX-512"}})
        if (flags.find(flag) != std::string::npos)
            widest = name;
    char date[32];
    const std::time_t now = std::time(nullptr);
    std::strftime(date, sizeof date, "%Y-%m-%d", std::gmtime(&now));
    std::string names;
    for (const Peer& peer : peers())
        names += std::string(names.empty() ? "" : ", ") + peer.name;
    return format("Measured on %s by `%s` on one core of a %s processor, family %s, model %s, with %s. Peers: ", date,
                  command.c_str(), processor("vendor_id").c_str(), processor("cpu family").c_str(),
                  processor("model\t").c_str(), widest) +
           names + ".\n";
}

// ---- tables

std::string ratio_cell(double ratio) {
    return ratio == 0 ? "–" : format("%.2f", ratio);
}

std::string means_table(const std::vector<Group>& groups) {
    std::string table = "| group | lines | best peer's time / ours | limit / ours |\n|---|---:|---:|---:|\n";
    for (const Group& g : groups)
        table += format("| %s | %zu | %s%s | %s%.2f%s |\n", g.name.c_str(), g.lines, ratio_cell(g.ratio).c_str(),
                        g.ordered ? " (order)" : "", g.ordered ? "**" : "", g.fraction, g.ordered ? "**" : "");
    return table;
}

std::string lines_table(const std::vector<Result>& results) {
    std::string table;
    std::string group;
    for (const Result& r : results) {
        if (r.line.group != group) {
            group = r.line.group;
            table += "\n### " + group +
                     "\n\n| | ours | best peer | | peer / ours | limit | | limit / ours |\n"
                     "|---|---:|---:|---|---:|---:|---|---:|\n";
        }
        table += "| " + r.line.text() + " | " + time_text(r.ours) + " | ";
        table += r.peers.empty() ? "– | | – | "
                                 : time_text(r.peers[0].seconds) + " | " + r.peers[0].name + " | " +
                                       ratio_cell(r.ratio()) + " | ";
        table += time_text(r.limit.seconds) + " | " + r.limit.kind + format(" | %.2f |\n", r.fraction());
    }
    return table.substr(1);
}

// ---- what exactness costs

std::string exactness(const std::vector<Group>& groups) {
    std::map<std::string, const Group*> by_name;
    for (const Group& g : groups)
        by_name[g.name] = &g;
    const auto times = [&](const char* name) { return format("%.2g", 1 / by_name.at(name)->ratio); };
    const auto fraction = [&](const char* name) { return format("%.2f", by_name.at(name)->fraction); };
    return "Where the order of additions is the contract, exactness costs most, and no code can win it back: a sum takes " +
           times("sum") + " times as long as the best peer's, which adds up in any order, layer normalisation " +
           times("layer norm") + " times, instance normalisation, one addition after the other, " +
           times("instance norm") + " times; of what the latency of those additions allows they reach " +
           fraction("sum") + ", " + fraction("layer norm") + " and " + fraction("instance norm") +
           ". Where single operations are the contract (nothing fused, subnormals flushed, one NaN, the formula as it is) "
           "peers choose theirs freely: the time is " +
           times("exp") + " times the best peer's for exp, " + times("sigmoid, tanh") + " for sigmoid and tanh, " +
           times("softmax") + " for softmax, " + times("LSTM with activations") + " for an LSTM step with activations, and " +
           times("matmul") + " for matrix products, whose multiplications and additions peers fuse, with " +
           fraction("matmul") + " of the rate of separate ones. True divisions make feature normalisation take " +
           times("feature norm") + " times the time. Where each result is a single rounding, exactness asks for flushing "
           "and NaN alone: " +
           times("element-wise") + " times for element-wise work, " + times("conversions") +
           " for conversions. Where nothing is rounded it asks for nothing: " + times("hw32") + " for hw32, " +
           times("im2col") + " for im2col, " + times("transposition") + " for transposition.\n";
}

// ---- drawings

struct Curve {
    const char* name;
    Op op;
    Shape (*shape)(size_t n);  // of about n elements
    double (*elements)(const Shape& s);
};

Shape vector(size_t n) {
    return {.n = n};
}
double length(const Shape& s) {
    return static_cast<double>(s.n);
}
Shape square(size_t n) {
    const auto side = static_cast<size_t>(std::lround(std::sqrt(static_cast<double>(n))));
    return {.rows = side, .cols = side};
}
double area(const Shape& s) {
    return static_cast<double>(s.rows * s.cols);
}
Shape lines(size_t n) {
    return {.rows = std::max<size_t>(1, n / 64), .cols = std::min<size_t>(n, 64)};
}
Shape frames(size_t n) {
    return {.n = std::max<size_t>(1, n / kFrame) * kFrame};
}
// 3 x 3 kernels on eight channels.
Shape image(size_t n) {
    const size_t side = 2 + std::max<size_t>(1, square(n / 72).rows);
    return {.rows = side, .cols = side, .channels = 8, .kernel = 3};
}
double patch_bytes(const Shape& s) {
    return static_cast<double>(s.patches() * s.patch_bytes());
}
template <bool transposed>
Shape product(size_t n) {
    const size_t side = square(n).rows;
    return {.rows = side, .inner = side, .cols = side, .transposed_a = transposed, .transposed_b = transposed};
}
Shape row_vector(size_t n) {
    const size_t side = square(n).rows;
    return {.rows = 1, .inner = side, .cols = side};
}
double products(const Shape& s) {
    return static_cast<double>(s.rows * s.inner * s.cols);
}

struct Drawing {
    const char *file, *title, *x;
    size_t largest;
    std::vector<Curve> curves;
};

constexpr size_t kLargest = 8 << 20;

const Drawing kDrawings[] = {
    {"activations", "Exponentials", "elements", kLargest,
     {{"kelRt_expf", Op::exp, vector, length},
      {"kelRt_sigmoidf", Op::sigmoid, vector, length},
      {"kelRt_tanhf", Op::tanh, vector, length},
      {"kelRt_softMax", Op::softmax, vector, length}}},
    {"lstm", "LSTM", "units", 1 << 20,
     {{"kelRt_lstmStates", Op::lstm, vector, length},
      {"… with activations", Op::lstm_activation, vector, length},
      {"… and with norm", Op::lstm_norm, vector, length}}},
    {"elementwise", "Element-wise", "elements", kLargest,
     {{"kelRt_ewopAdd", Op::operator_add, vector, length},
      {"kelRt_addf", Op::add, vector, length},
      {"kelRt_mulf", Op::mul, vector, length},
      {"kelRt_scalef", Op::scale, vector, length},
      {"kelRt_dotproductf", Op::dot_product, vector, length},
      {"kelRt_featurenorm", Op::feature_norm, frames, length}}},
    {"reductions", "Reductions and norms", "elements", kLargest,
     {{"kelRt_sumf", Op::sum, vector, length},
      {"kelRt_variancef", Op::variance, vector, length},
      {"kelRt_minMaxf", Op::min_max, vector, length},
      {"kelRt_lstmLayerNorm", Op::layer_norm, vector, length},
      {"kelRt_instanceNorm", Op::instance_norm, vector, length}}},
    {"formats", "Formats", "elements", kLargest,
     {{"kelRt_copyFormatConv", Op::copy_format, vector, length},
      {"kelRt_scaleI8toF", Op::i8_to_float, vector, length},
      {"kelRt_scaleI32toF", Op::i32_to_float, vector, length},
      {"kelRt_scaleFtoI8", Op::float_to_i8, vector, length},
      {"hw32 to linear", Op::hw32_to_linear, lines, area},
      {"linear to hw32", Op::linear_to_hw32, lines, area}}},
    {"moves", "Moves", "elements (im2col: bytes)", kLargest,
     {{"kelRt_split", Op::split, vector, length},
      {"kelRt_embedding", Op::embedding, vector, length},
      {"kelRt_oneHot", Op::one_hot, vector, length},
      {"kelRt_im2col", Op::im2col, image, patch_bytes},
      {"transpose", Op::transpose, square, area}}},
    {"matmul", "Matrix products, per multiplication", "elements of the matrix", 1 << 18,
     {{"kelRt_matmul", Op::matmul, product<false>, products},
      {"… both transposed", Op::matmul, product<true>, products},
      {"… of a row vector", Op::matmul, row_vector, products}}},
};

// Ticks at powers of ten, or of two, of which every `step`th has a label.
std::vector<std::pair<double, std::string>> decades(double low, double high) {
    std::vector<std::pair<double, std::string>> ticks;
    for (double v = low; v <= high * 1.01; v *= 10)
        ticks.push_back({v, format("%g", v)});
    return ticks;
}
std::vector<std::pair<double, std::string>> sizes(size_t largest) {
    std::vector<std::pair<double, std::string>> ticks;
    for (size_t n = 16; n <= largest; n *= 4)
        ticks.push_back({static_cast<double>(n), n < 1024      ? format("%zu", n)
                                                 : n < 1 << 20 ? format("%zu K", n >> 10)
                                                               : format("%zu M", n >> 20)});
    return ticks;
}

bool draw(const Drawing& drawing, const std::string& directory, double seconds) {
    std::vector<std::vector<docs::Point>> lines_of(drawing.curves.size());
    double least = 1e9, most = 0;
    for (size_t c = 0; c < drawing.curves.size(); ++c) {
        const Curve& curve = drawing.curves[c];
        for (size_t n = 16; n <= drawing.largest; n *= 2) {
            const Shape shape = curve.shape(n);
            const Problem problem(curve.op, shape);
            const double ns = 1e9 * least_seconds({ours(problem)}, seconds)[0] / curve.elements(shape);
            lines_of[c].push_back({static_cast<double>(n), ns});
            least = std::min(least, ns), most = std::max(most, ns);
        }
    }
    const double low = std::pow(10, std::floor(std::log10(least))), high = std::pow(10, std::ceil(std::log10(most)));
    docs::Chart chart(drawing.title, {16, static_cast<double>(drawing.largest), true, sizes(drawing.largest), drawing.x},
                      {low, high, true, decades(low, high), "ns each"});
    for (size_t c = 0; c < drawing.curves.size(); ++c) {
        const auto number = static_cast<int>(c);
        chart.line(number, lines_of[c]);
        chart.legend(number, false, drawing.curves[c].name, number, 200);
    }
    return docs::write(directory + "/performance/" + drawing.file + ".svg", chart.svg());
}

}  // namespace

std::string write_report(const std::string& directory, const std::string& command,
                         const std::vector<Result>& results) {
    const std::string path = directory + "/performance.md";
    std::string page = docs::read(path);
    const std::vector<Group> groups = groups_of(results);
    const std::pair<const char*, std::string> sections[] = {{"machine", machine(command)},
                                                            {"means", means_table(groups)},
                                                            {"exactness", exactness(groups)},
                                                            {"lines", lines_table(results)}};
    for (const auto& [name, content] : sections)
        if (!docs::replace_section(page, name, content))
            return path + " has no section " + name;
    if (!docs::write(path, page))
        return "cannot write " + path;
    for (const Drawing& drawing : kDrawings)
        if (!draw(drawing, directory, 0.02))
            return "cannot write " + directory + "/performance/" + drawing.file + ".svg";
    return {};
}

}  // namespace bench
