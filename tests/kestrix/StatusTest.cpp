#include <cmath>
#include <filesystem>
#include <fstream>
#include <thread>

#include "libraries/devices/embedded/I2cRegisterAccess.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDaqTiming.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixStatus.h"
#include "modules/daq/daqdevices/kestrix/src/TemperatureReaders.h"
#include "modules/daq/objectmodel/DaqClock.h"
#include "modules/daq/objectmodel/LossCount.h"
#include "modules/daq/objectmodel/StatusChannel.h"
#include "tests/kestrix/KestrixFixture.h"
#include "tests/registers/LogCapture.h"

using namespace Harvane::RT::Modules::Daq;
using kestrixsim::Fault;
using kestrixsim::FaultKind;
using kestrixsim::Scenario;
using kestrixsim::SensorFamily;
using Type = StatusChannelType;

namespace {

constexpr double roundSeconds = 2.5;

void write(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << text;
}

class StatusTest : public KestrixFixture {
protected:
    // Rounds of the sensors pass so many times faster.
    static Scenario quick(double factor = 25.0) {
        Scenario scenario = warmScenario(2);
        scenario.timeFactor = factor;
        return scenario;
    }
    StatusDevice& status() const { return *device().statusDevice; }
    StatusChannel& of(Type type) const { return *status().getStatusChannel(type); }
    static double last(StatusChannel& channel) { return channel.getSampleAtRelativePos(-1); }
    std::int64_t lost(Type type, const std::string& property) const {
        for (const auto& count : of(type).losses) {
            if (property == count->property()) {
                return count->get();
            }
        }
        ADD_FAILURE() << "no count " << property;
        return -1;
    }
    // Cycles until the condition holds. Fails the test after twenty seconds.
    template <class Condition>
    void cycleUntil(Condition condition) {
        const auto deadline = std::chrono::system_clock::now() + std::chrono::seconds(200);
        while (!condition()) {
            ASSERT_NO_THROW(controller->acquireData());
            ASSERT_LT(std::chrono::system_clock::now(), deadline) << "200 s of the instrument";
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    std::uint64_t countOf(Type type) const { return of(type).samplesAcquired; }
    // The next value that is published, of readings made from now on: those of the round in progress don't count.
    double published(Type type) {
        cycleUntil([&, goal = countOf(type) + 3] { return countOf(type) >= goal; });
        return last(of(type));
    }
    static std::string shown(const HealthState& health) {
        std::string text;
        std::string group;
        for (const auto& sensor : health.sensors) {
            text += sensor.group == group ? " " : (text.empty() ? "" : "; ") + sensor.group + ": ";
            text += sensor.name == "PS main" || sensor.name == "PS remote" ? sensor.name.substr(3) : sensor.name;
            group = sensor.group;
        }
        return text;
    }
};

TEST_F(StatusTest, TakesTheSensorsThatThereAre) {
    using enum SensorFamily;
    struct Row {
        const char* what;
        SensorFamily family;
        int boardType;
        std::vector<std::pair<int, FaultKind>> faults;
        const char* sensors;
        const char* channels = "345678";
        bool lines = true;
    };
    constexpr auto missing = FaultKind::SensorMissing;
    constexpr auto denied = FaultKind::SensorDenied;
    const char* const monitors = "CPU: main remote PL; Board: IP1 FPGA";
    const char* const monitorsAndCable = "CPU: main remote PL; Board: IP1 FPGA; Cable: PT1000";
    const char* const chips = "CPU: remote PL main; Board: 0x48 0x49 0x4a";
    const char* const chipsAndCable = "CPU: remote PL main; Board: 0x48 0x49; Cable: PT1000";
    const Row rows[] = {
        {"monitors", Monitors, 0, {}, monitors},
        {"monitors, small board", Monitors, 1, {}, monitorsAndCable, "3456789"},
        {"monitors before chips", Both, 0, {}, monitors},
        {"some monitors", Monitors, 0, {{1, missing}, {3, denied}}, "CPU: main PL; Board: FPGA"},
        {"no monitor of the board", Monitors, 0, {{3, missing}, {4, missing}}, "CPU: main remote PL"},
        {"the first monitor decides", Monitors, 0, {{0, missing}}, "Board: 0x48 0x49 0x4a"},
        {"and has to be readable", Both, 0, {{0, denied}}, chips},
        {"chips", Chips, 0, {}, chips},
        {"chips, small board", Chips, 1, {}, chipsAndCable, "3456789"},
        {"chips, another board", Chips, 2, {}, "CPU: remote PL main; Board: 0x48 0x49"},
        {"some converters", Chips, 0, {{5, missing}, {7, denied}}, "CPU: remote; Board: 0x48 0x49 0x4a"},
        {"none, but chips aren't asked", None, 1, {{8, missing}, {11, missing}}, "Board: 0x48 0x49"},
        {"one voltage of the cable", Monitors, 1, {{12, denied}}, monitors},
        {"no lines", Monitors, 1, {}, monitorsAndCable, "34569", false},
        {"the second line", Monitors, 0, {{13, missing}}, monitors, "34568"},
        {"a line that can't be read", Monitors, 0, {{13, denied}}, monitors},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Scenario scenario;
        scenario.boardType = row.boardType;
        scenario.slots = 2;
        scenario.thermals.sensors = row.family;
        scenario.thermals.cableLines = row.lines;
        for (const auto& [target, kind] : row.faults) {
            scenario.faults.push_back({.kind = kind, .target = target, .times = -1});
        }
        kestrixsim::reset(scenario);
        // The files of the cable's converter are there on every board; on one of them they mean it.
        for (const char* name : {"in_voltage0-voltage1_raw", "in_voltage1_raw"}) {
            write(kestrixsim::rootFolder() + "/sys/bus/iio/devices/iio:device1/" + name, "1000\n");
        }
        KestrixDevice device;
        const auto status = device.createStatusDevice();
        status->initializeHardware();
        std::string channels;
        for (const auto& channel : status->channels) {
            channels += std::to_string(static_cast<int>(dynamic_cast<StatusChannel&>(*channel).statusChannelType));
        }
        EXPECT_EQ(channels, row.channels);
        EXPECT_EQ(shown(status->getHealthState()), row.sensors);
    }
}

// Resistance of a platinum sensor by IEC 60751, from whose coefficients the instrument's formula comes.
double platinum(double celsius) {
    const double below = celsius < 0.0 ? -4.183e-12 * (celsius - 100.0) * std::pow(celsius, 3.0) : 0.0;
    return 1000.0 * (1.0 + 3.9083e-3 * celsius - 5.775e-7 * celsius * celsius + below);
}

TEST_F(StatusTest, ReadingsBecomeDegrees) {
    const std::string folder = testing::TempDir() + "kestrix-status-" + std::to_string(getpid()) + "/";
    const std::string file = folder + "value";
    const std::string other = folder + "other";
    const HWMonTemperatureReader monitor("CPU", "", file);
    const FPGATemperatureReader converter("CPU", "", file);
    const CableTemperatureReader cable("Cable", file, other);
    const TemperatureReader* const readers[] = {&monitor, &converter, &cable};
    for (const auto* reader : readers) {
        EXPECT_EQ(reader->readTemperatureCelsius(), 0.0) << "no file";
    }
    const struct {
        const char* text;
        double monitor;
        double converter;
    } rows[] = {{"52300\n", 52.3, 126.2202289},
                {"-40000", -40.0, -591.0905957},
                {"41849\n", 41.849, 45.0001267},
                {" 36058 \n", 36.058, -0.0047160},
                {"0", 0.0, -280.23}};
    for (const auto& row : rows) {
        write(file, row.text);
        EXPECT_NEAR(monitor.readTemperatureCelsius(), row.monitor, 1e-9) << row.text;
        EXPECT_NEAR(converter.readTemperatureCelsius(), row.converter, 1e-6) << row.text;
    }
    write(other, "1000");
    for (const char* rubbish : {"rubbish\n", " \n", "52x", "12 13", "nan", "inf", "0x10", "1,5", "--1"}) {
        write(file, rubbish);
        for (const auto* reader : readers) {
            EXPECT_THROW(reader->readTemperatureCelsius(), std::runtime_error) << rubbish;
        }
    }
    write(file, "");
    EXPECT_EQ(monitor.readTemperatureCelsius(), 0.0) << "nothing to read";

    // What the two files would hold, without an end to their digits.
    const auto reading = [&](double celsius) {
        write(file, fmt::format("{}\n", 1e6 * platinum(celsius) / 2000.0));
        write(other, "1000000\n");
        return cable.readTemperatureCelsius();
    };
    for (int celsius = -40; celsius <= 200; ++celsius) {
        EXPECT_NEAR(reading(celsius), celsius, celsius < 0 ? 0.01 : 1e-6) << celsius;
    }
    // Below it reads too low, as its contract says.
    EXPECT_NEAR(reading(-40.0) + 40.0, -0.0095, 0.00005);
    EXPECT_NEAR(reading(-100.0) + 100.0, -0.208, 0.0005);
    EXPECT_NEAR(reading(-200.0) + 200.0, -2.425, 0.0005);
    write(other, "0");
    EXPECT_TRUE(std::isnan(cable.readTemperatureCelsius()));
    std::filesystem::remove(other);
    EXPECT_EQ(cable.readTemperatureCelsius(), 0.0) << "one of two";
    std::filesystem::remove_all(folder);
}

TEST_F(StatusTest, ReadsAsLongAsSomebodyWantsToKnow) {
    kestrixsim::reset(quick(100.0));
    kestrixtest::LogCapture log;
    KestrixDevice device;
    const auto status = device.createStatusDevice();
    const auto rounds = [&log](long more) {
        const long goal = log.count("end of reading temperature sensors") + more;
        while (log.count("end of reading temperature sensors") < goal) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    };
    constexpr const char* sensor = "reading sysfs file /sys/class/hwmon/hwmon1/temp1_input";
    rounds(11);
    EXPECT_EQ(log.count(sensor), 8) << "from the beginning";
    const HealthState old = status->getHealthState();
    EXPECT_EQ(old.sensors.at(4).reads, 8u);
    EXPECT_GT(old.sensors.at(4).ageSeconds, 2 * roundSeconds) << "it says how old it is";
    rounds(4);
    EXPECT_EQ(log.count(sensor) - 8, 4);
    EXPECT_LT(status->getHealthState().sensors.at(4).ageSeconds, 2 * roundSeconds);
    rounds(11);
    EXPECT_EQ(log.count(sensor) - 12, 8) << "eight again from the last question on, however many there were";
}

TEST_F(StatusTest, TheHottestOfEachPartAsLongAsItIsRecorded) {
    bringUp(quick());
    start();
    cycleUntil([&] { return countOf(Type::CpuTemperature) >= 24; });
    StatusChannel& cpu = of(Type::CpuTemperature);
    EXPECT_EQ(cpu.samplesAcquired, of(Type::BoardTemperature).samplesAcquired);
    EXPECT_EQ(countOf(Type::PhaseError), countOf(Type::VcxoValue));
    EXPECT_GE(status().getHealthState().sensors.at(0).reads, 9u) << "whoever records wants to know";
    // A round ago it was up to a degree less.
    const double hottest = kestrixsim::instrument().processorCelsius() + 0.8;
    EXPECT_NEAR(last(cpu), hottest, 1.5);
    EXPECT_GT(last(cpu), hottest - 0.75 - 0.8 / 2);
    EXPECT_NEAR(last(of(Type::BoardTemperature)), kestrixsim::instrument().boardCelsius() + 2.75, 0.3);
    const auto timing = device().getKestrixTiming();
    EXPECT_EQ(last(of(Type::VcxoValue)), timing->getVcxoValue());
    EXPECT_EQ(last(of(Type::PhaseError)),
              static_cast<float>(static_cast<double>(timing->getSignedPhaseError()) / 150.0));
    stop();
}

TEST_F(StatusTest, NothingIsStampedBeforeTheClockRuns) {
    bringUp(warmScenario(2));
    prepare();
    for (int i = 0; i < 5; ++i) {
        controller->acquireData();
    }
    for (const auto& channel : status().channels) {
        EXPECT_EQ(channel->samplesAcquired, 0u) << channel->name;
    }
    controller->systemDevice->startAcquisition(true);
    // The turn of the temperatures has not passed with the cycles that had no time.
    cycleUntil([&] { return countOf(Type::PhaseError) > 0; });
    EXPECT_EQ(countOf(Type::CpuTemperature), 1u);
    for (const auto& channel : status().channels) {
        EXPECT_GE(channel->getTimeAtRelativePos(-1), 0.0) << channel->name;
    }
    stop();
}

// What has failed counts as 0 degrees, which is more than frost; where there is nothing it is less than anything.
TEST_F(StatusTest, FailedSensorsCountAsZeroAndComeBack) {
    struct Row {
        const char* what;
        SensorFamily family;
        int boardType;
        Fault fault;
        Type channel;
    };
    using enum SensorFamily;
    using enum FaultKind;
    const Row rows[] = {
        {"monitor is gone", Monitors, 0, {SensorMissing, 1}, Type::CpuTemperature},
        {"monitor may not be read", Monitors, 0, {SensorDenied, 3}, Type::BoardTemperature},
        {"monitor holds rubbish", Monitors, 0, {SensorRubbish, 4}, Type::BoardTemperature},
        {"converter holds rubbish", Chips, 0, {SensorRubbish, 7}, Type::CpuTemperature},
        {"chip doesn't answer", Chips, 0, {SensorMissing, 10}, Type::BoardTemperature},
        {"cable is gone", None, 1, {SensorMissing, 12}, Type::CableTemperature},
        {"cable holds rubbish", None, 1, {SensorRubbish, 11}, Type::CableTemperature},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Scenario scenario = quick(25.0);
        scenario.boardType = row.boardType;
        scenario.thermals.sensors = row.family;
        scenario.thermals.ambientCelsius = -55.0;
        scenario.thermals.cableCelsius = -30.0;
        bringUp(scenario);
        start();
        const double frost = published(row.channel);
        EXPECT_LT(frost, -5.0);
        Fault fault = row.fault;
        fault.times = -1;
        inject(fault);
        EXPECT_EQ(published(row.channel), 0.0);
        const auto health = status().getHealthState();
        const auto failed = std::ranges::find(health.sensors, false, &HealthState::Sensor::ok);
        ASSERT_NE(failed, health.sensors.end());
        EXPECT_GE(failed->failures, 1u);
        EXPECT_LT(failed->failures, failed->reads);
        EXPECT_NE(failed->reason, "");
        EXPECT_EQ(std::ranges::count(health.sensors, false, &HealthState::Sensor::ok), 1) << "the others go on";
        if (row.family == SensorFamily::None) {
            EXPECT_EQ(last(of(Type::CpuTemperature)), -std::numeric_limits<double>::infinity());
        }
        clearFaults();
        cycleUntil([&] {
            const auto sensors = status().getHealthState().sensors;
            return std::all_of(sensors.begin(), sensors.end(), [](const auto& sensor) { return sensor.ok; });
        });
        EXPECT_NEAR(published(row.channel), frost, 10.0);
        stop();
    }
}

TEST_F(StatusTest, AFaultIsToldOnceAndItsEnd) {
    Scenario scenario = quick(100.0);
    scenario.thermals.sensors = SensorFamily::Chips;
    kestrixsim::reset(scenario);
    kestrixtest::LogCapture log(5);
    KestrixDevice device;
    const auto status = device.createStatusDevice();
    const auto readsUntil = [&](std::uint64_t more) {
        const auto reads = [&] { return status->getHealthState().sensors.at(0).reads; };
        for (const auto goal = reads() + more; reads() < goal;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    };
    const size_t before = log.all().size();
    inject({.kind = FaultKind::SensorMissing, .target = 6, .times = -1});
    inject({.kind = FaultKind::SensorMissing, .target = 9, .times = -1});
    readsUntil(4);
    clearFaults();
    inject({.kind = FaultKind::SensorRubbish, .target = 6, .times = -1});
    readsUntil(4);
    clearFaults();
    readsUntil(3);
    std::vector<std::string> lines = log.all();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
    const auto with = [&lines](const std::string& place) {
        std::vector<std::string> found;
        for (const auto& line : lines) {
            if (line.find(place) != line.npos && line.find("temperature sensor") != line.npos) {
                found.push_back(line.substr(0, line.find(" (")));
            }
        }
        return found;
    };
    const std::string file = "/sys/bus/iio/devices/iio:device0/in_temp1_remote_temp_raw";
    const auto converter = with(file);
    ASSERT_EQ(converter.size(), 3u) << testing::PrintToString(lines);
    EXPECT_EQ(converter[0],
              "5 temperature sensor " + file + ": unable to open file " + file + " No such file or directory");
    EXPECT_EQ(converter[1], "5 temperature sensor " + file + ": file " + file + " holds no number");
    EXPECT_EQ(converter[2].find("5 temperature sensor " + file + " works again after "), 0u);
    const auto chip = with("i2c 0x49");
    ASSERT_EQ(chip.size(), 2u) << testing::PrintToString(lines);
}

TEST_F(StatusTest, WhatHasNoPlaceIsCountedAndTheRestGoesOn) {
    bringUp(quick());
    of(Type::PhaseError).asyncRate = 0;  // no room
    of(Type::BoardTemperature).used = false;
    of(Type::CpuTemperature).createChannelBuffer<bool>();  // of another type
    use({0});
    start();
    inject({.kind = FaultKind::SensorMissing, .target = 13, .times = -1});
    cycleUntil([&] { return channel(0).samplesAcquired > 500 && lost(Type::PhaseError, "SamplesOverflowed") > 5; });
    EXPECT_EQ(countOf(Type::PhaseError), 0u);
    EXPECT_EQ(countOf(Type::BoardTemperature), 0u);
    EXPECT_EQ(countOf(Type::CpuTemperature), 0u);
    EXPECT_GT(lost(Type::CpuTemperature, "SamplesRefused"), 0);
    EXPECT_GT(countOf(Type::VcxoValue), 5u);
    EXPECT_EQ(lost(Type::VcxoValue, "SamplesOverflowed") + lost(Type::VcxoValue, "SamplesRefused"), 0);
    EXPECT_EQ(countOf(Type::CableDetect1), 0u);
    EXPECT_GT(lost(Type::CableDetect1, "FailedReads"), 5);
    EXPECT_EQ(status().getHealthState().lines.at(0).reason, "No such file or directory");
    // The line is there again, and has been connected.
    EXPECT_EQ(last(of(Type::CableDetect2)), 0.0);
    clearFaults();
    for (const char* line : {"496", "497"}) {
        write(kestrixsim::rootFolder() + "/sys/class/gpio/gpio" + line + "/value", "1\n");
    }
    cycleUntil([&, goal = countOf(Type::CableDetect2) + 2] { return countOf(Type::CableDetect2) >= goal; });
    EXPECT_EQ(last(of(Type::CableDetect1)) + last(of(Type::CableDetect2)), 2.0);
    EXPECT_TRUE(status().getHealthState().lines.at(1).value);
    stop();
    // Of each run for itself.
    prepare();
    EXPECT_EQ(lost(Type::PhaseError, "SamplesOverflowed") + lost(Type::CableDetect1, "FailedReads"), 0);
}

// With each fault of a sensor: every analog sample, and the cycle waits for none of them.
TEST_F(StatusTest, NoSensorDisturbsTheMeasurement) {
    Scenario scenario = quick(2.0);
    scenario.thermals.sensors = SensorFamily::Chips;
    scenario.boardType = 1;
    bringUp(scenario);
    use({0, 3});
    const auto readings = [this](bool working) {
        std::string names;
        for (const auto& sensor : status().getHealthState().sensors) {
            names += sensor.ok == working ? sensor.name + " " : "";
        }
        return names;
    };
    start();
    for (const auto& [kind, target] : {std::pair{FaultKind::SensorMissing, 6},
                                       {FaultKind::SensorRubbish, 7},
                                       {FaultKind::SensorMissing, 9},
                                       {FaultKind::SensorDenied, 12}}) {
        inject({.kind = kind, .target = target, .times = -1});
    }
    acquireCounting({0, 3}, 6000);
    stop();
    EXPECT_EQ(readings(false), "PS remote PL 0x49 PT1000 ");
    clearFaults();

    start();
    inject({.kind = FaultKind::SensorSlow, .target = 5, .code = 600000, .times = -1});
    acquireCounting({0, 3}, 6000);
    const auto reads = [this] { return status().getHealthState().sensors.at(3).reads; };
    const auto stuck = reads();
    acquire(channel(0), 12000);
    EXPECT_EQ(reads(), stuck) << "the chips wait behind the one that hangs";
    clearFaults();
    cycleUntil([&] { return reads() >= stuck + 2; });
    EXPECT_EQ(readings(false), "");
    stop();
}

TEST_F(StatusTest, TheEndWaitsForOneSensorAtMost) {
    kestrixsim::reset(quick(25.0));
    inject({.kind = FaultKind::SensorSlow, .code = 10000, .times = -1});
    kestrixtest::LogCapture log;
    const std::string file = "reading sysfs file /sys/class/hwmon/hwmon2/";
    {
        KestrixDevice device;
        const auto status = device.createStatusDevice();
        while (log.count(file + "temp1_input") == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    EXPECT_EQ(log.count(file + "temp2_input"), 0);
}

// A device of another kind around it, without a timing or without a clock.
TEST_F(StatusTest, NeedsNeitherTimingNorClock) {
    struct Other : DaqDevice {
        std::shared_ptr<StatusDevice> createStatusDevice() override {
            return std::make_shared<KestrixStatus>(nullptr, nullptr);
        }
    };
    for (const bool clock : {true, false}) {
        kestrixsim::reset(warmScenario(1));
        const auto device = std::make_shared<Other>();
        device->initialize();
        if (!clock) {
            device->daqClock.reset();
        }
        device->initializeHardware();
        device->initializeAcquisition(true);
        device->startAcquisition(true);
        EXPECT_NO_THROW(device->acquireData());
        const StatusDevice& status = *device->statusDevice;
        EXPECT_EQ(status.getStatusChannel(Type::CpuTemperature)->samplesAcquired, clock ? 1u : 0u);
        EXPECT_EQ(status.getStatusChannel(Type::CableDetect1)->samplesAcquired, clock ? 1u : 0u);
        EXPECT_EQ(status.getStatusChannel(Type::PhaseError)->samplesAcquired, 0u);
        EXPECT_EQ(status.getStatusChannel(Type::VcxoValue)->samplesAcquired, 0u);
        device->finalizeAcquisition(true);
    }
}

}  // namespace
