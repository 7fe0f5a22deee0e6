#include "tests/simulator/model/Rig.h"

#include <gtest/gtest.h>

#include <cstring>

using kestrixsim::I2cMessage;
using kestrixsim::Stream;

const kestrixsim::HalfBand usualFilter{
    {0,       0,      -936,     1672,    -3128,    5344,    -8608,    13224,   -19576,   28128,    -39376,
     53936,   -72464, 95728,    -124600, 160056,   -203232, 255440,   -318272, 393664,   -484080,  592792,
     -724312, 885184, -1085360, 1340904, -1679632, 2154288, -2878224, 4146832, -7044560, 21336000, 33554432}};

void Rig::raw(int m, uint32_t decimation) {
    store(module(m) + 0x10C, decimation);
    store(module(m) + 0x130, 0xFFFFFFFF);
}

void Rig::filtered(int m, uint32_t halfBands, uint64_t ratio) {
    for (size_t k = 0; k < usualFilter.coefficients.size(); ++k) {
        store(module(m) + 4 * k, static_cast<uint32_t>(usualFilter.coefficients[k]) & 0x07FFFFFF);
    }
    store(module(m) + 0x100, static_cast<uint32_t>(ratio));
    store(module(m) + 0x104, static_cast<uint32_t>(ratio >> 32));
    store(module(m) + 0x108, halfBands);
}

void Rig::enable(int m, Stream stream, bool on) {
    const uint32_t bit = stream == Stream::Raw ? 2 : 1;
    storeBits(module(m) + 0x124, bit, on ? bit : 0);
}

void Rig::open(int m, Stream stream, int descriptorSize) {
    ASSERT_EQ(0, instrument.dmaOpen(m, stream));
    ASSERT_EQ(0, control(m, stream, setCount, 16));
    ASSERT_EQ(0, control(m, stream, setSize, static_cast<unsigned long>(descriptorSize)));
    ASSERT_EQ(0, control(m, stream, reserve));
}

void Rig::transfer(int m, Stream stream, int descriptorSize) {
    open(m, stream, descriptorSize);
    enable(m, stream);
    ASSERT_EQ(0, control(m, stream, startTransfer));
}

void Rig::convert(uint32_t moduleMask) {
    storeBits(0xA0200004, 0xFF, moduleMask);
    storeBits(0xA0200000, 1, 1);
}

void Rig::select(int slot) {
    uint8_t off[2] = {0, 0};
    uint8_t on[2] = {0, static_cast<uint8_t>(1 << slot)};
    I2cMessage messages[] = {{0x4D, false, off, 2}, {0x4F, false, off, 2}, {0x4D, false, on, 2}, {0x4F, false, on, 2}};
    ASSERT_EQ(4, instrument.i2cTransfer(messages, 4));
}

std::vector<uint8_t> Rig::exchange(const std::vector<uint8_t>& bytes) {
    instrument.uartFlush();
    instrument.uartWrite(bytes.data(), bytes.size());
    std::vector<uint8_t> reply;
    int silence = 0;  // ms behind the last byte
    for (int i = 0; i < 5000 && silence < 3; ++i) {
        now += 0.001;
        uint8_t part[256];
        const ssize_t count = instrument.uartRead(part, sizeof part, 0);
        reply.insert(reply.end(), part, part + count);
        silence = reply.empty() || count > 0 ? 0 : silence + 1;
    }
    return reply;
}

std::vector<uint8_t> Rig::ask(std::vector<uint8_t> request) {
    request.insert(request.begin(), {0xA5, static_cast<uint8_t>(request.size())});
    request.push_back(0x5A);
    const std::vector<uint8_t> reply = exchange(request);
    if (reply.size() < 4 || reply[0] != 0xA5 || reply[1] + 3u != reply.size() || reply.back() != 0x5A) {
        return {};
    }
    return {reply.begin() + 2, reply.end() - 1};
}

float Rig::number(uint8_t command) {
    const std::vector<uint8_t> reply = ask({command});
    float value = NAN;
    if (reply.size() == 5) {
        std::memcpy(&value, reply.data() + 1, 4);
    }
    return value;
}
