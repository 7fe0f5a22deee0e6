#include "modules/daq/daqdevices/kestrix/src/KestrixAmplifier.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "shared/libraries/kestrix/src/AmplifierProperties.h"
#include "tests/kestrix/KestrixFixture.h"

// What an amplifier of the simulated instrument does, against what its settings say and what its channels deliver.
using namespace Harvane::RT::Modules::Daq;
using kestrixsim::AmplifierState;
using kestrixsim::FaultKind;
using kestrixsim::Scenario;
using Strings = std::vector<std::string>;

namespace {

// What a bridge amplifier offers in two of its measurements.
AmplifierSettings bridgeSettings(int measurement, int range, double excitation = 5.0) {
    AmplifierSettings settings;
    settings.measurements = {"Bridge", "Voltage", "Potentiometer"};
    settings.measurementIndex = measurement;
    settings.rangeUnit = measurement == 0 ? "mV/V" : "V";
    settings.ranges = measurement == 0 ? Strings{"10", "5", "2", "1"} : Strings{"10", "1"};
    settings.maxValues = measurement == 0 ? std::vector<double>{10.0, 5.0, 2.0, 1.0} : std::vector<double>{10.0, 1.0};
    settings.minValues = settings.maxValues;
    for (double& value : settings.minValues) {
        value = -value;
    }
    settings.rangeIndex = range;
    settings.lpFilters = {"Off", "100 kHz", "10 kHz"};
    settings.lpFilterIndex = measurement == 0 ? 1 : 0;
    settings.hpFilters = {"DC"};
    settings.inputTypes = {"Full bridge", "Half bridge"};
    settings.inputTypeIndex = measurement == 0 ? 1 : 0;
    settings.excitations = {0.0, 1.0, 2.5, 5.0, 10.0};
    settings.excitationIndex = 3;
    settings.excitationValue = excitation;
    settings.excitationTypes = {"DC"};
    settings.shortPresent = true;
    return settings;
}

struct AmplifierInForce : KestrixFixture {
    void plug() {
        Scenario scenario = warmScenario(1);
        scenario.modules.at(0).kind = kestrixsim::AmplifierKind::Bridge;
        bringUp(scenario);
    }
    KestrixAmplifier& amplifier() const { return dynamic_cast<KestrixAmplifier&>(*ai().getAIChannel(0)->amplifier); }
    static AmplifierState state() { return kestrixsim::instrument().amplifierState(0); }
    std::string failure() const {
        const auto failure = amplifier().lastFailure();
        return failure ? failure->text() : "";
    }

    // The amplifier works by these, and the settings say so.
    void expectInForce(const AmplifierSettings& expected) const {
        const AmplifierState now = state();
        EXPECT_EQ(now.measurement, expected.measurementIndex);
        EXPECT_EQ(now.range, expected.rangeIndex);
        EXPECT_EQ(now.lpFilter, expected.lpFilterIndex);
        EXPECT_EQ(now.coupling, expected.hpFilterIndex);
        EXPECT_EQ(now.inputType, expected.inputTypeIndex);
        EXPECT_EQ(now.excitation, static_cast<float>(expected.excitationValue));
        EXPECT_EQ(now.excitationType, expected.excitationTypeIndex);
        EXPECT_EQ(now.shortOn, expected.shortOn);
        EXPECT_TRUE(*amplifier().settings() == expected) << "shows what is not in force";
        EXPECT_TRUE(*amplifier().settingsInForce() == expected);
        EXPECT_TRUE(amplifier().areSettingsInForceKnown());
        const auto record = amplifier().getAmplifier()->getSettingsInForce();
        ASSERT_TRUE(record);
        EXPECT_EQ(record->range, expected.rangeIndex);
        EXPECT_EQ(record->measurementType, expected.measurementIndex);
    }
};

// Step by step: what fails of the settings that were gone back to hides nothing; a user who asks for just these is
// answered; settings that no amplifier can take never block the way to others.
TEST_F(AmplifierInForce, RefusalsOneAfterTheOther) {
    plug();
    const AmplifierSettings first = bridgeSettings(0, 1);
    // Nothing has ever been in force: there is nothing to go back to.
    const AmplifierSettings impossible = bridgeSettings(0, 0, 6.0);
    amplifier().setSettings(impossible);
    for (int round = 0; round < 2; ++round) {
        EXPECT_FALSE(amplifier().update());
        EXPECT_TRUE(*amplifier().settings() == impossible);
        EXPECT_FALSE(amplifier().areSettingsInForceKnown());
        EXPECT_EQ(amplifier().getMaxValue(), 10.0);
        EXPECT_EQ(failure(), "Update: refused with status 3");
    }
    amplifier().setSettings(first);
    EXPECT_TRUE(amplifier().update());
    expectInForce(first);
    EXPECT_EQ(failure(), "");

    // The measurement is taken, the range not: nothing of it is left, in the amplifier neither.
    amplifier().setSettings(bridgeSettings(1, 3));
    for (int again = 0; again < 2; ++again) {
        EXPECT_FALSE(amplifier().update());
        EXPECT_EQ(failure(), "Update: refused with status 3");
        EXPECT_TRUE(*amplifier().settings() == first);
        amplifier().setSettings(bridgeSettings(1, 3));
    }
    amplifier().setSettings(first);
    inject({.kind = FaultKind::MuxError});
    EXPECT_FALSE(amplifier().update());
    EXPECT_TRUE(amplifier().update());
    expectInForce(first);
    EXPECT_EQ(failure(), "Update: refused with status 3") << "a later round of the same start";
    inject({.kind = FaultKind::AmplifierBadStatus, .times = 3});
    EXPECT_FALSE(amplifier().update());
    EXPECT_TRUE(amplifier().update());
    EXPECT_EQ(failure(), "Update: refused with status 3");
    amplifier().beginRequest();
    EXPECT_TRUE(amplifier().update());
    EXPECT_EQ(failure(), "");

    // What was in force before is still that, when a refusal hits what is in force already.
    amplifier().beginRequest();
    inject({.kind = FaultKind::AmplifierBadStatus, .times = 3});
    EXPECT_FALSE(amplifier().update());
    EXPECT_EQ(failure(), "Update: refused with status 3");
    EXPECT_TRUE(amplifier().update());
    EXPECT_EQ(failure(), "");

    // Without its supply an amplifier forgets; what it took last is asked for again.
    amplifier().getAmplifier()->clearDeviceProperties();
    EXPECT_FALSE(amplifier().areSettingsInForceKnown());
    inject({.kind = FaultKind::AmplifierBadStatus, .times = 3, .command = 0xBC});
    amplifier().setSettings(bridgeSettings(1, 1));
    EXPECT_FALSE(amplifier().update());
    EXPECT_TRUE(*amplifier().settings() == first);
    EXPECT_TRUE(amplifier().update());
    expectInForce(first);
}

// Every setting reaches the amplifier in its place, and later only what has changed; a list that is empty is a setting
// that the amplifier doesn't have.
TEST_F(AmplifierInForce, SettingsAreSentInOrder) {
    plug();
    amplifier().setSettings(bridgeSettings(0, 1));
    takeFrames();
    EXPECT_TRUE(amplifier().update());
    const Strings all = {"02 60 00", "02 BC 01", "02 C8 01", "02 C3 00", "02 C9 01", "05 B9 00 00 A0 40",
                         "02 6A 00", "02 B7 00", "01 67",    "01 FA",    "01 FB"};
    EXPECT_EQ(takeFrames(), all);

    struct {
        void (*change)(AmplifierSettings&);
        const char* frame;
    } const changes[] = {
        {[](AmplifierSettings& s) { s.rangeIndex = 2; }, "02 BC 02"},
        {[](AmplifierSettings& s) { s.lpFilterIndex = 2; }, "02 C8 02"},
        {[](AmplifierSettings& s) { s.inputTypeIndex = 0; }, "02 C9 00"},
        {[](AmplifierSettings& s) { s.excitationValue = 10.0; }, "05 B9 00 00 20 41"},
        {[](AmplifierSettings& s) { s.shortOn = true; }, "02 B7 01"},
    };
    for (const auto& change : changes) {
        amplifier().edit(change.change);
        EXPECT_TRUE(amplifier().update());
        EXPECT_EQ(takeFrames(), (Strings{change.frame, "01 67", "01 FA", "01 FB"}));
        expectInForce(*amplifier().settings());
    }
    amplifier().edit([](AmplifierSettings& s) { s.measurementIndex = 2; });
    amplifier().edit([](AmplifierSettings& s) { s.rangeIndex = 0; });
    EXPECT_TRUE(amplifier().update());
    EXPECT_EQ(takeFrames(), (Strings{"02 60 02", "02 BC 00", "02 C3 00", "01 67", "01 FA", "01 FB"}));

    // After a refusal all is sent afresh.
    amplifier().edit([](AmplifierSettings& s) { s.rangeIndex = 3; });
    EXPECT_FALSE(amplifier().update());
    takeFrames();
    EXPECT_TRUE(amplifier().update());
    EXPECT_EQ(takeFrames(), (Strings{"02 60 02", "02 BC 00", "02 C8 02", "02 C3 00", "02 C9 00", "05 B9 00 00 20 41",
                                     "02 6A 00", "02 B7 01", "01 67", "01 FA", "01 FB"}));

    // The first refusal ends the sending.
    amplifier().edit([](AmplifierSettings& s) { s.rangeIndex = s.lpFilterIndex = 1; });
    inject({.kind = FaultKind::AmplifierBadStatus, .times = 3, .command = 0xBC});
    EXPECT_FALSE(amplifier().update());
    EXPECT_EQ(takeFrames(), Strings(3, "02 BC 01"));
    EXPECT_EQ(amplifier().settings()->rangeIndex, 0);
    EXPECT_EQ(amplifier().settings()->lpFilterIndex, 2) << "never sent";

    amplifier().setSettings({});
    EXPECT_TRUE(amplifier().update());
    EXPECT_EQ(takeFrames(), (Strings{"01 67", "01 FA", "01 FB"}));
}

TEST_F(AmplifierInForce, OnlyALampThatIsThereIsSwitched) {
    plug();
    takeFrames();
    amplifier().notifyEnterChSetup();
    amplifier().notifyLeaveChSetup();
    EXPECT_EQ(takeFrames(), Strings{});
    amplifier().ledControl = true;
    amplifier().notifyEnterChSetup();
    amplifier().notifyLeaveChSetup();
    EXPECT_EQ(takeFrames(), (Strings{"02 F2 01", "02 F2 00"}));
}

// The balance is part of the offset, of bridges only and of none that was refused.
TEST_F(AmplifierInForce, TheBalanceActsOnTheChannels) {
    plug();
    amplifier().setSettings(bridgeSettings(0, 3));
    ASSERT_TRUE(amplifier().update());
    const double own = amplifier().getAmplifier()->getDaqOffset();
    amplifier().bridgeOffset = -0.25;
    EXPECT_DOUBLE_EQ(amplifier().getOffset(), own - 0.25);
    amplifier().setSettings(bridgeSettings(1, 3));
    EXPECT_FALSE(amplifier().update());
    EXPECT_DOUBLE_EQ(amplifier().getOffset(), own - 0.25) << "still a bridge";
    amplifier().setSettings(bridgeSettings(1, 1));
    EXPECT_TRUE(amplifier().update());
    EXPECT_DOUBLE_EQ(amplifier().getOffset(), amplifier().getAmplifier()->getDaqOffset());
}

}  // namespace
