#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/controller/DaqController.h"
#include "tests/bridge/Bench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

using enum SynchronizationMode;

// Offers what the instrument offers.
struct SyncDevice : TestDevice {
    SynchronizationOptions getSynchronizationOptions() override {
        return {{Standalone, {}}, {Standalone, {Ptp}}, {Ptp, {}}, {Pps, {}}, {Irig, {}}};
    }
};

BasePtr option(int mode, const std::vector<int>& sources) {
    return asBase(ListPtr::create({toValue(mode), listOf(sources)}));
}

struct SynchronizationTest : testing::Test, protected Bench {
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

TEST_F(SynchronizationTest, SourcesAreASet) {
    const SynchronizationOption option{Standalone, {Ptp, SoftSync, Irig}};
    const BasePtr written = asBase(HostSynchronization::syncOptionValueToRtCore(option));
    EXPECT_EQ(textOf(written), "[1, [2, 6, 14]]");
    for (const BasePtr& value : {written, asBase(ListPtr::create({toValue(1), listOf({14, 6, 2, 14})}))}) {
        EXPECT_EQ(HostSynchronization::syncOptionValueFromRtCore(value), option);
    }
}

TEST_F(SynchronizationTest, WhatIsNoOptionIsRefused) {
    const auto list = [](std::initializer_list<BasePtr> items) { return asBase(ListPtr::create(items)); };
    const std::pair<BasePtr, ErrCode> rows[] = {
        {{}, Errors::InvalidParameter},
        {toValue("[1, []]"), Errors::InvalidParameter},
        {list({}), Errors::OutOfRange},
        {list({toValue(1)}), Errors::OutOfRange},
        {list({toValue(1), toValue(14)}), Errors::InvalidParameter},
        {list({toValue("Ptp"), listOf({})}), Errors::ConversionFailed},
        {list({toValue(1), list({toValue(6), toValue("14")})}), Errors::ConversionFailed},
        {list({toValue(1), list({toValue(14.0)})}), Errors::ConversionFailed},
        {list({toValue(1), list({BasePtr()})}), Errors::ConversionFailed},
    };
    for (const auto& [value, code] : rows) {
        try {
            HostSynchronization::syncOptionValueFromRtCore(value);
            ADD_FAILURE() << textOf(value);
        } catch (const ZornException& exception) {
            EXPECT_EQ(exception.errorCode, code) << textOf(value) << exception.what();
        }
    }
}

TEST_F(SynchronizationTest, AChoiceReachesTheDevicesAndNoStoredSetupSaysWhatIsApplied) {
    auto device = std::make_shared<SyncDevice>();
    build({device});
    EXPECT_EQ(write(option(14, {})), Errors::Success);
    EXPECT_EQ(device->synchronization.slaveMode, Ptp);
    structure->applySynchronization();
    EXPECT_EQ(device->appliedSynchronization.slaveMode, Ptp);
    dataModule.setPropertyValue("AppliedSynchronization", option(6, {}));
    EXPECT_EQ(textOf(dataModule.getPropertyValue("AppliedSynchronization")), "[14, []]");
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
    const BasePtr wide = asBase(ListPtr::create({toValue((int64_t{1} << 32) + 14), listOf({})}));
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
