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
    build({std::make_shared<SyncDevice>()});
    EXPECT_EQ(textOf(dataModule.getPropertyValue("SynchronizationOptions")),
              "[[1, []], [1, [14]], [6, []], [12, []], [14, []]]");
    EXPECT_EQ(shown(), "[1, []]");
    // The list of what is possible is fixed.
    dataModule.setPropertyValue("SynchronizationOptions", ListPtr::create());
    EXPECT_EQ(fromValue<bool>(dataModule.getPropertyInfo("SynchronizationOptions").getReadOnly()), true);
    EXPECT_EQ(textOf(dataModule.getPropertyValue("SynchronizationOptions")),
              "[[1, []], [1, [14]], [6, []], [12, []], [14, []]]");
}

TEST_F(SynchronizationTest, WithoutDevicesThereIsStandaloneOnly) {
    build({});
    EXPECT_EQ(textOf(dataModule.getPropertyValue("SynchronizationOptions")), "[[1, []]]");
    EXPECT_EQ(shown(), "[1, []]");
    EXPECT_EQ(write(option(14, {})), Errors::GeneralError);
    takeText();
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
    const auto decode = [](const BasePtr& value) { return DaqStructure::syncOptionValueFromRtCore(value); };
    EXPECT_THROW(decode({}), InvalidParameterException);
    EXPECT_THROW(decode(toValue(1)), InvalidParameterException);
    EXPECT_THROW(decode(toValue("[1, []]")), InvalidParameterException);
    EXPECT_THROW(decode(asBase(ListPtr::create())), OutOfRangeException);
    EXPECT_THROW(decode(asBase(ListPtr::create({toValue(1)}))), OutOfRangeException);
    EXPECT_THROW(decode(asBase(ListPtr::create({toValue(1), toValue(14)}))), InvalidParameterException);
    EXPECT_THROW(decode(asBase(ListPtr::create({toValue("Ptp"), numbers({})}))), ConversionFailedException);
    for (const BasePtr& noInt : {toValue("14"), toValue(14.0), BasePtr()}) {
        const BasePtr sources = asBase(ListPtr::create({toValue(6), noInt}));
        EXPECT_THROW(decode(asBase(ListPtr::create({toValue(1), sources}))), ConversionFailedException);
    }
    takeText();
}

TEST_F(SynchronizationTest, AChoiceReachesTheDevices) {
    auto device = std::make_shared<SyncDevice>();
    build({device});
    EXPECT_EQ(write(option(14, {})), Errors::Success);
    EXPECT_EQ(controller->synchronization, (SynchronizationOption{Ptp, {}}));
    EXPECT_EQ(device->synchronization.slaveMode, Ptp);
    EXPECT_EQ(write(option(1, {14})), Errors::Success);
    EXPECT_EQ(controller->synchronization, (SynchronizationOption{Standalone, {Ptp}}));
    EXPECT_TRUE(device->synchronization.hasSynchronizationSourceMode(Ptp));
    EXPECT_EQ(shown(), "[1, [14]]");
    EXPECT_TRUE(log.entries.empty());
}

// The writer gets the reason, the property keeps what was written, the option in force stays.
TEST_F(SynchronizationTest, AnOptionThatIsNotOfferedIsRefused) {
    build({std::make_shared<SyncDevice>()});
    for (const auto& [value, shownText] :
         {std::pair{option(2, {}), "[2, []]"}, {option(14, {6}), "[14, [6]]"}, {option(0, {}), "[0, []]"},
          {option(99, {}), "[99, []]"}}) {
        EXPECT_EQ(write(value), Errors::GeneralError);
        EXPECT_EQ(takeText(), "not valid synchronization");
        EXPECT_EQ(shown(), shownText);
        EXPECT_EQ(controller->synchronization, (SynchronizationOption{Standalone, {}}));
    }
    // A mode beyond 32 bits isn't cut to one that exists.
    const BasePtr wide = asBase(ListPtr::create({toValue((int64_t{1} << 32) + 14), numbers({})}));
    EXPECT_EQ(write(wide), Errors::GeneralError);
    EXPECT_EQ(takeText(), "not valid synchronization");
    EXPECT_EQ(write(asBase(ListPtr::create({toValue(1), toValue(14)}))), Errors::InvalidParameter);
    takeText();
    // Nothing is chosen by clearing.
    EXPECT_TRUE(failed(dataModule->clearProperty(StringPtr("Synchronization").get())));
    takeText();
    EXPECT_EQ(controller->synchronization, (SynchronizationOption{Standalone, {}}));
    EXPECT_TRUE(log.entries.empty());
}

// Unlike a rate: it only counts from the next configuration on.
TEST_F(SynchronizationTest, MayBeChosenWhileAcquisitionRuns) {
    build({std::make_shared<SyncDevice>()});
    controller->setAcqRunning(true);
    EXPECT_EQ(write(option(12, {})), Errors::Success);
    EXPECT_EQ(controller->synchronization, (SynchronizationOption{Pps, {}}));
}

TEST_F(SynchronizationTest, BuildingDoesNotChooseAnew) {
    auto device = std::make_shared<SyncDevice>();
    devicesToFind().emplace_back("ID_10", device);
    controller->initialize();
    controller->scan();
    controller->initializeHardware();
    controller->setSynchronization({Standalone, {Ptp}});
    // Devices that follow another option than the controller's show whether somebody chose.
    device->setSynchronizationOption({Irig, {}});
    structure->buildDataModuleProps(dataModule);
    EXPECT_EQ(shown(), "[1, [14]]");
    EXPECT_EQ(device->synchronization.slaveMode, Irig);
}

TEST_F(SynchronizationTest, AChoiceOutlivesTheBridge) {
    build({std::make_shared<SyncDevice>()});
    controller.reset();
    structure.reset();
    EXPECT_EQ(write(option(99, {})), Errors::Success);
    EXPECT_EQ(shown(), "[99, []]");
}

}  // namespace
