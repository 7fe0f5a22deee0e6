#pragma once

#include <cstdint>

namespace kestrixsim {

// Mixes a number so that neighbours share nothing: the generator behind everything that comes from the seed. A value
// depends on its number alone, so the same sample is the same however it is asked for.
constexpr uint64_t mix(uint64_t value) {
    value += 0x9E3779B97F4A7C15u;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9u;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBu;
    return value ^ (value >> 31);
}

// -1 (included) to 1 (excluded), uniform.
constexpr double symmetric(uint64_t hash) {
    return static_cast<double>(static_cast<int64_t>(hash) >> 11) * 0x1p-52;
}

// Mean 0 and standard deviation 1, never beyond 6. Takes the 12 numbers from `hash` on.
constexpr double gaussian(uint64_t hash) {
    double sum = 0.0;
    for (uint64_t i = 0; i < 12; ++i) {
        sum += symmetric(mix(hash + i));
    }
    return sum * 0.5;
}

}  // namespace kestrixsim
