// Measures the accuracy of the vector formulas and writes what docs/accuracy.md shows: tables, figures for
// the test, and drawings.
//
//   kelrt_accuracy DIRECTORY [STRIDE]     DIRECTORY is docs/; STRIDE 1 (the default) takes every float
//
// Largest errors are searched over all floats of a range against the C library's functions in double
// precision; each one found is then computed again with MPFR, and so are 32760 arguments spread over the
// range, which also give the mean and tell how far the double-precision reference itself can be trusted.
#include <gnu/libc-version.h>
#include <mpfr.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>

#include "chart.h"
#include "functions.h"

namespace accuracy {
namespace {

using docs::Chart;
using docs::format;
using docs::Point;

[[noreturn]] void stop(const std::string& why) {
    std::fprintf(stderr, "kelrt_accuracy: %s\n", why.c_str());
    std::exit(1);
}

uint32_t bits(float x) {
    return std::bit_cast<uint32_t>(x);
}
double wide(float x) {
    return static_cast<double>(x);
}

// ---- the truth

struct Real {
    mpfr_t v;
    Real() { mpfr_init2(v, 200); }
    ~Real() { mpfr_clear(v); }
    Real(const Real&) = delete;
    Real& operator=(const Real&) = delete;
};

using Precise = std::function<void(mpfr_t y, mpfr_t x)>;

Precise precise_power(double n) {
    return [n](mpfr_t y, mpfr_t x) {
        Real power;
        mpfr_set_d(power.v, n, MPFR_RNDN);
        mpfr_pow(y, x, power.v, MPFR_RNDN);
    };
}

Precise precise(const std::string& name) {
    static const std::pair<const char*, Precise> all[] = {
        {"vexpq_f32", [](mpfr_t y, mpfr_t x) { mpfr_exp(y, x, MPFR_RNDN); }},
        {"vtanhq_f32", [](mpfr_t y, mpfr_t x) { mpfr_tanh(y, x, MPFR_RNDN); }},
        {"sigmoid",
         [](mpfr_t y, mpfr_t x) {
             mpfr_neg(y, x, MPFR_RNDN);
             mpfr_exp(y, y, MPFR_RNDN);
             mpfr_add_ui(y, y, 1, MPFR_RNDN);
             mpfr_ui_div(y, 1, y, MPFR_RNDN);
         }},
        {"vinvq_f32", [](mpfr_t y, mpfr_t x) { mpfr_ui_div(y, 1, x, MPFR_RNDN); }},
        {"vinvsqrtq_f32", [](mpfr_t y, mpfr_t x) { mpfr_rec_sqrt(y, x, MPFR_RNDN); }},
        {"vlogq_f32", [](mpfr_t y, mpfr_t x) { mpfr_log(y, x, MPFR_RNDN); }},
        {"vpowq_f32/0.5", precise_power(0.5)},
        {"vpowq_f32/2", precise_power(2)},
        {"vpowq_f32/-10", precise_power(-10)},
        {"vsinq_f32", [](mpfr_t y, mpfr_t x) { mpfr_sin(y, x, MPFR_RNDN); }},
        {"vfloorq_f32", [](mpfr_t y, mpfr_t x) { mpfr_floor(y, x); }},
        {"vroundq_rte_f32", [](mpfr_t y, mpfr_t x) { mpfr_rint(y, x, MPFR_RNDN); }},
    };
    for (const auto& [known, function] : all)
        if (name == known)
            return function;
    stop("no precise reference for " + name);
}

// The distance of y from f(x) in units in the last place of f(x).
double precise_error(const Precise& f, float x, float y, double reference) {
    static Real exact, argument, result;
    mpfr_set_flt(argument.v, x, MPFR_RNDN);
    mpfr_set_d(result.v, wide(y), MPFR_RNDN);
    f(exact.v, argument.v);
    mpfr_sub(exact.v, result.v, exact.v, MPFR_RNDN);
    return std::fabs(mpfr_get_d(exact.v, MPFR_RNDN)) / unit(reference);
}

// ---- searching a range

struct Worst {
    double error = -1;  // in units in the last place
    float at = 0, result = 0;
    double beside = 0;  // the largest absolute or relative error, found on its own
    float largest = 0;  // the largest result by magnitude
    uint64_t arguments = 0;

    void take(float x, float y, double exact, Beside kind) {
        ++arguments;
        const double e = error_in_units(y, exact), distance = std::fabs(wide(y) - exact);
        if (e > error || (e == error && key(x) < key(at)))
            error = e, at = x, result = y;
        if (kind == Beside::absolute)
            beside = std::max(beside, distance);
        else if (distance > beside * std::fabs(exact))
            beside = distance / std::fabs(exact);
        largest = std::max(largest, std::fabs(y));
    }
    void take(const Worst& other) {
        if (other.error > error || (other.error == error && key(other.at) < key(at)))
            error = other.error, at = other.at, result = other.result;
        beside = std::max(beside, other.beside);
        largest = std::max(largest, other.largest);
        arguments += other.arguments;
    }
};

constexpr uint32_t kBlock = 3072;  // a multiple of three, for the tails, and of four

std::vector<std::pair<int64_t, int64_t>> key_spans(const Range& range) {
    std::vector<std::pair<int64_t, int64_t>> spans = {{key(range.low), key(range.high)}};
    if (range.mirrored)
        spans.push_back({key(-range.high), key(-range.low)});
    return spans;
}

// Every stride-th float from key `low` to key `high`, shared out among the processors.
Worst search(const Function& f, const Range& range, int64_t stride) {
    Worst all;
    for (const auto& [low, high] : key_spans(range)) {
        const int64_t blocks = (high - low) / stride / kBlock + 1;
        std::atomic<int64_t> next = 0;
        std::mutex mutex;
        const auto work = [&, low = low, high = high] {
            Worst mine;
            float x[kBlock], y[kBlock];
            for (int64_t block; (block = next++) < blocks;) {
                for (uint32_t i = 0; i < kBlock; ++i)  // a short block repeats the range's last float
                    x[i] = from_key(std::min(high, low + (block * kBlock + i) * stride));
                f.run(x, y, kBlock);
                for (uint32_t i = 0; i < kBlock; ++i)
                    if (i == 0 || x[i] != x[i - 1])
                        mine.take(x[i], y[i], f.exact(wide(x[i])), f.beside);
            }
            const std::lock_guard lock(mutex);
            all.take(mine);
        };
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < std::max(1u, std::thread::hardware_concurrency()); ++i)
            threads.emplace_back(work);
        for (std::thread& thread : threads)
            thread.join();
    }
    return all;
}

struct Figures {
    Worst worst;
    double mean;
    double doubt;  // the largest difference between the errors by either reference
};

Figures measure(const Function& f, const Range& range, int64_t stride) {
    Figures figures = {search(f, range, stride), 0, 0};
    const Precise truth = precise(f.name);
    const auto error = [&](float x, float y) {
        const double reference = f.exact(wide(x)), e = precise_error(truth, x, y, reference);
        figures.doubt = std::max(figures.doubt, std::fabs(e - error_in_units(y, reference)));
        return e;
    };
    constexpr uint32_t kSamples = 32760;  // a multiple of three and four
    std::vector<float> x(kSamples), y(kSamples);
    for (uint32_t i = 0; i < kSamples; ++i) {
        const double t = (i + 0.5) / kSamples, low = wide(range.low), high = wide(range.high);
        const double value =
            f.spacing == Spacing::even ? low + (high - low) * t : low * std::pow(high / low, t);
        x[i] = static_cast<float>(range.mirrored && i % 2 ? -value : value);
    }
    f.run(x.data(), y.data(), kSamples);
    if (f.twin) {
        std::vector<float> again(kSamples);
        f.twin(x.data(), again.data(), kSamples);
        if (std::memcmp(again.data(), y.data(), kSamples * sizeof(float)) != 0)
            stop(std::string("not the same bits from all of ") + f.title);
    }
    for (uint32_t i = 0; i < kSamples; ++i)
        figures.mean += error(x[i], y[i]) / kSamples;
    figures.worst.error = error(figures.worst.at, figures.worst.result);
    return figures;
}

// ---- the limits

// The largest |x| below 1 at which tanh's relative error exceeds each of the bounds, which descend.
std::vector<float> tanh_reaches(const std::vector<double>& bounds) {
    std::vector<float> reaches(bounds.size());
    size_t left = bounds.size();
    for (int64_t k = key(1.0f); left > 0; k -= 2) {
        const float x[4] = {from_key(k), -from_key(k), from_key(k - 1), -from_key(k - 1)};
        float y[4];
        run_tanh(x, y, 4);
        for (int i = 0; i < 4; ++i) {
            const double exact = std::tanh(wide(x[i])), error = std::fabs((wide(y[i]) - exact) / exact);
            while (left > 0 && error > bounds[left - 1])
                reaches[--left] = std::fabs(x[i]);
        }
    }
    return reaches;
}

float find(const Limit& limit) {
    const int64_t from = key(limit.from), to = key(limit.to), step = from < to ? 1 : -1;
    int64_t last = from - step;
    for (int64_t k = from; k != to; k += step)
        if (limit.holds(one(limit.run, from_key(k)))) {
            if (last != k - step)
                stop(std::string(limit.name) + " is lost and comes back: not one limit");
            last = k;
        }
    return from_key(last);
}

// ---- the logarithm's table

// ln on [1, 2), interpolated at the zeros of the Chebyshev polynomial of degree eight, in the order of the
// tables.
std::array<float, 8> derive_log_table() {
    constexpr int n = 8;
    std::array<long double, n> node, newton, c = {};
    for (int i = 0; i < n; ++i) {
        node[i] = 1.5L + 0.5L * std::cos((2 * i + 1) * std::acos(-1.0L) / (2 * n));
        newton[i] = std::log(node[i]);
    }
    for (int j = 1; j < n; ++j)  // divided differences
        for (int i = n - 1; i >= j; --i)
            newton[i] = (newton[i] - newton[i - 1]) / (node[i] - node[i - j]);
    for (int i = n - 1; i >= 0; --i) {  // c = c * (x - node) + newton
        for (int k = n - 1; k > 0; --k)
            c[k] = c[k - 1] - node[i] * c[k];
        c[0] = newton[i] - node[i] * c[0];
    }
    std::array<float, 8> table;
    const int power[8] = {0, 4, 2, 6, 1, 5, 3, 7};
    for (int i = 0; i < 8; ++i)
        table[i] = static_cast<float>(c[power[i]]);
    return table;
}

// ---- the tails

template <auto kernel>
void run_tail(const float* x, float* y, uint32_t n) {
    for (uint32_t i = 0; i < n; i += 3)  // no whole block
        kernel(x + i, y + i, 3);
}

const Function kTails[] = {
    {"vexpq_f32",
     "`kelRt_expf`",
     run_tail<kelRt_expf>,
     nullptr,
     std::exp,
     Beside::relative,
     Spacing::even,
     {{kExpLow, kExpHigh}}},
    {"vtanhq_f32",
     "`kelRt_tanhf`",
     run_tail<kelRt_tanhf>,
     nullptr,
     std::tanh,
     Beside::absolute,
     Spacing::ratio,
     {{1e-7f, 10, true}}},
    {"sigmoid",
     "`kelRt_sigmoidf`",
     run_tail<kelRt_sigmoidf>,
     nullptr,
     exact_sigmoid,
     Beside::absolute,
     Spacing::even,
     {{kSigmoidLow, 100}}},
};

// ---- writing

// A number with a real minus sign; powers of two by name where the decimal form would be arbitrary.
std::string text(double x, int digits) {
    if (x == wide(kMost))
        return "largest float";
    int exponent;
    if (x != 0 && (std::fabs(x) < 1e-9 || std::fabs(x) > 2e9)) {
        const double mantissa = std::fabs(std::frexp(x, &exponent));
        if (mantissa == 0.5)
            return format("%s2^%d", x < 0 ? "−" : "", exponent - 1);
        if (mantissa > 0.999999)
            return format("below %s2^%d", x < 0 ? "−" : "", exponent);
    }
    std::string s = format("%.*g", digits, x);
    for (const char* clutter : {"e+0", "e+", "e-0"})  // e+05: e5
        if (const size_t at = s.find(clutter); at != std::string::npos)
            s.replace(at, std::strlen(clutter), clutter[1] == '-' ? "e-" : "e");
    for (size_t at; (at = s.find('-')) != std::string::npos;)
        s.replace(at, 1, "−");
    return s;
}

std::string row(const Function& f, const Range& range, const Figures& figures) {
    const std::string at = figures.worst.error == 0 ? "–" : text(wide(figures.worst.at), 9);
    return "| " + std::string(f.title) + " | " + (range.mirrored ? "± " : "") + text(wide(range.low), 6) +
           " … " + text(wide(range.high), 6) + " | " +
           (figures.worst.error > 1e30 ? "∞" : text(figures.worst.error, 3)) + " | " + text(figures.mean, 3) +
           " | " + at + " | " + text(figures.worst.beside, 2) +
           (f.beside == Beside::absolute ? " absolute" : " relative") + " |\n";
}

const char* const kHeading =
    "| Function | x | largest error, ULP | mean, ULP | largest at x = | largest error otherwise |\n"
    "|---|---|---:|---:|---:|---:|\n";

// ---- the drawings

struct Curve {
    std::vector<Point> largest, mean;
};

// Errors over `bins` stretches between low and high, of at most 32768 floats each.
Curve curve(const Function& f, double low, double high, Spacing spacing, double sign = 1) {
    constexpr int bins = 400;
    Curve c;
    std::vector<float> x, y;
    for (int bin = 0; bin < bins; ++bin) {
        const auto edge = [&](int i) {
            const double t = static_cast<double>(i) / bins;
            return spacing == Spacing::even ? low + (high - low) * t : low * std::pow(high / low, t);
        };
        const double from = sign * edge(bin), to = sign * edge(bin + 1);
        constexpr int kSamples = 32768;
        x.resize(kSamples), y.resize(kSamples);
        for (int i = 0; i < kSamples; ++i)
            x[static_cast<size_t>(i)] = static_cast<float>(from + (to - from) * (i + 0.5) / kSamples);
        f.run(x.data(), y.data(), kSamples);
        double largest = 0, sum = 0;
        for (size_t i = 0; i < kSamples; ++i) {
            const double exact = f.exact(wide(x[i])), e = error_in_units(y[i], exact);
            largest = std::max(largest, e), sum += e;
        }
        const double middle = (edge(bin) + edge(bin + 1)) / 2;
        c.largest.push_back({middle, largest});
        c.mean.push_back({middle, sum / kSamples});
    }
    return c;
}

const Function& function(const std::string& name) {
    return *std::find_if(kFunctions.begin(), kFunctions.end(),
                         [&](const Function& f) { return f.name == name; });
}

std::vector<std::pair<double, std::string>> ticks(std::initializer_list<double> values) {
    std::vector<std::pair<double, std::string>> result;
    for (const double value : values)
        result.push_back({value, text(value, 6)});
    return result;
}

void write(const std::string& path, const std::string& content) {
    if (!docs::write(path, content))
        stop("cannot write " + path);
}

const char* const kUnits = "error in units in the last place (ULP)";

void draw_exp(const std::string& path) {
    Chart chart("Error of vexpq_f32 and the blocks of kelRt_expf",
                {-96, 96, false, ticks({-80, -60, -40, -20, 0, 20, 40, 60, 80}), "x"},
                {0, 80, false, ticks({0, 20, 40, 60, 80}), kUnits});
    const Curve c = curve(function("vexpq_f32"), wide(kExpLow), wide(kExpHigh), Spacing::even);
    chart.curve(0, c.largest, c.mean);
    chart.band(-96, wide(kExpLow), "subnormal bits, then +0");
    chart.band(wide(kExpHigh), 96, "NaN");
    chart.legend(0, false, "largest", 0, 460);
    chart.legend(0, true, "mean", 1, 460);
    write(path, chart.svg());
}

void draw_sigmoid(const std::string& path) {
    Chart chart("Error of the blocks of kelRt_sigmoidf",
                {-96, 96, false, ticks({-80, -60, -40, -20, 0, 20, 40, 60, 80}), "x"},
                {0, 80, false, ticks({0, 20, 40, 60, 80}), kUnits});
    const Curve c = curve(function("sigmoid"), wide(kSigmoidLow), 96, Spacing::even);
    chart.curve(0, c.largest, c.mean);
    chart.band(-96, wide(kSigmoidLow), "0, then NaN");
    chart.legend(0, false, "largest", 0);
    chart.legend(0, true, "mean", 1);
    write(path, chart.svg());
}

void draw_tanh(const std::string& path) {
    std::vector<std::pair<double, std::string>> x, y;
    for (int e = -8; e <= 1; ++e)
        x.push_back({std::pow(10, e), e < -2 ? "10<tspan dy=\"-5\" font-size=\"9\">" + text(e, 2) + "</tspan>"
                                             : text(std::pow(10, e), 3)});
    for (int e = 0; e <= 8; e += 2)
        y.push_back({std::pow(10, e), e > 2 ? "10<tspan dy=\"-5\" font-size=\"9\">" + text(e, 2) + "</tspan>"
                                            : text(std::pow(10, e), 3)});
    Chart chart("Error of vtanhq_f32 and the blocks of kelRt_tanhf", {1e-8, 20, true, x, "|x|"},
                {0.1, 1e8, true, y, kUnits});
    const Curve plus = curve(function("vtanhq_f32"), 1e-8, 20, Spacing::ratio),
                minus = curve(function("vtanhq_f32"), 1e-8, 20, Spacing::ratio, -1);
    chart.curve(0, plus.largest, plus.mean);
    chart.curve(1, minus.largest, minus.mean);
    chart.band(10, 20, "as for 10");
    chart.legend(0, false, "largest, x &gt; 0", 0, 260);
    chart.legend(0, true, "mean, x &gt; 0", 1, 260);
    chart.legend(1, false, "largest, x &lt; 0", 2, 260);
    chart.legend(1, true, "mean, x &lt; 0", 3, 260);
    write(path, chart.svg());
}

// ---- the page

struct Page {
    std::string text;     // accuracy.md
    std::string figures;  // figures.txt

    void section(const std::string& name, const std::string& content) {
        if (!docs::replace_section(text, name, content))
            stop("accuracy.md has no section " + name);
    }
};

std::string counted(int64_t stride) {
    return stride == 1 ? "every float" : format("every %lldth float", static_cast<long long>(stride));
}

std::string log_table_bits() {
    const std::array<float, 8> table = derive_log_table();
    std::string words;
    for (size_t i = 0; i < 8; ++i) {
        if (table[i] != kLogCoefficients[i])
            stop("the logarithm's table is not the derived one");
        words += format("%s0x%08X", i ? ", " : "", bits(table[i]));
    }
    return words;
}

void write_errors(Page& page, int64_t stride) {
    std::string table = kHeading;
    double doubt = 0;
    uint64_t arguments = 0;
    float largest_tanh = 0, largest_sigmoid = 0;
    for (const Function& f : kFunctions)
        for (const Range& range : f.ranges) {
            const Figures figures = measure(f, range, stride);
            const Worst& worst = figures.worst;
            table += row(f, range, figures);
            page.figures += format("range %s %08x %08x %d %.9g %08x\n", f.name, bits(range.low),
                                   bits(range.high), range.mirrored, worst.error, bits(worst.at));
            doubt = std::max(doubt, figures.doubt);
            arguments += worst.arguments;
            if (f.run == run_tanh)
                largest_tanh = std::max(largest_tanh, worst.largest);
            if (f.run == run_sigmoid)
                largest_sigmoid = std::max(largest_sigmoid, worst.largest);
            std::printf("%-16s %12.6g %12.6g  largest %-10.4g mean %-10.3g\n", f.name, wide(range.low),
                        wide(range.high), worst.error, figures.mean);
            std::fflush(stdout);
        }
    table += format("\nThe largest magnitude that comes out: %.9g of tanh, %.9g of sigmoid.\n",
                    wide(largest_tanh), wide(largest_sigmoid));
    table += "\nThe table given to `vlogq_f32` and `vpowq_f32`, c[0] to c[7]: " + log_table_bits() + ".\n";
    table += format(
        "\nSearched: %s of each range, %.3g thousand million arguments. Where MPFR was asked as well, the\n"
        "double-precision reference moved an error by at most %.1g ULP.\n",
        counted(stride).c_str(), static_cast<double>(arguments) / 1e9, doubt);
    page.section("errors", table);
}

void write_tails(Page& page, int64_t stride) {
    std::string table = kHeading;
    for (const Function& f : kTails)
        table += row(f, f.ranges[0], measure(f, f.ranges[0], stride));
    page.section("tails", table + format("\nMeasured with glibc %s over %s of each range.\n",
                                         gnu_get_libc_version(), counted(stride).c_str()));
}

void write_limits(Page& page) {
    std::string table = "| | x | bits of x | the next x gives |\n|---|---:|---|---|\n";
    for (const Limit& limit : kLimits) {
        const float x = find(limit);
        const float next = one(limit.run, from_key(key(x) + (key(limit.to) > key(limit.from) ? 1 : -1)));
        const std::string gives = std::isnan(next)               ? format("NaN (0x%08X)", bits(next))
                                  : std::isinf(next)             ? "+infinity"
                                  : is_normal(next) || next == 0 ? text(wide(next), 3)
                                                                 : format("0x%08X, a subnormal", bits(next));
        table += "| " + std::string(limit.title) + " | " + text(wide(x), 9) +
                 format(" | 0x%08X | ", bits(x)) + gives + " |\n";
        page.figures += format("limit %s %08x\n", limit.name, bits(x));
    }
    page.section("limits", table);
}

void write_small_arguments(Page& page) {
    const std::vector<double> bounds = {0.1, 0.01, 1e-3, 1e-4, 1e-5};
    const std::vector<float> reaches = tanh_reaches(bounds);
    std::string table = "| relative error of tanh above | up to \\|x\\| = |\n|---:|---:|\n";
    for (size_t i = 0; i < bounds.size(); ++i)
        table += "| " + text(bounds[i] * 100, 3) + " % | " + text(wide(reaches[i]), 3) + " |\n";
    page.section("small arguments", table);
}

}  // namespace
}  // namespace accuracy

int main(int argc, char** argv) {
    using namespace accuracy;
    if (argc < 2 || argc > 3)
        stop("usage: kelrt_accuracy DIRECTORY [STRIDE]");
    const std::string directory = argv[1];
    const int64_t stride = argc > 2 ? std::max(1, std::atoi(argv[2])) : 1;

    Page page;
    page.text = docs::read(directory + "/accuracy.md");
    page.figures =
        "# Written by kelrt_accuracy, read by the test of the maths; floats as their bits.\n"
        "# range: function, low, high, 1 if mirrored, largest error in ULP, where it is\n"
        "# limit: name, the last x\n";
    write_limits(page);
    write_small_arguments(page);
    write_errors(page, stride);
    write_tails(page, 64 * stride);

    write(directory + "/accuracy.md", page.text);
    write(directory + "/accuracy/figures.txt", page.figures);
    draw_exp(directory + "/accuracy/exp.svg");
    draw_tanh(directory + "/accuracy/tanh.svg");
    draw_sigmoid(directory + "/accuracy/sigmoid.svg");
}
