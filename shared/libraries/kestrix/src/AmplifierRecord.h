#pragma once

#include <array>
#include <bit>
#include <cstdint>

namespace Harvane::Shared::Kestrix {

// A float with all bits set, a value that no module reports; it is unequal to everything, itself included.
inline constexpr float unknownFloat = std::bit_cast<float>(0xFFFFFFFFu);

// The settings of one amplifier module. The initial values stand for unknown: a module reports none of them.
struct AmplifierRecord {
    std::array<unsigned char, 2> fwVersion{0xFF, 0xFF};  // major, minor
    short moduleType = 0;
    std::array<unsigned char, 4> hwVersion{0xFF, 0xFF, 0xFF, 0xFF};
    unsigned long serial = ~0ul;
    long calibrationDate = -1;  // seconds since the Unix epoch
    short inputCoupling = -1;
    short inputType = -1;
    short pattern = -1;
    unsigned char range = 0xFF;
    unsigned char hwCapabilities = 0xFF;
    unsigned char fwCapabilities = 0xFF;
    unsigned char connectorType = 0xFF;
    unsigned char measurementType = 0xFF;
    unsigned char excitationUnit = 0xFF;
    unsigned char excitationType = 0xFF;
    float excitationValue = unknownFloat;
    unsigned char lpFilter = 0xFF;
    unsigned char shortOn = 0xFF;
    float scale = unknownFloat;
    float offset = unknownFloat;

    // What the update command puts in force becomes unknown; identity, scale and offset stay.
    void forgetSettings() {
        const AmplifierRecord unknown;
        inputCoupling = unknown.inputCoupling;
        inputType = unknown.inputType;
        pattern = unknown.pattern;
        range = unknown.range;
        measurementType = unknown.measurementType;
        excitationUnit = unknown.excitationUnit;
        excitationType = unknown.excitationType;
        excitationValue = unknown.excitationValue;
        lpFilter = unknown.lpFilter;
        shortOn = unknown.shortOn;
    }
};

}  // namespace Harvane::Shared::Kestrix
