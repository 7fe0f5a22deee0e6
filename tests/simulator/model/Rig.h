#pragma once

#include <cmath>
#include <complex>
#include <cstdint>
#include <numbers>
#include <vector>

#include "simulator/model/Instrument.h"
#include "simulator/model/Signal.h"

// The instrument with its time in the test's hand, and the few steps that every program takes on its registers and
// streams. Numbers are those of the hardware.
struct Rig {
    explicit Rig(kestrixsim::Scenario scenario) : instrument(std::move(scenario), [this] { return now; }) {}

    uint32_t word(uint64_t address) const { return instrument.registerWord(address); }

    // One access: take the page, change the word, give it back.
    void store(uint64_t address, uint32_t value) { instrument.storeWord(address, word(address), value); }

    void storeBits(uint64_t address, uint32_t mask, uint32_t value) { store(address, (word(address) & ~mask) | value); }

    static uint64_t module(int m) { return 0xA0000000 + (static_cast<uint64_t>(m) << 16); }

    void raw(int m, uint32_t decimation);                           // decimation and endless length
    void filtered(int m, uint32_t halfBands, uint64_t ratio);       // coefficients, ratio and stages
    void enable(int m, kestrixsim::Stream stream, bool on = true);  // RAWEN, FILTEN

    int control(int m, kestrixsim::Stream stream, unsigned long request, unsigned long argument = 0) {
        return instrument.dmaIoctl(m, stream, request, argument);
    }
    void open(int m, kestrixsim::Stream stream, int descriptorSize);      // sizes, memory; fails the test
    void transfer(int m, kestrixsim::Stream stream, int descriptorSize);  // opened, enabled and started
    void convert(uint32_t moduleMask);                                    // manual start of these modules

    // Whatever a read of at most `bytes` brings; the result of the call in `result`.
    template <typename Sample>
    std::vector<Sample> read(int m, kestrixsim::Stream stream, size_t bytes) {
        std::vector<Sample> samples(bytes / sizeof(Sample));
        result = instrument.dmaRead(m, stream, samples.data(), bytes);
        samples.resize(result > 0 ? static_cast<size_t>(result) / sizeof(Sample) : 0);
        return samples;
    }

    // Bytes to the amplifier that the multiplexer selects, and what comes back within 5 s of the rig's time.
    std::vector<uint8_t> exchange(const std::vector<uint8_t>& bytes);
    // Command and payload; status and data of the answer. Empty if that is no frame.
    std::vector<uint8_t> ask(std::vector<uint8_t> request);
    float number(uint8_t command);  // the answer as a number
    void select(int slot);

    double now = 1000.0;
    ssize_t result = 0;
    kestrixsim::Instrument instrument;
};

constexpr unsigned long setCount = 0x40064C01;
constexpr unsigned long setSize = 0x40064C03;
constexpr unsigned long reserve = 0x40064C05;
constexpr unsigned long reserveUsb = 0x40064C0B;
constexpr unsigned long startTransfer = 0x40064C08;
constexpr unsigned long startUsb = 0x00064C0C;
constexpr unsigned long stopTransfer = 0x40064C09;
constexpr unsigned long stopUsb = 0x00064C0D;

// The filter that every program writes: 33 words, lowest tap first.
extern const kestrixsim::HalfBand usualFilter;

template <typename Sample>
std::vector<Sample> samplesOf(const kestrixsim::Signal& signal, uint64_t first, size_t count) {
    std::vector<Sample> samples(count);
    signal.generate(first, count, samples.data());
    return samples;
}

// Complex amplitude of a sine in whole periods of samples.
template <typename Sample>
std::complex<double> amplitudeOf(const std::vector<Sample>& samples, double cyclesPerSample) {
    std::complex<double> sum;
    for (size_t i = 0; i < samples.size(); ++i) {
        const double cycles = std::fmod(cyclesPerSample * static_cast<double>(i), 1.0);
        sum += std::polar(static_cast<double>(samples[i]), -2.0 * std::numbers::pi * cycles);
    }
    return sum * 2.0 / static_cast<double>(samples.size()) * std::complex<double>(0.0, 1.0);
}
