#include <gtest/gtest.h>

#include <cerrno>
#include <numeric>

#include "tests/simulator/model/Rig.h"

using namespace kestrixsim;

namespace {

TEST(Streams, descriptorIsReadyWhenItsLastSampleIs) {
    // MHz of the clock, decimation or half-bands, ratio, samples a second, bytes of a descriptor.
    const std::tuple<const char*, Stream, int, uint32_t, uint64_t, double, int> cases[] = {
        {"15 MHz raw", Stream::Raw, 15, 1, 0, 15e6, 937500},
        {"decimation zero", Stream::Raw, 15, 0, 0, 15e6, 937500},
        {"1 kHz raw", Stream::Raw, 15, 15000, 0, 1000.0, 248},
        {"100 Hz of 10 MHz raw", Stream::Raw, 10, 100000, 0, 100.0, 24},
        {"1.875 MHz", Stream::Filtered, 15, 1, 0, 1875000.0, 200000},
        {"1 MHz", Stream::Filtered, 15, 1, 240518168576, 1e6, 200000},
        {"50 kHz", Stream::Filtered, 15, 6, 47244640256, 50000.0, 25000},
        {"100 Hz", Stream::Filtered, 15, 15, 39694893056, 100.0, 48},
        {"16 kHz of 10 MHz", Stream::Filtered, 10, 7, 60666413056, 16000.0, 8000},
        {"10 Hz has wrapped stages", Stream::Filtered, 15, 0, 118338093056, 2621440.0, 4000}};
    for (const auto& [name, stream, clock, decimation, ratio, rate, descriptorSize] : cases) {
        SCOPED_TRACE(name);
        Rig rig(Scenario::counters(1));
        if (clock == 10) {
            rig.instrument.runCommand("/opt/harvane/scripts/vcxo_control.sh set_clock 10");
            rig.storeBits(0xB0000000, 7, 3);
        }
        const bool raw = stream == Stream::Raw;
        if (raw) {
            rig.raw(0, decimation);
        } else {
            rig.filtered(0, decimation, ratio);
        }
        const size_t size = static_cast<size_t>(descriptorSize);
        rig.transfer(0, stream, descriptorSize);
        std::vector<uint8_t> buffer(20 * size);
        const auto read = [&, from = stream] { return rig.instrument.dmaRead(0, from, buffer.data(), buffer.size()); };
        rig.now += 10.0;
        EXPECT_EQ(-EAGAIN, read()) << "nothing converts yet";
        rig.convert(1);
        const double samples = static_cast<double>(size) / (raw ? 2 : 4);
        const double start = rig.now;
        rig.now = start + (samples - 0.5) / rate;
        EXPECT_EQ(-EAGAIN, read());
        rig.now = start + samples / rate;
        EXPECT_EQ(descriptorSize, read());
        EXPECT_EQ(-EAGAIN, read());
        rig.now = start + 4.5 * samples / rate;
        EXPECT_EQ(3 * descriptorSize, read());
        // Half a million descriptors later the place is still right.
        rig.now = start + (500000.0 * samples - 0.25) / rate;
        read();
        rig.now = start + (500000.0 * samples + 0.25) / rate;
        EXPECT_EQ(descriptorSize, read());
    }
}

// One raw stream of 1 kHz with descriptors of 100 samples, converting.
struct RawStream : testing::Test {
    void prepare(Scenario scenario = Scenario::counters(1)) {
        rig = std::make_unique<Rig>(std::move(scenario));
        rig->raw(0, 15000);
        rig->transfer(0, Stream::Raw, 200);
        rig->convert(1);
    }

    std::vector<int16_t> read(size_t bytes = 100000) { return rig->read<int16_t>(0, Stream::Raw, bytes); }

    static std::vector<int16_t> counting(int first, size_t count) {
        std::vector<int16_t> numbers(count);
        std::iota(numbers.begin(), numbers.end(), static_cast<int16_t>(first));
        return numbers;
    }

    std::unique_ptr<Rig> rig;
};

TEST_F(RawStream, fullRingDropsNewDescriptorsAndCountsThem) {
    prepare();
    rig->now += 2.05;
    EXPECT_EQ(counting(0, 800), read(1600));
    EXPECT_EQ(400u, rig->instrument.statistics(0, Stream::Raw).samplesDropped);
    // Eight descriptors are left; the next ones follow with the gap between.
    rig->now += 0.3;
    std::vector<int16_t> expected = counting(800, 800);
    const std::vector<int16_t> later = counting(2000, 300);
    expected.insert(expected.end(), later.begin(), later.end());
    EXPECT_EQ(expected, read());
}

TEST_F(RawStream, timeFactorAndOscillatorErrorChangeTheRate) {
    Scenario scenario = Scenario::counters(1);
    scenario.timeFactor = 10.0;
    scenario.oscillatorErrorPpm = -500.0;
    prepare(scenario);
    rig->now += 0.1;
    EXPECT_EQ(900u, read().size());
    rig->now += 0.00006;
    EXPECT_EQ(100u, read().size());
}

TEST_F(RawStream, finishedDescriptorsStayReadableBetweenStopOfConversionAndStopOfTransfer) {
    prepare();
    rig->now += 0.45;
    rig->storeBits(0xA0200000, 1, 0);
    rig->now += 1.0;
    EXPECT_EQ(counting(0, 200), read(400));
    EXPECT_EQ(0, rig->control(0, Stream::Raw, stopTransfer));
    EXPECT_TRUE(read().empty());
    EXPECT_EQ(-EAGAIN, rig->result);
    // The next start begins at sample 0 again.
    EXPECT_EQ(0, rig->control(0, Stream::Raw, startTransfer));
    rig->now += 1.0;
    rig->convert(1);
    rig->now += 0.1;
    EXPECT_EQ(counting(0, 100), read());
}

TEST_F(RawStream, clearEmptiesTheChain) {
    prepare();
    rig->now += 0.25;
    rig->store(0xA0000120, 1);
    EXPECT_TRUE(read().empty());
    rig->now += 0.1;
    EXPECT_EQ(counting(0, 100), read());
}

TEST_F(RawStream, rateIsLatchedWhenTheStreamIsEnabled) {
    prepare();
    rig->store(0xA000010C, 150);
    rig->now += 0.1;
    EXPECT_EQ(100u, read().size());
    rig->enable(0, Stream::Raw, false);
    rig->enable(0, Stream::Raw);
    rig->now += 0.01;
    EXPECT_EQ(1000u, read().size());
}

TEST_F(RawStream, clockIsNotLatched) {
    prepare();
    rig->now += 0.1;
    EXPECT_EQ(100u, read().size());
    rig->instrument.runCommand("/opt/harvane/scripts/vcxo_control.sh set_clock 10");
    rig->now += 1.0;
    EXPECT_TRUE(read().empty()) << "PLL and oscillator do not fit: no clock";
    EXPECT_EQ(0u, rig->word(0xA0200004) >> 16);
    rig->storeBits(0xB0000000, 7, 3);
    rig->now += 0.3;
    EXPECT_EQ(200u, read().size()) << "the same decimation of 10 MHz";
}

TEST_F(RawStream, shortReads) {
    prepare();
    rig->now += 0.35;
    rig->instrument.inject({.kind = FaultKind::DmaShortRead, .target = 0});
    EXPECT_EQ(counting(0, 200), read());
    EXPECT_EQ(counting(200, 100), read());
    rig->now += 0.2;
    rig->instrument.inject({.kind = FaultKind::DmaShortRead, .target = 0, .code = 1});
    EXPECT_EQ(counting(300, 150), read());
    EXPECT_TRUE(read(98).empty());
    EXPECT_EQ(-EINVAL, rig->result);
    EXPECT_EQ(counting(450, 50), read(100));
    EXPECT_TRUE(read().empty());
}

TEST(Streams, requestsInTheWrongOrder) {
    Rig rig(Scenario::counters(1));
    struct Call {
        int result;
        unsigned long request;
        unsigned long argument = 0;
    };
    const auto expect = [&](const std::vector<Call>& calls) {
        for (const Call& call : calls) {
            EXPECT_EQ(call.result, rig.control(0, Stream::Filtered, call.request, call.argument))
                << std::hex << call.request << " " << std::dec << call.argument;
        }
    };
    // Neither memory nor size; then a size that splits a sample, which passes while the stream is not enabled; then
    // memory of the other mode; and nothing is changed while it runs, nor stopped in the other mode.
    expect({{-EINVAL, startTransfer},
            {-EINVAL, reserve},
            {-EINVAL, setSize, 0},
            {-EINVAL, setCount, 0},
            {0, setCount, 16},
            {0, setSize, 234375},
            {0, reserve, 0xBADBADBAD},
            {-EINVAL, startUsb},
            {0, startTransfer},
            {-EBUSY, startTransfer},
            {-EBUSY, setSize, 400},
            {-EBUSY, setCount, 16},
            {-EBUSY, reserve},
            {-EINVAL, stopUsb},
            {-EBUSY, setSize, 400},
            {0, stopTransfer},
            {0, stopTransfer}});
    rig.filtered(0, 1, 0);
    rig.enable(0, Stream::Filtered);
    // Now the size matters, and a new one has no memory yet.
    expect({{-EINVAL, startTransfer}, {0, setSize, 400}, {-EINVAL, startTransfer}, {0, reserveUsb}, {0, startUsb}});
    rig.convert(1);
    rig.now += 1.0;
    uint8_t bytes[4000];
    EXPECT_EQ(-EAGAIN, rig.instrument.dmaRead(0, Stream::Filtered, bytes, sizeof bytes)) << "the data goes elsewhere";
    expect({{-EINVAL, stopTransfer}, {0, stopUsb}, {-ENOTTY, 0x40064C02}});
}

TEST(Streams, modulesOfOneMaskStartTogetherAndOthersDoNot) {
    Rig rig(Scenario::counters(3));
    for (int m = 0; m < 3; ++m) {
        rig.raw(m, 15000);
        rig.transfer(m, Stream::Raw, 2);
    }
    rig.convert(5);
    rig.now += 0.01;
    EXPECT_EQ(0x50000u, rig.word(0xA0200004) & 0xFF0000);
    for (int m = 0; m < 3; ++m) {
        EXPECT_EQ(m == 1 ? 0u : 10u, rig.read<int16_t>(m, Stream::Raw, 100).size()) << m;
    }
}

TEST(Streams, triggerOfTheTimingCoreStartsAtTheSecond) {
    Rig rig(Scenario::counters(1));
    rig.raw(0, 15000);
    rig.transfer(0, Stream::Raw, 20);
    rig.now += 0.4;
    const double second = rig.now + rig.instrument.timingState().nextSecond;
    rig.store(0xA0200004, 0x100);
    rig.storeBits(0xA0200000, 1, 1);
    rig.store(0xA3000018, 1);
    rig.now = second - 0.001;
    EXPECT_EQ(0u, rig.read<int16_t>(0, Stream::Raw, 1000).size());
    EXPECT_EQ(0u, rig.word(0xA0200004) >> 16);
    rig.now = second + 0.055;
    EXPECT_EQ(50u, rig.read<int16_t>(0, Stream::Raw, 1000).size());
    EXPECT_EQ(1u, rig.word(0xA0200004) >> 16);
    rig.store(0xA3000018, 0);
    rig.now += 1.0;
    EXPECT_EQ(0u, rig.read<int16_t>(0, Stream::Raw, 1000).size());
}

TEST(Streams, debugCounterTakesThePlaceOfTheConverter) {
    Rig rig(Scenario::standard());
    rig.raw(0, 150);
    rig.filtered(0, 1, 0);
    rig.transfer(0, Stream::Raw, 2000);
    rig.transfer(0, Stream::Filtered, 4000);
    rig.store(0xA0200004, 1);
    rig.storeBits(0xA0200078, 0x01010000, 0x01010000);
    rig.now += 0.1;
    // 8 ticks a filtered sample, 349 ticks late, far from the step of the 16-bit counter.
    const auto raw = rig.read<int16_t>(0, Stream::Raw, 4000);
    const auto filtered = rig.read<int32_t>(0, Stream::Filtered, 4000);
    ASSERT_EQ(2000u, raw.size());
    ASSERT_EQ(1000u, filtered.size());
    for (size_t n = 100; n < filtered.size(); ++n) {
        ASSERT_EQ(static_cast<int16_t>(n * 150), raw[n]) << n;
        ASSERT_NEAR((8.0 * static_cast<double>(n) - 349.0) * 65536.0, filtered[n], 2.0) << n;
    }
}

}  // namespace
