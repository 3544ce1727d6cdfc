// Coefficient tables for the four-lane functions: the exponential's, and one that the tests bring for the
// logarithm.
#pragma once

#include <cstring>

#include "kelRt.h"

using Coefficients = float[8];

inline constexpr Coefficients kExpCoefficients = {
    1.0f,           0.0416598916054f,  0.500000596046f, 0.0014122662833f,
    1.00000011921f, 0.00833693705499f, 0.166665703058f, 0.000195780929062f};

// ln on [1, 2), interpolated at the eight Chebyshev nodes.
inline constexpr Coefficients kLogCoefficients = {-2.24292370836f,  -2.01422119666f, -5.12504979656f,
                                                  -0.122502564392f, 4.91173517022f,  0.655653732359f,
                                                  3.92729932924f,   0.0100092896178f};

inline kelRt_float32x4_t splat(float x) {
    const float lanes[4] = {x, x, x, x};
    kelRt_float32x4_t v;
    std::memcpy(&v, lanes, sizeof v);
    return v;
}

struct Table {
    kelRt_float32x4_t v[8];
    explicit Table(const Coefficients& c) {
        for (int i = 0; i < 8; ++i)
            v[i] = splat(c[i]);
    }
};
