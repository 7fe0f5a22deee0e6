#include "modules/daq/module/DaqModuleImpl.h"
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
