// Recognises handwritten digits on the simulated accelerator with a recurrent network, one picture at a time,
// 46 contexts a picture, and shows how well it went.
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "data.h"
#include "driver.h"
#include "output_files.h"
#include "picture.h"

namespace {

// What --check demands.
constexpr double kLeastAccuracy = 96.0;
constexpr float kMostDifference = 1e-5f;

// Values of operator arguments.
constexpr uint32_t kHw32ToLinear = 0;  // the direction of "cpu_hw32_fmt_conv"
constexpr int32_t kFloat = -1;         // the width that stands for float in "cpu_copy_fmt_conv"

// 32-bit integers as the accelerator stores them: line by line, and in a line first the least significant
// byte of every element, then the second, the third, the most significant. Ink fits into the first.
std::vector<std::byte> as_hw32_lines(std::span<const uint8_t> picture) {
    std::vector<std::byte> lines(picture.size() * sizeof(int32_t));
    for (size_t i = 0; i < picture.size(); ++i)
        lines[i / kSide * kSide * sizeof(int32_t) + i % kSide] = std::byte{picture[i]};
    return lines;
}

// An LSTM that reads a picture from top to bottom, one row of pixels a step, and a softmax over what it
// remembers.
class Network {
  public:
    Network(Driver& driver, const DataSet& data)
        : driver_(driver),
          mean_(driver.constant(data.mean)),
          var_(driver.constant(data.var)),
          input_weights_(driver.constant(data.input_weights)),
          hidden_weights_(driver.constant(data.hidden_weights)),
          gate_bias_(driver.constant(data.gate_bias)),
          output_weights_(driver.constant(data.output_weights)),
          output_bias_(driver.constant(data.output_bias)),
          picture_(driver.accelerator_memory(kPixels * sizeof(int32_t))),
          linear_(driver.cpu_buffer(kPixels * sizeof(int32_t))),
          pixels_(driver.cpu_buffer(kPixels * sizeof(float))),
          normalised_(driver.cpu_buffer(kPixels * sizeof(float))),
          from_row_(driver.cpu_buffer(kGates * sizeof(float))),
          gates_(driver.cpu_buffer(kGates * sizeof(float))),
          hidden_(driver.cpu_buffer(kUnits * sizeof(float))),
          cell_(driver.cpu_buffer(kUnits * sizeof(float))),
          scores_(driver.cpu_buffer(kDigits * sizeof(float))),
          probabilities_(driver.accelerator_memory(kDigits * sizeof(float))) {}

    Scores recognise(std::span<const uint8_t> picture) {
        // The accelerator leaves a picture as 32-bit integers in its own layout, a row of pixels a line ...
        driver_.write(picture_, as_hw32_lines(picture));

        // ... which become floats in their natural order, each pixel normalised for itself.
        driver_.run(kHw32FmtConv, {linear_, picture_, kPixels, kHw32ToLinear});
        driver_.run(kCopyFmtConv, {pixels_, kFloat, 0, 0, linear_, 32, 0, 1, kPixels});
        driver_.run(kFeaturenorm, {pixels_, kPixels, mean_, var_, kPixels, normalised_});

        // The network starts with an empty memory and reads row by row.
        const std::array<float, kUnits> nothing{};
        driver_.write(hidden_, std::as_bytes(std::span(nothing)));
        driver_.write(cell_, std::as_bytes(std::span(nothing)));
        for (uint32_t row = 0; row < kSide; ++row)
            step(normalised_.at(row * kSide * sizeof(float)));

        driver_.run(kMatmul, {hidden_, output_weights_, scores_, 1, kUnits, kUnits, kDigits, 0, 0});
        driver_.run(kEwopAdd, {scores_, scores_, output_bias_, kDigits});
        driver_.run(kSoftmax, {probabilities_, scores_, kDigits});

        // The accelerator finds the probabilities in its memory.
        Scores probabilities;
        driver_.read(probabilities_, std::as_writable_bytes(std::span(probabilities)));
        return probabilities;
    }

  private:
    // gates = row * input_weights + hidden * hidden_weights + gate_bias, from which hidden and cell move on.
    void step(Tensor row) {
        driver_.run(kMatmul, {row, input_weights_, from_row_, 1, kSide, kSide, kGates, 0, 0});
        driver_.run(kMatmul, {hidden_, hidden_weights_, gates_, 1, kUnits, kUnits, kGates, 0, 0});
        driver_.run(kEwopAdd, {gates_, gates_, from_row_, kGates});
        driver_.run(kEwopAdd, {gates_, gates_, gate_bias_, kGates});
        driver_.run(kLstmStatesCpuActivation, {hidden_, cell_, gates_, kUnits});
    }

    Driver& driver_;
    Tensor mean_, var_;
    Tensor input_weights_, hidden_weights_, gate_bias_, output_weights_, output_bias_;
    Tensor picture_, linear_, pixels_, normalised_;
    Tensor from_row_, gates_, hidden_, cell_;
    Tensor scores_, probabilities_;
};

struct Outcome {
    std::vector<Reading> readings;
    Confusion confusion{};
    size_t right = 0;
    float difference = 0;  // the largest of any probability from its expected value; NaN stays

    double accuracy() const {
        return 100.0 * static_cast<double>(right) / static_cast<double>(readings.size());
    }
    double median_microseconds() const {
        std::vector<double> times;
        for (const Reading& reading : readings)
            times.push_back(reading.microseconds);
        const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
        std::nth_element(times.begin(), middle, times.end());
        return *middle;
    }
    bool good() const { return accuracy() > kLeastAccuracy && difference <= kMostDifference; }
};

Outcome recognise_all(Network& network, const DataSet& data, const Printer& printer) {
    Outcome outcome;
    for (uint32_t i = 0; i < kHeldOut; ++i) {
        printer.progress(i + 1, kHeldOut);
        const auto start = std::chrono::steady_clock::now();
        const Scores probabilities = network.recognise(data.picture(i));
        const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
        const auto read = static_cast<uint32_t>(std::max_element(probabilities.begin(), probabilities.end()) -
                                                probabilities.begin());
        const uint32_t written = data.labels[i];

        outcome.readings.push_back({data.picture(i), written, read, probabilities, time.count()});
        ++outcome.confusion[written][read];
        outcome.right += read == written;
        for (uint32_t digit = 0; digit < kDigits; ++digit) {
            const float difference = std::fabs(probabilities[digit] - data.expected(i)[digit]);
            if (difference > outcome.difference || std::isnan(difference))
                outcome.difference = difference;
        }
    }
    return outcome;
}

// Three pictures of different digits that were read right, and the first that was not.
std::vector<Reading> examples(const std::vector<Reading>& readings) {
    std::vector<Reading> right, wrong;
    for (const Reading& reading : readings) {
        if (reading.read != reading.written) {
            wrong.push_back(reading);
        } else if (std::none_of(right.begin(), right.end(),
                                [&](const Reading& other) { return other.written == reading.written; })) {
            right.push_back(reading);
        }
    }
    right.resize(std::min<size_t>(right.size(), 3));
    if (!wrong.empty())
        right.push_back(wrong.front());
    return right;
}

// What matters most comes last, where a small terminal still shows it.
void report(const Outcome& outcome, const Driver& driver, const Printer& printer) {
    std::printf("%u handwritten digits, none of them seen in training\n", kHeldOut);
    printer.headline("What was written, and what was read");
    printer.confusion(outcome.confusion);
    printer.headline("Time in each operator");
    printer.times(driver.times());
    std::printf("  cache maintenance: %.0f kB to the CPU, %.0f kB back\n", driver.synced_kb(1),
                driver.synced_kb(0));
    printer.headline("Pictures and their probabilities");
    printer.readings(examples(outcome.readings));
    size_t contexts = 0;
    for (const OperatorTime& time : driver.times())
        contexts += time.calls;
    std::printf("\na picture: %zu contexts, %s (median)\n", contexts / kHeldOut,
                printer.microseconds(outcome.median_microseconds()).c_str());
    std::printf("%zu of %zu pictures read right: accuracy %.1f %%\n", outcome.right, outcome.readings.size(),
                outcome.accuracy());
    std::printf("probabilities: within %.1e of double precision\n", static_cast<double>(outcome.difference));
    if (std::fflush(stdout) != 0 || std::ferror(stdout))
        throw DriverError("the report could not be written");
}

// DIRECTORY/probabilities.npy, kHeldOut x kDigits, as the network gave them.
void write_probabilities(const Outcome& outcome, const std::string& directory) {
    npy::Array array{npy::Type::f4, {kHeldOut, kDigits}, {}};
    for (const Reading& reading : outcome.readings) {
        const auto bytes = std::as_bytes(std::span(reading.scores));
        const auto* const first = reinterpret_cast<const uint8_t*>(bytes.data());
        array.bytes.insert(array.bytes.end(), first, first + bytes.size());
    }
    npy::OutputFiles files(directory);
    files.add("probabilities", array);
    files.commit();
}

}  // namespace

int main(int argc, char** argv) {
    std::string directory = DIGITS_DATA_DIRECTORY, out;
    bool check = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--check") {
            check = true;
        } else if (argument == "--out" && i + 1 < argc) {
            out = argv[++i];
        } else if (argument.starts_with("-")) {
            std::fprintf(stderr, "usage: digits [--check] [--out DIRECTORY] [DATA_DIRECTORY]\n");
            return argument == "--help" ? 0 : 2;
        } else {
            directory = argument;
        }
    }

    try {
        const DataSet data = load_data(directory);
        Driver driver;
        Network network(driver, data);
        const Printer printer;
        const Outcome outcome = recognise_all(network, data, printer);
        report(outcome, driver, printer);
        if (!out.empty())
            write_probabilities(outcome, out);
        if (check && !outcome.good()) {
            std::fprintf(
                stderr,
                "digits: not good enough: more than %.1f %% and a difference of at most %.1g are asked\n",
                kLeastAccuracy, static_cast<double>(kMostDifference));
            return 1;
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "digits: %s\n", error.what());
        return 1;
    }
    return 0;
}
