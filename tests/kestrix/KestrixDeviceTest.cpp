#include <algorithm>

#include "modules/daq/objectmodel/CANDevice.h"
#include "modules/daq/objectmodel/DaqClock.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"
#include "tests/kestrix/KestrixFixture.h"

using namespace Harvane::RT::Modules::Daq;
namespace RegistersAddress = Harvane::Shared::Kestrix::RegistersAddress;
using kestrixsim::Scenario;

namespace {

using KestrixDeviceTest = KestrixFixture;

TEST_F(KestrixDeviceTest, TakesItsIdentityFromAValidMemoryOnly) {
    const auto scenario = [](bool keyValid, int version) {
        Scenario scenario;
        scenario.boardType = 1;
        scenario.slots = 2;
        scenario.serialNumber = 0xABCDEF;
        scenario.hardwareVersion = 0x04030201;
        scenario.eepromKeyValid = keyValid;
        scenario.eepromVersion = version;
        return scenario;
    };
    // One board after the other in one process: nothing of a board outlives it.
    for (const Scenario& invalid : {scenario(false, 1), scenario(true, 0)}) {
        kestrixsim::reset(scenario(true, 1));
        EXPECT_EQ(KestrixDevice().getIdentity().canPorts, 0xC000);
        EXPECT_EQ(RegistersAddress::maxAIModules, 2);
        kestrixsim::reset(invalid);
        const KestrixDevice device;
        EXPECT_EQ(device.getIdentity().canPorts, 0x8000);
        EXPECT_EQ((std::vector<int>{RegistersAddress::maxAIModules, RegistersAddress::maxAIChannels,
                                    RegistersAddress::deviceType}),
                  (std::vector<int>{8, 16, 0}));
        EXPECT_EQ(device.hardwareRevision + device.serialNumber, "0000000000ABCDEF");
    }
    kestrixsim::reset(scenario(true, 1));
    const KestrixDevice device;
    EXPECT_EQ(device.manufacturer + " " + device.model + " " + device.serialNumber + " " + device.hardwareRevision,
              "Harvane KESTRIX 0000000000ABCDEF 1.2.3.4");
    EXPECT_EQ((std::vector<int>{device.minRate, device.maxRate, RegistersAddress::deviceType}),
              (std::vector<int>{100, 15000000, 1}));
}

TEST_F(KestrixDeviceTest, NonsenseSlotCountsStayWithinTheHardware) {
    const std::tuple<int, int, int> cases[] = {{255, 254, 8}, {0x82, 4, 2}, {9, 18, 8},
                                               {2, 4, 2},     {128, 0, 0},  {0, 0, 0}};
    for (const auto& [slots, channels, used] : cases) {
        Scenario scenario;
        scenario.slots = slots;
        kestrixsim::reset(scenario);
        const KestrixDevice device;
        EXPECT_EQ(RegistersAddress::maxAIModules, slots);
        EXPECT_EQ(RegistersAddress::maxAIChannels, channels);
        EXPECT_EQ(device.getIdentity().usableModules(), used) << slots;
    }
}

TEST_F(KestrixDeviceTest, BoardDecidesOnTheInputsForSynchronisation) {
    SynchronizationOptions expected{
        {SynchronizationMode::Standalone, {}},
        {SynchronizationMode::Standalone, {SynchronizationMode::Ptp}},
        {SynchronizationMode::Ptp, {}},
    };
    for (const int boardType : {1, 0}) {
        Scenario scenario;
        scenario.boardType = boardType;
        kestrixsim::reset(scenario);
        if (boardType == 0) {
            expected.insert({SynchronizationMode::Pps, {}});
            expected.insert({SynchronizationMode::Irig, {}});
        }
        EXPECT_EQ(KestrixDevice().getSynchronizationOptions(), expected);
    }
}

TEST_F(KestrixDeviceTest, MemoryDecidesOnTheCanPorts) {
    Scenario scenario = warmScenario(8);
    scenario.can.interfaces = {{"can0"}, {"can1", 1}, {"can2", 2}};
    scenario.canPorts = 0x6000;
    for (const bool valid : {true, false}) {
        scenario.eepromKeyValid = valid;
        bringUp(scenario);
        ASSERT_NE(device().canDevice, nullptr);
        const auto ports = kestrixsim::instrument().commandsRun();
        const bool opened = std::find(ports.begin(), ports.end(), "ip link set up can0") != ports.end();
        EXPECT_EQ(opened, !valid);
        EXPECT_EQ(device().canDevice->channels.size(), valid ? 4u : 2u);
        EXPECT_EQ(device().back(), device().canDevice);
    }
}

TEST_F(KestrixDeviceTest, CommandsOfTheTools) {
    bringUp(warmScenario(1));
    EXPECT_EQ(ai().getDisplayName(), "Analog inputs");
    EXPECT_NE(device().daqClock, nullptr);
    EXPECT_EQ(ai().getKestrix().get(), &device());

    std::string result = "untouched";
    for (const char* notOn : {"on", "", "On ", "Off"}) {
        EXPECT_TRUE(device().ioctl(1, "On", result));
        EXPECT_TRUE(ai().usbMode);
        EXPECT_TRUE(device().ioctl(1, notOn, result));
        EXPECT_FALSE(ai().usbMode) << notOn;
    }
    for (const auto& [command, left] :
         {std::pair{0, "untouched"}, {9, "untouched"}, {-1, "untouched"}, {2, ""}, {3, ""}}) {
        EXPECT_TRUE(device().ioctl(command, "On", result));
        EXPECT_EQ(result, left) << command;
    }
    EXPECT_FALSE(ai().usbMode);

    KestrixDevice bare;  // no analog inputs yet
    EXPECT_TRUE(bare.ioctl(1, "On", result));
}

}  // namespace
