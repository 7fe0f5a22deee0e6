#include <thread>

#include "modules/daq/can/CANSocketDevice.h"
#include "modules/daq/module/DaqModuleImpl.h"
#include "modules/daq/objectmodel/CANDevice.h"
#include "simulator/preload/Control.h"
#include "tests/bridge/Bench.h"
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

struct OpenModule : DaqModuleImpl {
    using DaqModuleImpl::daqStructure;
};

class Exchange : public testing::Test, protected HostData {};

}  // namespace

TEST_F(Exchange, CycleTakesNothingFromTheHeap) {
    const auto device = std::make_shared<WideDevice>();
    plug({device});
    auto* const impl = new OpenModule();
    const auto module = ObjectPtr<IModule>::take(impl);
    checkErrorInfo(add(*impl, dataModule));
    configure(*impl);
    checkErrorInfo(module->initialize());
    Texts used{"Async out"};
    for (const auto& channels : {device->ai->channels, device->async->channels}) {
        for (const auto& channel : channels) {
            used.push_back(channel->name);
        }
    }
    reserveMemory(impl->daqStructure, used);
    checkErrorInfo(module->start());
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
    checkErrorInfo(module->stop());
    forgetProviders();
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
    plug({device});
    auto* const impl = new OpenModule();
    const auto module = ObjectPtr<IModule>::take(impl);
    const auto params = made<IModuleAddParams>(createModuleAddParams, data.get(), dataModule.get(), sync.get());
    checkErrorInfo(module->add(params.get()));
    auto config = made<IModuleConfig>(createModuleConfig, data.get());
    checkErrorInfo(module->configure(config.get()));
    data.setPropertyValue("OperationMode", 2);
    const auto second = channel("CAN Port 2 Input");
    const auto source = toValue(channel("Async in").getNodeId());
    second.setPropertyValue("RTC.Messages", ListPtr::create({asBase(ListPtr::create({toValue(5), source}))}));
    second.setPropertyValue("RTC.OutputRate", 100);
    second.setPropertyValue("RTC.Enabled", true);
    checkErrorInfo(module->initialize());
    reserveMemory(impl->daqStructure, {"Async in", "CAN Port 1 Input", "CAN Port 2 Output"});
    checkErrorInfo(module->start());
    const auto cycle = [&] { checkErrorInfo(module->processData()); };
    cycle();
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
    EXPECT_EQ(heapUseOf([&] { cycle(); }), 0u);
    EXPECT_EQ(input.getSamplesAcquired(), 300);
    EXPECT_EQ(heapUseOf([&] {
                  for (int i = 0; i < 99; ++i) {
                      cycle();
                  }
              }),
              0u);
    EXPECT_EQ(device->canDevice->channels[3]->samplesAcquired.get(), 101u);
    EXPECT_EQ(fromValue<int>(executeFunc(functionOf(channel("CAN Port 2 Output"), "NotSentClosed"), nullptr)), 101);
    checkErrorInfo(module->stop());
    config.release();
    forgetProviders();
}
