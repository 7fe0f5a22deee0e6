#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>

#include "libraries/devices/embedded/I2cRegisterAccess.h"
#include "libraries/devices/embedded/MmapRegisterAccess.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDaqClock.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDaqTiming.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"
#include "tests/kestrix/KestrixFixture.h"
#include "tests/registers/LogCapture.h"

using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::ZornLib::Devices::Embedded;
using namespace std::chrono_literals;
using kestrixsim::FaultKind;
using kestrixsim::ReferenceKind;
using kestrixsim::ReferenceScenario;
using kestrixsim::Scenario;
using Mode = SynchronizationMode;
namespace RegistersAddress = Harvane::Shared::Kestrix::RegistersAddress;

namespace {

// What reaches the hardware and the platform, in order: "00 105" a word stored at an offset of the timing core,
// "irig 53" the IRIG core's control, the arguments of the PTP script, "in 0" and "out 1" the IRIG switches, "delay
// 410", "gpio506 1". What happens between two stores is listed in that order.
class Watch : public IRegisterAccess {
public:
    explicit Watch(std::shared_ptr<IRegisterAccess> bus) : bus_(std::move(bus)) { look(); }

    void write(uint64_t address, uint64_t offset, const unsigned char* data, size_t size) override {
        bus_->write(address, offset, data, size);
        uint32_t word = 0;
        std::memcpy(&word, data, std::min(size, sizeof word));
        look();
        char text[40];
        if (address == RegistersAddress::irigCoreBaseAddress) {
            std::snprintf(text, sizeof text, "irig %02X", word);
        } else {
            std::snprintf(text, sizeof text, "%02X %X", static_cast<unsigned>(offset), word);
        }
        lines.emplace_back(text);
    }
    void read(uint64_t address, uint64_t offset, unsigned char* data, size_t size) override {
        bus_->read(address, offset, data, size);
    }
    std::recursive_mutex& getSync() override { return bus_->getSync(); }

    std::vector<std::string> take() {
        look();
        return std::exchange(lines, {});
    }

private:
    void look() {
        const auto commands = kestrixsim::instrument().commandsRun();
        for (; commands_ < commands.size(); ++commands_) {
            const std::string& line = commands[commands_];
            lines.push_back(line.substr(line.find(".sh ") + 4));
        }
        const std::string timing = "/sys/class/tolvn_korvel/tolvn_timing/";
        const std::pair<const char*, std::string> files[] = {{"out", timing + "irig_out_enabled"},
                                                             {"in", timing + "irig_in_enabled"},
                                                             {"delay", timing + "igb_ptp_update_correction_ns"},
                                                             {"gpio506", "/sys/class/gpio/gpio506/value"},
                                                             {"gpio505", "/sys/class/gpio/gpio505/value"},
                                                             {"gpio504", "/sys/class/gpio/gpio504/value"}};
        for (size_t i = 0; i < std::size(files); ++i) {
            std::string text;
            std::ifstream(kestrixsim::rootFolder() + files[i].second) >> text;
            if (text != known_[i]) {
                lines.push_back(files[i].first + (" " + text));
                known_[i] = text;
            }
        }
    }

    std::shared_ptr<IRegisterAccess> bus_;
    size_t commands_ = 0;
    std::array<std::string, 6> known_;
    std::vector<std::string> lines;
};

// The two clocks are read one after the other, and what passes in between is as much longer as time runs faster: more
// than 1 ms of it would be taken for a step.
#if defined(__SANITIZE_THREAD__)
constexpr double steadyFactor = 8.0;
#else
constexpr double steadyFactor = 15.0;
#endif

// A device that has nothing but a timing and a clock.
class Board : public DaqDevice {
public:
    Board()
        : watch(std::make_shared<Watch>(std::make_shared<MmapRegisterAccess>(RegistersAddress::memoryDeviceFileName))) {
    }
    std::shared_ptr<DaqTiming> createDaqTiming() override {
        timing = std::make_shared<KestrixDaqTiming>(
            watch, std::make_shared<I2cRegisterAccess>(RegistersAddress::i2cDeviceFileName));
        return timing;
    }
    std::shared_ptr<DaqClock> createDaqClock() override { return std::make_shared<KestrixDaqClock>(watch); }

    std::shared_ptr<Watch> watch;
    std::shared_ptr<KestrixDaqTiming> timing;
};

class TimingTest : public testing::Test {
protected:
    ~TimingTest() override { board_.reset(); }

    // Fifty seconds of the instrument in one: pulses need no patience.
    static Scenario fast(double factor = 50.0) {
        Scenario scenario;
        scenario.slots = 1;
        scenario.supplyOn = true;
        scenario.oscillatorErrorPpm = 12.0;
        scenario.oscillator.word = 512;
        scenario.timeFactor = factor;
        return scenario;
    }
    Board& bringUp(const Scenario& scenario) {
        board_.reset();
        kestrixsim::reset(scenario);
        RegistersAddress::baseClock = 15000000;
        board_ = std::make_shared<Board>();
        board_->initialize();
        return *board_;
    }
    Board& board() { return *board_; }
    KestrixDaqTiming& timing() { return *board_->timing; }
    void apply(Mode mode, const SynchronizationModes& sources = {}) {
        board_->setSynchronizationOption({mode, sources});
        board_->applySynchronization();
    }
    std::pair<bool, bool> flags() {  // tracking, error
        bool tracking = false;
        bool error = false;
        timing().getCurrentTime(tracking, error);
        return {tracking, error};
    }
    bool await(const std::function<bool()>& condition, std::chrono::seconds bound) {
        const auto end = std::chrono::steady_clock::now() + bound;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            std::this_thread::sleep_for(20ms);
        }
        return true;
    }
    // A start, as the tree makes it.
    void startRun() {
        board_->initializeAcquisition(true);
        timing().startTransfer();
    }
    static double phaseNs() { return kestrixsim::instrument().timingState().phaseSeconds * 1e9; }

    std::shared_ptr<Board> board_;
};

// "C": what every option begins with.
const std::vector<std::string> common = {"0C 1", "0C 0",      "08 F",      "00 100",   "24 1",
                                         "24 3", "gpio506 0", "gpio505 0", "gpio504 0"};

TEST_F(TimingTest, EachOptionIsAppliedInItsOrder) {
    struct Case {
        const char* name;
        Mode mode;
        SynchronizationModes sources;
        std::vector<std::string> actions;  // behind the common ones
        bool absolute;
    };
    const std::vector<std::string> card = {"00 105", "00 115", "00 15", "00 15", "00 15", "00 15", "2C 8", "38 1"};
    const std::vector<std::string> output = {"00 104", "00 114",  "00 14",   "00 1014", "00 1014", "00 1014",
                                             "38 1",   "irig 01", "irig 03", "irig 13", "irig 53"};
    const std::vector<std::string> input = {"00 100", "00 110",  "00 10",   "00 10",   "00 10",  "00 10",
                                            "38 1",   "irig 01", "irig 03", "irig 13", "irig 13"};
    const std::vector<std::string> pulse = {"00 101", "00 111", "00 11", "00 11", "00 11", "00 11", "38 0"};
    const auto joined = [](std::initializer_list<std::vector<std::string>> parts) {
        std::vector<std::string> all;
        for (const auto& part : parts) {
            all.insert(all.end(), part.begin(), part.end());
        }
        return all;
    };
    using Lines = std::vector<std::string>;
    const Case cases[] = {
        {"standalone", Mode::Standalone, {}, {"disable", "restart"}, false},
        {"PTP out", Mode::Standalone, {Mode::Ptp}, joined({Lines{"master standalone", "restart"}, card}), true},
        {"IRIG out",
         Mode::Standalone,
         {Mode::Irig},
         joined({output, Lines{"irig master", "restart", "out 1", "gpio506 1"}}),
         true},
        {"PTP", Mode::Ptp, {}, joined({Lines{"slave", "restart"}, card}), true},
        {"PTP in, IRIG out",
         Mode::Ptp,
         {Mode::Irig},
         joined({output, Lines{"slave", "restart", "out 1", "gpio506 1"}}),
         true},
        {"PPS", Mode::Pps, {}, joined({Lines{"disable", "restart"}, pulse}), false},
        {"PPS in, PTP out", Mode::Pps, {Mode::Ptp}, joined({Lines{"master", "restart", "delay 410"}, pulse}), false},
        {"IRIG", Mode::Irig, {}, joined({Lines{"irig slave", "restart", "in 1"}, input}), true},
        {"IRIG in, PTP out", Mode::Irig, {Mode::Ptp}, joined({Lines{"master", "restart"}, card, input}), true},
        {"no mode of the instrument", Mode::SoftSync, {}, {}, false},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        bringUp(fast());
        board().watch->take();
        apply(each.mode, each.sources);
        Lines expected = joined({common, each.actions});
        if (std::string(each.name) == "IRIG in, PTP out") {
            // The input takes the card's place word by word.
            const size_t from = expected.size() - input.size();
            const Lines words = {"00 10", "00 10", "00 10", "00 10", "00 10", "00 10"};
            std::copy(words.begin(), words.end(), expected.begin() + static_cast<std::ptrdiff_t>(from));
        }
        Lines done = board().watch->take();
        // Files that hold what is written already stay unseen.
        for (const char* quiet : {"gpio506 0", "gpio505 0", "gpio504 0"}) {
            std::erase(expected, quiet);
            std::erase(done, quiet);
        }
        EXPECT_EQ(done, expected);
        EXPECT_EQ(board().timing->absTimeSynchronized, each.absolute);
        // The same again does nothing; after a change of the clock it is applied anew.
        board().applySynchronization();
        EXPECT_EQ(board().watch->take(), Lines{});
        timing().clearPreviousSynchronization();
        board().applySynchronization();
        EXPECT_FALSE(board().watch->take().empty());
    }
}

TEST_F(TimingTest, LinesThatAreUpGoDownWithTheNextOption) {
    bringUp(fast());
    apply(Mode::Standalone, {Mode::Irig});
    board().watch->take();
    apply(Mode::Irig);
    const auto done = board().watch->take();
    for (const char* expected : {"gpio506 0", "in 1", "out 0"}) {
        EXPECT_EQ(1, std::count(done.begin(), done.end(), expected)) << expected;
    }
}

TEST_F(TimingTest, AScriptThatFailsIsToldAndTheSequenceGoesOn) {
    const struct {
        FaultKind fault;
        Mode mode;
        const char* text;
    } cases[] = {{FaultKind::ScriptRefuses, Mode::Pps, "4 Could not change PTP state to PTP_STATE_DISABLED"},
                 {FaultKind::ScriptRefuses, Mode::Ptp, "4 Could not change PTP state to 4"},
                 {FaultKind::ScriptFails, Mode::Irig, "4 Could not change PTP state to PTP_STATE_DISABLED_IRIG_IN"}};
    for (const auto& each : cases) {
        bringUp(fast());
        kestrixsim::instrument().inject({.kind = each.fault, .times = -1});
        const kestrixtest::LogCapture log(4);
        apply(each.mode);
        const auto lines = log.all();
        EXPECT_EQ(1, std::count(lines.begin(), lines.end(), each.text)) << each.text;
        EXPECT_EQ(0u, kestrixsim::instrument().registerWord(0xA3000000) & 0x100) << "follows nothing";
    }
}

// The whole chain: record, law, I2C, oscillator, detector.
TEST_F(TimingTest, EachReferenceIsFollowedAndHeldAndFollowedAgain) {
    for (const auto& [mode, kind] : {std::pair{Mode::Pps, ReferenceKind::Pps},
                                     {Mode::Irig, ReferenceKind::Irig},
                                     {Mode::Ptp, ReferenceKind::Ptp}}) {
        for (const uint64_t seed : {11u, 12u, 13u}) {
            SCOPED_TRACE(std::to_string(static_cast<int>(mode)) + ", seed " + std::to_string(seed));
            Scenario scenario = fast(steadyFactor);
            scenario.seed = seed;
            scenario.oscillatorErrorPpm = static_cast<double>(seed % 3) * 12.0 - 12.0;
            bringUp(scenario);
            apply(mode);
            // Pulled in: the wish for a new internal second is the error.
            ASSERT_TRUE(await([&] { return flags() == std::pair{true, true}; }, 40s)) << phaseNs();
            startRun();
            ASSERT_TRUE(await([&] { return flags() == std::pair{true, false}; }, 5s));
            double worst = 0.0;
            std::this_thread::sleep_for(10s);
            for (int second = 0; second < 20; ++second) {
                std::this_thread::sleep_for(1s);
                worst = std::max(worst, std::abs(phaseNs()));
            }
            EXPECT_LT(worst, 1000.0);
            EXPECT_EQ(flags(), (std::pair{true, false}));
            EXPECT_EQ(timing().getVcxoValue(), kestrixsim::instrument().timingState().controlWord);
            const ClockState locked = timing().getClockState();
            EXPECT_TRUE(locked.steered && locked.tracking && !locked.error);
            EXPECT_LT(std::abs(locked.phaseErrorNs - phaseNs()), 2000.0);
            EXPECT_LT(std::abs(locked.frequencyErrorPpb), 1000.0);
            EXPECT_NEAR(locked.controlWord, locked.equilibrium, 20.0);
            EXPECT_LT(std::abs(locked.pulseTime * 1000 - kestrixsim::instrument().realtime()), 2000000000);
            if (mode == Mode::Ptp) {
                EXPECT_EQ(locked.ptpPort + " " + locked.ptpGrandmaster, "SLAVE 021122.33ff.fe4455");
                EXPECT_EQ(locked.ptpClock, timing().getDeviceClockUuid());
            }

            ReferenceScenario gone;
            gone.present = false;
            kestrixsim::instrument().setReference(kind, gone);
            ASSERT_TRUE(await([&] { return !flags().first; }, 5s));
            std::this_thread::sleep_for(10s);
            EXPECT_EQ(flags(), (std::pair{false, false}));
            const ClockState held = timing().getClockState();
            EXPECT_FALSE(held.steered || held.tracking);
            EXPECT_GT(held.pulses, locked.pulses + 5);
            EXPECT_NEAR(timing().getEquilibrium(), kestrixsim::instrument().timingState().controlWord, 0.51);
            kestrixsim::instrument().setReference(kind, ReferenceScenario{});
            ASSERT_TRUE(await([&] { return flags() == std::pair{true, false}; }, 10s));
            std::this_thread::sleep_for(12s);
            EXPECT_LT(std::abs(phaseNs()), 1000.0);

            // A step beyond the limit of 400 us asks for a new start, which takes it away.
            ReferenceScenario stepped;
            stepped.offsetSeconds = 0.01;
            kestrixsim::instrument().setReference(kind, stepped);
            ASSERT_TRUE(await([&] { return flags().second; }, 10s));
            EXPECT_GT(std::abs(phaseNs()), 9e6);
            startRun();
            ASSERT_TRUE(await([&] { return std::abs(phaseNs()) < 1000.0; }, 20s)) << phaseNs();
            EXPECT_EQ(flags(), (std::pair{true, false}));
        }
    }
}

TEST_F(TimingTest, StandaloneHoldsTheCalibratedWordAndIsNeverInError) {
    bringUp(fast());
    apply(Mode::Standalone);
    ASSERT_TRUE(await([&] { return kestrixsim::instrument().timingState().controlWord == 506; }, 5s));
    kestrixsim::instrument().stepRealtime(5000.0);
    std::this_thread::sleep_for(3s);
    EXPECT_EQ(flags(), (std::pair{true, false}));
    // With the IRIG output the law is off.
    apply(Mode::Standalone, {Mode::Irig});
    std::this_thread::sleep_for(3s);
    const kestrixtest::LogCapture log(4);
    std::this_thread::sleep_for(5s);
    EXPECT_EQ(0, log.count("Tracking:"));
    EXPECT_EQ(506, kestrixsim::instrument().timingState().controlWord);
    EXPECT_EQ(506, timing().getClockState().controlWord);
}

// The clocks' readings are as old as the last record: a step shows in their difference.
TEST_F(TimingTest, AStepOfTheSystemClockIsAnError) {
    bringUp(fast(10.0));
    apply(Mode::Pps);
    ASSERT_TRUE(await([&] { return flags() == std::pair{true, true}; }, 40s));
    startRun();
    for (const auto& [step, error] : {std::pair{500.0, false}, {3000.0, true}, {-500.0, false}, {-3000.0, true}}) {
        timing().startTransfer();
        ASSERT_TRUE(await([&] { return flags() == std::pair{true, false}; }, 5s));
        kestrixsim::instrument().stepRealtime(step);
        std::this_thread::sleep_for(2500ms);
        EXPECT_EQ(flags().second, error) << step;
    }
}

TEST_F(TimingTest, ADeviceThatIsNotThereIsToldOnceAndHangsNothing) {
    // A node that fails to be read is opened anew.
    const std::vector<kestrixsim::Fault> troubles[] = {
        {{.kind = FaultKind::TimingOpen, .times = -1}},
        {{.kind = FaultKind::TimingSilent, .times = -1}},
        {{.kind = FaultKind::TimingRead, .times = -1}},
        {{.kind = FaultKind::TimingRead}, {.kind = FaultKind::TimingOpen, .afterCount = 1, .times = -1}}};
    for (const auto& trouble : troubles) {
        SCOPED_TRACE(&trouble - troubles);
        Scenario scenario = fast(20.0);
        scenario.faults = trouble;
        kestrixtest::LogCapture log(4);
        bringUp(scenario);
        apply(Mode::Pps);
        timing().startTransfer();
        ASSERT_TRUE(await([&] { return flags() == std::pair{false, true}; }, 10s));
        std::this_thread::sleep_for(10s);
        const auto told = [&](const char* text) {
            const auto lines = log.all();
            return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
                return line.find("The timing device") != line.npos && line.find(text) != line.npos;
            });
        };
        EXPECT_EQ(static_cast<std::ptrdiff_t>(trouble.size()), told("failed"));
        kestrixsim::instrument().clearFaults();
        ASSERT_TRUE(await([&] { return told("works again") == 1; }, 10s));
        const auto begun = std::chrono::steady_clock::now();
        board_.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - begun, 20s);
    }
}

TEST_F(TimingTest, TheOscillatorsBusMayRefuseSevenTimes) {
    bringUp(fast(20.0));
    apply(Mode::Pps);
    ASSERT_TRUE(await([&] { return flags().first; }, 40s));
    {
        const kestrixtest::LogCapture log(4);
        kestrixsim::instrument().inject({.kind = FaultKind::OscillatorSilent, .times = 7});
        std::this_thread::sleep_for(6s);
        EXPECT_EQ(7, log.count("caught exception"));
        EXPECT_GE(log.count("Tracking: true"), 5) << "no pulse is lost to it";
    }
    EXPECT_EQ(0xA8u, [] {
        uint8_t at = 0x10;
        uint8_t value = 0;
        kestrixsim::instrument().i2cWrite(0x58, &at, 1);
        kestrixsim::instrument().i2cRead(0x58, &value, 1);
        return value & 0xFCu;
    }()) << "what stands above the control word";
    // For ever: each record fails, and the loop goes on when the bus does.
    kestrixsim::instrument().inject({.kind = FaultKind::OscillatorSilent, .times = -1});
    std::this_thread::sleep_for(5s);
    kestrixsim::instrument().clearFaults();
    ASSERT_TRUE(await([&] { return std::abs(timing().getSignedPhaseError()) < 75000000 && flags().first; }, 20s));
}

TEST_F(TimingTest, TheStartIsAWholeSecondAndStaysUntilTheNextSetUp) {
    Scenario scenario = fast(10.0);
    scenario.realtimeAtStart = 1795000000.0;
    bringUp(scenario);
    apply(Mode::Pps);
    const auto inSecond = [] {
        return std::fmod(static_cast<double>(kestrixsim::instrument().realtime()) * 1e-9, 1.0);
    };
    // Asked for first in the later or in the earlier half of a second: the nearest whole one.
    for (const double half : {0.6, 0.1}) {
        board().initializeAcquisition(true);
        EXPECT_EQ(-1, timing().getStartTime()) << "the counter stands";
        timing().startTransfer();
        ASSERT_TRUE(await([&] { return board().daqClock->getCurrentTime(true) > 0.0; }, 5s));
        ASSERT_TRUE(await([&] { return inSecond() > half && inSecond() < half + 0.3; }, 60s));
        const double asked = static_cast<double>(kestrixsim::instrument().realtime()) * 1e-9;
        const int64_t start = timing().getStartTime();
        EXPECT_EQ(std::llround(asked) * 1000000, start);
        std::this_thread::sleep_for(3s);
        EXPECT_EQ(start, timing().getStartTime());
        timing().stopTransfer();
    }
    // Who asks between the counter's reset and the clock's own is told a wrap: it doesn't outlive the start.
    timing().initializeAcquisition(true);
    EXPECT_GT(timing().getStartTime(), 0);
    board().daqClock->initializeAcquisition();
    timing().startTransfer();
    EXPECT_EQ(-1, timing().getStartTime());
}

// A bus with nothing but the clock counter.
class CounterBus : public IRegisterAccess {
public:
    void write(uint64_t, uint64_t, const unsigned char*, size_t) override {}
    void read(uint64_t, uint64_t offset, unsigned char* data, size_t size) override {
        ASSERT_EQ(0x20u, offset);
        std::memcpy(data, &count, size);
    }
    std::recursive_mutex& getSync() override { return mutex_; }
    uint32_t count = 0;

private:
    std::recursive_mutex mutex_;
};

TEST(KestrixDaqClockTest, CountsOverTheWrapOfTheCounter) {
    const auto bus = std::make_shared<CounterBus>();
    KestrixDaqClock clock(bus);
    RegistersAddress::baseClock = 10000000;
    const struct {
        uint32_t count;
        double ticks;
    } cases[] = {{0, -10000000.0},         {100, 100}, {100, 100}, {4294967295, 4294967295}, {5, 4294967295.0 + 5},
                 {4, 2 * 4294967295.0 + 4}};
    for (int run = 0; run < 2; ++run) {
        clock.initializeAcquisition();
        for (const auto& each : cases) {
            bus->count = each.count;
            EXPECT_DOUBLE_EQ(each.ticks / 1e7, clock.getCurrentTime(true)) << each.count;
        }
        bus->count = 0;
    }
    RegistersAddress::baseClock = 15000000;
}

}  // namespace
