#pragma once

namespace kestrixsim {

// An amplifier between its connector and its converter, with the settings in force.
struct FrontEnd {
    enum class Input {
        Signal,    // what the scenario gives
        Grounded,  // 0: shorted, or a sensor without excitation
        Rail,      // full scale: nobody loads the current source
    };

    // (value - zero) * countsPerUnit are counts of a 16-bit converter; the 32-bit one has 65536 times as many.
    double countsPerUnit = 1.0;  // 1 / range's unit
    double zero = 0.0;           // range's unit: the value that reads 0
    double highPassHz = 0.0;     // first order; 0: direct
    double lowPassHz = 0.0;      // second order, Butterworth; 0: none
    Input input = Input::Signal;

    bool operator==(const FrontEnd&) const = default;

    // A range [low, high] with the calibration that the amplifier reports: what reads raw counts there is
    // raw * q * scale + offset * scale / 1000 with q = (high - low) / 2^16.
    static FrontEnd calibrated(double low, double high, double scale, double offset) {
        FrontEnd result;
        result.countsPerUnit = 65536.0 / ((high - low) * scale);
        result.zero = offset * scale / 1000.0;
        return result;
    }
};

}  // namespace kestrixsim
