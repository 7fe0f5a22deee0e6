#include <stdexcept>

#include "modules/daq/synchronization/DaqClock.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"
#include "tests/kestrix/KestrixFixture.h"

using namespace Harvane::RT::Modules::Daq;
namespace RegistersAddress = Harvane::Shared::Kestrix::RegistersAddress;
using kestrixsim::Fault;
using kestrixsim::FaultKind;
using kestrixsim::Scenario;

namespace {

using KestrixDeviceTest = KestrixFixture;

TEST_F(KestrixDeviceTest, TakesItsIdentityFromTheBoard) {
    Scenario scenario;
    scenario.boardType = 1;
    scenario.slots = 2;
    scenario.serialNumber = 0x2A;
    scenario.hardwareVersion = 0x04030201;
    kestrixsim::reset(scenario);
    const KestrixDevice device;
    EXPECT_EQ(device.manufacturer, "Harvane");
    EXPECT_EQ(device.model, "KESTRIX");
    EXPECT_EQ(device.serialNumber, "000000000000002A");
    EXPECT_EQ(device.hardwareRevision, "1.2.3.4");
    EXPECT_EQ(device.minRate, 100);
    EXPECT_EQ(device.maxRate, 15000000);
    EXPECT_EQ(RegistersAddress::maxAIModules, 2);
    EXPECT_EQ(RegistersAddress::maxAIChannels, 4);
    EXPECT_EQ(RegistersAddress::deviceType, 1);
}

TEST_F(KestrixDeviceTest, InvalidIdentityLeavesTheDefaults) {
    Scenario wrongKey;
    wrongKey.slots = 2;
    wrongKey.boardType = 1;
    wrongKey.serialNumber = 0xABCDEF;
    wrongKey.eepromKeyValid = false;
    Scenario noVersion = wrongKey;
    noVersion.eepromKeyValid = true;
    noVersion.eepromVersion = 0;
    for (const Scenario& scenario : {wrongKey, noVersion}) {
        kestrixsim::reset(scenario);
        const KestrixDevice device;
        EXPECT_EQ(RegistersAddress::maxAIModules, 8);
        EXPECT_EQ(RegistersAddress::maxAIChannels, 16);
        EXPECT_EQ(RegistersAddress::deviceType, 0);
        EXPECT_EQ(device.hardwareRevision, "");
        EXPECT_EQ(device.serialNumber, "0000000000ABCDEF");
    }
}

TEST_F(KestrixDeviceTest, NonsenseSlotCountsStayWithinTheHardware) {
    struct Case {
        int slots;
        int channels;
        int used;
    };
    for (const Case& expected : {Case{255, 254, 8}, Case{0x82, 4, 2}, Case{9, 18, 8}, Case{128, 0, 0}, Case{0, 0, 0}}) {
        Scenario scenario;
        scenario.slots = expected.slots;
        scenario.supplyOn = true;
        kestrixsim::reset(scenario);
        const KestrixDevice device;
        EXPECT_EQ(RegistersAddress::maxAIModules, expected.slots);
        EXPECT_EQ(RegistersAddress::maxAIChannels, expected.channels);
        EXPECT_EQ(KestrixAI::moduleCount(), expected.used) << expected.slots;
    }
}

TEST_F(KestrixDeviceTest, UnreachableHardwareMakesNoDevice) {
    struct Case {
        FaultKind kind;
        const char* text;
    };
    const Case cases[] = {
        {FaultKind::MemOpen, "Failed to open device handle."},
        {FaultKind::I2cOpen, "Failed to open device handle."},
        {FaultKind::EepromShortRead, "Failed to read from the file(0)."},
        {FaultKind::EepromSilent, "Failed to write to the file (18446744073709551615)."},
    };
    for (const Case& expected : cases) {
        Fault fault;
        fault.kind = expected.kind;
        fault.times = -1;
        Scenario scenario;
        scenario.faults = {fault};
        kestrixsim::reset(scenario);
        try {
            KestrixDevice device;
            ADD_FAILURE() << static_cast<int>(expected.kind);
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), expected.text);
        }
        EXPECT_EQ(kestrixsim::openDescriptors(), 0);
    }
}

TEST_F(KestrixDeviceTest, BoardDecidesOnTheInputsForSynchronisation) {
    using Option = SynchronizationOption;
    const SynchronizationOptions common{
        Option{SynchronizationMode::Standalone, {}},
        Option{SynchronizationMode::Standalone, {SynchronizationMode::Ptp}},
        Option{SynchronizationMode::Ptp, {}},
    };
    kestrixsim::reset(Scenario{});
    KestrixDevice device;
    RegistersAddress::deviceType = 1;
    EXPECT_EQ(device.getSynchronizationOptions(), common);
    RegistersAddress::deviceType = 0;
    SynchronizationOptions all = common;
    all.insert({SynchronizationMode::Pps, {}});
    all.insert({SynchronizationMode::Irig, {}});
    EXPECT_EQ(device.getSynchronizationOptions(), all);
}

TEST_F(KestrixDeviceTest, CommandsOfTheTools) {
    bringUp(warmScenario(1));
    std::string result = "untouched";
    for (const char* notOn : {"on", "", "On ", "Off"}) {
        EXPECT_TRUE(device().ioctl(1, "On", result));
        EXPECT_TRUE(ai().usbMode);
        EXPECT_TRUE(device().ioctl(1, notOn, result));
        EXPECT_FALSE(ai().usbMode) << notOn;
    }
    for (const int command : {0, 2, 3, 9, -1}) {
        EXPECT_TRUE(device().ioctl(command, "On", result));
    }
    EXPECT_FALSE(ai().usbMode);
    EXPECT_EQ(result, "untouched");

    KestrixDevice bare;  // no analog inputs yet
    EXPECT_TRUE(bare.ioctl(1, "On", result));
}

TEST_F(KestrixDeviceTest, PartsStandInTheTree) {
    bringUp(warmScenario(1));
    EXPECT_EQ(device().aiDevice->getDisplayName(), "Analog inputs");
    EXPECT_NE(device().daqClock, nullptr);
    EXPECT_EQ(ai().getKestrix().get(), &device());
}

}  // namespace
