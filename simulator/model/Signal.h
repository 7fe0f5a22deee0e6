#pragma once

#include <array>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "simulator/model/FrontEnd.h"
#include "simulator/model/Scenario.h"

namespace kestrixsim {

__extension__ using Uint128 = unsigned __int128;

// What lies at an amplifier's input, and what the amplifier makes of it on the way to the converter. A waveform in
// counts passes by the front end.
struct SignalSource {
    Waveform waveform;
    std::shared_ptr<const std::vector<int16_t>> recording;  // Wav only
    uint64_t seed = 0;                                      // Noise only
    FrontEnd frontEnd;
    bool debugCounter = false;  // the FPGA's counter instead of the converter
};

// The half-band filter of the filtered stream, as its 33 coefficient words hold it.
struct HalfBand {
    std::array<int32_t, 33> coefficients{};  // 0 to 31: distance 63 - 2k from the centre; 32: the centre

    int64_t sum() const;                     // gain at 0 Hz, 2^26 for 1
    double norm() const;                     // what a coefficient is divided by
    double response(double relative) const;  // real gain at `relative` x its input rate
    double gain() const { return static_cast<double>(sum()) / norm(); }
};

// How a stream samples its source, latched when it is enabled.
struct StreamFormat {
    bool filtered = false;
    double baseClock = 15e6;      // ticks a second, with the oscillator's error
    double pull = 1.0;            // its frequency over the nominal one
    Uint128 period = 0;           // ticks from sample to sample, in units of 2^-38
    Uint128 delay = 0;            // ticks by which the filter chain delays, in units of 2^-38
    uint32_t decimation = 1;      // raw stream only
    uint32_t stages = 0;          // halvings of the filter chain behind the resampler
    uint64_t limit = UINT64_MAX;  // samples until the stream ends
    HalfBand filter;

    double rate() const;  // samples a second, with the oscillator's error
    double nominalRate() const { return rate() / pull; }
    double gain(double hertz) const;  // real gain of the whole chain, filtered stream only

    static StreamFormat raw(double baseClock, uint32_t decimation, uint32_t length);
    static StreamFormat lowPassed(double baseClock, uint64_t ratio, uint32_t halfBands, const HalfBand& filter);
};

// The samples of one stream, each a function of its number alone: any piece can be asked for in any order, by any
// thread, and days of samples lose no phase.
//
// The raw stream is the waveform at the instants of conversion, unfiltered: what lies above half the rate folds. On
// the filtered stream a sine has the exact gain and delay of the filter chain, and so has each harmonic of a square or
// ramp of few samples in a period. With more of them these two are built from their steps with the step response of the
// last half-band behind a smooth low-pass that stands for the chain before it: edges lie exactly, images are some 70 dB
// down. Noise is white within the stream's own band with the power
// that a perfect low-pass would leave. In its first samples (about 75) the filter settles from 0 with the last
// half-band's exact sum. Counter and Wav are neither filtered nor delayed.
//
// The amplifier's filters act on a physical waveform as if they had settled long ago: a sine has their exact gain and
// phase, square and ramp their exact shape (built from steps on the filtered stream, a low-pass above half the rate
// counts as none for those two), noise the power that the low-pass leaves. Wav passes them by.
class Signal {
public:
    Signal(const SignalSource& source, const StreamFormat& format);
    ~Signal();

    void generate(uint64_t first, size_t count, int16_t* samples) const;
    void generate(uint64_t first, size_t count, int32_t* samples) const;

private:
    template <typename Sample>
    void produce(uint64_t first, size_t count, Sample* samples) const;
    template <typename Sample>
    void steady(uint64_t first, size_t count, Sample* samples) const;
    template <typename Sample>
    void sine(uint64_t first, size_t count, Sample* samples) const;
    void edged(uint64_t first, size_t count, int16_t* samples) const;
    template <typename Sample>
    void noise(uint64_t first, size_t count, Sample* samples) const;
    double valueAt(uint64_t sample) const;
    double settling(uint64_t sample) const;
    double shape(double cycles) const;
    void passFrontEnd(const FrontEnd& frontEnd);
    void shapeEdges(const FrontEnd& frontEnd, bool lowPassed);
    double residue(double samplesBehindEdge) const;
    double edges(double cycles) const;
    bool fewHarmonics() const;
    void prepareFilter(const FrontEnd& frontEnd);
    void prepareCycle(const FrontEnd& frontEnd);
    double inCycle(double cycles) const;
    void prepareStepResponse();
    void prepareTable();
    template <typename Sample>
    void fillTable(std::vector<Sample>& table, uint64_t period);
    Uint128 phase(uint64_t sample) const { return phaseStart_ + phaseStep_ * sample; }

    WaveformKind kind_;
    StreamFormat format_;
    std::shared_ptr<const std::vector<int16_t>> recording_;
    uint64_t seed_;
    bool debugCounter_;
    double frequency_;       // Hz
    double amplitude_;       // counts of this stream
    double offset_;          // counts of this stream
    double startCycles_;     // phase of the waveform at the first instant
    double gain_ = 1.0;      // of the filter at 0 Hz
    double sineGain_ = 1.0;  // of the filter at the sine's frequency
    double cyclesPerSample_;
    Uint128 phaseStart_ = 0;  // fractions of a cycle, 2^-128
    Uint128 phaseStep_ = 0;
    uint64_t settled_ = 0;  // samples before this one are still settling
    // Square and ramp behind the amplifier's filters: in each piece between two edges a line and decaying exponentials.
    struct Decay {
        std::complex<double> pole;    // 1 / piece's length
        std::complex<double> weight;  // at the piece's start, for an amplitude of 1
    };
    std::vector<Decay> decays_;
    double lineGain_ = 1.0;             // of the waveform itself
    double lineShift_ = 0.0;            // ramp only, for an amplitude of 1
    bool smoothEdges_ = false;          // no step is left for the filter chain
    double fileGain_ = 1.0;             // Wav: counts of this stream in a count of the file
    double fileOffset_ = 0.0;           // Wav: counts of this stream
    std::vector<double> stepResponse_;  // square and ramp only: from -stepReach to stepReach samples
    std::vector<double> cycle_;         // or, with few samples in a period, that period around the offset
    std::vector<double> cosines_;       // of sample j of a block against its first
    std::vector<double> sines_;
    // One whole number of periods, if it is short enough: one of the two.
    std::vector<int16_t> table16_;
    std::vector<int32_t> table32_;
};

}  // namespace kestrixsim
