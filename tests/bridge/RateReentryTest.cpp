#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "modules/daq/DaqController.h"
#include "modules/daq/bridge/DaqStructure.h"
#include "tests/bridge/Bench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

constexpr int error = 4;
using Texts = std::vector<std::string>;

// A device that calls out when the bridge asks for its name or its rates.
class TalkingDevice : public TestDevice {
public:
    using Device::checkRate;
    std::string getDisplayName() const override {
        if (onName) {
            onName();
        }
        return TestDevice::getDisplayName();
    }
    int checkRate(int requested) const override {
        if (onCheck) {
            onCheck();
        }
        return TestDevice::checkRate(requested);
    }
    std::function<void()> onName;
    std::function<void()> onCheck;
};

// An exception without a text.
class Speechless : public std::exception {
public:
    const char* what() const noexcept override { return nullptr; }
};

class RateReentryTest : public testing::Test, protected Bench {
protected:
    void listen(const ObjectPtr<IEvent>& event, std::function<void(const std::string&)> listener) {
        auto handler = makeHandler([listener](const BasePtr&, const ObjectPtr<IEventArgs>& arguments) {
            const PropertyValueChangedEventArgsPtr args(arguments.asPtr<IPropertyValueChangedEventArgs>());
            listener(args.getPropertyName().toStdString());
        });
        checkErrorInfo(event->addHandler(handler.get()));
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
    Texts changes;
    listen(dataModule.getOnPropertyValueChanged(), [&](const std::string& name) { changes.push_back("module " + name); });
    listen(raw.getOnPropertyValueChanged(), [&](const std::string& name) { changes.push_back("channel " + name); });
    bool answered = false;
    listen(deviceFolder.getOnPropertyValueChanged(), [&](const std::string& name) {
        changes.push_back("device " + name);
        if (!answered) {
            answered = true;
            setRate(deviceFolder, 300);
            setRate(dataModule, 48000);
            setRate(channel("Filtered 1"), 300);
            deviceFolder.setPropertyValue("BaseClock", 1);
        }
    });
    setRate(dataModule, 5100);
    // The first line is the adjusted value, written back while the event of the user's value is still on its way.
    EXPECT_EQ(log.take(error), Texts{"Sample rate was set to 5100, adjusted to 5000"});
    EXPECT_EQ(controller->sampleRate, 5000);
    EXPECT_EQ(device->getRate(), 5000);
    EXPECT_EQ(device->ai->baseClock, 15000000);
    EXPECT_EQ(deviceFolder.getPropertyValue<int>("BaseClock"), 1);
    EXPECT_EQ(rateOf(deviceFolder), 300);
    EXPECT_EQ(rateOf(dataModule), 48000);
    EXPECT_EQ(device->ai->channels[1]->getRate(), 5000);
    EXPECT_EQ(std::count(changes.begin(), changes.end(), "channel SampleRate"), 1);

    // And the next change of the user works as ever.
    setRate(dataModule, 2000);
    EXPECT_EQ(rateOf(deviceFolder), 2000);
    EXPECT_EQ(rateOf(dataModule), 2000);
}

// In the host the adjusted value stands before the channel takes it.
TEST_F(RateReentryTest, TheHostShowsTheAdjustedRateFirst) {
    auto device = std::make_shared<TestDevice>();
    build({device});
    const auto raw = channel("Raw 1");
    std::vector<std::pair<int, int>> seen;
    listen(raw.getOnPropertyValueChanged(),
           [&](const std::string&) { seen.emplace_back(rateOf(raw), device->ai->channels[0]->getRate()); });
    setRate(raw, 300);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], std::pair(250, 1000));
}

// While the tree is being built every handler is quiet, also behind the first finished branch of it.
TEST_F(RateReentryTest, BuildingTheTreeKeepsTheHandlersQuiet) {
    auto first = std::make_shared<TestDevice>();
    auto second = std::make_shared<TalkingDevice>();
    second->model = "Second";
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
    build({first, second});
    second->onName = nullptr;
    EXPECT_GT(calls, 0);
    EXPECT_EQ(first->ai->channels[0]->getRate(), 1000);
    EXPECT_EQ(controller->sampleRate, 1000);
}

TEST_F(RateReentryTest, BuildingTheDataModuleKeepsTheHandlersQuiet) {
    auto device = std::make_shared<TalkingDevice>();
    devicesToFind().emplace_back("ID_10", device);
    controller->initialize();
    controller->scan();
    controller->initializeHardware();
    log.entries.clear();
    int calls = 0;
    device->onCheck = [&] {
        if (calls++ == 0) {
            setRate(dataModule, 48000);
        }
    };
    structure->buildDataModuleProps(dataModule);
    device->onCheck = nullptr;
    EXPECT_GT(calls, 0);
    EXPECT_TRUE(log.take(error).empty());
    EXPECT_EQ(controller->sampleRate, 1000);
}

TEST_F(RateReentryTest, AnExceptionWithoutATextIsNamedSo) {
    auto device = std::make_shared<TalkingDevice>();
    build({device});
    device->onCheck = [] { throw Speechless(); };
    setRate(dataModule, 5000);
    EXPECT_EQ(log.take(error), Texts{"Error executing DaqStructure::onSampleRateChanged: (null)"});
    EXPECT_EQ(rateOf(dataModule), 5000);
    device->onCheck = nullptr;
    setRate(dataModule, 2000);
    EXPECT_EQ(rateOf(folder("Bench 8")), 2000);
    EXPECT_TRUE(log.take(error).empty());
}

// A clock change that fails, during the load of a setup: the user's rate stays written, the reason is logged, and the
// clock in force is what the system runs at.
TEST_F(RateReentryTest, ASetupWhoseClockFails) {
    class Stubborn : public TestAI {
    public:
        void onBaseClockChanged() override {
            baseClock = 15000000;
            throw std::runtime_error("KestrixAI::configureClock failed");
        }
    };
    class StubbornDevice : public TestDevice {
    public:
        std::shared_ptr<AIDevice> createAIDevice() override { return ai = std::make_shared<Stubborn>(); }
    };
    auto device = std::make_shared<StubbornDevice>();
    build({device});
    data.setPropertyValue("isUpdatingFromConfiguration", true);
    setRate(dataModule, 16000);
    data.setPropertyValue("isUpdatingFromConfiguration", false);
    EXPECT_EQ(log.take(error),
              Texts{"Error executing DaqStructure::onSampleRateChanged: KestrixAI::configureClock failed"});
    EXPECT_EQ(rateOf(dataModule), 16000);
    EXPECT_EQ(controller->sampleRate, 1000);
    EXPECT_EQ(folder("Bench 8").getPropertyValue<int>("BaseClock"), 0);
    // The same by the user's own hand: the choice stays as written, the clock doesn't move.
    folder("Bench 8").setPropertyValue("BaseClock", 1);
    EXPECT_EQ(log.take(error),
              Texts{"Error executing DaqStructure::onDaqDeviceBaseClockChanged: KestrixAI::configureClock failed"});
    EXPECT_EQ(device->ai->baseClock, 15000000);
}

}  // namespace
