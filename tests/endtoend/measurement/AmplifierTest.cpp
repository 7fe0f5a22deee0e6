#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <numbers>
#include <utility>

#include "tests/endtoend/Definition.h"
#include "tests/endtoend/measurement/Bench.h"
#include "tools/zornhost/AmplifierCommands.h"
#include "tools/zornhost/Commands.h"
#include "tools/zornhost/DefinitionCheck.h"

// An amplifier as a user sees it: settings in the host, frames on the wire, values back, samples in physical units.
using namespace kestrixsim;
using namespace Harvane::RT::Core;

namespace {

Waveform physical(WaveformKind kind, double amplitude, double offset, double hz) {
    return {kind, hz, amplitude, offset, 0.0, {}, WaveformUnit::Physical};
}

Waveform constant(double value) {
    return physical(WaveformKind::Constant, 0.0, value, 0.0);
}

ModuleScenario plugged(int slot, AmplifierKind kind, const Waveform& waveform = constant(0.0)) {
    return {.slot = slot, .kind = kind, .waveform = waveform};
}

// One of each kind, in the order of the constants below.
Scenario allKinds() {
    return {.modules = {plugged(0, AmplifierKind::Voltage), plugged(1, AmplifierKind::Bridge),
                        plugged(2, AmplifierKind::Iepe), plugged(3, AmplifierKind::HighVoltage)},
            .faults = {}};
}
constexpr int voltage = 0;
constexpr int bridge = 1;
constexpr int iepe = 2;

struct Amplified : Bench {
    explicit Amplified(const Scenario& scenario, const std::string& definitions = KESTRIX_AMPLIFIERS)
        : Bench(scenario, {"SampleRate=10000"}, definitions) {
        session().open();
    }

    ChannelPtr<> channel(int slot) { return session().tree().channels({name(slot) + "/Raw input"}).at(0).channel; }
    static std::string name(int slot) { return "AI " + std::to_string(slot + 1); }

    ErrCode dispatch(int slot, const char* procedure, const BasePtr& argument = {}) {
        const ErrCode code =
            channel(slot).getPropertyValue<BasePtr>(procedure).asPtr<IProcObject>()->dispatch(argument.get());
        zornClearErrorInfo();
        return code;
    }
    ErrCode update(int slot, bool adjustFilter = false) {
        return dispatch(slot, "UpdateAmplifier", toValue(adjustFilter));
    }
    BasePtr call(int slot, const char* function, const BasePtr& argument = {}) {
        return executeFunc(channel(slot).getPropertyValue<BasePtr>(function).asPtr<IFuncObject>(), argument);
    }
    int64_t number(int slot, const char* property) { return channel(slot).getPropertyValue<int64_t>(property); }
    // Measurement and range that the amplifier works by.
    std::pair<int64_t, int64_t> inForce(int slot) {
        const auto state = instrument().amplifierState(slot);
        return {state.measurement, state.range};
    }

    // Commands with their payload that the slot's amplifier has taken: "BC 02".
    std::vector<std::string> sent(int slot) {
        std::vector<std::string> commands;
        const std::string prefix = std::to_string(slot) + ": A5 ";
        for (const auto& frame : instrument().framesReceived()) {
            if (frame.starts_with(prefix)) {
                commands.push_back(frame.substr(prefix.size() + 3, frame.size() - prefix.size() - 3 - 3));
            }
        }
        return commands;
    }
};

using Commands = std::vector<std::string>;

// Amplitude and mean of a recorded sine, in physical units by the attributes that stand beside the samples.
struct Sine {
    double amplitude;
    double mean;
};

Sine sineOf(const RecordingReader& file, int slot, bool filtered, double hz) {
    const auto path = channelPath(slot, filtered);
    const auto samples = filtered ? file.numbers<int32_t>(path) : file.numbers<int16_t>(path);
    const double scale = file.number(path, "scale");
    const double offset = file.number(path, "offset");
    const double rate = file.number(path, "sample_rate");
    const auto period = static_cast<size_t>(std::lround(rate / hz));
    const size_t settled = std::max<size_t>(period, 200);
    if (samples.size() < settled + period) {
        return {NAN, NAN};
    }
    const size_t count = (samples.size() - settled) / period * period;
    std::complex<double> turn;
    double sum = 0.0;
    for (size_t i = settled; i < settled + count; ++i) {
        const double value = samples[i] * scale + offset;
        sum += value;
        turn += value * std::polar(1.0, -2.0 * std::numbers::pi * hz * static_cast<double>(i) / rate);
    }
    return {2.0 * std::abs(turn) / static_cast<double>(count), sum / static_cast<double>(count)};
}

// One row of the table of what goes in and what reads back.
struct Cell {
    int64_t measurement;
    int64_t range;
    std::string name;  // of the measurement
    std::string unit;
    double full;  // the range is + and - so much
};

// The rows of all delivered definitions, by the class that an amplifier gets.
std::map<std::string, std::vector<Cell>> deliveredCells() {
    std::map<std::string, std::vector<Cell>> cells;
    for (const auto& report : zornhost::checkDefinitions(KESTRIX_AMPLIFIERS)) {
        auto& list = cells[report.className];
        for (size_t m = 0; m < report.measurements.size(); ++m) {
            const auto& measurement = report.measurements[m];
            for (size_t r = 0; r < measurement.ranges.size(); ++r) {
                list.push_back({static_cast<int64_t>(m), static_cast<int64_t>(r), measurement.name, measurement.unit,
                                std::stod(measurement.ranges[r])});
            }
        }
    }
    return cells;
}

}  // namespace

// Five volts are five volts, whatever the range: what is played in is what the file holds, to 0.1 % of it.
TEST(AmplifierRoad, EveryRangeOfEveryDefinitionReadsBack) {
    constexpr double hz = 100.0;
    constexpr double share = 0.7;  // of the range
    constexpr double mean = 0.2;
    Amplified bench(allKinds());
    auto delivered = deliveredCells();
    std::map<int, std::vector<Cell>> cells;
    size_t runs = 0;
    for (int slot = 0; slot < 4; ++slot) {
        const auto found = delivered.find(bench.channel(slot).getClassName().toStdString());
        ASSERT_NE(found, delivered.end()) << slot;
        cells[slot] = found->second;
        runs = std::max(runs, cells[slot].size());
        delivered.erase(found);
    }
    EXPECT_TRUE(delivered.empty()) << delivered.begin()->first << ": no amplifier has it here";

    std::vector<std::vector<std::string>> table{
        {"Amplifier", "Measurement", ">Range", "Unit", ">In", ">Raw", ">Filtered", ">Mean in", ">Raw", ">Filtered"}};
    for (size_t run = 0; run < runs; ++run) {
        std::map<int, Cell> chosen;
        for (const auto& [slot, list] : cells) {
            if (run >= list.size()) {
                continue;
            }
            const Cell& cell = chosen[slot] = list[run];
            const auto channel = bench.channel(slot);
            channel.setPropertyValue("Measurement", cell.measurement);
            channel.setPropertyValue("Range", cell.range);
            ASSERT_EQ(bench.update(slot, true), Errors::Success);
            EXPECT_EQ(bench.number(slot, "Range"), cell.range);
            EXPECT_EQ(bench.inForce(slot), std::pair(cell.measurement, cell.range));
            bench.instrument().setWaveform(slot, physical(WaveformKind::Sine, share * cell.full, mean * cell.full, hz));
        }
        const std::string name = "ranges" + std::to_string(run) + ".h5";
        const auto report = bench.record(name, 0.35);
        EXPECT_TRUE(report.good()) << report.verdict();
        const RecordingReader file(bench.file(name));
        for (const auto& [slot, cell] : chosen) {
            const auto channel = bench.channel(slot);
            EXPECT_EQ(channel.getMaxValue(), cell.full);
            EXPECT_EQ(channel.getMinValue(), -cell.full);
            // The calibration that the amplifier reports is in the scale, and none is as good as none.
            const auto state = bench.instrument().amplifierState(slot);
            EXPECT_NEAR(channel.getScale(), 2.0 * cell.full / 65536.0 * state.scale, 1e-12 * cell.full);
            EXPECT_NEAR(channel.getOffset(), static_cast<double>(state.offset) * state.scale / 1000.0, 1e-9);
            EXPECT_NE(state.scale, 1.0F);

            const bool direct = fromValue<std::string>(channel.getPropertyEnum("HPFilter")) == "DC";
            const double amplitudeIn = share * cell.full;
            const double meanIn = direct ? mean * cell.full : 0.0;
            const Sine raw = sineOf(file, slot, false, hz);
            const Sine filtered = sineOf(file, slot, true, hz);
            table.push_back({channel.getClassName().toStdString(), cell.name, zornhost::formatNumber(cell.full),
                             cell.unit, zornhost::formatNumber(amplitudeIn), zornhost::formatNumber(raw.amplitude),
                             zornhost::formatNumber(filtered.amplitude), zornhost::formatNumber(meanIn),
                             zornhost::formatNumber(raw.mean), zornhost::formatNumber(filtered.mean)});
            SCOPED_TRACE(table.back()[0] + " " + table.back()[1] + " " + table.back()[2]);
            for (const bool isFiltered : {false, true}) {
                const Sine& sine = isFiltered ? filtered : raw;
                EXPECT_EQ(file.text(channelPath(slot, isFiltered), "unit"), cell.unit);
                EXPECT_NEAR(sine.amplitude, amplitudeIn, 0.001 * amplitudeIn) << isFiltered;
                EXPECT_NEAR(sine.mean, meanIn, 0.001 * mean * cell.full) << isFiltered;
            }
        }
    }
    std::printf("%s", zornhost::formatTable(table).c_str());
    EXPECT_EQ(table.size(), 1u + 4 + 7 + 6 + 4);
}

// The first update sends all that the definition has, in the amplifier's order.
TEST(AmplifierRoad, FramesOnTheWireForEachDefinition) {
    Amplified bench(allKinds());
    const Commands identity{"A7", "AA", "A6", "A3", "49", "65", "63", "66", "FA", "FB"};
    const Commands settings[] = {
        {"F2 00", "60 00", "BC 00", "C8 00", "C3 00", "C9 00", "B7 00", "67", "FA", "FB"},
        {"F2 00", "60 00", "BC 00", "C8 00", "C3 00", "C9 00", "B9 00 00 A0 40", "6A 00", "B7 00", "67", "FA", "FB"},
        {"F2 00", "60 00", "BC 00", "C8 00", "C3 00", "C9 00", "B9 00 00 80 40", "67", "FA", "FB"},
        {"60 00", "BC 00", "C8 00", "C3 00", "C9 00", "67", "FA", "FB"},
    };
    for (int slot = 0; slot < 4; ++slot) {
        Commands expected = identity;
        expected.insert(expected.end(), settings[slot].begin(), settings[slot].end());
        EXPECT_EQ(bench.sent(slot), expected) << slot;
    }
}

namespace {

// What goes wrong while an amplifier is asked for something new, and what is so right after a first round of it.
struct Trouble {
    const char* name;
    const char* failure;  // the end of it after the first round; "": none
    bool refused;         // what was in force stays; otherwise the next round brings the request
    std::vector<Fault> faults;
    bool stops = false;  // the round ends with an exception
};

// Of the answers to a command.
Fault of(FaultKind kind, int command, int64_t times = 1, int code = 0) {
    return {.kind = kind, .code = code, .times = times, .command = command};
}

using enum FaultKind;
const Trouble troubles[] = {
    {"setting refused", "Range: refused with status 3", true, {of(AmplifierBadStatus, 0xBC, 3)}},
    {"update refused", "Update: refused with status 7", true, {of(AmplifierBadStatus, 0x67, 3, 7)}},
    {"scale refused", "Scaling: refused with status 3", false, {of(AmplifierBadStatus, 0xFA, 3)}},
    {"offset is no number", "Scaling: not a number", false, {of(AmplifierNan, 0xFB)}},
    {"bus error", "Selection: bus error: Input/output error", false, {{.kind = MuxError}}},
    {"port error", ": bus error: Error: read() failed.", false, {{.kind = UartRead, .times = 3}}},
    {"stuck",
     "Selection: bus error: unable to set amplifiers UART mux",
     false,
     {{.kind = MuxReadsBack, .times = 32}},
     true},
    {"no answer", "Range: no answer", false, {of(AmplifierSilent, 0xBC, 3)}},
    {"answer lost", "Update: no answer", false, {of(AmplifierHalfFrame, 0x67, 3)}},
    {"late answer", "", false, {of(AmplifierLate, 0x67, 1, 607)}},
    // The answer to the range must not be taken for that to the update.
    {"late answer, update refused",
     "Update: refused with status 7",
     true,
     {of(AmplifierLate, 0xBC, 1, 203), of(AmplifierBadStatus, 0x67, -1, 7)}},
};

// What a recording says of itself.
struct Said {
    bool good = false;
    std::string verdict;
    std::string refused;  // "" or what an amplifier has not taken
};

}  // namespace

// Whatever goes wrong, and whenever: the properties, the amplifier, the samples, the file and the verdict tell one
// story, at once or after the next undisturbed round.
TEST(AmplifierRoad, AgreesWhateverGoesWrong) {
    struct Request {
        int64_t measurement;
        int64_t range;
        double full;
        const char* unit;
        const char* inForce;
    };
    constexpr Request before{1, 0, 10.0, "V", "Measurement: Voltage; Range: 10 V;"};
    constexpr Request requests[] = {{1, 1, 1.0, "V", "Measurement: Voltage; Range: 1 V;"},
                                    {0, 3, 1.0, "mV/V", "Measurement: Bridge; Range: 1 mV/V;"}};
    enum class By { Update, Command, Start };  // UpdateAmplifier; the command `record`; a start of any other host
    constexpr double played = 0.8;             // in the unit of what is in force
    Amplified bench({.modules = {plugged(0, AmplifierKind::Bridge, constant(played))}, .faults = {}});
    auto channel = bench.channel(0);
    const auto ask = [&](const Request& request) {
        channel.setPropertyValue("Measurement", request.measurement);
        channel.setPropertyValue("Range", request.range);
    };
    const auto expectInForce = [&](const Request& expected) {
        const std::pair wanted(expected.measurement, expected.range);
        EXPECT_EQ(bench.inForce(0), wanted);
        EXPECT_EQ(std::pair(bench.number(0, "Measurement"), bench.number(0, "Range")), wanted);
        EXPECT_TRUE(channel.getPropertyValue<std::string>("SettingsInForce").starts_with(expected.inForce));
    };
    const auto recorded = [&](By by) -> Said {
        if (by == By::Start) {
            const auto report = bench.record("run.h5", 0.25);
            return {report.good(), report.verdict(), report.refusals.empty() ? "" : report.refusals[0].text()};
        }
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        zornhost::RecordOptions options;
        options.file = bench.file("run.h5");
        options.durationS = 0.25;
        int exitCode = -1;
        std::string thrown;
        try {
            zornhost::Output output;
            exitCode = zornhost::record(bench.session(), output, true, options);
        } catch (const std::exception& failure) {
            thrown = failure.what();
        }
        const std::string words = testing::internal::GetCapturedStderr();
        // What the module prints each second may come before the command's report or behind it.
        const std::string printed = testing::internal::GetCapturedStdout();
        const size_t begin = std::min(printed.find('{'), printed.size());
        const auto json = nlohmann::json::parse(printed.substr(begin, printed.rfind('}') + 1 - begin), nullptr, false);
        if (!thrown.empty()) {
            throw std::runtime_error(thrown);
        }
        Said said{exitCode == 0, json["verdict"], ""};
        EXPECT_EQ(json["good"], said.good);
        for (const auto& refusal : json["refusedSettings"]) {
            said.refused += std::string(refusal["asked"]) + ": " + std::string(refusal["reason"]);
        }
        EXPECT_EQ(words.find("the amplifier has not taken all settings: " + said.refused) != std::string::npos,
                  !said.refused.empty())
            << words;
        return said;
    };
    for (const Trouble& trouble : troubles) {
        for (const Request& request : requests) {
            for (const By by : {By::Update, By::Command, By::Start}) {
                SCOPED_TRACE(std::string(trouble.name) + (request.measurement == 1 ? "" : ", other measurement") +
                             (by == By::Update ? ", update" : (by == By::Command ? ", record" : ", start")));
                ask(before);
                ASSERT_EQ(bench.update(0), Errors::Success);
                expectInForce(before);
                EXPECT_EQ(channel.getPropertyValue<std::string>("AmplifierFailure"), "");

                ask(request);
                for (const Fault& fault : trouble.faults) {
                    bench.instrument().inject(fault);
                }
                if (by == By::Update) {
                    EXPECT_EQ(failed(bench.update(0)), trouble.stops);
                    const auto failure = channel.getPropertyValue<std::string>("AmplifierFailure");
                    EXPECT_TRUE(failure.ends_with(trouble.failure)) << failure;
                    EXPECT_EQ(failure.empty(), *trouble.failure == 0) << failure;
                    // Nothing is called in force that isn't.
                    const auto state = bench.instrument().amplifierState(0);
                    const auto shown = channel.getPropertyValue<std::string>("SettingsInForce");
                    const bool applied = state.range == request.range;
                    EXPECT_EQ(shown.empty(), failure == "Update: no answer");
                    EXPECT_TRUE(shown.empty() || shown.starts_with((applied ? request : before).inForce)) << shown;
                    EXPECT_EQ(bench.number(0, "Range"), trouble.refused ? before.range : request.range);
                    bench.instrument().clearFaults();
                }
                Said said;
                try {
                    said = recorded(by == By::Update ? By::Command : by);
                } catch (const std::exception& failure) {
                    EXPECT_TRUE(trouble.stops && by != By::Update) << failure.what();
                    EXPECT_NE(std::string(failure.what()).find("mux"), std::string::npos) << failure.what();
                    bench.instrument().clearFaults();
                    said = recorded(by);
                }
                bench.instrument().clearFaults();
                const Request& end = trouble.refused ? before : request;
                expectInForce(end);
                // A refusal that came before the recording was shown then; what is recorded now is as it is shown.
                const bool refused = trouble.refused && by != By::Update;
                EXPECT_EQ(said.good, !refused) << said.verdict;
                EXPECT_EQ(said.refused.empty(), !refused) << said.refused;
                const RecordingReader file(bench.file("run.h5"));
                const auto state = bench.instrument().amplifierState(0);
                for (const bool filtered : {false, true}) {
                    const auto path = channelPath(0, filtered);
                    EXPECT_TRUE(file.text(path, "settings_in_force").starts_with(end.inForce));
                    EXPECT_EQ(file.text(path, "settings_refused"), said.refused);
                    EXPECT_EQ(file.text(path, "unit"), end.unit);
                    EXPECT_EQ(file.number(path, "range_max"), end.full);
                    const double quantum = 2.0 * end.full / (filtered ? 4294967296.0 : 65536.0);
                    EXPECT_NEAR(file.number(path, "scale") / quantum, state.scale, 1e-9);
                    EXPECT_NEAR(file.number(path, "offset"), state.offset * state.scale / 1000.0, 1e-9);
                    EXPECT_NEAR(sineOf(file, 0, filtered, 100.0).mean, played, 0.001 * played);
                }
                if (refused) {
                    EXPECT_NE(said.refused.find(trouble.failure), std::string::npos) << said.refused;
                    EXPECT_NE(said.verdict.find("SETTINGS NOT TAKEN: AI 1: " + said.refused), std::string::npos);
                    EXPECT_EQ(
                        by == By::Command,
                        said.refused.find(request.measurement == 1 ? "Range 1 V" : "Range 1 mV/V") != std::string::npos)
                        << said.refused;
                }
            }
        }
    }
}

// The amplifier is asked anew while samples come: the file keeps what was in force when it began, and says the rest.
TEST(AmplifierRoad, ARefusalWhileARecordingRunsIsInItsReport) {
    Amplified bench(allKinds());
    const auto report = bench.record("refused.h5", 0.6, {}, [&] {
        bench.channel(iepe).setPropertyValue("Excitation", 6.0);
        EXPECT_EQ(bench.update(iepe), Errors::Success);
    });
    EXPECT_FALSE(report.good());
    ASSERT_EQ(report.refusals.size(), 1u) << report.verdict();
    EXPECT_EQ(report.refusals[0].module, Amplified::name(iepe));
    const RecordingReader file(bench.file("refused.h5"));
    for (const bool filtered : {false, true}) {
        EXPECT_NE(file.text(channelPath(iepe, filtered), "settings_refused").find("refused"), std::string::npos);
        EXPECT_NE(file.text(channelPath(iepe, filtered), "settings_in_force").find("Excitation: 4"), std::string::npos);
        EXPECT_EQ(file.text(channelPath(voltage, filtered), "settings_refused"), "");
    }
    // Nothing is left of it in the next one.
    ASSERT_EQ(bench.update(iepe), Errors::Success);
    EXPECT_TRUE(bench.record("taken.h5", 0.2).good());
}

// The offset is found in the bridge's unit. A recording that runs keeps its scale; the next start shows the offset.
TEST(Balancing, BeforeAndDuringARecording) {
    Amplified bench(allKinds());
    const auto balance = [&] {
        EXPECT_EQ(bench.dispatch(bridge, "StartSensorBalance"), Errors::Success);
        EXPECT_TRUE(eventually([&] { return !fromValue<bool>(bench.call(bridge, "GetSensorBalanceStatus")); }));
    };
    // What a recording of a steady input holds, of both streams.
    const auto recorded = [&](const std::string& name, double expected, const std::function<void()>& during = {}) {
        SCOPED_TRACE(name);
        const auto report = bench.record(name + ".h5", 0.6, {}, during);
        EXPECT_TRUE(report.good()) << report.verdict();
        const RecordingReader file(bench.file(name + ".h5"));
        EXPECT_EQ(file.text(channelPath(bridge, false), "unit"), "mV/V");
        EXPECT_NEAR(sineOf(file, bridge, false, 100.0).mean, expected, 0.00125);
        EXPECT_NEAR(sineOf(file, bridge, true, 100.0).mean, expected, 0.00125);
    };
    const auto offset = [&] {
        EXPECT_EQ(bench.update(bridge), Errors::Success);
        return bench.channel(bridge).getPropertyValue<double>("BridgeOffset");
    };

    bench.instrument().setWaveform(bridge, constant(1.25));
    recorded("before", 1.25);
    recorded("during", 1.25, balance);
    EXPECT_EQ(fromValue<std::string>(bench.call(bridge, "GetSensorBalanceResult")), "balanced");
    EXPECT_NEAR(offset(), -1.25, 0.00125);
    EXPECT_NEAR(bench.channel(bridge).getMaxValue(), 10.0, 1e-9) << "the hardware's range has not moved";
    recorded("after", 0.0);
    bench.instrument().setWaveform(bridge, constant(1.5));
    recorded("moved", 0.25);
    // Again: what is left over goes as well.
    recorded("again", 0.25, balance);
    EXPECT_NEAR(offset(), -1.5, 0.0015);
    recorded("both", 0.0);
    EXPECT_EQ(bench.dispatch(bridge, "ResetSensorBalance"), Errors::Success);
    EXPECT_EQ(offset(), 0.0);
    recorded("reset", 1.5);
}

TEST(Balancing, ModuleUnloadsWhileItRuns) {
    Amplified bench(allKinds());
    bench.instrument().setWaveform(bridge, constant(1.0));
    bench.use();
    bench.session().prepare();
    bench.session().start();
    auto channel = bench.channel(bridge);
    EXPECT_TRUE(eventually([&] { return channel.getSamplesAcquired() >= 1000; }));
    EXPECT_EQ(bench.dispatch(bridge, "StartSensorBalance"), Errors::Success);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto begin = std::chrono::steady_clock::now();
    bench.session().stop();
    EXPECT_TRUE(fromValue<bool>(bench.call(bridge, "GetSensorBalanceStatus")));
    channel = {};
    EXPECT_NO_THROW(bench.session().close());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
    // The same process can load it again.
    bench.session().open();
    EXPECT_TRUE(bench.record("again.h5", 0.3).good());
}

namespace {

std::string range(const std::string& name) {
    return R"(, {"name": "Range", "type": "int", "selection": true, "default": 0, "unit": "V", "values": [
      {"className": "RangeItem", "propValues": {"DisplayName": ")" +
           name + R"(", "Min": -10.0, "Max": 10.0}}]})";
}

const std::string measurements =
    R"(, {"name": "Measurement", "type": "int", "selection": true, "default": 0, "values": ["Bridge", "Voltage"]})";
const std::string balance = R"(, {"name": "StartSensorBalance", "type": "proc"}, {"name": "ResetSensorBalance",
  "type": "proc"}, {"name": "GetSensorBalanceStatus", "type": "func"}, {"name": "DeviceRanges", "type": "float",
  "default": 0.1, "values": [0.1]}, {"name": "BridgeOffset", "type": "float", "default": 0.0, "unit": "V"})";

}  // namespace

// What the check says of a folder is what the module does with it.
TEST(Definitions, TheCheckAndTheModuleAgree) {
    using Files = std::vector<std::string>;
    const std::string mine = "1.0.1.1";
    const auto one = [&](const std::string& more = "") { return Files{definition("ampl_a", mine, more)}; };
    // The class of the amplifier; "": the one that the check says counts. Then whether there is a mistake, the
    // measurement that fails, and the files.
    const std::tuple<const char*, const char*, bool, int, Files> rows[] = {
        {"a plus", "ampl_a", false, -1, one(measurements + range("+10") + balance)},
        {"no number", "ampl_a", true, -1, one(measurements + range("ten") + balance)},
        {"the unknown amplifier's name", "ampl_unknown", true, -1, {definition("Ampl_Unknown", mine)}},
        {"the unknown amplifier itself", "ampl_unknown", true, -1, {definition("ampl_unknown", "0.0.0.0")}},
        {"leading zero", "ampl_unknown", true, -1, {definition("ampl_a", "01.0.1.1")}},
        {"a channel's property", "ampl_a", false, -1,
         one(R"json(, {"name": "BridgeLeg", "type": "int", "readOnly": true, "readOnlyValue":
           {"__type": "Eval", "expr": "if($Enabled, $PhaseDelay, 1)"}})json")},
        {"a mistake at first sight", "ampl_unknown", true, -1,
         one(R"(, {"name": "Short", "type": "bool", "enabled": false})")},
        {"a mistake in another measurement", "ampl_unknown", true, -1,
         one(measurements + R"json(, {"name": "Range", "type": "reference", "reference":
           {"__type": "Eval", "expr": "switch($Measurement, 0, %ModuleName)"}})json")},
        {"a mistake in the second measurement", "ampl_a", true, 1,
         one(measurements + R"json(, {"name": "InputType", "type": "int", "selection": true,
           "default": 0, "values": {"__type": "Eval", "expr": "if($Measurement == 0, $Texts, $ModuleName)"}},
           {"name": "Texts", "type": "list", "default": ["Differential"]})json")},
        {"two of one amplifier", "", true, -1, {definition("ampl_a", mine), definition("ampl_b", mine)}},
        {"two of one class", "", true, -1, {definition("ampl_a", mine), definition("AMPL_A", "1.0.1.2")}},
        {"twice the same", "ampl_a", true, -1, {definition("ampl_a", mine), definition("ampl_a", mine)}},
    };
    for (const auto& [what, shown, wrong, failing, files] : rows) {
        SCOPED_TRACE(what);
        const auto folder = std::filesystem::temp_directory_path() / ("kestrix-agree-" + std::to_string(::getpid()));
        std::filesystem::create_directories(folder);
        for (size_t i = 0; i < files.size(); ++i) {
            std::ofstream(folder / ("file" + std::to_string(i) + ".json")) << files[i];
        }
        std::string counts = "ampl_unknown";
        bool mistake = false;
        std::string problems;
        for (const auto& report : zornhost::checkDefinitions(folder.string())) {
            mistake = mistake || report.hasErrors();
            bool another =
                report.outcome != zornhost::DefinitionReport::Outcome::Registered || report.identifier != mine;
            for (const auto& problem : report.problems) {
                problems += problem.text + "\n";
                const size_t end = problem.text.find("\" counts");
                another = another || problem.text.find("nothing of this file counts") != std::string::npos ||
                          (end != std::string::npos && !problem.text.substr(0, end).ends_with("\"" + report.file));
            }
            counts = another ? counts : report.className;
        }
        Amplified bench({.modules = {plugged(0, AmplifierKind::Voltage)}, .faults = {}}, folder.string());
        std::filesystem::remove_all(folder);
        EXPECT_EQ(bench.channel(0).getClassName(), counts) << problems;
        EXPECT_TRUE(*shown == 0 || counts == shown) << counts << problems;
        EXPECT_EQ(mistake, wrong) << problems;
        if (!bench.channel(0).hasProperty("Measurement") || counts == "ampl_unknown") {
            continue;
        }
        for (const auto& [place, words] :
             {std::pair{0, "InputType\": in the measurement \"Bridge"}, {1, "in the measurement \"Voltage"}}) {
            bench.channel(0).setPropertyValue("Measurement", place);
            EXPECT_EQ(failed(bench.update(0, true)), place == failing) << place;
            EXPECT_EQ(problems.find(words) != std::string::npos, place == failing) << problems;
        }
    }
}
