// The files of data/, in memory: the network and the pictures that it has not seen in training.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "picture.h"

inline constexpr uint32_t kPixels = kSide * kSide;
inline constexpr uint32_t kHeldOut = 500;  // pictures kept out of training

inline constexpr uint32_t kUnits = 32;  // of the recurrent layer
inline constexpr uint32_t kGates = 4 * kUnits;

struct DataSet {
    std::vector<float> mean, var;       // kPixels each
    std::vector<float> input_weights;   // kSide x kGates
    std::vector<float> hidden_weights;  // kUnits x kGates
    std::vector<float> gate_bias;       // kGates
    std::vector<float> output_weights;  // kUnits x kDigits
    std::vector<float> output_bias;     // kDigits
    std::vector<uint8_t> images;        // kHeldOut x kPixels
    std::vector<uint8_t> labels;        // kHeldOut
    std::vector<float> probabilities;   // kHeldOut x kDigits, as double precision gives them

    std::span<const uint8_t> picture(size_t i) const {
        return std::span(images).subspan(i * kPixels, kPixels);
    }
    std::span<const float> expected(size_t i) const {
        return std::span(probabilities).subspan(i * kDigits, kDigits);
    }
};

// Throws a DriverError that names the file when one is missing, broken or of another shape.
DataSet load_data(const std::string& directory);
