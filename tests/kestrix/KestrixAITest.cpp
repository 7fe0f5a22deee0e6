#include "libraries/devices/embedded/MmapRegisterAccess.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixAmplifier.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/ChannelFolder.h"
#include "tests/kestrix/KestrixFixture.h"
#include "tests/registers/FailureOf.h"

using namespace Harvane::RT::Modules::Daq;
using kestrixsim::FaultKind;
using kestrixsim::Scenario;
using kestrixtest::failureOf;
using Strings = std::vector<std::string>;

namespace {

struct KestrixAITest : KestrixFixture {
    static std::shared_ptr<KestrixAI> makeAI() {
        const kestrixsim::Scenario& board = kestrixsim::instrument().scenario();
        BoardIdentity identity;
        identity.modules = static_cast<unsigned char>(board.slots);
        identity.channels = static_cast<unsigned char>(2 * board.slots);
        identity.deviceType = static_cast<unsigned char>(board.boardType);
        identity.publish();
        return std::make_shared<KestrixAI>(
            std::make_shared<Harvane::ZornLib::Devices::Embedded::MmapRegisterAccess>("/dev/mem"), identity);
    }

    static void resetCold(int boardType) {
        Scenario scenario = warmScenario(2);
        scenario.boardType = boardType;
        scenario.supplyOn = false;
        kestrixsim::reset(scenario);
    }

    static uint32_t supply() { return word(0xA6000010) & 255; }
};

TEST_F(KestrixAITest, SupplyIsSteppedUpSlotBySlot) {
    resetCold(0);
    {
        const auto ai = makeAI();
        EXPECT_EQ(kestrixsim::instrument().supplySwitches(), 2u);  // 127 and 255
        EXPECT_EQ(supply(), 255u);
        EXPECT_EQ((std::vector{word(0xA6000004) & 1, word(0xA6000008) & 63, word(0xA600000C) & 63}),
                  (std::vector{0u, 21u, 3u}));
        ai->enableSupply();  // up already
        EXPECT_EQ(kestrixsim::instrument().supplySwitches(), 2u);
        EXPECT_TRUE(isDetected(*ai, 1));
        ai->disableSupply();
        EXPECT_FALSE(isDetected(*ai, 1));
    }
    EXPECT_EQ(supply(), 0u);
    EXPECT_EQ(kestrixsim::openDescriptors(), 0);
}

TEST_F(KestrixAITest, SmallBoardHasNoSupplyToSwitchOn) {
    resetCold(1);
    const auto ai = makeAI();
    EXPECT_EQ(kestrixsim::instrument().supplySwitches(), 0u);
    EXPECT_TRUE(isDetected(*ai, 1));
}

TEST_F(KestrixAITest, FailedConstructionSwitchesOffAndClosesEverything) {
    const std::pair<kestrixsim::Fault, const char*> cases[] = {
        {{.kind = FaultKind::DmaOpen, .target = 5}, "Cannot open device file"},
        {{.kind = FaultKind::DmaIoctl, .target = 3}, "SET_BD_CNT ioctl error"},
    };
    for (const auto& [fault, text] : cases) {
        kestrixsim::reset(warmScenario(8));
        inject(fault);
        EXPECT_EQ(failureOf([] { makeAI(); }), text);
        EXPECT_EQ(supply(), 0u);
        EXPECT_EQ(kestrixsim::openDescriptors(), 0);
    }
    // An FPGA that can't be reached any more can't be switched off either.
    kestrixsim::reset(warmScenario(8));
    auto ai = makeAI();
    inject({.kind = FaultKind::MemMap, .times = -1});
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
        EXPECT_EQ((std::vector<unsigned long>{channel->buffer->getSampleSize(), channel->bufferGranularity}),
                  (filtered ? std::vector<unsigned long>{4, 16} : std::vector<unsigned long>{2, 32}));
        EXPECT_EQ(std::pair(channel->minRate, channel->maxRate), std::pair(100, filtered ? 1875000 : 15000000));
        EXPECT_EQ(channel->enabled, number / 2 != 1) << number;
        EXPECT_EQ(channel->amplifier, ai().getAIChannel(number / 2 * 2)->amplifier);
        EXPECT_EQ(channel->amplifier->settings()->ranges.size(), 1u);
    }
    const auto present = std::dynamic_pointer_cast<KestrixAmplifier>(ai().getAIChannel(4)->amplifier);
    ASSERT_NE(present, nullptr);
    EXPECT_EQ(present->getAmplifier(), ai().getAmplifierCommunication()->getAmplifier(2));
    EXPECT_TRUE(present->getModuleType() > 0 && !present->serialNumber.empty());
    const auto absent = ai().getAIChannel(2)->amplifier;
    EXPECT_TRUE(absent->getModuleType() == 0 && absent->serialNumber.empty());
    takeFrames();
    EXPECT_TRUE(absent->update());
    EXPECT_EQ(takeFrames(), Strings{});

    ASSERT_EQ(ai().channelView->size(), 3u);
    EXPECT_TRUE(ai().channelView->channels.empty());
    const auto folder = std::dynamic_pointer_cast<ChannelFolder>(ai().channelView->at(1));
    EXPECT_EQ(folder->name, "AI 2");
    EXPECT_TRUE(folder->sharedInputs);
    EXPECT_EQ(folder->channels, (std::vector<std::shared_ptr<Channel>>{ai().channels[2], ai().channels[3]}));
}

}  // namespace
