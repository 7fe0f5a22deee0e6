#include "tests/simulator/model/Rig.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

using kestrixsim::I2cMessage;
using kestrixsim::Stream;

const std::vector<int32_t> halfBandWords = {
    0,      0,       -936,   1672,    -3128,  5344,    -8608,  13224,    -19576,  28128,    -39376,
    53936,  -72464,  95728,  -124600, 160056, -203232, 255440, -318272,  393664,  -484080,  592792,
    -724312, 885184, -1085360, 1340904, -1679632, 2154288, -2878224, 4146832, -7044560, 21336000, 33554432};

void Rig::coefficients(int m) {
    for (size_t k = 0; k < halfBandWords.size(); ++k) {
        store(module(m) + 4 * k, static_cast<uint32_t>(halfBandWords[k]) & 0x07FFFFFF);
    }
}

void Rig::raw(int m, uint32_t decimation) {
    store(module(m) + 0x10C, decimation);
    store(module(m) + 0x130, 0xFFFFFFFF);
}

void Rig::filtered(int m, uint32_t halfBands, uint64_t ratio) {
    coefficients(m);
    store(module(m) + 0x100, static_cast<uint32_t>(ratio));
    store(module(m) + 0x104, static_cast<uint32_t>(ratio >> 32));
    store(module(m) + 0x108, halfBands);
}

void Rig::enable(int m, bool rawStream, bool filteredStream) {
    storeBits(module(m) + 0x124, 2, rawStream ? 2 : 0);
    storeBits(module(m) + 0x124, 1, filteredStream ? 1 : 0);
}

void Rig::open(int m, Stream stream, int descriptorSize) {
    ASSERT_EQ(0, instrument.dmaOpen(m, stream));
    ASSERT_EQ(0, control(m, stream, setCount, 16));
    ASSERT_EQ(0, control(m, stream, setSize, static_cast<unsigned long>(descriptorSize)));
    ASSERT_EQ(0, control(m, stream, reserve));
}

void Rig::start(int m, Stream stream) {
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
