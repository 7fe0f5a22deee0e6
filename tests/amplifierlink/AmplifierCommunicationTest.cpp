#include "shared/libraries/kestrix/src/AmplifierCommunication.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "libraries/devices/embedded/I2cRegisterAccess.h"
#include "libraries/devices/embedded/MmapRegisterAccess.h"
#include "shared/libraries/kestrix/src/registers/EepromRegister.h"
#include "shared/libraries/kestrix/src/registers/GlobalControlRegister.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"
#include "shared/libraries/kestrix/src/registers/Tmp100Register.h"
#include "shared/libraries/kestrix/src/registers/VcxoDriverRegister.h"
#include "simulator/preload/Control.h"
#include "tests/amplifierlink/LogCapture.h"

// The whole link and the board's peripherals against the simulated instrument.
namespace {

using namespace Harvane::Shared::Kestrix;
using namespace Harvane::ZornLib::Devices::Embedded;
using kestrixsim::AmplifierKind;
using kestrixsim::Fault;
using kestrixsim::FaultKind;
using kestrixtest::LogCapture;

class BoardTypeGuard {
public:
    explicit BoardTypeGuard(unsigned char type) { RegistersAddress::deviceType = type; }
    ~BoardTypeGuard() { RegistersAddress::deviceType = 0; }
};

kestrixsim::Scenario scenarioWith(std::vector<std::pair<int, AmplifierKind>> modules) {
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

Fault fault(FaultKind kind, int target, int64_t times, int code = 0) {
    Fault result;
    result.kind = kind;
    result.target = target;
    result.times = times;
    result.code = code;
    return result;
}

TEST(AmplifierCommunication, unknownBoardIsRefusedBeforeAnythingIsOpened) {
    kestrixsim::reset(scenarioWith({}));
    BoardTypeGuard board(2);
    try {
        AmplifierCommunication link(8);
        FAIL() << "built";
    } catch (const std::logic_error& failure) {
        EXPECT_STREQ(failure.what(), "invalid board type");
    }
    EXPECT_EQ(kestrixsim::openDescriptors(), 0);
}

TEST(AmplifierCommunication, portThatCannotBeOpenedPassesUpAndLeavesNothingOpen) {
    kestrixsim::reset(scenarioWith({}));
    kestrixsim::instrument().inject(fault(FaultKind::UartOpen, -1, -1));
    EXPECT_THROW(AmplifierCommunication(8), std::runtime_error);
    EXPECT_EQ(kestrixsim::openDescriptors(), 0);
}

TEST(AmplifierCommunication, readsTheIdentityOfWhatIsPluggedIn) {
    kestrixsim::reset(scenarioWith({{0, AmplifierKind::Voltage}, {2, AmplifierKind::Bridge}}));
    LogCapture log(7);
    AmplifierCommunication link(4);
    EXPECT_EQ(link.getAmplifier(2), link.getAmplifier(2));
    EXPECT_TRUE(link.getAmplifier(0)->readProperties());
    EXPECT_EQ(link.getAmplifier(0)->getId(), "1.0.1.1");
    EXPECT_EQ(link.getAmplifier(0)->getSerial(), "00001000");
    EXPECT_TRUE(link.getAmplifier(2)->readProperties());
    EXPECT_EQ(link.getAmplifier(2)->getId(), "2.1.3.2");
    EXPECT_EQ(link.getAmplifier(2)->getSerial(), "00001002");
    EXPECT_FALSE(link.getAmplifier(1)->readProperties());
    EXPECT_FALSE(link.getAmplifier(1)->isAmplifierDefined());
    EXPECT_NE(link.getAmplifier(2)->getDaqScale(), 1.0);
    EXPECT_NEAR(link.getAmplifier(2)->getDaqScale(), 1.0, 0.01);
    EXPECT_EQ(kestrixsim::instrument().framesReceived().front(), "0: A5 01 A7 5A");
}

TEST(AmplifierCommunication, twoChannelBoard) {
    kestrixsim::Scenario scenario = scenarioWith({{1, AmplifierKind::Iepe}});
    scenario.boardType = 1;
    scenario.slots = 2;
    kestrixsim::reset(scenario);
    BoardTypeGuard board(1);
    AmplifierCommunication link(2);
    EXPECT_TRUE(link.getAmplifier(1)->readProperties());
    EXPECT_EQ(link.getAmplifier(1)->getId(), "3.0.3.1");
}

TEST(AmplifierCommunication, slotsThatTheBoardCannotHaveAreEmpty) {
    kestrixsim::reset(scenarioWith({{0, AmplifierKind::Voltage}}));
    LogCapture log(7);
    AmplifierCommunication link(255);
    EXPECT_FALSE(link.getAmplifier(8)->readProperties());
    EXPECT_FALSE(link.getAmplifier(254)->readProperties());
}

TEST(AmplifierCommunication, disturbedModuleIsReadAllTheSame) {
    struct {
        const char* name;
        Fault fault;
        bool read;
    } const cases[] = {
        {"noise in front of every reply", fault(FaultKind::AmplifierGarbage, 0, -1), true},
        {"much noise in front of every reply", fault(FaultKind::AmplifierGarbage, 0, -1, 100), true},
        {"two refusals", fault(FaultKind::AmplifierBadStatus, 0, 2), true},
        {"three refusals", fault(FaultKind::AmplifierBadStatus, 0, 3), false},
        {"two silences", fault(FaultKind::AmplifierSilent, 0, 2), true},
        {"three silences", fault(FaultKind::AmplifierSilent, 0, 3), false},
        {"two half frames", fault(FaultKind::AmplifierHalfFrame, 0, 2), true},
        {"a reply that comes within the timeout", fault(FaultKind::AmplifierLate, 0, 1, 120), true},
        {"a reply that comes too late", fault(FaultKind::AmplifierLate, 0, 2, 600), true},
        {"another module is silent", fault(FaultKind::AmplifierSilent, 1, -1), true},
    };
    LogCapture log(7);
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.name);
        kestrixsim::reset(scenarioWith({{0, AmplifierKind::Bridge}, {1, AmplifierKind::Voltage}}));
        kestrixsim::instrument().inject(entry.fault);
        AmplifierCommunication link(2);
        EXPECT_EQ(link.getAmplifier(0)->readProperties(), entry.read);
        EXPECT_EQ(link.getAmplifier(0)->getId(), entry.read ? "2.1.3.2" : "0.255.255.255");
    }
}

TEST(AmplifierCommunication, settingsArriveAndAreApplied) {
    kestrixsim::reset(scenarioWith({{0, AmplifierKind::Bridge}}));
    AmplifierCommunication link(1);
    const auto amplifier = link.getAmplifier(0);
    ASSERT_TRUE(amplifier->readProperties());
    const double before = amplifier->getDaqScale();
    EXPECT_GT(amplifier->setRange(2), 0);
    EXPECT_GT(amplifier->setExcitationValue(5.0f), 0);
    EXPECT_TRUE(amplifier->updateProperties());
    EXPECT_EQ(amplifier->readRange(), 2);
    EXPECT_EQ(amplifier->readExcitationValue(), 5.0f);
    EXPECT_NE(amplifier->getDaqScale(), before) << "the scale belongs to the new range";

    unsigned char buffer[32] = {};
    const unsigned char custom[3] = {1, 2, 3};
    EXPECT_EQ(amplifier->writeTedsCustom(custom, 3), 0);
    EXPECT_EQ(amplifier->finalizeTedsCustom(), 0);
    EXPECT_EQ(amplifier->readTedsCustom(buffer, 32), 0);
    EXPECT_EQ(std::vector<unsigned char>(buffer, buffer + 4), (std::vector<unsigned char>{1, 2, 3, 0xFF}));
    EXPECT_GE(amplifier->hwReset(), 1);
}

// Two modules share one port and one multiplexer: an exchange must not be cut by another thread's.
TEST(AmplifierCommunication, exchangesOfSeveralThreadsDoNotMix) {
    kestrixsim::reset(scenarioWith({{0, AmplifierKind::Voltage}, {1, AmplifierKind::Bridge}}));
    LogCapture log(5);
    AmplifierCommunication link(2);
    std::atomic<int> wrong{0};
    const auto readAgainAndAgain = [&](int slot, short type) {
        for (int n = 0; n < 60; ++n)
            if (link.getAmplifier(slot)->readModuleType() != type)
                ++wrong;
    };
    std::thread first(readAgainAndAgain, 0, 1);
    std::thread second(readAgainAndAgain, 1, 2);
    first.join();
    second.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(log.lines(), std::vector<std::string>{}) << "an exchange needed more than one attempt";
    EXPECT_EQ(kestrixsim::instrument().framesReceived().size(), 120u);
}

TEST(BoardPeripherals, i2cBlocksShareOneBus) {
    kestrixsim::Scenario scenario = scenarioWith({});
    scenario.serialNumber = 0x123456789ABCDEF0;
    scenario.slots = 6;
    scenario.canPorts = 0xC001;
    scenario.hardwareVersion = 0x01020304;
    kestrixsim::reset(scenario);
    auto access = std::make_shared<I2cRegisterAccess>(RegistersAddress::i2cDeviceFileName);
    EepromRegister eeprom(access, RegistersAddress::eepromSlaveAddress);
    Tmp100Register temperature(access, 0x48, true, true);
    VcxoDriverRegister vcxo(access, RegistersAddress::vcxoDriverSlaveAddress, true);
    EXPECT_EQ(eeprom.Key.read(), 0xFAF320u);
    EXPECT_EQ(eeprom.Version.read(), 1);
    EXPECT_EQ(eeprom.SN.read(), 0x123456789ABCDEF0ul);
    EXPECT_EQ(temperature.getTemperature(), 38.5f);
    EXPECT_EQ(eeprom.MaxAIModules.read(), 6);
    EXPECT_EQ(eeprom.CANPorts.read(), 0xC001);
    EXPECT_EQ(eeprom.HardwareVersion.read(), 0x01020304u);
    vcxo.R16_XO_BY1.write(1);
    vcxo.R17_XO_BY0.write(0x7E);
    EXPECT_EQ(vcxo.R16_X0_BY1RES.read(), 0x2A) << "neighbours of the control word must stay";
    EXPECT_EQ(vcxo.R17_XO_BY0.read() << 2 | vcxo.R16_XO_BY1.read(), 505);
    eeprom.Version.write(2);
    EXPECT_EQ(eeprom.Version.read(), 2);
    EXPECT_TRUE(access->checkSlave(0x49));
    EXPECT_FALSE(access->checkSlave(0x20));
}

TEST(BoardPeripherals, fpgaWordsComeThroughPhysicalMemory) {
    kestrixsim::reset(scenarioWith({}));
    auto access = std::make_shared<MmapRegisterAccess>(RegistersAddress::memoryDeviceFileName);
    GlobalControlRegister control(access, RegistersAddress::globalControlBaseAddress, true);
    EXPECT_EQ(control.VER.read(), kestrixsim::instrument().registerWord(0xA6000000));
    control.PSI.write(85);
    EXPECT_EQ(kestrixsim::instrument().registerWord(0xA6000008) & 0x3F, 21u);
    kestrixsim::instrument().inject(fault(FaultKind::MemMap, -1, 1));
    EXPECT_THROW(control.VER.read(), std::runtime_error);
    EXPECT_NO_THROW(control.VER.read());
}

}  // namespace
