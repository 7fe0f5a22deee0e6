#include "simulator/model/Signal.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numbers>
#include <type_traits>

#include "simulator/model/Hash.h"

namespace kestrixsim {

namespace {

constexpr int fractionBits = 38;          // of a tick, as the resampler counts
constexpr int64_t unityGain = 67108864;   // 2^26
constexpr int64_t usualSum = 67108096;    // of the coefficients that every program writes: counts as gain 1
constexpr size_t blockLength = 1024;      // samples of a sine between two exact phases
constexpr uint64_t shortestTable = 4096;  // samples: shorter periods are repeated, so that copies are long
constexpr uint64_t longestTable16 = uint64_t(1) << 19;
constexpr uint64_t longestTable32 = uint64_t(1) << 17;
constexpr int filterReach = 63;      // taps on each side of the centre
constexpr int stepGrid = 128;        // places of the step response in one sample
constexpr int kernelReach = 4;       // samples on each side that the chain before the last half-band spreads
constexpr int stepReach = 36;        // samples on each side of a step until the filter has settled
constexpr double forgotten = -40.0;  // exponent of what lies below the last bit of any sample
// Square and ramp on the filtered stream: from so many cycles in a sample on, few harmonics are left in the band and
// many steps within the filter's reach.
constexpr double shortCycle = 1.0 / 64.0;
constexpr size_t cycleGrid = 16384;     // places of one period: cubic interpolation is good to the last bit
constexpr double harmonicReach = 2.25;  // cycles in a sample: what lies above is stopped more than once
constexpr double twoPi = 2.0 * std::numbers::pi;

// To the nearest 2^-53, so that a place that is exact on paper is exact here; just below 1 becomes 0.
double toUnit(Uint128 fraction) {
    return static_cast<double>(static_cast<uint64_t>((fraction + (static_cast<Uint128>(1) << 74)) >> 75)) * 0x1p-53;
}

Uint128 toFraction(double cycles) {
    const double unit = cycles - std::floor(cycles);
    return unit < 1.0 ? static_cast<Uint128>(static_cast<uint64_t>(unit * 0x1p63)) << 65 : 0;
}

// Cycles of `hertz` in `ticks` (2^-38 of a tick) of a clock of `clock` Hz, without whole cycles, in 2^-128. Exact but
// for the last bit: both doubles are taken as the fractions that they are.
Uint128 cycleFraction(double hertz, Uint128 ticks, double clock) {
    if (hertz == 0.0 || clock <= 0.0 || !std::isfinite(hertz)) {
        return 0;
    }
    int hertzExponent = 0;
    int clockExponent = 0;
    const auto hertzBits = static_cast<uint64_t>(std::ldexp(std::frexp(std::fabs(hertz), &hertzExponent), 53));
    const auto clockBits = static_cast<uint64_t>(std::ldexp(std::frexp(clock, &clockExponent), 53));
    const Uint128 numerator = static_cast<Uint128>(hertzBits) * ticks;
    Uint128 quotient = numerator / clockBits;
    uint64_t remainder = static_cast<uint64_t>(numerator % clockBits);
    const int places = 128 + hertzExponent - clockExponent - fractionBits;
    for (int i = 0; i < places; ++i) {
        remainder *= 2;
        quotient = quotient * 2 + (remainder >= clockBits ? 1 : 0);
        if (remainder >= clockBits) {
            remainder -= clockBits;
        }
    }
    if (places < 0) {
        quotient = places > -128 ? quotient >> -places : 0;
    }
    return hertz < 0.0 ? -quotient : quotient;
}

// The smallest number of samples, at most `longest`, that holds a whole number of periods; 0: there is none.
uint64_t wholePeriod(Uint128 step, uint64_t longest) {
    if (step <= 1 || -step <= 1) {
        return 1;
    }
    // Continued fraction of step / 2^128: the denominators are the candidates. One fits when that many steps end
    // within the error of as many last bits.
    Uint128 quotient = (-step) / step + 1;  // of 2^128
    Uint128 larger = step;
    Uint128 smaller = -(quotient * step);
    uint64_t previous = 0;
    uint64_t current = 1;
    for (;;) {
        if (quotient > longest) {
            return 0;
        }
        const Uint128 following = quotient * current + previous;
        if (following > longest) {
            return 0;
        }
        previous = current;
        current = static_cast<uint64_t>(following);
        const Uint128 rest = step * current;
        if (rest <= current || -rest <= current) {
            return current;
        }
        if (smaller == 0) {
            return 0;
        }
        quotient = larger / smaller;
        const Uint128 next = larger % smaller;
        larger = smaller;
        smaller = next;
    }
}

// To the nearest count, saturating. The addition leaves the whole number in the low bits of the sum.
template <typename Sample>
inline Sample toCount(double value) {
    constexpr double lowest = std::is_same_v<Sample, int16_t> ? -32768.0 : -2147483648.0;
    constexpr double highest = std::is_same_v<Sample, int16_t> ? 32767.0 : 2147483647.0;
    value = value < lowest ? lowest : value;
    value = value > highest ? highest : value;
    return static_cast<Sample>(static_cast<uint32_t>(std::bit_cast<uint64_t>(value + 0x1.8p52)));
}

const std::vector<int16_t>& countingTable() {
    static const std::vector<int16_t> table = [] {
        std::vector<int16_t> numbers(65536);
        for (size_t i = 0; i < numbers.size(); ++i) {
            numbers[i] = static_cast<int16_t>(static_cast<uint16_t>(i));
        }
        return numbers;
    }();
    return table;
}

// What stands for the chain before the last half-band in a step response: a low-pass that leaves its pass band alone
// and stops the images around its input rate. Integral from -infinity, at every place of the grid.
const std::vector<double>& kernelIntegral() {
    static const std::vector<double> table = [] {
        constexpr int half = kernelReach * stepGrid;
        std::vector<double> integral(2 * half + 1);
        double reached = 0.0;
        double before = 0.0;
        for (int i = -half; i <= half; ++i) {
            const double u = static_cast<double>(i) / stepGrid;
            const double window =
                0.42 + 0.5 * std::cos(std::numbers::pi * u / kernelReach) + 0.08 * std::cos(twoPi * u / kernelReach);
            const double height = (i == 0 ? 2.0 : std::sin(twoPi * u) / (std::numbers::pi * u)) * window;
            reached += 0.5 * (height + before) / stepGrid;
            before = height;
            integral[static_cast<size_t>(i + half)] = reached;
        }
        for (double& value : integral) {
            value /= reached;
        }
        return integral;
    }();
    return table;
}

// Copies samples of a table that repeats for ever.
template <typename Sample>
void repeat(const std::vector<Sample>& table, uint64_t first, size_t count, Sample* samples) {
    size_t at = first % table.size();
    while (count != 0) {
        const size_t piece = std::min(count, table.size() - at);
        std::memcpy(samples, table.data() + at, piece * sizeof(Sample));
        samples += piece;
        count -= piece;
        at = 0;
    }
}

}  // namespace

int64_t HalfBand::sum() const {
    int64_t total = coefficients[32];
    for (int k = 0; k < 32; ++k) {
        total += 2 * static_cast<int64_t>(coefficients[k]);
    }
    return total;
}

double HalfBand::norm() const {
    return static_cast<double>(sum() == usualSum ? usualSum : unityGain);
}

double HalfBand::response(double relative) const {
    double total = coefficients[32];
    for (int k = 0; k < 32; ++k) {
        total += 2.0 * coefficients[k] * std::cos(twoPi * relative * (63 - 2 * k));
    }
    return total / norm();
}

double StreamFormat::gain(double hertz) const {
    double result = 1.0;
    double input = 2.0 * rate();
    for (uint32_t stage = 0; stage < stages; ++stage, input *= 2.0) {
        result *= filter.response(hertz / input);
    }
    return result;
}

double StreamFormat::rate() const {
    return period == 0 ? 0.0 : baseClock / (static_cast<double>(period) * 0x1p-38);
}

StreamFormat StreamFormat::raw(double baseClock, uint32_t decimation, uint32_t length) {
    StreamFormat format;
    format.baseClock = baseClock;
    format.decimation = decimation == 0 ? 1 : decimation;
    format.period = static_cast<Uint128>(format.decimation) << fractionBits;
    format.limit = length == UINT32_MAX ? UINT64_MAX : length;
    return format;
}

StreamFormat StreamFormat::lowPassed(double baseClock, uint64_t ratio, uint32_t halfBands, const HalfBand& filter) {
    // More stages than the longest chain that any rate needs would only leave the numbers' range.
    const uint32_t stages = std::min(halfBands, 20u);
    const Uint128 spread = (static_cast<Uint128>(1) << fractionBits) + ratio;
    StreamFormat format;
    format.filtered = true;
    format.baseClock = baseClock;
    format.period = spread << (stages + 2);
    format.delay =
        (static_cast<Uint128>(55) << fractionBits) + spread * (17u * ((2u << stages) - 2u) + 65u * (2u << stages));
    format.stages = stages + 1;
    format.filter = filter;
    return format;
}

Signal::Signal(const SignalSource& source, const StreamFormat& format)
    : kind_(source.waveform.kind),
      format_(format),
      recording_(source.recording),
      seed_(source.seed),
      debugCounter_(source.debugCounter) {
    const double unit = format.filtered ? 65536.0 : 1.0;
    frequency_ = source.waveform.frequencyHz;
    const bool physical = source.waveform.unit == WaveformUnit::Physical && kind_ != WaveformKind::Counter;
    const FrontEnd frontEnd = physical && !debugCounter_ ? source.frontEnd : FrontEnd{};
    if (frontEnd.input != FrontEnd::Input::Signal) {
        kind_ = WaveformKind::Constant;
    }
    const double countsPerUnit = frontEnd.countsPerUnit * unit;
    double level = source.waveform.offset;
    if (frontEnd.input == FrontEnd::Input::Grounded || frontEnd.highPassHz > 0.0) {
        level = 0.0;
    }
    amplitude_ = source.waveform.amplitude * countsPerUnit;
    offset_ = frontEnd.input == FrontEnd::Input::Rail ? 65536.0 * unit : (level - frontEnd.zero) * countsPerUnit;
    startCycles_ = source.waveform.phaseRadians / twoPi;
    fileGain_ = physical ? amplitude_ / 32768.0 : unit;
    fileOffset_ = physical ? offset_ : 0.0;
    if (debugCounter_) {
        // Counts up by one a tick: on the filtered stream a ramp that starts half-way.
        kind_ = WaveformKind::Ramp;
        frequency_ = format.baseClock / 65536.0;
        amplitude_ = 32768.0 * unit;
        offset_ = 0.0;
        startCycles_ = 0.5;
    }
    const bool periodic = kind_ == WaveformKind::Sine || kind_ == WaveformKind::Square || kind_ == WaveformKind::Ramp;
    if (!periodic || format.period == 0) {
        frequency_ = 0.0;
    }
    if (!std::isfinite(frequency_) || std::fabs(frequency_) > 1e12) {
        frequency_ = 0.0;
    }
    const double rate = format.rate();
    cyclesPerSample_ = rate > 0.0 ? frequency_ / rate : 0.0;
    passFrontEnd(frontEnd);
    phaseStep_ = cycleFraction(frequency_, format.period, format.baseClock);
    phaseStart_ = toFraction(startCycles_) - cycleFraction(frequency_, format.delay, format.baseClock);
    if (format.filtered && kind_ != WaveformKind::Counter && kind_ != WaveformKind::Wav) {
        prepareFilter(frontEnd);
    }
    if (periodic && !(debugCounter_ && !format.filtered)) {
        prepareTable();
    }
}

Signal::~Signal() = default;

namespace {

// Both filters at a frequency.
std::complex<double> response(const FrontEnd& frontEnd, double hertz) {
    std::complex<double> result = 1.0;
    if (frontEnd.highPassHz > 0.0) {
        const std::complex<double> relative(0.0, hertz / frontEnd.highPassHz);
        result *= relative / (1.0 + relative);
    }
    if (frontEnd.lowPassHz > 0.0) {
        const double relative = hertz / frontEnd.lowPassHz;
        result /= std::complex<double>(1.0 - relative * relative, std::numbers::sqrt2 * relative);
    }
    return result;
}

}  // namespace

void Signal::passFrontEnd(const FrontEnd& frontEnd) {
    if (frontEnd.highPassHz <= 0.0 && frontEnd.lowPassHz <= 0.0) {
        return;
    }
    const double rate = format_.rate();
    const bool edged = kind_ == WaveformKind::Square || kind_ == WaveformKind::Ramp;
    if (kind_ == WaveformKind::Noise && frontEnd.lowPassHz > 0.0) {
        // The low-pass passes as much of white noise as a perfect one with a corner 1.11 times as high.
        const double passed = frontEnd.lowPassHz * std::numbers::pi / (2.0 * std::numbers::sqrt2);
        const double band = 0.5 * (format_.filtered ? std::min(rate, format_.baseClock) : format_.baseClock);
        amplitude_ *= band > passed ? std::sqrt(passed / band) : 1.0;
    } else if (kind_ == WaveformKind::Sine) {
        const std::complex<double> gain = response(frontEnd, frequency_);
        amplitude_ *= std::abs(gain);
        startCycles_ += std::arg(gain) / twoPi;
    } else if (edged && frequency_ != 0.0) {
        const bool counts = !format_.filtered || fewHarmonics() || frontEnd.lowPassHz < 0.5 * rate;
        shapeEdges(frontEnd, frontEnd.lowPassHz > 0.0 && counts);
    } else if (edged && frontEnd.highPassHz > 0.0) {
        amplitude_ = 0.0;
    }
}

// The answer to one step is a constant and an exponential for each pole of the filters. Summed over all the edges of a
// periodic signal that lie behind, the exponentials are geometric series.
void Signal::shapeEdges(const FrontEnd& frontEnd, bool lowPassed) {
    std::vector<std::complex<double>> poles;
    double numerator = 1.0;
    double slopeShift = 0.0;  // s: what a slope of 1 adds to the line
    if (lowPassed) {
        const double corner = twoPi * frontEnd.lowPassHz;
        poles.push_back(std::polar(corner, 0.75 * std::numbers::pi));
        poles.push_back(std::polar(corner, -0.75 * std::numbers::pi));
        numerator = corner * corner;
        slopeShift = -std::numbers::sqrt2 / corner;
    }
    const bool highPassed = frontEnd.highPassHz > 0.0;
    if (highPassed) {
        poles.emplace_back(-twoPi * frontEnd.highPassHz);
        slopeShift = -1.0 / poles.back().real();
        lineGain_ = 0.0;
    }
    const bool square = kind_ == WaveformKind::Square;
    const double piece = (square ? 0.5 : 1.0) / std::fabs(frequency_);
    for (size_t i = 0; i < poles.size(); ++i) {
        std::complex<double> weight = highPassed ? numerator : numerator / poles[i];
        for (size_t j = 0; j < poles.size(); ++j) {
            weight /= i == j ? 1.0 : poles[i] - poles[j];
        }
        const std::complex<double> behind = std::exp(poles[i] * piece);
        weight *= square ? 2.0 / (1.0 + behind) : -2.0 / (1.0 - behind);
        decays_.push_back({poles[i] * piece, weight});
    }
    lineShift_ = square ? 0.0 : 2.0 * slopeShift * std::fabs(frequency_);
    smoothEdges_ = lowPassed;
}

bool Signal::fewHarmonics() const {
    return std::fabs(cyclesPerSample_) >= shortCycle;
}

void Signal::prepareFilter(const FrontEnd& frontEnd) {
    gain_ = format_.filter.gain();
    if (kind_ == WaveformKind::Sine) {
        sineGain_ = format_.gain(frequency_);
    } else if (kind_ == WaveformKind::Noise) {
        amplitude_ *= std::sqrt(std::min(1.0, format_.rate() / format_.baseClock)) * gain_;
    } else if (kind_ == WaveformKind::Square || kind_ == WaveformKind::Ramp) {
        if (fewHarmonics()) {
            prepareCycle(frontEnd);
        } else {
            prepareStepResponse();
        }
    }
    const double delay = static_cast<double>(format_.delay) / static_cast<double>(format_.period);
    settled_ = static_cast<uint64_t>(std::ceil(delay)) + stepReach;
}

// A filtered periodic signal depends on its phase alone: one period of it, from its harmonics.
void Signal::prepareCycle(const FrontEnd& frontEnd) {
    static const std::vector<double> sines = [] {
        std::vector<double> values(cycleGrid);
        for (size_t i = 0; i < cycleGrid; ++i) {
            values[i] = std::sin(twoPi * static_cast<double>(i) / cycleGrid);
        }
        return values;
    }();
    const bool square = kind_ == WaveformKind::Square;
    const double part = amplitude_ * (square ? 4.0 : -2.0) / std::numbers::pi;
    cycle_.assign(cycleGrid, 0.0);
    for (size_t k = 1; k == 1 || static_cast<double>(k) * std::fabs(cyclesPerSample_) <= harmonicReach;
         k += square ? 2 : 1) {
        const double hertz = static_cast<double>(k) * frequency_;
        const std::complex<double> weight =
            response(frontEnd, hertz) * (part * format_.gain(hertz) / static_cast<double>(k));
        for (size_t i = 0; i < cycleGrid; ++i) {
            cycle_[i] +=
                weight.real() * sines[k * i % cycleGrid] + weight.imag() * sines[(k * i + cycleGrid / 4) % cycleGrid];
        }
    }
}

double Signal::inCycle(double cycles) const {
    const double place = (cycles - std::floor(cycles)) * cycleGrid;
    const auto index = static_cast<size_t>(place);
    const double x = place - static_cast<double>(index);
    const double before = cycle_[(index + cycleGrid - 1) % cycleGrid];
    const double left = cycle_[index % cycleGrid];
    const double right = cycle_[(index + 1) % cycleGrid];
    const double after = cycle_[(index + 2) % cycleGrid];
    // The cubic through all four.
    const double third = (after - before) / 6.0 + (left - right) / 2.0;
    const double second = (before + right) / 2.0 - left;
    const double first = right - left - second - third;
    return left + x * (first + x * (second + x * third));
}

void Signal::prepareStepResponse() {
    const std::vector<double>& kernel = kernelIntegral();
    constexpr int centre = stepReach * stepGrid;
    constexpr int kernelCentre = kernelReach * stepGrid;
    stepResponse_.assign(2 * centre + 1, 0.0);
    const double total = format_.filter.sum() == 0 ? 1.0 : static_cast<double>(format_.filter.sum());
    for (int tap = -filterReach; tap <= filterReach; ++tap) {
        const int distance = tap < 0 ? -tap : tap;
        if (distance != 0 && distance % 2 == 0) {
            continue;
        }
        const double weight = format_.filter.coefficients[distance == 0 ? 32 : (63 - distance) / 2] / total;
        if (weight == 0.0) {
            continue;
        }
        // Taps lie half a sample apart.
        const int shift = tap * stepGrid / 2;
        for (int i = 0; i <= 2 * centre; ++i) {
            const int at = i - centre - shift + kernelCentre;
            if (at > 0) {
                stepResponse_[static_cast<size_t>(i)] +=
                    weight * (at < 2 * kernelCentre ? kernel[static_cast<size_t>(at)] : 1.0);
            }
        }
    }
}

template <typename Sample>
void Signal::fillTable(std::vector<Sample>& table, uint64_t period) {
    const uint64_t repeats = (shortestTable + period - 1) / period;
    table.resize(period * repeats);
    for (uint64_t i = 0; i < period; ++i) {
        table[i] = toCount<Sample>(valueAt(i));
    }
    for (uint64_t i = period; i < table.size(); ++i) {
        table[i] = table[i - period];
    }
}

void Signal::prepareTable() {
    const uint64_t period = wholePeriod(phaseStep_, format_.filtered ? longestTable32 : longestTable16);
    if (period != 0) {
        if (format_.filtered) {
            fillTable(table32_, period);
        } else {
            fillTable(table16_, period);
        }
        return;
    }
    if (kind_ == WaveformKind::Sine) {
        cosines_.resize(blockLength);
        sines_.resize(blockLength);
        for (size_t j = 0; j < blockLength; ++j) {
            const double angle = twoPi * toUnit(phaseStep_ * j);
            cosines_[j] = std::cos(angle);
            sines_[j] = std::sin(angle);
        }
    }
}

// The waveform itself around its offset, at a place of its period.
double Signal::shape(double cycles) const {
    const double place = cycles - std::floor(cycles);
    if (!decays_.empty()) {
        const bool square = kind_ == WaveformKind::Square;
        const bool second = square && place >= 0.5;
        const double along = square ? 2.0 * place - (second ? 1.0 : 0.0) : place;
        double value = square ? lineGain_ : lineGain_ * (2.0 * place - 1.0) + lineShift_;
        for (const Decay& decay : decays_) {
            const std::complex<double> exponent = decay.pole * along;
            if (exponent.real() > forgotten) {
                value += (decay.weight * std::exp(exponent)).real();
            }
        }
        return amplitude_ * (second ? -value : value);
    }
    switch (kind_) {
        case WaveformKind::Sine:
            return amplitude_ * std::sin(twoPi * place);
        case WaveformKind::Square:
            return place < 0.5 ? amplitude_ : -amplitude_;
        case WaveformKind::Ramp:
            return amplitude_ * (2.0 * place - 1.0);
        default:
            return 0.0;
    }
}

// What the filter's answer to a step of 1 lacks against the step itself.
double Signal::residue(double samplesBehindEdge) const {
    const double place = (samplesBehindEdge + stepReach) * stepGrid;
    const double step = samplesBehindEdge >= 0.0 ? 1.0 : 0.0;
    if (place <= 0.0 || place >= 2.0 * stepReach * stepGrid) {
        return 0.0;
    }
    const auto index = static_cast<size_t>(place);
    const double part = place - static_cast<double>(index);
    return stepResponse_[index] + part * (stepResponse_[index + 1] - stepResponse_[index]) - step;
}

double Signal::edges(double cycles) const {
    const double perSample = std::fabs(cyclesPerSample_);
    if (perSample == 0.0) {
        return 0.0;
    }
    const double direction = cyclesPerSample_ < 0.0 ? -1.0 : 1.0;
    const double reach = stepReach * perSample;
    double total = 0.0;
    const auto addEdges = [&](double place, double height) {
        // NOLINTNEXTLINE(clang-analyzer-security.FloatLoopCounter): a few steps of one, which are exact
        for (double edge = std::ceil(cycles - reach - place) + place; edge <= cycles + reach; edge += 1.0) {
            const double behind = direction * (cycles - edge) / perSample;
            total += direction * height * residue(behind);
        }
    };
    if (kind_ == WaveformKind::Square) {
        addEdges(0.0, 2.0 * amplitude_);
        addEdges(0.5, -2.0 * amplitude_);
    } else {
        addEdges(0.0, -2.0 * amplitude_);
    }
    return total;
}

double Signal::valueAt(uint64_t sample) const {
    const double cycles = toUnit(phase(sample));
    if (!format_.filtered) {
        return offset_ + shape(cycles);
    }
    if (kind_ == WaveformKind::Sine) {
        return gain_ * offset_ + sineGain_ * shape(cycles);
    }
    if (!cycle_.empty()) {
        return gain_ * offset_ + inCycle(cycles);
    }
    return gain_ * (offset_ + shape(cycles) + (smoothEdges_ ? 0.0 : edges(cycles)));
}

double Signal::settling(uint64_t sample) const {
    const double delay = static_cast<double>(format_.delay) / static_cast<double>(format_.period);
    double total = 0.0;
    for (int tap = -filterReach; tap <= filterReach; ++tap) {
        const int distance = tap < 0 ? -tap : tap;
        const double place = static_cast<double>(sample) - delay - 0.5 * tap;  // samples since the first instant
        if (place < 0.0 || (distance != 0 && distance % 2 == 0)) {
            continue;
        }
        const int32_t coefficient = format_.filter.coefficients[distance == 0 ? 32 : (63 - distance) / 2];
        const double value = offset_ + shape(startCycles_ + cyclesPerSample_ * place);
        total += coefficient * value;
    }
    return total / format_.filter.norm();
}

template <typename Sample>
void Signal::sine(uint64_t first, size_t count, Sample* samples) const {
    const double offset = format_.filtered ? gain_ * offset_ : offset_;
    const double amplitude = amplitude_ * sineGain_;
    while (count != 0) {
        const uint64_t block = first / blockLength;
        const size_t at = first % blockLength;
        const size_t piece = std::min(count, blockLength - at);
        const double angle = twoPi * toUnit(phase(block * blockLength));
        const double sineStart = amplitude * std::sin(angle);
        const double cosineStart = amplitude * std::cos(angle);
        const double* cosines = cosines_.data() + at;
        const double* sines = sines_.data() + at;
        for (size_t j = 0; j < piece; ++j) {
            samples[j] = toCount<Sample>(offset + sineStart * cosines[j] + cosineStart * sines[j]);
        }
        samples += piece;
        first += piece;
        count -= piece;
    }
}

// Square and ramp on the raw stream when their period does not repeat soon. The phase is exact at each block's start
// and within it good to 2^-32 of a cycle.
void Signal::edged(uint64_t first, size_t count, int16_t* samples) const {
    const auto step = static_cast<uint64_t>(phaseStep_ >> 64);
    const int16_t upper = toCount<int16_t>(offset_ + amplitude_);
    const int16_t lower = toCount<int16_t>(offset_ - amplitude_);
    const double scale = amplitude_ * 0x1p-31;
    while (count != 0) {
        const size_t at = first % blockLength;
        const size_t piece = std::min(count, blockLength - at);
        const uint64_t start = static_cast<uint64_t>(phase(first - at) >> 64) + step * at;
        if (kind_ == WaveformKind::Square) {
            for (size_t j = 0; j < piece; ++j) {
                samples[j] = (start + step * j) >> 63 == 0 ? upper : lower;
            }
        } else {
            for (size_t j = 0; j < piece; ++j) {
                const auto place = static_cast<uint32_t>((start + step * j) >> 32) ^ 0x80000000u;
                samples[j] = toCount<int16_t>(offset_ + scale * static_cast<int32_t>(place));
            }
        }
        samples += piece;
        first += piece;
        count -= piece;
    }
}

template <typename Sample>
void Signal::noise(uint64_t first, size_t count, Sample* samples) const {
    if constexpr (std::is_same_v<Sample, int16_t>) {
        // One hash serves four neighbours with 16 bits each.
        const double scale = amplitude_ * 0x1p-15;
        size_t i = 0;
        while (i < count) {
            const uint64_t number = first + i;
            uint64_t hash = mix(seed_ ^ (number / 4)) >> (16 * (number % 4));
            for (uint64_t lane = number % 4; lane < 4 && i < count; ++lane, ++i, hash >>= 16) {
                const auto bits = static_cast<int16_t>(static_cast<uint16_t>(hash));
                samples[i] = toCount<Sample>(offset_ + scale * (bits + 0.5));
            }
        }
    } else {
        for (size_t i = 0; i < count; ++i) {
            samples[i] = toCount<Sample>(gain_ * offset_ + amplitude_ * symmetric(mix(seed_ ^ ~(first + i))));
        }
    }
}

template <typename Sample>
void Signal::steady(uint64_t first, size_t count, Sample* samples) const {
    constexpr bool narrow = std::is_same_v<Sample, int16_t>;
    if constexpr (narrow) {
        if (!table16_.empty()) {
            repeat(table16_, first, count, samples);
            return;
        }
        if (debugCounter_) {
            for (size_t i = 0; i < count; ++i) {
                samples[i] = static_cast<int16_t>(static_cast<uint16_t>((first + i) * format_.decimation));
            }
            return;
        }
    } else {
        if (!table32_.empty()) {
            repeat(table32_, first, count, samples);
            return;
        }
    }
    switch (kind_) {
        case WaveformKind::Constant:
            std::fill_n(samples, count, toCount<Sample>((format_.filtered ? gain_ : 1.0) * offset_));
            break;
        case WaveformKind::Sine:
            sine(first, count, samples);
            break;
        case WaveformKind::Square:
        case WaveformKind::Ramp:
            if constexpr (narrow) {
                if (decays_.empty()) {
                    edged(first, count, samples);
                    break;
                }
            }
            for (size_t i = 0; i < count; ++i) {
                samples[i] = toCount<Sample>(valueAt(first + i));
            }
            break;
        case WaveformKind::Noise:
            noise(first, count, samples);
            break;
        case WaveformKind::Wav:
            if (!recording_ || recording_->empty()) {
                std::fill_n(samples, count, Sample(0));
            } else {
                if constexpr (narrow) {
                    if (fileGain_ == 1.0 && fileOffset_ == 0.0) {
                        repeat(*recording_, first, count, samples);
                        break;
                    }
                }
                size_t at = first % recording_->size();
                for (size_t i = 0; i < count; ++i) {
                    samples[i] = toCount<Sample>(fileGain_ * (*recording_)[at] + fileOffset_);
                    at = at + 1 == recording_->size() ? 0 : at + 1;
                }
            }
            break;
        case WaveformKind::Counter:
            if constexpr (narrow) {
                repeat(countingTable(), first, count, samples);
            } else {
                const auto start = static_cast<uint32_t>(first);
                for (size_t i = 0; i < count; ++i) {
                    samples[i] = static_cast<int32_t>(start + static_cast<uint32_t>(i));
                }
            }
            break;
    }
}

template <typename Sample>
void Signal::produce(uint64_t first, size_t count, Sample* samples) const {
    while (count != 0 && first < settled_) {
        if (kind_ == WaveformKind::Noise) {
            Sample whole = 0;
            noise(first, 1, &whole);
            *samples = toCount<Sample>(whole - gain_ * offset_ + settling(first));
        } else {
            *samples = toCount<Sample>(settling(first));
        }
        ++samples;
        ++first;
        --count;
    }
    if (count != 0) {
        steady(first, count, samples);
    }
}

void Signal::generate(uint64_t first, size_t count, int16_t* samples) const {
    produce(first, count, samples);
}

void Signal::generate(uint64_t first, size_t count, int32_t* samples) const {
    produce(first, count, samples);
}

}  // namespace kestrixsim
