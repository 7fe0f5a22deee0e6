#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "simulator/model/Clock.h"
#include "simulator/model/Faults.h"
#include "simulator/model/Scenario.h"

namespace kestrixsim {

// How warm the boards are, and the sensors that say so. Processor and board each strive for a temperature above the
// ambient one that the load decides on, with a time constant of their own; temperatures are worked out when somebody
// looks. Thread-safe.
class Thermals {
public:
    Thermals(const Scenario& scenario, const Clock& clock, Faults& faults);

    void setSupplied(int slots);       // amplifiers that are on
    void setConverting(bool running);  // an acquisition runs

    // A chip on the I2C bus: 0 and its temperature, or -ENXIO when it isn't there or doesn't answer. A slow one takes
    // its time, up to the second after which the bus gives up with -ETIMEDOUT.
    int readChip(int address, double& celsius);

    // Files of sensors and lines by their paths. 0 or a negative errno of access(2); no fault counts it.
    int fileAccess(std::string_view path) const;
    // What an open finds: 0 or a negative errno, and the text that stands in the file; none where it stays as it is. A
    // slow sensor takes its time here.
    int fileOpen(std::string_view path, std::optional<std::string>& text);
    // Whether the path is one of theirs, and whether the scenario has it.
    static bool owns(std::string_view path);
    std::string textOf(std::string_view path);

    double processorCelsius();
    double boardCelsius();

    // Resistance of the cable's sensor in ohms.
    static double resistanceAt(double celsius);

private:
    struct Body {
        double rise = 0.0;    // above the ambient temperature, degrees
        double target = 0.0;  // that it strives for
        double timeConstant = 1.0;
    };

    void advance();
    void setTargets();
    double celsius(int sensor);
    std::string text(int sensor);
    int begin(int sensor);
    void wait(int sensor, double seconds) const;

    const ThermalScenario scenario_;
    const bool eightSlots_;
    const Clock& clock_;
    Faults& faults_;
    mutable std::mutex mutex_;
    int supplied_ = 0;
    bool converting_ = false;
    Body processor_;
    Body board_;
    double at_ = 0.0;  // of the rises, seconds of the instrument
};

}  // namespace kestrixsim
