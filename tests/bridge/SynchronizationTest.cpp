#include <gtest/gtest.h>

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

using enum SynchronizationMode;

// Offers what the instrument offers.
class SyncDevice : public TestDevice {
public:
    SynchronizationOptions getSynchronizationOptions() override {
        return {{Standalone, {}}, {Standalone, {Ptp}}, {Ptp, {}}, {Pps, {}}, {Irig, {}}};
    }
};

// "[1, [14]]"
std::string textOf(const BasePtr& value) {
    if (auto list = value ? value.asPtrOrNull<IList>() : ObjectPtr<IList>()) {
        const ListPtr items(list);
        std::string text = "[";
        for (size_t i = 0; i < items.getCount(); ++i) {
            text += (i == 0 ? "" : ", ") + textOf(items.getItemAt(i));
        }
        return text + "]";
    }
    return value ? fromValue<std::string>(value) : "null";
}

BasePtr numbers(const std::vector<int>& values) {
    const ListPtr list = ListPtr::create();
    for (const int value : values) {
        list.pushBack(toValue(value));
    }
    return asBase(list);
}

BasePtr option(int mode, const std::vector<int>& sources) {
    return asBase(ListPtr::create({toValue(mode), numbers(sources)}));
}

class SynchronizationTest : public testing::Test, protected Bench {
protected:
    ErrCode write(const BasePtr& value) {
        return dataModule->setProperty(StringPtr("Synchronization").get(), value.get());
    }
    std::string shown() const { return textOf(dataModule.getPropertyValue("Synchronization")); }
};

TEST_F(SynchronizationTest, OptionsAreListedInTheirOrder) {
    auto device = std::make_shared<SyncDevice>();
    scan({device});
    controller->setSynchronization({Standalone, {Ptp}});
    // A device that follows another option than the controller's shows whether building chooses anew.
    device->setSynchronizationOption({Irig, {}});
    structure->buildDataModuleProps(dataModule);
    EXPECT_EQ(device->synchronization.slaveMode, Irig);
    EXPECT_EQ(shown(), "[1, [14]]");
    // The list of what is possible is fixed.
    dataModule.setPropertyValue("SynchronizationOptions", ListPtr::create());
    EXPECT_EQ(textOf(dataModule.getPropertyValue("SynchronizationOptions")),
              "[[1, []], [1, [14]], [6, []], [12, []], [14, []]]");
}

TEST_F(SynchronizationTest, EncodingAndDecodingGiveTheSame) {
    for (const SynchronizationOption& each :
         {SynchronizationOption{Standalone, {}}, SynchronizationOption{Standalone, {Ptp, SoftSync, Irig}},
          SynchronizationOption{None, {}}, SynchronizationOption{Pps, {Standalone}}}) {
        EXPECT_EQ(DaqStructure::syncOptionValueFromRtCore(asBase(DaqStructure::syncOptionValueToRtCore(each))), each);
    }
    EXPECT_EQ(textOf(asBase(DaqStructure::syncOptionValueToRtCore({Standalone, {Ptp, SoftSync, Irig}}))),
              "[1, [2, 6, 14]]");
    // Repeated sources are one, the order doesn't matter.
    EXPECT_EQ(DaqStructure::syncOptionValueFromRtCore(option(1, {14, 6, 14})),
              (SynchronizationOption{Standalone, {Irig, Ptp}}));
}

TEST_F(SynchronizationTest, WhatIsNoOptionIsRefused) {
    const auto list = [](const std::vector<BasePtr>& items) {
        const ListPtr made = ListPtr::create();
        for (const auto& item : items) {
            made.pushBack(item);
        }
        return asBase(made);
    };
    const std::pair<BasePtr, ErrCode> rows[] = {
        {{}, Errors::InvalidParameter},
        {toValue("[1, []]"), Errors::InvalidParameter},
        {list({}), Errors::OutOfRange},
        {list({toValue(1)}), Errors::OutOfRange},
        {list({toValue(1), toValue(14)}), Errors::InvalidParameter},
        {list({toValue("Ptp"), numbers({})}), Errors::ConversionFailed},
        {list({toValue(1), list({toValue(6), toValue("14")})}), Errors::ConversionFailed},
        {list({toValue(1), list({toValue(14.0)})}), Errors::ConversionFailed},
        {list({toValue(1), list({BasePtr()})}), Errors::ConversionFailed},
    };
    for (const auto& [value, code] : rows) {
        try {
            DaqStructure::syncOptionValueFromRtCore(value);
            ADD_FAILURE() << textOf(value);
        } catch (const ZornException& exception) {
            EXPECT_EQ(exception.errorCode, code) << textOf(value) << exception.what();
        }
    }
}

// Unlike a rate it may be chosen while an acquisition runs: it only counts from the next configuration on.
TEST_F(SynchronizationTest, AChoiceReachesTheDevices) {
    auto device = std::make_shared<SyncDevice>();
    build({device});
    EXPECT_EQ(write(option(14, {})), Errors::Success);
    EXPECT_EQ(device->synchronization.slaveMode, Ptp);
    controller->setAcqRunning(true);
    EXPECT_EQ(write(option(1, {14})), Errors::Success);
    EXPECT_EQ(controller->synchronization, (SynchronizationOption{Standalone, {Ptp}}));
    EXPECT_TRUE(device->synchronization.hasSynchronizationSourceMode(Ptp));
    EXPECT_EQ(shown(), "[1, [14]]");
    EXPECT_TRUE(log.entries.empty());
    // Nobody is left to refuse anything.
    controller.reset();
    structure.reset();
    EXPECT_EQ(write(option(99, {})), Errors::Success);
}

// The writer gets the reason, the property keeps what was written, the option in force stays.
TEST_F(SynchronizationTest, AnOptionThatIsNotOfferedIsRefused) {
    build({std::make_shared<SyncDevice>()});
    // The last one isn't cut to a mode that exists.
    const BasePtr wide = asBase(ListPtr::create({toValue((int64_t{1} << 32) + 14), numbers({})}));
    for (const auto& value : {option(2, {}), option(14, {6}), option(99, {}), wide}) {
        EXPECT_EQ(write(value), Errors::GeneralError);
        EXPECT_EQ(takeErrorMessage(), "not valid synchronization");
        EXPECT_EQ(shown(), textOf(value));
    }
    EXPECT_EQ(write(asBase(ListPtr::create({toValue(1), toValue(14)}))), Errors::InvalidParameter);
    // Nothing is chosen by clearing.
    EXPECT_TRUE(failed(dataModule->clearProperty(StringPtr("Synchronization").get())));
    EXPECT_EQ(controller->synchronization, (SynchronizationOption{Standalone, {}}));
    EXPECT_TRUE(log.entries.empty());
}

}  // namespace
