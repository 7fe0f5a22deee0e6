#include "modules/daq/objectmodel/AOChannel.h"
#include "modules/daq/objectmodel/CANChannel.h"
#include "tests/seams/Station.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

constexpr uint64_t triggerWord = 0xA0200004;

// ---- Steps ----

struct PhaseTest : testing::Test, protected Station {
    PhaseTest() : Station(slots(1)) {}

    // From any phase but Empty; Scanned is behind once anything was prepared.
    void reach(Phase target) {
        if (phase() == Phase::Running && target != Phase::Running) {
            EXPECT_EQ(stop(), "");
        }
        if (target != Phase::Scanned && target != phase()) {
            EXPECT_EQ(initialize(), "");
        }
        if (target == Phase::Initialised && target != phase()) {
            EXPECT_EQ(beforeStart(), "");
        }
        if (target == Phase::Running && target != phase()) {
            EXPECT_EQ(start(), "");
        }
        EXPECT_EQ(phase(), target);
    }

    // A refusal names the step and the phase, and changes nothing.
    void expectRefusal(Step step, Phase in) {
        const std::string words = take(step);
        EXPECT_TRUE(isRefusal(words, step, in)) << nameOf(step) << " in " << nameOf(in) << ": \"" << words << "\"";
        EXPECT_EQ(phase(), in) << nameOf(step) << " in " << nameOf(in);
    }
};

TEST_F(PhaseTest, EachStepInEachPhase) {
    for (const Phase from : {Phase::Empty, Phase::Scanned, Phase::Prepared, Phase::Initialised, Phase::Running}) {
        if (from != Phase::Empty) {
            reach(from);
        }
        for (const Step step : allSteps) {
            // Without a tree there is no procedure that could be called.
            const bool isThere = from != Phase::Empty || step != Step::BeforeStart;
            if (isThere && !leadsTo(from, step)) {
                expectRefusal(step, from);
            }
        }
        if (from == Phase::Running) {
            EXPECT_TRUE(deliversWhatItShows()) << "behind all the refusals";
        }
        for (const Step step : allSteps) {
            if (const auto to = leadsTo(from, step)) {
                if (from != Phase::Empty) {
                    reach(from);
                }
                EXPECT_EQ(take(step), "") << nameOf(step) << " in " << nameOf(from);
                EXPECT_EQ(phase(), *to) << nameOf(step) << " in " << nameOf(from);
            }
        }
    }
    EXPECT_TRUE(goodRun());
}

TEST_F(PhaseTest, FailedAddLeavesNothingToRun) {
    inject({.kind = FaultKind::DmaOpen, .target = 1});
    EXPECT_NE(add().find("Cannot open device file"), std::string::npos);
    EXPECT_EQ(phase(), Phase::Empty);
    EXPECT_EQ(kestrixsim::openDescriptors(), 0);
    for (const Step step : allSteps) {
        if (step != Step::Add && step != Step::BeforeStart) {
            expectRefusal(step, Phase::Empty);
        }
    }
    // The host's tree was not begun, so that nothing is in the way of another attempt, with all that belongs to it.
    EXPECT_EQ(add(), "");
    EXPECT_EQ(askFor(dataModule, 5000), "");
    EXPECT_EQ(ioctl(1, "Off"), "");
    expectRefusal(Step::BeforeStart, Phase::Scanned);
    EXPECT_TRUE(goodRun());
    EXPECT_EQ(impl->daqController.sampleRate, 5000);
}

TEST_F(PhaseTest, RefusedAddKeepsTheTree) {
    ASSERT_EQ(add(), "");
    const DataModulePtr other = made<IDataModule>(createDataModule, StringPtr("Other").get());
    EXPECT_TRUE(isRefusal(addTo(other), Step::Add, Phase::Scanned));
    EXPECT_EQ(impl->dataModule, dataModule);
    EXPECT_TRUE(goodRun());
}

// ---- What runs is what is shown ----

struct SeamTest : testing::Test, protected Station {
    SeamTest() {
        EXPECT_EQ(add(), "");
        use({raw(1), filtered(1), filtered(2)});
        EXPECT_EQ(askFor(dataModule, 20000), "");
        EXPECT_EQ(configure(), "");
        EXPECT_EQ(initialize(), "");
    }
    static uint32_t triggers() { return instrument().registerWord(triggerWord) & 0xFFFF; }
};

TEST_F(SeamTest, AChangeBetweenBeforeStartAndStartCounts) {
    const Ratio slow{10000, 1};
    // fitsOldRings: no used channel gets faster, and the host takes none in or out.
    const std::tuple<const char*, std::function<std::string()>, bool> changes[] = {
        {"slower system", [&] { return askFor(dataModule, 10000); }, true},
        {"faster system", [&] { return askFor(dataModule, 40000); }, false},
        {"device", [&] { return askFor(device(), 20000); }, true},
        {"raw channel", [&] { return askFor(raw(1), 10000); }, true},
        {"filtered channel", [&] { return askFor(filtered(2), 10000); }, true},
        {"by the host", [&] { return asHost(dataModule, "SampleRate", slow); }, true},
        {"another channel", [&] { return asUser(raw(2), "Used", true); }, false},
        {"one channel less", [&] { return asUser(raw(2), "Used", false); }, false},
        {"amplifier", [&] { return asUser(raw(1), "LPFilter", 2); }, true},
        {"amplifier of an unused channel", [&] { return asUser(raw(2), "Short", true); }, true},
        {"clock", [&] { return asUser(device(), "BaseClock", 1); }, true},
        {"rate of the new clock", [&] { return askFor(dataModule, 16000); }, false},
    };
    for (const auto& [what, make, fitsOldRings] : changes) {
        SCOPED_TRACE(what);
        EXPECT_EQ(beforeStart(), "");
        EXPECT_EQ(phase(), Phase::Initialised);
        EXPECT_EQ(make(), "");
        EXPECT_EQ(phase(), Phase::Prepared);
        EXPECT_EQ(start(fitsOldRings ? Rings::Old : Rings::New), "");
        EXPECT_TRUE(deliversWhatItShows(1.5));
        EXPECT_EQ(stop(), "");
    }
    EXPECT_EQ(instrument().amplifierState(0).lpFilter, 2);
    EXPECT_TRUE(instrument().amplifierState(1).shortOn);
}

// The run keeps its rates. The next one may take over what was written, or show what is in force again: both agree.
TEST_F(SeamTest, WhatIsWrittenInARunLeavesTheNextOneGood) {
    EXPECT_EQ(start(), "");
    EXPECT_EQ(askFor(dataModule, 5000), "");
    EXPECT_EQ(askFor(raw(1), 1000), "");
    EXPECT_EQ(asHost(filtered(2), "SampleRate", Ratio{300, 1}), "");
    EXPECT_EQ(asHost(device(), "BaseClock", 1), "");
    EXPECT_EQ(cycle(), "");
    EXPECT_EQ(stop(), "");
    EXPECT_TRUE(goodRun());
    EXPECT_EQ(rateOf(dataModule), impl->daqController.sampleRate);
}

// Nothing but the rings tells of it: those of "BeforeStart" were longer than they had to be, in other pieces.
TEST_F(SeamTest, NewRingsBetweenBeforeStartAndStartAreThoseOfTheRun) {
    EXPECT_EQ(askFor(dataModule, 25000), "");
    reserveRings();
    EXPECT_EQ(askFor(dataModule, 20000), "");
    ASSERT_EQ(beforeStart(Rings::Old), "");
    reserveRings();
    EXPECT_EQ(phase(), Phase::Initialised);
    EXPECT_EQ(start(Rings::Old), "");
    EXPECT_TRUE(deliversWhatItShows(3.0));
    EXPECT_EQ(stop(), "");
}

TEST_F(SeamTest, RingsOfLessThanTwoSecondsAreRefused) {
    const auto expectRefusal = [&](const std::string& words) {
        EXPECT_FALSE(words.empty());
        EXPECT_NE(words.find("second"), std::string::npos) << words;
        EXPECT_NE(words.find("Raw input"), std::string::npos) << words;
        EXPECT_EQ(phase(), Phase::Prepared);
        EXPECT_TRUE(isQuiet());
    };
    use({raw(1)});
    expectRefusal(start(Rings::Old));  // none at all
    reserveRings();
    EXPECT_EQ(askFor(raw(1), 5000), "");
    EXPECT_EQ(askFor(dataModule, 25000), "");
    expectRefusal(start(Rings::Old));
    EXPECT_TRUE(goodRun());
}

TEST_F(SeamTest, BeforeStartManyTimes) {
    const kestrixsim::Fault startOfStream2{.kind = FaultKind::DmaIoctl, .target = 2, .code = 0x40064C08};
    for (const bool secondFails : {false, true}) {
        EXPECT_EQ(beforeStart(), "");
        if (secondFails) {
            inject(startOfStream2);
        }
        EXPECT_EQ(beforeStart(), secondFails ? "80000014 START_TRANSFER ioctl error" : "");
        EXPECT_EQ(phase(), secondFails ? Phase::Prepared : Phase::Initialised);
        EXPECT_EQ(start(), "");
        EXPECT_TRUE(deliversWhatItShows());
        EXPECT_EQ(stop(), "");
    }
    // Left as it is, with the streams on.
    EXPECT_EQ(beforeStart(), "");
    EXPECT_TRUE(goodRun());
}

TEST_F(SeamTest, UsbModeCountsFromTheNextStart) {
    const auto delivers = [&] {
        time->hold();
        time->step(0.5);
        EXPECT_EQ(cycle(), "");
        time->run();
        return raw(1).getSamplesAcquired() != 0;
    };
    EXPECT_EQ(beforeStart(), "");
    EXPECT_EQ(ioctl(1, "On"), "");
    EXPECT_EQ(phase(), Phase::Prepared);
    EXPECT_EQ(start(), "");
    EXPECT_EQ(ioctl(1, "Off"), "") << "for the next run";
    EXPECT_FALSE(delivers());
    EXPECT_EQ(stop(), "");
    EXPECT_TRUE(goodRun());
    // The host is told before it reserves.
    for (const bool usb : {true, false}) {
        EXPECT_EQ(ioctl(1, usb ? "On" : "Off"), "");
        EXPECT_EQ(initialize(), "");
        EXPECT_EQ(raw(1).getPropertyValue<bool>("ShouldReserveMemory"), !usb);
    }
}

// ---- Options ----

TEST_F(SeamTest, ARunUsesTheOptionThatWasApplied) {
    EXPECT_EQ(applied(), "[1, []]");
    EXPECT_EQ(start(), "");
    EXPECT_EQ(triggers(), 0x0003u) << "modules that start by themselves";
    EXPECT_EQ(choose(1, {14}), "");
    EXPECT_TRUE(deliversWhatItShows());
    EXPECT_EQ(stop(), "");
    EXPECT_EQ(chosen(), "[1, [14]]");
    EXPECT_EQ(applied(), "[1, []]") << "pending";

    EXPECT_EQ(start(), "");
    EXPECT_EQ(applied(), "[1, [14]]");
    EXPECT_EQ(triggers(), 0x0300u) << "modules that wait for the timing core";
    EXPECT_EQ(stop(), "");

    // Chosen between runs, and between "BeforeStart" and the start.
    EXPECT_EQ(choose(14), "");
    EXPECT_EQ(configure(), "");
    EXPECT_EQ(applied(), "[14, []]");
    EXPECT_EQ(initialize(), "");
    EXPECT_EQ(beforeStart(), "");
    EXPECT_EQ(choose(1), "");
    EXPECT_EQ(phase(), Phase::Prepared);
    EXPECT_EQ(start(), "");
    EXPECT_EQ(applied(), "[1, []]");
    EXPECT_TRUE(deliversWhatItShows());
    EXPECT_EQ(stop(), "");

    // What is refused has no effect on either.
    EXPECT_EQ(choose(2), "80000014 not valid synchronization");
    EXPECT_EQ(applied(), "[1, []]");
    EXPECT_TRUE(goodRun());
}

// ---- Devices that the instrument hasn't got ----

struct OtherParts : TestDevice {
    struct Parts : SubDevice {
        Parts() {
            auto output = std::make_shared<AOChannel>(0);
            output->name = "Out";
            auto can = std::make_shared<CANChannel>(1);
            can->name = "CAN";
            for (const std::shared_ptr<Channel>& channel : {std::shared_ptr<Channel>(output), {can}}) {
                channel->initialize();
                channels.push_back(channel);
            }
        }
        std::string getDisplayName() const override { return "Parts"; }
    };

    std::shared_ptr<SubDevice> createAODevice() override { return std::make_shared<Parts>(); }
};

struct OtherPartsTest : testing::Test, protected ModuleInHost {
    OtherPartsTest() {
        devicesToFind()["ID_10"] = device;
        EXPECT_EQ(add(), "");
        use({channel("Raw 1"), channel("CAN"), channel("Out")});
    }
    GenericPropertyObjectPtr routeOf(const char* name) const {
        return channel(name).getPropertyValue("RTC").asPtr<IPropertyObject>();
    }
    std::shared_ptr<OtherParts> device = std::make_shared<OtherParts>();
};

TEST_F(OtherPartsTest, SettingsOfPortsAndRoutesTakeThePreparationBack) {
    const std::pair<const char*, std::function<std::string()>> changes[] = {
        {"baud rate", [&] { return asUser(channel("CAN"), "BaudRate", 250000); }},
        {"mode of the port", [&] { return asUser(channel("CAN"), "OperationMode", "ReadWriteAcq"); }},
        {"route", [&] { return asUser(routeOf("Out"), "Enabled", true); }},
        {"route of the port", [&] { return asUser(routeOf("CAN"), "Enabled", true); }},
        {"another route", [&] { return asHost(channel("Out"), "RTC", routeOf("CAN")); }},
    };
    EXPECT_EQ(initialize(), "");
    for (const auto& [what, make] : changes) {
        EXPECT_EQ(beforeStart(), "");
        EXPECT_EQ(phase(), Phase::Initialised);
        EXPECT_EQ(make(), "") << what;
        EXPECT_EQ(phase(), Phase::Prepared) << what;
    }
}

}  // namespace
