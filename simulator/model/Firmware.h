#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "simulator/model/FrontEnd.h"
#include "simulator/model/Scenario.h"

namespace kestrixsim {

// Finds frames in what an amplifier receives: A5, length, as many bytes, 5A. What cannot be a frame is dropped byte by
// byte; a frame that stops half-way is forgotten after 20 ms.
class FrameCollector {
public:
    void add(const uint8_t* bytes, size_t size, double now);
    std::optional<std::vector<uint8_t>> take();  // the next whole frame, with its A5 and 5A
    void drop();

private:
    std::vector<uint8_t> bytes_;
    double lastByte_ = 0.0;
};

// The program of one amplifier module: identity, settings, calibration, TEDS. A setting that is set is only kept; the
// update command checks all of them together and puts them in force. Not thread-safe.
class Firmware {
public:
    struct Reply {
        uint8_t status = 0;
        std::vector<uint8_t> data;
        double seconds = 0.002;     // from the request's last byte to the reply's first
        std::vector<uint8_t> text;  // what is printed after the frame, on a restart
    };

    struct Settings {
        uint8_t measurement = 0;
        uint8_t range = 0;
        uint8_t lowPass = 0;
        uint8_t coupling = 0;
        uint8_t inputType = 0;
        uint8_t excitationType = 0;
        uint8_t excitationUnit = 0;
        uint8_t shorted = 0;
        float excitation = 0.0F;
    };

    // The serial number is the one given, not the scenario's.
    Firmware(const ModuleScenario& module, uint64_t serial, uint64_t seed);

    void powerOn();  // power-on settings; what was written to its memory stays
    Reply execute(uint8_t command, const std::vector<uint8_t>& payload);

    // As reported: the calibration of the active measurement and range; 1 and 0 in raw mode.
    float scale() const;
    float offset() const;  // thousandths of the range's unit

    // What the active settings make of the input. Raw mode only stops the reports: the error stays.
    FrontEnd frontEnd() const;
    const Settings& active() const { return active_; }
    bool ledOn() const { return ledOn_; }

private:
    struct Kind;
    static const Kind& describe(AmplifierKind kind);
    Reply set(uint8_t Settings::*field, uint8_t value, size_t count);
    uint8_t apply();
    Reply customTeds(const std::vector<uint8_t>& payload);
    Reply boot(uint8_t command, const std::vector<uint8_t>& payload);
    double calibration(uint64_t which) const;
    float calibratedScale() const;
    float calibratedOffset() const;

    const Kind& kind_;
    Sensor sensor_;
    bool tedsChip_;
    uint64_t seed_;
    uint64_t serial_;
    std::array<uint8_t, 4> hardwareVersion_;
    uint8_t hardwareCapabilities_;
    uint8_t connector_;
    int64_t calibrationDate_;
    std::vector<uint8_t> calibrationMemory_;
    std::array<uint8_t, 32> customTeds_;

    bool bootMode_ = false;
    bool rawMode_ = false;
    Settings staged_;
    Settings active_;
    uint8_t pattern_ = 0;
    bool ledOn_ = false;
    std::array<std::array<uint8_t, 2>, 256> trims_{};
};

}  // namespace kestrixsim
