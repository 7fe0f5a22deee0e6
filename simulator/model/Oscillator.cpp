#include "simulator/model/Oscillator.h"

#include <array>
#include <cmath>

#include "simulator/model/Hash.h"

namespace kestrixsim {

namespace {

constexpr double centre = 506.0;
constexpr uint64_t noiseStream = 0x6F73636E6F697365;

// Frequency of the chip over its control word, in ppm, lowest power first: a fit to its data.
constexpr std::array<double, 6> chip = {294.672578,      -1.59290872,    0.0041816254,
                                        -6.46582698e-06, 5.14665407e-09, -1.6166499e-12};

double chipPpm(double word) {
    double sum = 0.0;
    for (size_t i = chip.size(); i-- > 0;) {
        sum = sum * word + chip[i];
    }
    return sum;
}

}  // namespace

Oscillator::Oscillator(const Clock& clock, const Scenario& scenario)
    : clock_(clock),
      curve_(scenario.oscillator),
      errorPpm_(scenario.oscillatorErrorPpm),
      seed_(mix(scenario.seed ^ noiseStream)),
      word_(static_cast<uint16_t>(scenario.oscillator.word)) {
    pull_ = pullOf(0.0);
}

double Oscillator::pullOf(double second) const {
    const double away = word_ - centre;
    double ppm = curve_.slope * (chipPpm(word_) - chipPpm(centre)) + curve_.bendPpm * (away / 512.0) * (away / 512.0);
    ppm += errorPpm_ + curve_.driftPpmPerHour * second / 3600.0;
    if (curve_.temperaturePpm != 0.0) {
        ppm += curve_.temperaturePpm * std::sin(2.0 * M_PI * second / curve_.temperaturePeriodSeconds);
    }
    if (curve_.noisePpb != 0.0) {
        ppm += curve_.noisePpb * 1e-3 * gaussian(seed_ + (static_cast<uint64_t>(std::floor(second)) << 8));
    }
    return 1.0 + ppm * 1e-6;
}

void Oscillator::advance(double instant) const {
    while (std::floor(since_) + 1.0 <= instant) {
        const double next = std::floor(since_) + 1.0;
        own_ += (next - since_) * pull_;
        since_ = next;
        pull_ = pullOf(next);
    }
}

double Oscillator::seconds() const {
    return secondsAt(clock_.seconds());
}

double Oscillator::secondsAt(double instant) const {
    const std::lock_guard lock(mutex_);
    advance(instant);
    return own_ + (instant - since_) * pull_;
}

void Oscillator::setWord(uint16_t word, double instant) {
    const std::lock_guard lock(mutex_);
    advance(instant);
    own_ += (instant - since_) * pull_;
    since_ = instant;
    word_ = word;
    pull_ = pullOf(std::floor(instant));
}

uint16_t Oscillator::word() const {
    const std::lock_guard lock(mutex_);
    return word_;
}

double Oscillator::pull() const {
    const double now = clock_.seconds();
    const std::lock_guard lock(mutex_);
    advance(now);
    return pull_;
}

}  // namespace kestrixsim
