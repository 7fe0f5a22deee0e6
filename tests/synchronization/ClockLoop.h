#pragma once

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#include "modules/daq/synchronization/TimeSyncController.h"

// The loop of oscillator, reference and discipline, closed without threads: one call a pulse. Phases are counts of the
// 150 MHz clock, 6.67 ns each; positive when the local pulse comes before the reference's.
namespace ClockLoop {

inline constexpr double nanosecondsPerCount = 1e9 / 150e6;

enum class Reference { Pps, Irig, Ptp };

inline const char* nameOf(Reference reference) {
    return reference == Reference::Pps ? "PPS" : reference == Reference::Irig ? "IRIG" : "PTP";
}

// Oscillator, reference and phase detector of one instrument. No two seeds are alike, and the oscillator's curve has
// nothing to do with the polynomial that the discipline goes by.
class Plant {
public:
    struct Record {
        std::int64_t phase = 0;
        std::int64_t frequencyError = 0;
        bool lost = false;
        bool portLocked = true;
    };

    Plant(Reference reference, std::uint64_t seed) : reference(reference), random(seed) {
        centre = uniform(430.0, 600.0);
        // Between half and nearly twice as steep as an oscillator of this make should be.
        steepness = uniform(0.5, 1.9) * 28.5 * std::exp(-0.0019 * (centre - 506.0));
        curvature = uniform(0.0001, 0.003);
        temperatureSwing = uniform(10.0, 40.0);
        temperaturePeriod = uniform(1800.0, 7200.0);
        temperaturePhase = uniform(0.0, 6.28);
        ageing = uniform(-0.002, 0.002);
        noise = uniform(0.3, 2.0);
        phase = uniform(-7.5e7, 7.5e7);
        switch (reference) {
            case Reference::Pps:
                jitter = uniform(2.0, 10.0);
                lateEdge = 375.0;
                break;
            case Reference::Irig:
                jitter = uniform(15.0, 40.0);
                break;
            case Reference::Ptp:
                jitter = uniform(3.0, 12.0);
                portAway = static_cast<int>(uniform(0.0, 5.0));
                break;
        }
        frequencyDrift = driftAt(seconds);
    }

    // Goes on to the next pulse of the reference.
    Record next() {
        // The word written after the last pulse has been in force but for the first hundredth of the second.
        phase += 0.01 * curveAt(previousWord) + 0.99 * curveAt(word) + frequencyDrift + noise * normal();
        previousWord = word;
        seconds += 1.0;
        frequencyDrift = driftAt(seconds);
        if (outage) {
            return {0, 0, true, true};
        }

        Record record;
        double pulse = jitter * normal() + lateEdge;
        if (reference == Reference::Ptp) {
            wander = 0.95 * wander + 2.0 * normal();
            pulse += wander;
            if (settled && chance(0.005)) {
                const double size = chance(0.5) ? uniform(200.0, 2000.0) : uniform(60'000.0, 300'000.0);
                pulse += chance(0.5) ? size : -size;
            }
            if (portAway > 0) {
                --portAway;
                record.portLocked = false;
            } else if (settled && chance(0.002)) {
                portAway = static_cast<int>(uniform(3.0, 20.0));
            }
        }
        const auto counted = static_cast<std::int64_t>(std::floor(phase + pulse));
        constexpr std::int64_t largestPhase = 0xFFFFFF;
        record.phase = std::clamp(counted, -largestPhase, largestPhase);
        record.frequencyError = counted - lastCounted;
        // Nothing was counted yet, or the local pulse was moved in between.
        record.lost = !armed;
        armed = true;
        lastCounted = counted;
        detected = pulse;
        return record;
    }

    // As the hardware takes it: sixteen bits, limited to ten.
    void setWord(long value) { word = std::min<unsigned>(static_cast<std::uint16_t>(value), 1023); }
    unsigned getWord() const { return word; }

    // The local pulse jumps onto the reference's pulse, as detected.
    void align() {
        lastCounted -= static_cast<std::int64_t>(std::floor(phase + detected));
        phase = -detected;
    }
    void stepReference(double counts) { phase += counts; }
    void beginOutage() { outage = true; }
    void endOutage() {
        outage = false;
        armed = false;
    }
    // From here on the reference also has the faults of its kind.
    void settle() { settled = true; }

    // Of the local pulse against the reference without its jitter.
    double truePhase() const { return phase; }
    // Of the oscillator now, counts a second, with the word in force.
    double trueFrequency() const { return curveAt(word) + frequencyDrift; }

private:
    double curveAt(unsigned atWord) const {
        return -steepness * -std::expm1(-curvature * (static_cast<double>(atWord) - centre)) / curvature;
    }
    double driftAt(double at) const {
        return ageing * at + temperatureSwing * std::sin(temperaturePhase + 6.2832 * at / temperaturePeriod);
    }
    double uniform(double low, double high) { return std::uniform_real_distribution<double>(low, high)(random); }
    double normal() { return std::normal_distribution<double>()(random); }
    bool chance(double probability) { return uniform(0.0, 1.0) < probability; }

    Reference reference;
    std::mt19937_64 random;
    double centre = 0.0;
    double steepness = 0.0;
    double curvature = 0.0;
    double temperatureSwing = 0.0;
    double temperaturePeriod = 0.0;
    double temperaturePhase = 0.0;
    double ageing = 0.0;
    double noise = 0.0;
    double jitter = 0.0;
    double lateEdge = 0.0;
    double wander = 0.0;
    int portAway = 0;
    bool outage = false;
    bool settled = false;
    bool armed = false;
    unsigned word = 512;
    unsigned previousWord = 512;
    double seconds = 0.0;
    double frequencyDrift = 0.0;
    double phase = 0.0;
    double detected = 0.0;
    std::int64_t lastCounted = 0;
};

// What a discipline has to do for its owner.
class Servo {
public:
    virtual ~Servo() = default;
    virtual long onPulse(unsigned word, std::int64_t phase, std::int64_t frequencyError) = 0;
    virtual long onLoss() = 0;
    virtual bool wantsResync() const = 0;
    // The phase has been aligned.
    virtual void start() = 0;
    virtual bool isTracking() const = 0;
};

class LawServo : public Servo {
public:
    long onPulse(unsigned word, std::int64_t phase, std::int64_t frequencyError) override {
        return controller.getNextPwmAfterPps(word, phase, frequencyError, error, tracking);
    }
    long onLoss() override {
        tracking = false;
        return controller.getNextPwmAfterSignalLost();
    }
    bool wantsResync() const override { return error; }
    void start() override { error = false; }
    bool isTracking() const override { return tracking; }

private:
    Harvane::RT::Modules::Daq::TimeSyncControllerMaxErrors maxErrors{150e6, 60'000, 150};
    Harvane::RT::Modules::Daq::TimeSyncController controller{
        1.0, Harvane::RT::Modules::Daq::TimeSyncVcxoLmk61e2(150e6, 1023, 506.0, 200.0), maxErrors};
    std::atomic<bool> error = false;
    bool tracking = false;
};

// What one would write first: the same way in by frequency, then a proportional and an integral part, one gradient for
// all control words, and the integral held while there is no reference.
class PiServo : public Servo {
public:
    long onPulse(unsigned word, std::int64_t phase, std::int64_t frequencyError) override {
        if (resync) {
            good = std::abs(frequencyError) < 150 ? good + 1 : 0;
            integral = static_cast<double>(word) - static_cast<double>(frequencyError) / gradient;
        } else if (std::abs(phase) >= 60'000) {
            resync = true;
            good = 0;
        } else {
            integral = std::clamp(integral - 0.3 * static_cast<double>(phase) / gradient, 0.0, 1023.0);
            return std::lround(std::clamp(integral - 0.7 * static_cast<double>(phase) / gradient, 0.0, 1023.0));
        }
        return onLoss();
    }
    long onLoss() override { return std::lround(std::clamp(integral, 0.0, 1023.0)); }
    bool wantsResync() const override { return resync && good >= 2; }
    void start() override { resync = false; }
    bool isTracking() const override { return !resync; }

private:
    static constexpr double gradient = -28.555;
    double integral = 506.0;
    int good = 0;
    bool resync = true;
};

// Plant and servo, and between them what their owner decides at each pulse.
class Loop {
public:
    Loop(Reference reference, std::uint64_t seed, Servo& servo)
        : plant(reference, seed), servo(servo), reference(reference) {}

    // One pulse. Tells whether the word was held.
    bool step() {
        Plant::Record record = plant.next();
        if (reference == Reference::Pps) {
            record.phase -= 375;
        }
        const bool hold = record.lost || (reference == Reference::Ptp &&
                                          (!record.portLocked || std::abs(record.frequencyError) >= 50'000));
        plant.setWord(hold ? servo.onLoss() : servo.onPulse(plant.getWord(), record.phase, record.frequencyError));
        return hold;
    }
    void run(int pulses) {
        for (int pulse = 0; pulse < pulses; ++pulse) {
            step();
        }
    }
    // Waits until the servo asks for a resynchronisation, then does what the start of an acquisition does. Returns the
    // pulses waited. The law takes the wish back for some pulses when the frequency jitters, so a start can also come
    // too early.
    int resync() {
        constexpr int limit = 300;
        int pulses = 0;
        while (pulses < limit && !servo.wantsResync()) {
            step();
            ++pulses;
        }
        if (servo.wantsResync()) {
            plant.align();
        }
        servo.start();
        return pulses;
    }
    bool isFarOff() const { return servo.wantsResync() || std::abs(plant.truePhase()) > 30'000.0; }

    Plant plant;

private:
    Servo& servo;
    Reference reference;
};

struct Hold {
    int seconds = 0;
    // Counts a second that the oscillator was off when the hold began, and phase gained in it, counts.
    double frequency = 0.0;
    double drift = 0.0;
    bool wordStood = true;
    // Farther away than can be steered back: asked for after the reference's return.
    bool resyncWanted = false;
    // Some pulses later, after the next start if that was needed: mean size over ten pulses.
    double phaseAfter = 0.0;
};

struct Figures {
    int pulsesToLock = 0;
    // Over a thousand pulses after lock and start, counts.
    double rms = 0.0;
    double max = 0.0;
    bool alwaysTracking = true;
    std::vector<Hold> holds;
    // After a step of the reference by 1000 counts: pulses until the phase is below 200 counts for five in a row.
    int stepPulses = 0;
    // After one by 5,000,000, which nobody can steer away, and the next start: mean size over ten pulses.
    double phaseAfterResync = 0.0;
};

inline double meanSize(Loop& loop, int pulses) {
    double sum = 0.0;
    for (int pulse = 0; pulse < pulses; ++pulse) {
        loop.step();
        sum += std::abs(loop.plant.truePhase());
    }
    return sum / pulses;
}

// The life of a clock, from the cold: pull-in, start, tracking, three outages, two steps.
inline Figures measure(Reference reference, std::uint64_t seed, Servo& servo) {
    constexpr int settling = 40;
    Figures figures;
    Loop loop(reference, seed, servo);
    figures.pulsesToLock = loop.resync();
    loop.run(settling);

    loop.plant.settle();
    constexpr int tracked = 1000;
    double squares = 0.0;
    for (int pulse = 0; pulse < tracked; ++pulse) {
        const bool hold = loop.step();
        const double phase = loop.plant.truePhase();
        squares += phase * phase;
        figures.max = std::max(figures.max, std::abs(phase));
        figures.alwaysTracking = figures.alwaysTracking && (hold || servo.isTracking()) && !servo.wantsResync();
    }
    figures.rms = std::sqrt(squares / tracked);

    for (const int seconds : {10, 100, 3600}) {
        Hold hold;
        hold.seconds = seconds;
        loop.plant.beginOutage();
        loop.step();
        const unsigned word = loop.plant.getWord();
        const double phaseBefore = loop.plant.truePhase();
        hold.frequency = loop.plant.trueFrequency();
        for (int second = 1; second < seconds; ++second) {
            loop.step();
            hold.wordStood = hold.wordStood && loop.plant.getWord() == word;
        }
        hold.drift = loop.plant.truePhase() - phaseBefore;
        loop.plant.endOutage();
        loop.run(settling);
        hold.resyncWanted = loop.isFarOff();
        if (hold.resyncWanted) {
            loop.resync();
            loop.run(settling);
        }
        hold.phaseAfter = meanSize(loop, 10);
        figures.holds.push_back(hold);
    }

    loop.plant.stepReference(1000.0);
    int inside = 0;
    while (figures.stepPulses < 200 && inside < 5) {
        loop.step();
        ++figures.stepPulses;
        inside = std::abs(loop.plant.truePhase()) < 200.0 ? inside + 1 : 0;
    }
    figures.stepPulses -= inside;

    loop.plant.stepReference(5e6);
    loop.resync();
    loop.run(settling);
    figures.phaseAfterResync = meanSize(loop, 10);
    return figures;
}

}  // namespace ClockLoop
