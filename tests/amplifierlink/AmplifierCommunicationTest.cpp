#include "shared/libraries/kestrix/src/AmplifierCommunication.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "libraries/devices/embedded/I2cRegisterAccess.h"
#include "shared/libraries/kestrix/src/registers/EepromRegister.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"
#include "shared/libraries/kestrix/src/registers/Tmp100Register.h"
#include "shared/libraries/kestrix/src/registers/VcxoDriverRegister.h"
#include "simulator/preload/Control.h"
#include "tests/registers/FailureOf.h"
#include "tests/registers/LogCapture.h"

// The whole link and the board's peripherals against the simulated instrument.
namespace {

using namespace Harvane::Shared::Kestrix;
using Harvane::ZornLib::Devices::Embedded::I2cRegisterAccess;
using kestrixsim::AmplifierKind;
using kestrixtest::failureOf;
using kestrixtest::LogCapture;

struct AmplifierLink : testing::Test {
    ~AmplifierLink() override { RegistersAddress::deviceType = 0; }

    static kestrixsim::Scenario scenarioWith(const std::vector<std::pair<int, AmplifierKind>>& modules) {
        kestrixsim::Scenario scenario;
        scenario.supplyOn = true;
        for (const auto& [slot, kind] : modules) {
            kestrixsim::ModuleScenario module;
            module.slot = slot;
            module.kind = kind;
            module.serial = 0x1000u + static_cast<unsigned int>(slot);
            scenario.modules.push_back(module);
        }
        return scenario;
    }
};

TEST_F(AmplifierLink, whatCannotBeOpenedPassesUpAndLeavesNothingOpen) {
    kestrixsim::reset(scenarioWith({}));
    RegistersAddress::deviceType = 2;
    EXPECT_EQ(failureOf<std::logic_error>([] { AmplifierCommunication link(8); }), "invalid board type");
    RegistersAddress::deviceType = 0;
    kestrixsim::instrument().inject({.kind = kestrixsim::FaultKind::UartOpen, .times = -1});
    EXPECT_EQ(failureOf([] { AmplifierCommunication link(8); }), "Cannot open file\n");
    EXPECT_EQ(kestrixsim::openDescriptors(), 0);
}

// Two modules share one port and one multiplexer: an exchange must not be cut by another thread's.
TEST_F(AmplifierLink, exchangesOfSeveralThreadsDoNotMix) {
    kestrixsim::reset(scenarioWith({{0, AmplifierKind::Voltage}, {1, AmplifierKind::Bridge}}));
    LogCapture log(5);
    AmplifierCommunication link(2);
    std::atomic<int> wrong{0};
    const auto readAgainAndAgain = [&](int slot, short type) {
        for (int n = 0; n < 60; ++n) {
            wrong += link.getAmplifier(slot)->readModuleType() != type ? 1 : 0;
        }
    };
    std::thread first(readAgainAndAgain, 0, 1);
    std::thread second(readAgainAndAgain, 1, 2);
    first.join();
    second.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(log.lines(), std::vector<std::string>{}) << "an exchange needed more than one attempt";
    EXPECT_EQ(kestrixsim::instrument().framesReceived().size(), 120u);
}

TEST_F(AmplifierLink, boardPeripheralsShareTheBus) {
    kestrixsim::reset(scenarioWith({}));
    const auto access = std::make_shared<I2cRegisterAccess>(RegistersAddress::i2cDeviceFileName);
    EepromRegister eeprom(access, RegistersAddress::eepromSlaveAddress);
    Tmp100Register temperature(access, 0x48, true, true);
    VcxoDriverRegister vcxo(access, RegistersAddress::vcxoDriverSlaveAddress, true);
    EXPECT_EQ(eeprom.Key.read(), 0xFAF320u);
    EXPECT_EQ(temperature.getTemperature(), 42.5f);
    vcxo.R16_XO_BY1.write(1);
    vcxo.R17_XO_BY0.write(0x7E);
    EXPECT_EQ(vcxo.R16_X0_BY1RES.read(), 0x2A) << "neighbours of the control word must stay";
    EXPECT_EQ(vcxo.R17_XO_BY0.read() << 2 | vcxo.R16_XO_BY1.read(), 505);
    eeprom.Version.write(2);
    EXPECT_EQ(eeprom.Version.read(), 2);
    EXPECT_TRUE(access->checkSlave(0x49));
    EXPECT_FALSE(access->checkSlave(0x20));
}

}  // namespace
