// Recognises handwritten digits on the simulated accelerator, one picture at a time, three contexts a
// picture, and shows how well it went.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "data.h"
#include "driver.h"
#include "picture.h"

namespace {

// What --check demands.
constexpr double kLeastAccuracy = 94.0;
constexpr float kMostDifference = 1e-4f;

// scores = (picture - mean) / var * weights + bias
class Network {
  public:
    Network(Driver& driver, const DataSet& data)
        : driver_(driver),
          mean_(driver.constant(data.mean)),
          var_(driver.constant(data.var)),
          weights_(driver.constant(data.weights)),
          bias_(driver.constant(data.bias)),
          picture_(driver.accelerator_memory(kPixels * sizeof(float))),
          normalised_(driver.cpu_buffer(kPixels * sizeof(float))),
          product_(driver.cpu_buffer(kDigits * sizeof(float))),
          scores_(driver.accelerator_memory(kDigits * sizeof(float))) {}

    Scores recognise(std::span<const uint8_t> picture) {
        // The accelerator leaves a picture in its memory ...
        const std::vector<float> pixels(picture.begin(), picture.end());
        driver_.write(picture_, std::as_bytes(std::span(pixels)));

        driver_.run(kFeaturenorm, {picture_, kPixels, mean_, var_, kPixels, normalised_});
        driver_.run(kMatmul, {normalised_, weights_, product_, 1, kPixels, kPixels, kDigits, 0, 0});
        driver_.run(kEwopAdd, {scores_, product_, bias_, kDigits});

        // ... and finds the scores there.
        Scores scores;
        driver_.read(scores_, std::as_writable_bytes(std::span(scores)));
        return scores;
    }

  private:
    Driver& driver_;
    Tensor mean_, var_, weights_, bias_;
    Tensor picture_, normalised_, product_, scores_;
};

struct Outcome {
    std::vector<Reading> readings;
    Confusion confusion{};
    size_t right = 0;
    float difference = 0;  // the largest of any score from its expected value; NaN stays

    double accuracy() const {
        return 100.0 * static_cast<double>(right) / static_cast<double>(readings.size());
    }
    bool good() const { return accuracy() > kLeastAccuracy && difference <= kMostDifference; }
};

Outcome recognise_all(Network& network, const DataSet& data) {
    Outcome outcome;
    for (uint32_t i = 0; i < kHeldOut; ++i) {
        const Scores scores = network.recognise(data.picture(i));
        const auto read =
            static_cast<uint32_t>(std::max_element(scores.begin(), scores.end()) - scores.begin());
        const uint32_t written = data.labels[i];

        outcome.readings.push_back({data.picture(i), written, read, scores});
        ++outcome.confusion[written][read];
        outcome.right += read == written;
        for (uint32_t digit = 0; digit < kDigits; ++digit) {
            const float difference = std::fabs(scores[digit] - data.expected(i)[digit]);
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

void report(const Outcome& outcome, const Driver& driver) {
    const Printer printer;
    std::printf("%u handwritten digits that the network never saw in training, one at a time\n", kHeldOut);
    printer.headline("Pictures and their scores");
    printer.readings(examples(outcome.readings));
    printer.headline("What was written, and what was read");
    printer.confusion(outcome.confusion);
    printer.headline("Time in each operator");
    printer.times(driver.times());
    std::printf("  cache maintenance carried %.1f kB to the CPU and %.1f kB back\n", driver.synced_kb(1),
                driver.synced_kb(0));
    std::printf("\n%zu of %zu pictures read right: accuracy %.1f %%\n", outcome.right,
                outcome.readings.size(), outcome.accuracy());
    std::printf("largest difference of a score from double precision: %.2g\n",
                static_cast<double>(outcome.difference));
}

}  // namespace

int main(int argc, char** argv) {
    std::string directory = DIGITS_DATA_DIRECTORY;
    bool check = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--check") {
            check = true;
        } else if (argument.starts_with("-")) {
            std::fprintf(stderr, "usage: digits [--check] [DATA_DIRECTORY]\n");
            return argument == "--help" ? 0 : 2;
        } else {
            directory = argument;
        }
    }

    try {
        const DataSet data = load_data(directory);
        Driver driver;
        Network network(driver, data);
        const Outcome outcome = recognise_all(network, data);
        report(outcome, driver);
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
