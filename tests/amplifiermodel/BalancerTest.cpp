#include <chrono>

#include <zorn/types/object_impl.h>

#include "modules/daq/amplifier/AmplifierBridgeBalancer.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "tests/amplifiermodel/TestAmplifiers.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;
using namespace std::chrono_literals;

namespace {

// The host's lock, which says who comes by.
class TestLock final : public ObjectImpl<IAcquisitionSync> {
public:
    explicit TestLock(Journal& journal) : journal_(journal) {}
    ErrCode lock() override {
        if (failLock) {
            return makeError(Errors::InvalidState, "locked for good");
        }
        mutex_.lock();
        journal_.add("lock");
        return Errors::Success;
    }
    ErrCode unlock() override {
        journal_.add("unlock");
        mutex_.unlock();
        return failUnlock ? makeError(Errors::InvalidState, "can't unlock") : Errors::Success;
    }
    bool failLock = false;
    bool failUnlock = false;

private:
    Journal& journal_;
    std::mutex mutex_;
};

// With an excitation of 1 V the device ranges reach to 10000 and 1000 around the offset; the chosen one is +-900, so
// that the small range fits for offsets up to 100.
struct BalancerTest : testing::Test {
    BalancerTest() { plugIn(); }
    void plugIn() {
        amplifier = std::make_shared<TestAmplifier>();
        lock = ObjectPtr<TestLock>::take(new TestLock(amplifier->journal));
        amplifier->edit([](AmplifierSettings& settings) {
            settings.measurements = {"Bridge"};
            settings.ranges = {"900"};
            settings.deviceRanges = {10.0, 1.0};
            settings.excitationValue = 1.0;
        });
        device = makePair(amplifier, {9.0f, 1.0f});
    }
    ~BalancerTest() override {
        // The threads outlive what started them; the next test must not meet this one's.
        EXPECT_TRUE(eventually([this] { return zornSharedLibObjectCount.load() <= before; }));
    }

    AcquisitionSyncPtr sync() const { return ObjectPtr<IAcquisitionSync>(lock.get()); }
    AmplifierBridgeBalancer balancer(std::chrono::nanoseconds settleTime = 0ns) const {
        return AmplifierBridgeBalancer(sync(), settleTime);
    }
    void runToItsEnd(AmplifierBridgeBalancer& one) const {
        ASSERT_TRUE(one.balanceAmplifier(amplifier));
        ASSERT_TRUE(eventually([&] { return !one.isBalancingRunning(); }));
        EXPECT_TRUE(eventually([this] { return zornSharedLibObjectCount.load() <= before; }));
    }
    std::shared_ptr<AIChannel> channel(int index) const { return device->getAIChannel(index); }

    LogCapture log;
    std::shared_ptr<TestAmplifier> amplifier;
    ObjectPtr<TestLock> lock;
    std::shared_ptr<AIDevice> device;
    // With the lock, which is an object of this program and so is counted.
    const uint64_t before = zornSharedLibObjectCount.load() + 1;
};

// What the host and the hardware notice of a balancing that switches to these ranges.
Texts noticed(const std::vector<int>& switches) {
    Texts entries = {"lock", "unlock"};
    for (const int range : switches) {
        const Texts more = {"range " + std::to_string(range), "lock", "calibration", "unlock", "lock", "unlock"};
        entries.insert(entries.end(), more.begin(), more.end());
    }
    return entries;
}

TEST_F(BalancerTest, PassesSwitchesAndReadings) {
    struct Row {
        const char* what;
        std::deque<double> live;
        std::vector<int> switches;
        double offset;
        bool offsetIsBridgeOffset = false;
        const char* measurement = "Bridge";
    };
    const Row rows[] = {
        {"the range stays: no switch, but the offset has moved", {60.0}, {}, -60.0},
        {"on the instrument every pass takes the same value off again", {-500.0, -500.0}, {0}, 1000.0},
        {"a range that changes on each pass ends", {-500.0, 500.0, -500.0, 500.0, 77.0}, {0, 1, 0}, 0.0},
        {"with the offset in the live value it converges", {500.0, 500.0}, {0}, -500.0, true},
        {"for other measurements the range is the chosen one", {5000.0}, {}, -5000.0, false, "Voltage"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        amplifier->bridgeOffset = 0.0;
        amplifier->scales = row.live;
        amplifier->edit([&](AmplifierSettings& settings) { settings.measurements = {row.measurement}; });
        amplifier->offsetIsBridgeOffset = row.offsetIsBridgeOffset;
        amplifier->journal.take();
        auto one = balancer();
        testing::internal::CaptureStdout();
        one.startBalancing(amplifier);
        std::string expected = "BALANCING START\nINITIAL BALANCING...\n";
        for (size_t i = 0; i < row.switches.size(); ++i) {
            expected += "DEVICE SWITCH BALANCING...\n";
        }
        EXPECT_EQ(testing::internal::GetCapturedStdout(), expected + "BALANCING END\n");
        EXPECT_EQ(amplifier->journal.take(), noticed(row.switches));
        EXPECT_DOUBLE_EQ(amplifier->bridgeOffset.load(), row.offset);
        EXPECT_FALSE(one.isBalancingRunning());
    }
}

TEST_F(BalancerTest, WaitsASecondBehindASwitch) {
    amplifier->scales = {-500.0, 0.0};
    const auto start = std::chrono::steady_clock::now();
    AmplifierBridgeBalancer(sync()).startBalancing(amplifier);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_EQ(amplifier->journal.take(), noticed({0}));
}

TEST_F(BalancerTest, LiveValueIsTheNewestSampleByTheAmplifiersScale) {
    auto one = balancer();
    // Ring of four, six samples: the newest stands in slot 1.
    const float samples[] = {2.0f, 3.0f, 4.0f, 5.5f};
    for (const float sample : samples) {
        channel(1)->buffer->addSample(&sample);
    }
    channel(1)->scale = 1000.0;  // the channel's own scaling has no part in it
    amplifier->scales = {2.0};
    amplifier->offsetIsBridgeOffset = true;
    amplifier->bridgeOffset = 0.25;
    EXPECT_DOUBLE_EQ(one.getCurrentAmplChValue(amplifier), 11.25);

    // An integer channel counts in steps of its range: 65536 of them from -20 to 20.
    amplifier->edit([](AmplifierSettings& settings) {
        settings.minValues = {-20.0};
        settings.maxValues = {20.0};
    });
    channel(1)->createChannelBuffer<short>();
    channel(1)->resolution = 16;
    channel(1)->buffer->setCapacity(2);
    const short raw = -16384;
    channel(1)->buffer->addSample(&raw);
    amplifier->scales = {2.0};
    EXPECT_DOUBLE_EQ(one.getCurrentAmplChValue(amplifier), -19.75);

    // The amplifier's index is that of the filtered channel, which needn't be in use.
    channel(1)->active = false;
    EXPECT_DOUBLE_EQ(one.getCurrentAmplChValue(amplifier), 1.25);
    channel(1)->active = true;
    channel(1)->buffer->setCapacity(0);
    EXPECT_DOUBLE_EQ(one.getCurrentAmplChValue(amplifier), 1.25);
}

// Whatever is wrong ends the balancing with a line and changes nothing; the lock is free again, and so is the next try.
TEST_F(BalancerTest, FailuresStayInTheThread) {
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"failed (AI 2/Raw input): none of its channels has samples.",
         [&] { channel(0)->active = channel(1)->active = false; }},
        {"none of its channels has samples.",
         [&] {
             channel(0)->buffer->setCapacity(0);
             channel(1)->buffer->setCapacity(8);
         }},
        {"none of its channels has samples.",
         [&] {
             channel(0)->amplifier = std::make_shared<TestAmplifier>();
             channel(1)->buffer.reset();
         }},
        {"no acquisition is running.", [&] { device->acqRunning = false; }},
        {"its device is gone.", [&] { device.reset(); }},
        {"the range \"ten\" is no number.",
         [&] { amplifier->edit([](AmplifierSettings& settings) { settings.ranges = {"ten"}; }); }},
        {"the range \"\" is no number.",
         [&] { amplifier->edit([](AmplifierSettings& settings) { settings.rangeIndex = 5; }); }},
        {"vector", [&] { amplifier->index = 2; }},
        {"locked for good", [&] { lock->failLock = true; }},
        {"can't unlock", [&] { lock->failUnlock = true; }},
        {"an unknown failure.", [&] { amplifier->onScale = [] { throw 17; }; }},
    };
    for (const auto& [text, spoil] : rows) {
        SCOPED_TRACE(text);
        plugIn();
        spoil();
        log.entries.clear();
        auto one = balancer();
        one.setChannelName("AI 2/Raw input");
        runToItsEnd(one);
        const auto messages = log.take();
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_NE(messages[0].find(text), std::string::npos) << messages[0];
        EXPECT_EQ(amplifier->bridgeOffset, 0.0);
        lock->failLock = false;
        EXPECT_EQ(lock->lock(), Errors::Success);
        lock->failUnlock = false;
        EXPECT_EQ(lock->unlock(), Errors::Success);
        runToItsEnd(one);
    }
    AmplifierBridgeBalancer withoutALock{AcquisitionSyncPtr()};
    EXPECT_THROW(withoutALock.getCurrentAmplChValue(amplifier), InvalidParameterException);
}

// Whatever happens to the acquisition while the samples of a new range are waited for: its samples, or none.
TEST_F(BalancerTest, EndsWithItsAcquisition) {
    const std::function<void()> ends[] = {
        [&] { device->acqRunning = false; },
        [&] { ++channel(1)->run; },  // stopped, and started anew
        [&] { channel(1)->active = false; },
        [&] { channel(0)->active = channel(1)->active = false; },
    };
    for (size_t i = 0; i < std::size(ends); ++i) {
        SCOPED_TRACE(i);
        plugIn();
        amplifier->scales = {-500.0};
        amplifier->onRange = ends[i];
        auto one = balancer();
        one.setChannelName("AI 2/Raw input");
        EXPECT_EQ(one.result(), "");
        runToItsEnd(one);
        EXPECT_EQ(log.take(warning),
                  Texts{"Balancing of an amplifier stopped (AI 2/Raw input): its acquisition has ended."});
        EXPECT_EQ(one.result(), "stopped: its acquisition has ended.");
        EXPECT_EQ(amplifier->bridgeOffset, 500.0) << "the samples of its own acquisition";
        amplifier->onRange = {};
        device->acqRunning = channel(1)->active = true;
        runToItsEnd(one);
        EXPECT_EQ(one.result(), "balanced");
    }
}

// Another range that is asked for meanwhile is for the next balancing.
TEST_F(BalancerTest, WorksByTheSettingsThatItBeganWith) {
    amplifier->scales = {-500.0, 500.0};
    amplifier->onRange = [&] { amplifier->edit([](AmplifierSettings& settings) { settings.ranges = {"99999"}; }); };
    auto one = balancer();
    one.startBalancing(amplifier);
    EXPECT_EQ(amplifier->journal.take(), noticed({0, 1}));
}

TEST_F(BalancerTest, StopEndsTheWaitAndNobodyWaitsForIt) {
    amplifier->scales = {-500.0};
    std::weak_ptr<TestAmplifier> watch = amplifier;
    {
        auto one = balancer(1h);
        ASSERT_TRUE(one.balanceAmplifier(amplifier));
        Texts seen;
        ASSERT_TRUE(eventually([&] {
            const Texts more = amplifier->journal.take();
            seen.insert(seen.end(), more.begin(), more.end());
            return seen.size() == noticed({0}).size() - 2;  // waits before the second reading
        }));
        EXPECT_TRUE(one.isBalancingRunning());
        one.stop();
        EXPECT_FALSE(one.balanceAmplifier(amplifier));
    }
    amplifier.reset();
    device.reset();
    lock.release();
    EXPECT_TRUE(eventually([&] { return watch.expired(); }));
    // The lock of this test went too.
    EXPECT_TRUE(eventually([this] { return zornSharedLibObjectCount.load() < before; }));
    EXPECT_TRUE(log.take().empty());
}

}  // namespace
