#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "simulator/model/Thermals.h"
#include "tests/simulator/model/Rig.h"

using namespace kestrixsim;

namespace {

const std::string hwmon = "/sys/class/hwmon/";
const std::string iio = "/sys/bus/iio/devices/";

// What a program that opens it finds; the errno, negative, when it can't.
double reading(Instrument& instrument, const std::string& path) {
    std::optional<std::string> text;
    const int error = instrument.sensorOpen(path, text);
    if (error != 0) {
        return error;
    }
    return text && text->ends_with("\n") ? std::strtod(text->c_str(), nullptr) : std::nan("");
}

double chip(Instrument& instrument, int address) {
    const uint8_t temperature = 0;
    uint8_t word[2] = {};
    instrument.i2cWrite(address, &temperature, 1);
    const ssize_t result = instrument.i2cRead(address, word, 2);
    return result == 2 ? static_cast<int16_t>(word[0] << 8 | word[1]) / 256.0 : static_cast<double>(result);
}

TEST(Thermals, LoadWarmsEachPartWithItsTimeConstant) {
    Scenario scenario;
    scenario.thermals.ambientCelsius = 10.0;
    scenario.thermals.timeConstantSeconds = 200.0;
    Rig rig(scenario);
    const auto processor = [&] { return rig.instrument.processorCelsius(); };
    const auto board = [&] { return rig.instrument.boardCelsius(); };
    const double restP = processor();
    const double restB = board();
    EXPECT_DOUBLE_EQ(restP, 37.3);
    EXPECT_DOUBLE_EQ(restB, 23.5);
    rig.now += 1000.0;
    EXPECT_DOUBLE_EQ(board(), restB) << "it has been standing there for long";
    rig.store(0xA0200000, 1);  // converters
    const double most = 1.0 - std::exp(-1.0);
    rig.now += 40.0;
    EXPECT_NEAR(processor(), restP + 6.0 * most, 1e-9);
    rig.now += 160.0;
    EXPECT_NEAR(board(), restB + 3.0 * most, 1e-9);
    rig.storeBits(0xA6000010, 0xFF, 0x0F);  // four amplifiers
    rig.now += 1e5;
    EXPECT_NEAR(board(), restB + 3.0 + 4 * 0.5, 1e-6);
    EXPECT_NEAR(processor(), restP + 6.0 + 4 * 0.1, 1e-6);
    rig.storeBits(0xA6000010, 0xFF, 0);
    rig.store(0xA0200000, 0);
    rig.now += 200.0;
    EXPECT_NEAR(board(), restB + 5.0 * (1.0 - most), 1e-6) << "and cools";
}

TEST(Thermals, SensorsReadTheirPart) {
    Scenario scenario;
    scenario.boardType = 1;
    scenario.thermals.ambientCelsius = -20.0;
    for (const double cable : {-40.0, 0.0, 100.0}) {
        scenario.thermals.cableCelsius = cable;
        Rig rig(scenario);
        const double processor = rig.instrument.processorCelsius();
        const double board = rig.instrument.boardCelsius();
        EXPECT_LT(board, 0.0);
        const std::pair<const char*, double> monitors[] = {{"hwmon2/temp1_input", processor},
                                                           {"hwmon2/temp2_input", processor - 0.5},
                                                           {"hwmon2/temp3_input", processor + 0.8},
                                                           {"hwmon0/temp1_input", board},
                                                           {"hwmon1/temp1_input", board + 2.75}};
        for (const auto& [name, celsius] : monitors) {
            EXPECT_NEAR(reading(rig.instrument, hwmon + name) / 1000.0, celsius, 0.0006) << name;
        }
        EXPECT_NEAR(reading(rig.instrument, iio + "iio:device0/in_temp2_pl_temp_raw") * 509.314 / 65536.0 - 280.23,
                    processor + 0.8, 0.004);
        EXPECT_NEAR(chip(rig.instrument, 0x48), board, 0.032);
        EXPECT_NEAR(chip(rig.instrument, 0x49), board + 2.75, 0.032);
        EXPECT_EQ(chip(rig.instrument, 0x4A), -ENXIO) << "of the large board";
        // Tables of platinum sensors of 1000 ohms.
        const double ohms = 2000.0 * reading(rig.instrument, iio + "iio:device1/in_voltage0-voltage1_raw") /
                            reading(rig.instrument, iio + "iio:device1/in_voltage1_raw");
        EXPECT_NEAR(ohms, cable < 0.0 ? 842.71 : cable > 0.0 ? 1385.06 : 1000.0, 0.006);
    }
}

TEST(Thermals, FaultsHaveTheirTimeAndTheirSensor) {
    Rig rig{Scenario{}};
    const std::string first = hwmon + "hwmon2/temp1_input";
    const std::string second = hwmon + "hwmon2/temp2_input";
    const double good = reading(rig.instrument, first);
    const auto inject = [&rig](FaultKind kind, int target, int code = 0) {
        rig.instrument.clearFaults();
        const double now = rig.instrument.seconds();
        rig.instrument.inject({.kind = kind,
                               .target = target,
                               .code = code,
                               .atSeconds = now + 5.0,
                               .times = -1,
                               .untilSeconds = now + 8.0});
    };
    const struct {
        FaultKind kind;
        double reading;
        int access;
    } rows[] = {{FaultKind::SensorMissing, -ENOENT, -ENOENT},
                {FaultKind::SensorDenied, -EACCES, -EACCES},
                {FaultKind::SensorRubbish, 0.0, 0}};
    for (const auto& row : rows) {
        inject(row.kind, 0);
        EXPECT_EQ(reading(rig.instrument, first), good);
        rig.now += 5.0;
        EXPECT_EQ(rig.instrument.sensorAccess(first), row.access);
        EXPECT_EQ(reading(rig.instrument, first), row.reading);
        EXPECT_EQ(reading(rig.instrument, second), good - 500.0) << "another one";
        rig.now += 3.0;
        EXPECT_EQ(reading(rig.instrument, first), good);
        EXPECT_EQ(rig.instrument.sensorAccess(first), 0);
    }
    inject(FaultKind::SensorMissing, 9);
    rig.now += 5.0;
    EXPECT_EQ(chip(rig.instrument, 0x49), -ENXIO);
    EXPECT_GT(chip(rig.instrument, 0x48), 20.0);
    // A question is no access.
    rig.instrument.clearFaults();
    rig.instrument.inject({.kind = FaultKind::SensorMissing, .target = 0, .times = 1});
    EXPECT_EQ(rig.instrument.sensorAccess(first), -ENOENT);
    EXPECT_EQ(reading(rig.instrument, first), -ENOENT);
    EXPECT_EQ(rig.instrument.sensorAccess(first), 0);
}

TEST(Thermals, SlowSensorsLetTimePass) {
    std::atomic<double> now{100.0};
    Instrument instrument(Scenario{}, [&now] {
        now = now + 0.01;
        return now.load();
    });
    instrument.inject({.kind = FaultKind::SensorSlow, .code = 3000, .times = 3});
    const auto taken = [&](auto&& look) {
        const double before = instrument.seconds();
        look();
        return instrument.seconds() - before;
    };
    EXPECT_NEAR(taken([&] { EXPECT_GT(reading(instrument, hwmon + "hwmon0/temp1_input"), 0.0); }), 3.0, 0.2);
    EXPECT_NEAR(taken([&] { EXPECT_EQ(chip(instrument, 0x48), -ETIMEDOUT); }), 1.0, 0.2);
    EXPECT_NEAR(taken([&] { EXPECT_GT(reading(instrument, hwmon + "hwmon0/temp1_input"), 0.0); }), 3.0, 0.2);
    EXPECT_LT(taken([&] { EXPECT_GT(chip(instrument, 0x48), 0.0); }), 0.2);
}

}  // namespace
