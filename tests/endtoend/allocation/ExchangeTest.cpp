#include <thread>

#include "modules/daq/can/CANSocketDevice.h"
#include "modules/daq/objectmodel/CANDevice.h"
#include "simulator/preload/Control.h"
#include "tests/bridge/ModuleBench.h"
#include "tests/endtoend/allocation/HeapCounter.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

// Sixteen synchronous channels that count through, sixteen asynchronous ones with three samples a cycle, and an output.
struct WideDevice : TestDevice {
    std::shared_ptr<AIDevice> createAIDevice() override {
        ai = std::make_shared<TestAI>();
        for (int i = 0; i < 11; ++i) {
            ai->add<short>("More " + std::to_string(i), SampleType::Sync);
        }
        ai->onAcquire = [this] {
            for (const auto& channel : ai->channels) {
                if (channel->active) {
                    channel->incSamplePosition(10);
                }
            }
        };
        return ai;
    }
    std::shared_ptr<SubDevice> createCntDevice() override {
        async = std::make_shared<TestAsync>();
        for (int i = 0; i < 15; ++i) {
            inputs.push_back(
                std::make_shared<TestChannel<int>>(4 + i, "More async " + std::to_string(i), SampleType::Async));
            inputs.back()->asyncRate = 8;
            async->channels.push_back(inputs.back());
        }
        inputs.push_back(async->input);
        async->onAcquire = [this] {
            for (const auto& channel : inputs) {
                for (int i = 0; i < 3; ++i) {
                    channel->addSample(i, 0.5);
                }
            }
        };
        return async;
    }

    std::vector<std::shared_ptr<Channel>> inputs;
};

class Exchange : public testing::Test, protected ModuleBench {};

}  // namespace

TEST_F(Exchange, CycleTakesNothingFromTheHeap) {
    const auto device = std::make_shared<WideDevice>();
    addDevice(device);
    Texts used{"Async out"};
    for (const auto& channels : {device->ai->channels, device->async->channels}) {
        for (const auto& channel : channels) {
            used.push_back(channel->name);
        }
    }
    start(used);
    const auto output = channel("Async out").asPtr<IAsyncChannel>();
    const auto cycle = [&] {
        int value = 7;
        checkErrorInfo(output->addSample(1, &value));
        checkErrorInfo(module->processData());
    };
    cycle();
    EXPECT_EQ(heapUseOf([&] {
                  for (int i = 0; i < 199; ++i) {
                      cycle();
                  }
              }),
              0u);
    EXPECT_EQ(device->ai->channels.getActiveChannels().size(), 16u);
    for (const auto& input : device->inputs) {
        EXPECT_EQ(channel(input->name).getSamplesAcquired(), 600) << input->name;
    }
    EXPECT_EQ(device->async->output->samplesAcquired.get(), 200u);
    EXPECT_EQ(channel("Raw 1").getSamplesAcquired(), 2000);
    stop();
}

namespace {

// A port with frames waiting, one that isn't open, and a number that a route sends over the latter.
class CanAndNumbers : public CANSocketDevice {
public:
    std::shared_ptr<SubDevice> createCntDevice() override {
        async = std::make_shared<TestAsync>();
        async->onAcquire = [this] { async->input->addSample(7, 0.5); };
        return async;
    }

    std::shared_ptr<TestAsync> async;
};

}  // namespace

TEST_F(Exchange, NorDoCanFramesAndRoutes) {
    static std::atomic<double> now{0.0};
    kestrixsim::Scenario scenario;
    scenario.can.interfaces = {{"can0"}, {"vcan0", 1}};
    kestrixsim::reset(scenario, [] { return now.load(); });
    const auto device = std::make_shared<CanAndNumbers>();
    addDevice(device);
    data.setPropertyValue("OperationMode", 2);
    const auto second = channel("CAN Port 2 Input");
    const auto source = toValue(channel("Async in").getNodeId());
    second.setPropertyValue("RTC.Messages", ListPtr::create({asBase(ListPtr::create({toValue(5), source}))}));
    second.setPropertyValue("RTC.OutputRate", 100);
    second.setPropertyValue("RTC.Enabled", true);
    start({"Async in", "CAN Port 1 Input", "CAN Port 2 Output"});
    cycles(1);
    auto& can = kestrixsim::instrument().can();
    for (unsigned i = 0; i < 300; ++i) {
        kestrixsim::CanFrame frame;
        frame.id = i;
        can.transmit(0, frame, 0.0);
    }
    // All of them are in the socket before the module looks, with stamps that lie in the run.
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    now = now + 0.2;
    ASSERT_EQ(can.state(0).received, 300u);
    const auto input = channel("CAN Port 1 Input");
    EXPECT_EQ(heapUseOf([&] { cycles(1); }), 0u);
    EXPECT_EQ(input.getSamplesAcquired(), 300);
    EXPECT_EQ(heapUseOf([&] { cycles(99); }), 0u);
    EXPECT_EQ(device->canDevice->channels[3]->samplesAcquired.get(), 101u);
    EXPECT_EQ(countOf(channel("CAN Port 2 Output"), "NotSentClosed"), 101);
    stop();
}
