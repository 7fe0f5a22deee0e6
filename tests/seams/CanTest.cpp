#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "modules/daq/can/CANSocketDevice.h"
#include "modules/daq/objectmodel/CanMessage.h"
#include "tests/seams/Station.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

// A module beside CAN buses, on the machine's time.
class SeamCanTest : public testing::Test, protected ModuleInHost {
protected:
    ~SeamCanTest() override { release(); }

    // Frames that carry their number, on each of so many buses.
    static kestrixsim::Scenario withTraffic(int ports, double period, std::uint32_t bitrate) {
        kestrixsim::Scenario scenario = Station::slots(2);
        scenario.canPorts = static_cast<std::uint16_t>(0xFFFF0000 >> ports);
        scenario.can.buses.resize(static_cast<size_t>(ports));
        for (int i = 0; i < ports; ++i) {
            auto& bus = scenario.can.buses[static_cast<size_t>(i)];
            bus.bitrate = bitrate;
            kestrixsim::CanCyclicScenario cyclic;
            cyclic.frame.id = static_cast<std::uint32_t>(i + 1);
            cyclic.frame.length = 4;
            cyclic.periodSeconds = period;
            cyclic.counter = true;
            bus.cyclic.push_back(cyclic);
        }
        return scenario;
    }
    static std::string nameOf(int port, const char* direction) {
        return "CAN Port " + std::to_string(port + 1) + " " + direction;
    }
    std::vector<ChannelPtr<>> named(std::initializer_list<const char*> names) const {
        std::vector<ChannelPtr<>> found;
        for (const char* name : names) {
            found.push_back(channel(name));
        }
        return found;
    }
    void cyclesFor(double seconds) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end) {
            ASSERT_EQ(cycle(), "");
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    static CanMessage messageAt(const ChannelBufferPtr<>& buffer, std::uint64_t number) {
        CanMessage message;
        std::memcpy(&message, buffer.getSample(number % buffer.getCapacity()), sizeof message);
        return message;
    }
    static std::uint32_t numberIn(const CanMessage& message) {
        std::uint32_t number = 0;
        std::memcpy(&number, message.data, sizeof number);
        return number;
    }
};

TEST_F(SeamCanTest, AMillionFramesOnceEachAndInOrder) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr std::uint64_t framesOfAPort = 10000;
#else
    constexpr std::uint64_t framesOfAPort = 125000;
#endif
    constexpr int ports = 8;
    static std::atomic<double> now{0.0};
    now = 0.0;
    kestrixsim::reset(withTraffic(ports, 125e-6, 1000000), [] { return now.load(); });
    HostData::plug({std::make_shared<CANSocketDevice>()});
    ASSERT_EQ(add(), "");
    ASSERT_EQ(configure(), "");
    std::vector<ChannelPtr<>> inputs;
    for (int i = 0; i < ports; ++i) {
        inputs.push_back(channel(nameOf(i, "Input")));
        ASSERT_EQ(asUser(inputs.back(), "BaudRate", 1000000), "");
    }
    use(inputs);
    ASSERT_EQ(initialize(), "");
    ASSERT_EQ(start(), "");
    // The clocks are related, and the run is older than any frame, before anything comes that is counted.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(cycle(), "");
    std::uint64_t seen[ports] = {};
    std::uint32_t next[ports] = {};
    for (std::uint64_t least = 0; least < framesOfAPort;) {
        now = now + 0.005;
        ASSERT_EQ(cycle(), "");
        least = framesOfAPort;
        for (int i = 0; i < ports; ++i) {
            const auto buffer = inputs[static_cast<size_t>(i)].getBuffer();
            const auto count = static_cast<std::uint64_t>(inputs[static_cast<size_t>(i)].getSamplesAcquired());
            for (; seen[i] < count; ++seen[i]) {
                const CanMessage message = messageAt(buffer, seen[i]);
                ASSERT_EQ(message.id, static_cast<std::uint32_t>(i + 1));
                if (seen[i] == 0) {
                    next[i] = numberIn(message);
                }
                ASSERT_EQ(numberIn(message), next[i]++) << i;
            }
            least = std::min(least, count);
        }
    }
    for (const auto& input : inputs) {
        EXPECT_EQ(countOf(input, "LostSamples"), 0);
        EXPECT_EQ(countOf(input, "KernelDrops"), 0);
    }
    EXPECT_EQ(stop(), "");
    EXPECT_EQ(log.take(), Texts());
}

// An input that isn't used, with traffic: the analog samples of the same cycle count, as does the clock that goes by
// them, and so do the frames of the other port.
TEST_F(SeamCanTest, AnalogSamplesGoOnBesideAnUnusedInput) {
    kestrixsim::reset(withTraffic(2, 0.001, 500000));
    ASSERT_EQ(add(), "");
    ASSERT_EQ(configure(), "");
    const auto analog = channel("Raw input");
    auto used = named({"CAN Port 2 Input"});
    used.push_back(analog);
    use(used);
    ASSERT_EQ(initialize(), "");
    ASSERT_EQ(start(), "");
    log.entries.clear();
    cyclesFor(0.8);
    const long samples = analog.getSamplesAcquired();
    EXPECT_GT(samples, 400);
    EXPECT_NEAR(secondsOf(impl, &IClockProvider::getAcquiredClock), static_cast<double>(samples) / 1000.0, 0.01);
    EXPECT_GT(channel("CAN Port 2 Input").getSamplesAcquired(), 400);
    EXPECT_EQ(channel("CAN Port 1 Input").getSamplesAcquired(), 0);
    EXPECT_GT(countOf(channel("CAN Port 1 Input"), "FramesUnused"), 400);
    EXPECT_EQ(countOf(channel("CAN Port 2 Input"), "FramesUnused"), 0);
    const auto told = log.take();
    EXPECT_NE(
        std::find(told.begin(), told.end(),
                  "Exception in DAQ::acquireData: Not active channel: frames on can0 while its input channel is not "
                  "in use"),
        told.end());
    EXPECT_EQ(std::count_if(told.begin(), told.end(),
                            [](const auto& text) { return text.find("has lost") != std::string::npos; }),
              1);
    EXPECT_EQ(stop(), "");
}

// Ports that can't be opened or configured fail no start. Each start names them, and is silent once they are as wanted.
TEST_F(SeamCanTest, AStartTellsWhichPortsAreNotAsWanted) {
    kestrixsim::reset(withTraffic(3, 0.01, 500000));
    kestrixsim::instrument().inject({.kind = kestrixsim::FaultKind::CanBind, .target = 1});
    ASSERT_EQ(add(), "");
    ASSERT_EQ(configure(), "");
    use(named({"CAN Port 1 Input"}));
    kestrixsim::instrument().inject(
        {.kind = kestrixsim::FaultKind::CanCommandStatus, .target = 0, .afterCount = 1, .times = 2});
    kestrixsim::instrument().inject({.kind = kestrixsim::FaultKind::CanUp, .target = 2});
    log.entries.clear();
    const auto told = [&] {
        EXPECT_EQ(initialize(), "");
        EXPECT_EQ(start(), "");
        EXPECT_EQ(stop(), "");
        return log.take();
    };
    const std::string closed =
        "The interface can1 of \"CAN Port 2 Input\" is not as wanted; it is not open (-112, No such device)";
    EXPECT_EQ(
        told(),
        (Texts{"The interface can0 of \"CAN Port 1 Input\" is not as wanted; \"bitrate 500000\" ended with "
               "status 2; \"listen-only on\" ended with status 2",
               closed, "The interface can2 of \"CAN Port 3 Input\" is not as wanted; \"up\" ended with status 2"}));
    EXPECT_EQ(told(), Texts{closed});
}

}  // namespace
