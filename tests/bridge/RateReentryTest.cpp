#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "modules/daq/DaqController.h"
#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/objectmodel/SystemDevice.h"
#include "tests/bridge/Bench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

constexpr int error = 4;
using Texts = std::vector<std::string>;

class RateReentryTest : public testing::Test, protected Bench {
protected:
    template <class I>
    static void listen(const PropertyObjectPtr<I>& object, std::function<void(const std::string&)> listener) {
        auto handler = makeHandler([listener](const BasePtr&, const ObjectPtr<IEventArgs>& arguments) {
            const PropertyValueChangedEventArgsPtr args(arguments.asPtr<IPropertyValueChangedEventArgs>());
            listener(args.getPropertyName().toStdString());
        });
        checkErrorInfo(object.getOnPropertyValueChanged()->addHandler(handler.get()));
    }
    template <class I>
    static void setRate(const PropertyObjectPtr<I>& object, int value) {
        object.setPropertyValue("SampleRate", Ratio{value, 1});
    }
};

// The bridge's own writes, at whatever level, start nothing, and neither does what a listener of the host writes in
// answer to them.
TEST_F(RateReentryTest, WritesWithinAHandlerAreLeftAlone) {
    auto device = std::make_shared<TestDevice>();
    build({device});
    const auto deviceFolder = folder("Bench 8");
    const auto raw = channel("Raw 1");
    std::vector<std::pair<int, int>> seen;  // rate in the host and in the channel
    listen(raw, [&](const std::string&) { seen.emplace_back(rateOf(raw), device->ai->channels[0]->getRate()); });
    bool answered = false;
    listen(deviceFolder, [&](const std::string&) {
        if (!answered) {
            answered = true;
            setRate(deviceFolder, 300);
            setRate(dataModule, 48000);
            setRate(channel("Filtered 1"), 300);
            deviceFolder.setPropertyValue("BaseClock", 1);
        }
    });
    setRate(dataModule, 5100);
    EXPECT_EQ(log.take(error), Texts{"Sample rate was set to 5100, adjusted to 5000"});
    EXPECT_EQ(controller->sampleRate, 5000);
    EXPECT_EQ(device->getRate(), 5000);
    EXPECT_EQ(device->ai->baseClock, 15000000);
    EXPECT_EQ(deviceFolder.getPropertyValue<int>("BaseClock"), 1);
    EXPECT_EQ(rateOf(deviceFolder), 300);
    EXPECT_EQ(rateOf(dataModule), 48000);
    EXPECT_EQ(device->ai->channels[1]->getRate(), 5000);
    EXPECT_EQ(seen.size(), 1u);

    // And the next change of the user works as ever.
    setRate(dataModule, 2000);
    EXPECT_EQ(rateOf(deviceFolder), 2000);
    EXPECT_EQ(rateOf(dataModule), 2000);

    // In the host the adjusted value stands before the channel takes it.
    seen.clear();
    setRate(raw, 300);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], std::pair(285, 2000));
}

// While data module and tree are being built every handler is quiet, also behind the first finished branch of it.
TEST_F(RateReentryTest, BuildingKeepsTheHandlersQuiet) {
    auto first = std::make_shared<TestDevice>();
    auto second = std::make_shared<TestDevice>();
    second->model = "Second";
    scan({first, second});
    int checks = 0;
    first->ai->onCheck = [&] {
        if (checks++ == 0) {
            setRate(dataModule, 48000);
        }
    };
    structure->buildDataModuleProps(dataModule);
    EXPECT_GT(checks, 0);
    EXPECT_TRUE(log.take(error).empty());
    EXPECT_EQ(controller->sampleRate, 1000);

    int calls = 0;
    second->onName = [&] {
        if (const auto raw = channel("Raw 1"); raw && calls++ == 0) {
            setRate(raw, 300);
            setRate(dataModule, 48000);
            setRate(folder("Bench 8"), 300);
            EXPECT_TRUE(log.take(error).empty());
            EXPECT_EQ(rateOf(raw), 300);
            EXPECT_EQ(rateOf(dataModule), 48000);
            EXPECT_EQ(rateOf(folder("Bench 8")), 300);
        }
    };
    structure->buildDeviceTree(controller->systemDevice, dataModule.getRootFolder(), sync);
    second->onName = nullptr;
    EXPECT_GT(calls, 0);
    EXPECT_EQ(first->ai->channels[0]->getRate(), 1000);
    EXPECT_EQ(controller->sampleRate, 1000);
}

}  // namespace
