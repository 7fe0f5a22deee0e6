#include <cmath>
#include <stdexcept>

#include "libraries/devices/embedded/MmapRegisterAccess.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixAmplifier.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/ChannelFolder.h"
#include "shared/libraries/kestrix/src/AmplifierCommunication.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"
#include "tests/kestrix/KestrixFixture.h"

using namespace Harvane::RT::Modules::Daq;
namespace RegistersAddress = Harvane::Shared::Kestrix::RegistersAddress;
using kestrixsim::Fault;
using kestrixsim::FaultKind;
using kestrixsim::Scenario;

namespace {

constexpr uint64_t supplyWord = 0xA6000010;

class KestrixAITest : public KestrixFixture {
protected:
    static std::shared_ptr<KestrixAI> makeAI() {
        return std::make_shared<KestrixAI>(
            std::make_shared<Harvane::ZornLib::Devices::Embedded::MmapRegisterAccess>("/dev/mem"));
    }

    static uint32_t supply() { return kestrixsim::instrument().registerWord(supplyWord) & 255; }

    static size_t clockScripts() {
        size_t count = 0;
        for (const std::string& command : kestrixsim::instrument().commandsRun()) {
            count += command.find("vcxo_control.sh set_clock") != std::string::npos ? 1 : 0;
        }
        return count;
    }
};

TEST_F(KestrixAITest, SupplyIsSteppedUpSlotBySlot) {
    Scenario scenario = warmScenario(2);
    scenario.supplyOn = false;
    kestrixsim::reset(scenario);
    RegistersAddress::maxAIModules = 2;
    RegistersAddress::maxAIChannels = 4;
    {
        const auto ai = makeAI();
        EXPECT_EQ(kestrixsim::instrument().supplySwitches(), 2u);  // 127 and 255
        EXPECT_EQ(supply(), 255u);
        EXPECT_EQ(kestrixsim::instrument().registerWord(0xA6000004) & 1, 0u);
        EXPECT_EQ(kestrixsim::instrument().registerWord(0xA6000008) & 63, 21u);
        EXPECT_EQ(kestrixsim::instrument().registerWord(0xA600000C) & 63, 3u);
        ai->enableSupply();  // up already
        EXPECT_EQ(kestrixsim::instrument().supplySwitches(), 2u);
        EXPECT_TRUE(ai->getAmplifierCommunication()->getAmplifier(1)->isAmplifierDefined());
        ai->disableSupply();
        EXPECT_FALSE(ai->getAmplifierCommunication()->getAmplifier(1)->isAmplifierDefined());
        ai->enableSupply();
        EXPECT_EQ(supply(), 255u);
    }
    EXPECT_EQ(supply(), 0u);
    EXPECT_EQ(kestrixsim::openDescriptors(), 0);
}

TEST_F(KestrixAITest, SmallBoardHasNoSupplyToSwitchOn) {
    Scenario scenario = warmScenario(2);
    scenario.boardType = 1;
    scenario.supplyOn = false;
    kestrixsim::reset(scenario);
    RegistersAddress::maxAIModules = 2;
    RegistersAddress::maxAIChannels = 4;
    RegistersAddress::deviceType = 1;
    const auto ai = makeAI();
    EXPECT_EQ(kestrixsim::instrument().supplySwitches(), 0u);
    EXPECT_TRUE(ai->getAmplifierCommunication()->getAmplifier(1)->isAmplifierDefined());
}

TEST_F(KestrixAITest, FailedConstructionSwitchesOffAndClosesEverything) {
    struct Case {
        FaultKind kind;
        int target;
        const char* text;
    };
    for (const Case& expected : {Case{FaultKind::DmaOpen, 5, "Cannot open device file"},
                                 Case{FaultKind::DmaIoctl, 3, "SET_BD_CNT ioctl error"}}) {
        Fault fault;
        fault.kind = expected.kind;
        fault.target = expected.target;
        Scenario scenario = warmScenario(8);
        scenario.faults = {fault};
        kestrixsim::reset(scenario);
        try {
            makeAI();
            ADD_FAILURE() << expected.text;
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), expected.text);
        }
        EXPECT_EQ(supply(), 0u);
        EXPECT_EQ(kestrixsim::openDescriptors(), 0);
    }
}

TEST_F(KestrixAITest, UnknownBoardIsRefused) {
    kestrixsim::reset(warmScenario(8));
    RegistersAddress::deviceType = 2;
    try {
        makeAI();
        FAIL();
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "invalid board type");
    }
    EXPECT_EQ(kestrixsim::openDescriptors(), 0);
}

TEST_F(KestrixAITest, DestructionSurvivesAnUnreachableFpga) {
    kestrixsim::reset(warmScenario(8));
    auto ai = makeAI();
    Fault fault;
    fault.kind = FaultKind::MemMap;
    fault.times = -1;
    kestrixsim::instrument().inject(fault);
    ai.reset();
    EXPECT_EQ(kestrixsim::openDescriptors(), 0);
}

TEST_F(KestrixAITest, ModulesShowAsPairsOfChannels) {
    Scenario scenario = warmScenario(3);
    scenario.modules.erase(scenario.modules.begin() + 1);  // slot 2 of three is empty
    bringUp(scenario);
    ASSERT_EQ(ai().channels.size(), 6u);
    for (int number = 0; number < 6; ++number) {
        const auto channel = ai().getAIChannel(number);
        const bool filtered = number % 2 == 1;
        EXPECT_EQ(channel->name, filtered ? "Filtered input" : "Raw input");
        EXPECT_EQ(channel->resolution, filtered ? 32 : 16);
        EXPECT_EQ(channel->buffer->getSampleSize(), filtered ? 4u : 2u);
        EXPECT_EQ(channel->bufferGranularity, filtered ? 16u : 32u);
        EXPECT_EQ(channel->minRate, 100);
        EXPECT_EQ(channel->maxRate, filtered ? 1875000 : 15000000);
        EXPECT_EQ(channel->enabled, number / 2 != 1) << number;
        EXPECT_EQ(channel->amplifier, ai().getAIChannel(number / 2 * 2)->amplifier);
        EXPECT_EQ(channel->amplifier->ranges.size(), 1u);
    }
    const auto present = std::dynamic_pointer_cast<KestrixAmplifier>(ai().getAIChannel(4)->amplifier);
    ASSERT_NE(present, nullptr);
    EXPECT_EQ(present->getAmplifier(), ai().getAmplifierCommunication()->getAmplifier(2));
    EXPECT_GT(present->getModuleType(), 0);
    EXPECT_FALSE(present->serialNumber.empty());

    const auto absent = ai().getAIChannel(2)->amplifier;
    EXPECT_EQ(absent->getModuleType(), 0);
    EXPECT_EQ(absent->serialNumber, "");
    const size_t frames = kestrixsim::instrument().framesReceived().size();
    EXPECT_TRUE(absent->update());
    EXPECT_EQ(kestrixsim::instrument().framesReceived().size(), frames);

    ASSERT_EQ(ai().channelView->size(), 3u);
    EXPECT_TRUE(ai().channelView->channels.empty());
    const auto folder = std::dynamic_pointer_cast<ChannelFolder>(ai().channelView->at(1));
    EXPECT_EQ(folder->name, "AI 2");
    EXPECT_TRUE(folder->sharedInputs);
    ASSERT_EQ(folder->channels.size(), 2u);
    EXPECT_EQ(folder->channels[0]->number, 2);
    EXPECT_EQ(folder->channels[1]->number, 3);
}

TEST_F(KestrixAITest, AmplifierUpdateStopsAtTheFirstRefusal) {
    bringUp(warmScenario(1));
    auto& amplifier = *ai().getAIChannel(0)->amplifier;
    amplifier.clearRanges();
    amplifier.addMeasurementValue("Voltage");
    amplifier.addRangeValue("10");
    amplifier.addLpFilter("OFF");
    amplifier.addHpFilter("DC");
    EXPECT_TRUE(amplifier.update());
    std::vector<std::string> frames = kestrixsim::instrument().framesReceived();
    ASSERT_GE(frames.size(), 7u);
    // Measurement type, range, filter, coupling, then what makes them effective.
    const std::vector<std::string> last(frames.end() - 7, frames.end());
    const char* commands[] = {"A5 02 60", "A5 02 BC", "A5 02 C8", "A5 02 C4", "A5 01 67", "A5 01 FA", "A5 01 FB"};
    for (size_t i = 0; i < last.size(); ++i) {
        const char* expected = i == 3 ? "A5 02 C3" : commands[i];
        EXPECT_NE(last[i].find(expected), std::string::npos) << last[i];
    }

    amplifier.rangeIndex = 1;
    Fault fault;
    fault.kind = FaultKind::AmplifierBadStatus;
    fault.target = 0;
    fault.times = 3;
    kestrixsim::instrument().inject(fault);
    EXPECT_FALSE(amplifier.update());
    const std::vector<std::string> after = kestrixsim::instrument().framesReceived();
    EXPECT_EQ(after.size(), frames.size() + 3);  // three attempts at the range and nothing behind it
    EXPECT_NE(after.back().find("A5 02 BC 01"), std::string::npos);
}

TEST_F(KestrixAITest, SetUpLedNeedsAModuleThatHasOne) {
    bringUp(warmScenario(1));
    auto& amplifier = *ai().getAIChannel(0)->amplifier;
    const size_t frames = kestrixsim::instrument().framesReceived().size();
    amplifier.notifyEnterChSetup();
    EXPECT_EQ(kestrixsim::instrument().framesReceived().size(), frames);
    amplifier.ledControl = true;
    amplifier.notifyEnterChSetup();
    amplifier.notifyLeaveChSetup();
    const std::vector<std::string> after = kestrixsim::instrument().framesReceived();
    ASSERT_EQ(after.size(), frames + 2);
    EXPECT_NE(after[frames].find("A5 02 F2 01"), std::string::npos);
    EXPECT_NE(after[frames + 1].find("A5 02 F2 00"), std::string::npos);
}

// ---- Base clock -----------------------------------------------------------------------------------------------------

TEST_F(KestrixAITest, ClockChangeMovesTheWholeInstrument) {
    Scenario scenario = warmScenario(2);
    bringUp(scenario);
    ai().setBaseClock(12000000);
    EXPECT_EQ(ai().baseClock, 15000000);
    EXPECT_EQ(clockScripts(), 0u);

    ai().setBaseClock(10000000);
    EXPECT_EQ(RegistersAddress::baseClock, 10000000);
    EXPECT_EQ(device().maxRate, 10000000);
    EXPECT_EQ(channel(2).maxRate, 10000000);
    EXPECT_EQ(channel(3).maxRate, 2000000);
    EXPECT_EQ(supply(), 255u);
    EXPECT_EQ(kestrixsim::instrument().registerWord(0xB0000000) >> 1 & 3, 1u);
    EXPECT_EQ(kestrixsim::instrument().commandsRun().back(), "/opt/harvane/scripts/vcxo_control.sh set_clock 10");
    EXPECT_TRUE(ai().getAmplifierCommunication()->getAmplifier(0)->isAmplifierDefined());

    ai().setBaseClock(15000000);
    EXPECT_EQ(RegistersAddress::baseClock, 15000000);
    EXPECT_EQ(channel(3).maxRate, 1875000);
    EXPECT_EQ(kestrixsim::instrument().registerWord(0xB0000000) >> 1 & 3, 0u);
}

TEST_F(KestrixAITest, RefusedClockChangeLeavesTheClockInForceAndCanBeRepeated) {
    bringUp(warmScenario(1));
    Fault fault;
    fault.kind = FaultKind::ScriptRefuses;
    kestrixsim::instrument().inject(fault);
    try {
        ai().setBaseClock(10000000);
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "KestrixAI::configureClock failed");
    }
    EXPECT_EQ(ai().baseClock, 15000000);
    EXPECT_EQ(RegistersAddress::baseClock, 15000000);
    EXPECT_EQ(channel(0).maxRate, 15000000);
    EXPECT_EQ(supply(), 255u);
    EXPECT_TRUE(ai().getAmplifierCommunication()->getAmplifier(0)->isAmplifierDefined());

    kestrixsim::instrument().clearFaults();
    ai().setBaseClock(10000000);
    EXPECT_EQ(RegistersAddress::baseClock, 10000000);
    EXPECT_EQ(clockScripts(), 2u);
}

// ---- Rates ----------------------------------------------------------------------------------------------------------

TEST_F(KestrixAITest, RequestsGoToTheNearestRateBelow) {
    bringUp(warmScenario(1));
    struct Case {
        int clock;
        int requested;
        int rate;
    };
    const Case cases[] = {
        {15000000, 2100000, 1875000}, {15000000, 5000000, 5000000},   {15000000, 48000, 46875},
        {15000000, 44100, 40000},     {15000000, 2000000, 1875000},   {10000000, 48000, 40000},
        {10000000, 2100000, 2000000}, {15000000, 15000000, 15000000}, {15000000, 20000000, 15000000},
        {10000000, 10000000, 10000000}, {15000000, 7, 10},            {10000000, 7, 10},
        {15000000, 0, 10},            {15000000, -5, 10},             {15000000, 14999999, 7500000},
        {15000000, 2499999, 1875000}, {15000000, 2500000, 2500000},   {10000000, 2499999, 2000000},
    };
    for (const Case& expected : cases) {
        EXPECT_EQ(ai().checkRate(expected.requested, expected.clock), expected.rate)
            << expected.clock << " " << expected.requested;
    }
    EXPECT_EQ(ai().checkRate(48000), 46875);
    const Device& asDevice = device();
    EXPECT_EQ(asDevice.checkRate(7), 100);  // the instrument's own minimum comes first
}

TEST_F(KestrixAITest, RateNeedsItsClock) {
    bringUp(warmScenario(1));
    EXPECT_EQ(ai().getBaseClockForSampleRate(46875), 15000000);
    EXPECT_EQ(ai().getBaseClockForSampleRate(16000), 10000000);
    EXPECT_EQ(ai().getBaseClockForSampleRate(50000), 15000000);  // both can: the present one stays
    EXPECT_EQ(ai().getBaseClockForSampleRate(44100), 15000000);  // neither can
    ai().baseClock = 10000000;
    EXPECT_EQ(ai().getBaseClockForSampleRate(50000), 10000000);
    EXPECT_EQ(ai().getBaseClockForSampleRate(46875), 15000000);
}

// Largest rate that divides the clock, by its prime factors 2, 3 and 5, and that is not above the request. The raw
// stream alone runs above 2 MHz, at any whole division.
int largestDivisorUpTo(int clock, int request) {
    int best = 10;
    for (int two = 1; clock % two == 0; two *= 2) {
        for (int three = two; clock % three == 0; three *= 3) {
            for (int rate = three; clock % rate == 0; rate *= 5) {
                if (rate <= request && rate > best) {
                    best = rate;
                }
            }
        }
    }
    return best;
}

TEST_F(KestrixAITest, RatesAgreeWithTheDivisorsOfTheClock) {
    bringUp(warmScenario(1));
    for (const int clock : {15000000, 10000000}) {
        for (int request = 100; request < clock; request += request / 150 + 1) {
            ASSERT_EQ(ai().checkRate(request, clock), largestDivisorUpTo(clock, request)) << clock << " " << request;
        }
    }
}

TEST_F(KestrixAITest, ChannelsDivideTheDeviceRate) {
    bringUp(warmScenario(1));
    struct Case {
        int channel;
        int deviceRate;
        int requested;
        int rate;
    };
    const Case cases[] = {
        {0, 1000, 1000, 1000}, {0, 1000, 150, 142},      {0, 1000, 300, 250},       {0, 1000, 5, 100},
        {1, 1000, 1000, 1000}, {1, 1000, 300, 250},      {1, 1000, 150, 125},       {1, 15000000, 15000000, 1875000},
        {1, 78125, 110, 25},   {1, 46875, 20000, 15625}, {1, 125, 110, 25},         {1, 2000, 20000000, 2000},
        {1, 9973, 5000, 9973}, {0, 0, 100, 0},           {1, 0, 100, 0},            {0, 2147483647, 15000000, 14913080},
    };
    for (const Case& expected : cases) {
        EXPECT_EQ(ai().checkChannelRate(expected.channel, expected.deviceRate, expected.requested), expected.rate)
            << expected.channel << " " << expected.deviceRate << " " << expected.requested;
    }
    EXPECT_THROW(ai().checkChannelRate(2, 1000, 100), std::out_of_range);
}

TEST_F(KestrixAITest, ChannelRatesDivideEveryLegalDeviceRate) {
    bringUp(warmScenario(1));
    const int clock = 15000000;
    for (int deviceRate = 100; deviceRate <= 1875000; ++deviceRate) {
        if (clock % deviceRate != 0) {
            continue;
        }
        for (const int request : {100, 137, 1000, 33333, 1000000, deviceRate}) {
            const int rate = ai().checkChannelRate(1, deviceRate, request);
            ASSERT_EQ(deviceRate % rate, 0) << deviceRate << " " << request;
            ASSERT_TRUE(rate <= std::max(request, 100) || rate == deviceRate) << deviceRate << " " << request;
        }
    }
}

}  // namespace
