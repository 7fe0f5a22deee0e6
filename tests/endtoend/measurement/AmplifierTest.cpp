#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <fstream>
#include <map>
#include <mutex>
#include <numbers>
#include <sstream>

#include <zorn/logger/logger.h>

#include "tests/endtoend/measurement/Bench.h"
#include "tools/zornhost/AmplifierCommands.h"

// An amplifier as a user sees it: settings in the host, frames on the wire, values back, samples in physical units.
using namespace kestrixsim;
using namespace Harvane::RT::Core;

namespace {

constexpr const char* inputs = "KESTRIX/Analog inputs/";

class LogCapture : public ILogSink {
public:
    LogCapture() { addLogSink(this, 0); }
    ~LogCapture() override { removeLogSink(this); }
    void write(const LogRecord& record) override {
        const std::lock_guard lock(mutex_);
        text_ += std::string(record.message) + "\n";
    }
    size_t count(const std::string& words) const {
        const std::lock_guard lock(mutex_);
        size_t found = 0;
        for (size_t at = text_.find(words); at != std::string::npos; at = text_.find(words, at + 1))
            ++found;
        return found;
    }

private:
    mutable std::mutex mutex_;
    std::string text_;
};

Waveform physical(WaveformKind kind, double amplitude, double offset, double hz) {
    Waveform waveform;
    waveform.kind = kind;
    waveform.frequencyHz = hz;
    waveform.amplitude = amplitude;
    waveform.offset = offset;
    waveform.unit = WaveformUnit::Physical;
    return waveform;
}

Waveform physicalSine(double amplitude, double offset, double hz) {
    return physical(WaveformKind::Sine, amplitude, offset, hz);
}

Waveform constant(double value) { return physical(WaveformKind::Constant, 0.0, value, 0.0); }

ModuleScenario plugged(int slot, AmplifierKind kind, const Waveform& waveform = constant(0.0)) {
    ModuleScenario module;
    module.slot = slot;
    module.kind = kind;
    module.waveform = waveform;
    return module;
}

Scenario with(std::vector<ModuleScenario> modules) {
    Scenario scenario;
    scenario.modules = std::move(modules);
    return scenario;
}

// One of each kind, in the order of the constants below.
Scenario allKinds() {
    return with({plugged(0, AmplifierKind::Voltage), plugged(1, AmplifierKind::Bridge), plugged(2, AmplifierKind::Iepe),
                 plugged(3, AmplifierKind::HighVoltage)});
}
constexpr int voltage = 0;
constexpr int bridge = 1;
constexpr int iepe = 2;
constexpr int highVoltage = 3;

class Amplified : public Bench {
public:
    explicit Amplified(const Scenario& scenario, const std::string& definitions = KESTRIX_AMPLIFIERS)
        : Bench(scenario, {"SampleRate=10000"}, definitions) {
        session().open();
    }

    ChannelPtr<> channel(int slot) { return session().tree().channels({name(slot) + "/Raw input"}).at(0).channel; }
    static std::string name(int slot) { return "AI " + std::to_string(slot + 1); }
    static std::string path(int slot, bool filtered) {
        return inputs + name(slot) + (filtered ? "/Filtered input" : "/Raw input");
    }

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
    std::vector<int64_t> listOf(int slot, const char* function, const BasePtr& argument = {}) {
        const ListPtr list(call(slot, function, argument).asPtr<IList>());
        std::vector<int64_t> items;
        for (size_t i = 0; i < list.getCount(); ++i)
            items.push_back(fromValue<int64_t>(list.getItemAt(i)));
        return items;
    }
    int64_t number(int slot, const char* property) { return channel(slot).getPropertyValue<int64_t>(property); }

    // Commands with their payload that the slot's amplifier has taken since the last call: "BC 02".
    std::vector<std::string> sent(int slot) {
        const auto all = instrument().framesReceived();
        std::vector<std::string> commands;
        const std::string prefix = std::to_string(slot) + ": A5 ";
        for (size_t i = seen_[slot]; i < all.size(); ++i)
            if (all[i].starts_with(prefix))
                commands.push_back(all[i].substr(prefix.size() + 3, all[i].size() - prefix.size() - 3 - 3));
        seen_[slot] = all.size();
        return commands;
    }

private:
    std::map<int, size_t> seen_;
};

using Commands = std::vector<std::string>;

// Amplitude and mean of a recorded sine, in physical units by the attributes that stand beside the samples.
struct Sine {
    double amplitude;
    double mean;
};

template <class T>
Sine sineOf(const RecordingReader& file, const std::string& path, double hz) {
    const auto samples = file.samples<T>(path);
    const double scale = file.number(path, "scale");
    const double offset = file.number(path, "offset");
    const double rate = file.number(path, "sample_rate");
    const auto period = static_cast<size_t>(std::lround(rate / hz));
    const size_t settled = std::max<size_t>(period, 200);
    if (samples.size() < settled + period)
        return {NAN, NAN};
    const size_t count = (samples.size() - settled) / period * period;
    std::complex<double> turn;
    double sum = 0.0;
    for (size_t i = settled; i < settled + count; ++i) {
        const double value = static_cast<double>(samples[i]) * scale + offset;
        sum += value;
        turn += value * std::polar(1.0, -2.0 * std::numbers::pi * hz * static_cast<double>(i) / rate);
    }
    return {2.0 * std::abs(turn) / static_cast<double>(count), sum / static_cast<double>(count)};
}

struct Choice {
    int measurement;
    int range;
    double full;  // the range is + and - so much
    const char* unit;
    bool direct;  // 0 Hz passes
};

// Every range of every delivered definition.
const std::vector<Choice> choices[] = {
    {{0, 0, 10, "V", true}, {0, 1, 5, "V", true}, {0, 2, 1, "V", true}, {0, 3, 0.1, "V", true}},
    {{0, 0, 10, "mV/V", true},
     {0, 1, 5, "mV/V", true},
     {0, 2, 2, "mV/V", true},
     {0, 3, 1, "mV/V", true},
     {1, 0, 10, "V", true},
     {1, 1, 1, "V", true},
     {2, 0, 100, "%", true}},
    {{0, 0, 10, "V", false},
     {0, 1, 5, "V", false},
     {0, 2, 1, "V", false},
     {1, 0, 10, "V", true},
     {1, 1, 5, "V", true},
     {1, 2, 1, "V", true}},
    {{0, 0, 1000, "V", true}, {0, 1, 400, "V", true}, {0, 2, 200, "V", true}, {0, 3, 50, "V", true}},
};

class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "definitions-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("no temporary folder");
        path_ = name;
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    void write(const std::string& name, const std::string& text) const { std::ofstream(path_ / name) << text; }
    std::string path() const { return path_.string(); }

private:
    std::filesystem::path path_;
};

}  // namespace

// Five volts are five volts, whatever the range: what is played in is what the file holds.
TEST(AmplifierRoad, EveryRangeOfEveryDefinitionReadsPhysicalUnits) {
    constexpr double hz = 100.0;
    Amplified bench(allKinds());
    size_t runs = 0;
    for (const auto& list : choices)
        runs = std::max(runs, list.size());
    for (size_t run = 0; run < runs; ++run) {
        std::map<int, Choice> chosen;
        for (int slot = 0; slot < 4; ++slot) {
            if (run >= choices[slot].size())
                continue;
            const Choice& choice = chosen[slot] = choices[slot][run];
            const auto channel = bench.channel(slot);
            channel.setPropertyValue("Measurement", choice.measurement);
            channel.setPropertyValue("Range", choice.range);
            ASSERT_EQ(bench.update(slot, true), Errors::Success);
            EXPECT_EQ(bench.number(slot, "Range"), choice.range);
            const auto state = bench.instrument().amplifierState(slot);
            EXPECT_EQ(state.measurement, choice.measurement);
            EXPECT_EQ(state.range, choice.range);
            bench.instrument().setWaveform(slot, physicalSine(0.7 * choice.full, 0.2 * choice.full, hz));
        }
        const std::string name = "ranges" + std::to_string(run) + ".h5";
        const auto report = bench.record(name, 0.35);
        EXPECT_TRUE(report.good()) << report.verdict();
        const RecordingReader file(bench.file(name));
        for (const auto& [slot, choice] : chosen) {
            const auto channel = bench.channel(slot);
            EXPECT_EQ(channel.getMaxValue(), choice.full);
            EXPECT_EQ(channel.getMinValue(), -choice.full);
            // The calibration that the amplifier reports is in the scale, and none is as good as none.
            const auto state = bench.instrument().amplifierState(slot);
            EXPECT_NEAR(channel.getScale(), 2.0 * choice.full / 65536.0 * state.scale, 1e-12 * choice.full);
            EXPECT_NEAR(channel.getOffset(), static_cast<double>(state.offset) * state.scale / 1000.0, 1e-9);
            EXPECT_NE(state.scale, 1.0F);
            for (const bool filtered : {false, true}) {
                const std::string path = Amplified::path(slot, filtered);
                SCOPED_TRACE(path + ", measurement " + std::to_string(choice.measurement) + ", range " +
                             std::to_string(choice.full));
                EXPECT_EQ(file.text(path, "unit"), choice.unit);
                const Sine sine = filtered ? sineOf<int32_t>(file, path, hz) : sineOf<int16_t>(file, path, hz);
                EXPECT_NEAR(sine.amplitude, 0.7 * choice.full, 0.001 * 0.7 * choice.full);
                EXPECT_NEAR(sine.mean, choice.direct ? 0.2 * choice.full : 0.0, 0.001 * choice.full);
            }
        }
    }
}

// The first update sends all that the definition has, in the amplifier's order; later ones only what has changed.
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

    // An edit alone sends nothing.
    const auto channel = bench.channel(bridge);
    channel.setPropertyValue("Measurement", 1);
    channel.setPropertyValue("Range", 1);
    channel.setPropertyValue("LPFilter", 3);
    channel.setPropertyValue("InputType", 2);
    channel.setPropertyValue("Excitation", 4);
    channel.setPropertyValue("Short", true);
    EXPECT_EQ(bench.sent(bridge), Commands());
    ASSERT_EQ(bench.update(bridge), Errors::Success);
    // The coupling follows each change of the measurement, changed or not.
    EXPECT_EQ(bench.sent(bridge),
              (Commands{"60 01", "BC 01", "C8 03", "C3 00", "C9 02", "B9 00 00 20 41", "B7 01", "67", "FA", "FB"}));
    ASSERT_EQ(bench.update(bridge), Errors::Success);
    EXPECT_EQ(bench.sent(bridge), (Commands{"67", "FA", "FB"}));
    const auto state = bench.instrument().amplifierState(bridge);
    EXPECT_EQ(state.lpFilter, 3);
    EXPECT_EQ(state.inputType, 2);
    EXPECT_EQ(state.excitation, 10.0F);
    EXPECT_TRUE(state.shortOn);

    // A start sends the settings that nobody has updated yet.
    bench.sent(voltage);
    bench.channel(voltage).setPropertyValue("Range", 2);
    ASSERT_TRUE(bench.record("start.h5", 0.2).good());
    const auto atStart = bench.sent(voltage);
    ASSERT_GT(atStart.size(), 4u);
    EXPECT_EQ(Commands(atStart.begin(), atStart.begin() + 4), (Commands{"BC 02", "67", "FA", "FB"}));
    for (size_t i = 4; i < atStart.size(); ++i)
        EXPECT_TRUE(atStart[i] == "67" || atStart[i] == "FA" || atStart[i] == "FB") << atStart[i];
    EXPECT_EQ(bench.channel(voltage).getMaxValue(), 1.0);
}

// What the switches of the amplifier do to the samples.
TEST(AmplifierRoad, ShortFilterAndExcitationAct) {
    Amplified bench(allKinds());
    // Behind a corner at 1 kHz a sine of 4 kHz is damped to a sixteenth; shorted inputs read 0.
    bench.instrument().setWaveform(voltage, physicalSine(8.0, 0.0, 4000.0));
    bench.channel(voltage).setPropertyValue("LPFilter", 4);
    bench.instrument().setWaveform(bridge, constant(5.0));
    bench.channel(bridge).setPropertyValue("Excitation", 0);
    ASSERT_TRUE(bench.record("filter.h5", 0.3).good());
    {
        const RecordingReader file(bench.file("filter.h5"));
        EXPECT_NEAR(sineOf<int16_t>(file, Amplified::path(voltage, false), 4000.0).amplitude, 8.0 / std::sqrt(257.0),
                    0.005);
        // Without excitation a bridge gives nothing.
        EXPECT_NEAR(sineOf<int16_t>(file, Amplified::path(bridge, false), 100.0).mean, 0.0, 0.001);
    }
    bench.channel(voltage).setPropertyValue("LPFilter", 0);
    bench.channel(voltage).setPropertyValue("Short", true);
    bench.channel(bridge).setPropertyValue("Excitation", 3);
    ASSERT_TRUE(bench.record("short.h5", 0.3).good());
    const RecordingReader file(bench.file("short.h5"));
    const Sine shorted = sineOf<int16_t>(file, Amplified::path(voltage, false), 100.0);
    EXPECT_NEAR(shorted.amplitude, 0.0, 0.001);
    EXPECT_NEAR(shorted.mean, 0.0, 0.001);
    EXPECT_NEAR(sineOf<int16_t>(file, Amplified::path(bridge, false), 100.0).mean, 5.0, 0.005);
    // The setup's notices switch the lamp, where there is one under control.
    EXPECT_FALSE(bench.instrument().ledOn(voltage));
    EXPECT_EQ(bench.dispatch(voltage, "NotifyEnterChSetup"), Errors::Success);
    EXPECT_TRUE(bench.instrument().ledOn(voltage));
    EXPECT_EQ(bench.dispatch(voltage, "NotifyLeaveChSetup"), Errors::Success);
    EXPECT_FALSE(bench.instrument().ledOn(voltage));
    bench.sent(highVoltage);
    EXPECT_EQ(bench.dispatch(highVoltage, "NotifyEnterChSetup"), Errors::Success);
    EXPECT_EQ(bench.sent(highVoltage), Commands());
}

// A refusal ends the update: its step is named, the later ones are not sent, and the host shows what is in force.
TEST(AmplifierRoad, RefusedValueShowsWhatTheHardwareHas) {
    Amplified bench(allKinds());
    const auto channel = bench.channel(voltage);
    bench.sent(voltage);
    channel.setPropertyValue("Range", 2);
    channel.setPropertyValue("InputType", 1);
    channel.setPropertyValue("Short", true);
    LogCapture log;
    bench.instrument().inject({.kind = FaultKind::AmplifierBadStatus, .target = voltage, .times = 3});
    EXPECT_EQ(bench.update(voltage), Errors::Success);
    EXPECT_EQ(bench.sent(voltage), (Commands{"BC 02", "BC 02", "BC 02"}));
    EXPECT_EQ(log.count("Amplifier update failed: write of range failed!"), 1u);
    EXPECT_EQ(bench.number(voltage, "Range"), 0);
    EXPECT_EQ(bench.number(voltage, "InputType"), 0);
    EXPECT_FALSE(channel.getPropertyValue<bool>("Short"));
    const auto state = bench.instrument().amplifierState(voltage);
    EXPECT_EQ(state.range, 0);
    EXPECT_FALSE(state.shortOn);
    // The scale is that of the range in force.
    bench.instrument().setWaveform(voltage, physicalSine(7.0, 0.0, 100.0));
    ASSERT_TRUE(bench.record("refused.h5", 0.3).good());
    EXPECT_NEAR(
        sineOf<int16_t>(RecordingReader(bench.file("refused.h5")), Amplified::path(voltage, false), 100.0).amplitude,
        7.0, 0.007);

    // What the amplifier takes note of but can't put in force is refused as a whole.
    bench.channel(iepe).setPropertyValue("Excitation", 6.0);
    EXPECT_EQ(bench.update(iepe), Errors::Success);
    EXPECT_EQ(log.count("Amplifier update failed on module 2: update properties failed!"), 1u);
    EXPECT_EQ(bench.instrument().amplifierState(iepe).excitation, 4.0F);
    bench.channel(iepe).setPropertyValue("Excitation", 8.0);
    EXPECT_EQ(bench.update(iepe), Errors::Success);
    EXPECT_EQ(bench.instrument().amplifierState(iepe).excitation, 8.0F);
}

// Wherever the amplifier stops to agree: what came before is in force, what comes behind is not sent.
TEST(AmplifierRoad, RefusalAtEachStep) {
    struct Setting {
        const char* frame;
        const char* property;  // nullptr: not shown to the user
        double before;
        double after;
        const char* step;
    };
    const Setting settings[] = {
        {"60 01", nullptr, 0, 1, "write of measurement type failed!"},
        {"BC 01", "Range", 0, 1, "write of range failed!"},
        {"C8 03", nullptr, 0, 3, "write of LP filter index failed!"},
        {"C3 00", nullptr, 0, 0, "write of coupling failed!"},
        {"C9 02", "InputType", 0, 2, "write of input type failed!"},
        {"B9 00 00 20 41", "Excitation", 3, 4, "write of excitation value failed!"},
        {"B7 01", "Short", 0, 1, "write of short on failed!"},
        {"67", nullptr, 0, 0, "update properties failed!"},
        {"FA", nullptr, 0, 0, "update scaling failed!"},
    };
    Amplified bench(allKinds());
    const auto choose = [&](bool after) {
        const auto channel = bench.channel(bridge);
        channel.setPropertyValue("Measurement", after ? 1 : 0);
        for (const auto& setting : settings)
            if (setting.property != nullptr)
                channel.setPropertyValue(setting.property,
                                         static_cast<int64_t>(after ? setting.after : setting.before));
        channel.setPropertyValue("LPFilter", after ? 3 : 0);
    };
    for (size_t refused = 0; refused < std::size(settings); ++refused) {
        SCOPED_TRACE(settings[refused].step);
        choose(false);
        ASSERT_EQ(bench.update(bridge), Errors::Success);
        bench.sent(bridge);
        choose(true);
        bench.instrument().inject(
            {.kind = FaultKind::AmplifierBadStatus, .target = bridge, .afterCount = refused, .times = 3});
        const LogCapture log;
        EXPECT_EQ(bench.update(bridge), Errors::Success);
        Commands expected;
        for (size_t i = 0; i < refused; ++i)
            expected.push_back(settings[i].frame);
        expected.insert(expected.end(), 3, settings[refused].frame);
        // Scale and offset are asked for together.
        if (expected.back() == "FA")
            expected.push_back("FB");
        EXPECT_EQ(bench.sent(bridge), expected);
        EXPECT_EQ(log.count(settings[refused].step), 1u);
        EXPECT_EQ(log.count("Amplifier update failed"), 1u);
        for (size_t i = 0; i < std::size(settings); ++i) {
            const auto& setting = settings[i];
            if (setting.property == nullptr)
                continue;
            EXPECT_EQ(bench.channel(bridge).getPropertyValue<double>(setting.property),
                      i < refused ? setting.after : setting.before)
                << setting.property;
        }
        bench.instrument().clearFaults();
    }
    choose(true);
    ASSERT_EQ(bench.update(bridge), Errors::Success);
    EXPECT_TRUE(bench.instrument().amplifierState(bridge).shortOn);
}

// The couplings hang on the measurement.
TEST(AmplifierRoad, HighPassFilterFollowsTheMeasurementWhenToldTo) {
    Amplified bench(allKinds());
    const auto channel = bench.channel(iepe);
    channel.setPropertyValue("Measurement", 1);
    channel.setPropertyValue("HPFilter", 2);
    ASSERT_EQ(bench.update(iepe), Errors::Success);
    EXPECT_EQ(bench.instrument().amplifierState(iepe).coupling, 2);
    ASSERT_EQ(bench.update(iepe, true), Errors::Success);
    EXPECT_EQ(bench.number(iepe, "HPFilter"), 2) << "the same list";
    channel.setPropertyValue("Measurement", 0);
    ASSERT_EQ(bench.update(iepe, true), Errors::Success);
    EXPECT_EQ(bench.number(iepe, "HPFilter"), 0) << "another list";
    channel.setPropertyValue("HPFilter", 1);
    channel.setPropertyValue("Measurement", 1);
    ASSERT_EQ(bench.update(iepe, false), Errors::Success);
    EXPECT_EQ(bench.number(iepe, "HPFilter"), 1) << "not told to";
    EXPECT_EQ(bench.instrument().amplifierState(iepe).coupling, 1);
}

TEST(AmplifierRoad, DefinitionWithTwoSettings) {
    const TemporaryFolder definitions;
    definitions.write("small.json", R"({"__type": "PropertyObjectClass", "name": "ampl_small", "properties": [
      {"name": "AmplifierID", "type": "string", "readOnly": true, "readOnlyValue": "4.2.1.4"},
      {"name": "Measurement", "type": "int", "selection": true, "default": 0, "values": ["Voltage"]},
      {"name": "Range", "type": "int", "selection": true, "default": 1, "unit": "V", "values": [
        {"className": "RangeItem", "propValues": {"DisplayName": "1000", "Min": -1000.0, "Max": 1000.0}},
        {"className": "RangeItem", "propValues": {"DisplayName": "400", "Min": -400.0, "Max": 400.0}}]}]})");
    const std::string before = std::filesystem::current_path();
    Amplified bench(with({plugged(0, AmplifierKind::HighVoltage, physicalSine(300.0, 0.0, 100.0)),
                          plugged(1, AmplifierKind::Voltage)}),
                    definitions.path());
    EXPECT_EQ(std::filesystem::current_path(), before);
    auto sent = bench.sent(0);
    ASSERT_EQ(sent.size(), 15u);
    EXPECT_EQ(Commands(sent.begin() + 10, sent.end()), (Commands{"60 00", "BC 01", "67", "FA", "FB"}));
    ASSERT_TRUE(bench.record("small.h5", 0.3).good());
    const RecordingReader file(bench.file("small.h5"));
    EXPECT_NEAR(sineOf<int16_t>(file, Amplified::path(0, false), 100.0).amplitude, 300.0, 0.3);
    // The other amplifier has no definition in this folder: a voltage of 10 V.
    EXPECT_EQ(bench.channel(1).getClassName().toStdString(), "ampl_unknown");
    EXPECT_EQ(bench.channel(1).getMaxValue(), 10.0);
    EXPECT_EQ(file.text(Amplified::path(1, false), "unit"), "V");
}

// ---- Balancing
// --------------------------------------------------------------------------------------------------------

namespace {

// The lines that a balancing prints, and the offset that it leaves.
struct Balance {
    std::string lines;
    double offset = 0.0;
    double value = 0.0;  // of one reading
    double seconds = 0.0;
    bool good = false;
};

Balance balanceWhileRecording(Amplified& bench, const std::string& name) {
    Balance result;
    testing::internal::CaptureStdout();
    const auto report = bench.record(name, 0.6, {}, [&] {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(bench.dispatch(bridge, "StartSensorBalance"), Errors::Success);
        while (fromValue<bool>(bench.call(bridge, "GetSensorBalanceStatus")) &&
               std::chrono::steady_clock::now() - begin < std::chrono::seconds(10))
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    });
    std::string line;
    std::istringstream printed(testing::internal::GetCapturedStdout());
    while (std::getline(printed, line))
        if (line.find("BALANC") != std::string::npos)
            result.lines += line + "|";
    result.good = report.good();
    EXPECT_EQ(bench.update(bridge), Errors::Success);
    result.offset = bench.channel(bridge).getPropertyValue<double>("BridgeOffset");
    // A reading is the newest number of the filtered stream by the amplifier's own scale and offset.
    const auto samples = RecordingReader(bench.file(name)).samples<int32_t>(Amplified::path(bridge, true));
    const auto state = bench.instrument().amplifierState(bridge);
    result.value = static_cast<double>(static_cast<float>(samples.back())) * state.scale +
                   static_cast<double>(state.offset) * state.scale / 1000.0;
    return result;
}

}  // namespace

TEST(Balancing, PassesOfABridgeWithOffsetAreThoseOfTheRules) {
    Amplified bench(allKinds());
    bench.instrument().setWaveform(bridge, constant(1.25));

    // 10 mV/V at 5 V fit the 0.05 V range; with the offset nothing fits but the first: one switch, two subtractions.
    auto balance = balanceWhileRecording(bench, "switch.h5");
    EXPECT_TRUE(balance.good) << "samples were lost";
    EXPECT_EQ(balance.lines, "BALANCING START|INITIAL BALANCING...|DEVICE SWITCH BALANCING...|BALANCING END|");
    EXPECT_NEAR(balance.offset, -2.0 * balance.value, 1e-5 * std::abs(balance.value));
    EXPECT_GE(balance.seconds, 1.0);
    EXPECT_LT(balance.seconds, 3.0);
    // The hardware's range has not moved, and neither has the channel's scaling.
    EXPECT_NEAR(sineOf<int32_t>(RecordingReader(bench.file("switch.h5")), Amplified::path(bridge, true), 100.0).mean,
                1.25, 0.00125);

    EXPECT_EQ(bench.dispatch(bridge, "ResetSensorBalance"), Errors::Success);
    EXPECT_EQ(bench.update(bridge), Errors::Success);
    EXPECT_EQ(bench.channel(bridge).getPropertyValue<double>("BridgeOffset"), 0.0);

    // At 10 V only the first range fits, before and after: one subtraction and no wait.
    bench.channel(bridge).setPropertyValue("Excitation", 4);
    balance = balanceWhileRecording(bench, "stay.h5");
    EXPECT_TRUE(balance.good) << "samples were lost";
    EXPECT_EQ(balance.lines, "BALANCING START|INITIAL BALANCING...|BALANCING END|");
    EXPECT_NEAR(balance.offset, -balance.value, 1e-5 * std::abs(balance.value));
    EXPECT_LT(balance.seconds, 0.9);
}

TEST(Balancing, SecondStartAndUpdatesAreRefusedWhileItRuns) {
    Amplified bench(allKinds());
    bench.instrument().setWaveform(bridge, constant(1.0));
    ErrCode second = 0;
    ErrCode update = 0;
    bool running = false;
    testing::internal::CaptureStdout();
    const auto report = bench.record("twice.h5", 0.6, {}, [&] {
        EXPECT_EQ(bench.dispatch(bridge, "StartSensorBalance"), Errors::Success);
        running = fromValue<bool>(bench.call(bridge, "GetSensorBalanceStatus"));
        second = bench.dispatch(bridge, "StartSensorBalance");
        bench.sent(bridge);
        update = bench.update(bridge);
        EXPECT_EQ(bench.sent(bridge), Commands());
        // Another amplifier is free.
        EXPECT_EQ(bench.update(voltage), Errors::Success);
        while (fromValue<bool>(bench.call(bridge, "GetSensorBalanceStatus")))
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    });
    const std::string lines = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(running);
    EXPECT_EQ(second, 0x80000027u);
    EXPECT_EQ(update, 0x80000027u);
    EXPECT_TRUE(report.good()) << report.verdict();
    EXPECT_EQ(lines.find("BALANCING START"), lines.rfind("BALANCING START"));
    EXPECT_EQ(bench.update(bridge), Errors::Success);
}

TEST(Balancing, WithoutAnAcquisitionItEndsWithALine) {
    Amplified bench(allKinds());
    LogCapture log;
    EXPECT_EQ(bench.dispatch(bridge, "StartSensorBalance"), Errors::Success);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (fromValue<bool>(bench.call(bridge, "GetSensorBalanceStatus")) && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_FALSE(fromValue<bool>(bench.call(bridge, "GetSensorBalanceStatus")));
    EXPECT_EQ(log.count("Balancing of an amplifier failed"), 1u);
}

TEST(Balancing, ModuleUnloadsWhileItRuns) {
    Amplified bench(allKinds());
    bench.instrument().setWaveform(bridge, constant(1.0));
    bench.use();
    bench.session().prepare();
    bench.session().start();
    auto channel = bench.channel(bridge);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (channel.getSamplesAcquired() < 1000 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
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

// ---- TEDS
// -------------------------------------------------------------------------------------------------------------

namespace {

BasePtr bytesOf(const std::vector<int>& bytes) {
    const ListPtr list = ListPtr::create();
    for (const int byte : bytes)
        list.pushBack(toValue(byte));
    return asBase(list);
}

}  // namespace

TEST(Teds, ChipsWithContents) {
    Amplified bench(allKinds());
    for (const int slot : {bridge, iepe}) {
        const auto chip = bench.listOf(slot, "ReadTeds");
        ASSERT_EQ(chip.size(), 9u) << slot;
        EXPECT_EQ(chip[0], 0);
        EXPECT_EQ(chip[1], 0x14) << "family";
    }
    EXPECT_NE(bench.listOf(bridge, "ReadTeds"), bench.listOf(iepe, "ReadTeds"));
    EXPECT_FALSE(bench.channel(voltage).hasProperty("ReadTeds"));

    // The custom area: erased, written, read in part, finalised, reset.
    std::vector<int64_t> erased(33, 0xFF);
    erased[0] = 0;
    EXPECT_EQ(bench.listOf(bridge, "ReadTedsCustom", toValue(32)), erased);
    std::vector<int> bytes;
    for (int i = 0; i < 32; ++i)
        bytes.push_back(7 * i);
    bytes[3] = 300;
    EXPECT_EQ(fromValue<int64_t>(bench.call(bridge, "WriteTedsCustom", bytesOf(bytes))), 0);
    auto read = bench.listOf(bridge, "ReadTedsCustom", toValue(32));
    ASSERT_EQ(read.size(), 33u);
    for (size_t i = 0; i < 32; ++i)
        EXPECT_EQ(read[i + 1], bytes[i] & 0xFF) << i;
    read = bench.listOf(bridge, "ReadTedsCustom", toValue(4));
    ASSERT_EQ(read.size(), 33u);
    EXPECT_EQ(std::vector<int64_t>(read.begin(), read.begin() + 5), (std::vector<int64_t>{0, 0, 7, 14, 44}));
    EXPECT_EQ(fromValue<int64_t>(bench.call(bridge, "FinalizeTedsCustom")), 0);
    EXPECT_EQ(fromValue<int64_t>(bench.call(bridge, "ResetTedsCustom")), 0);
    EXPECT_EQ(bench.listOf(bridge, "ReadTedsCustom", toValue(32)), erased);

    // Beyond the area: refused, and nothing sent.
    bench.sent(bridge);
    for (const int count : {33, -1}) {
        IBaseObject* result = nullptr;
        EXPECT_EQ(bench.channel(bridge)
                      .getPropertyValue<BasePtr>("ReadTedsCustom")
                      .asPtr<IFuncObject>()
                      ->execute(toValue(count).get(), &result),
                  0x80000001u);
    }
    IBaseObject* result = nullptr;
    EXPECT_EQ(bench.channel(bridge)
                  .getPropertyValue<BasePtr>("WriteTedsCustom")
                  .asPtr<IFuncObject>()
                  ->execute(bytesOf(std::vector<int>(33, 1)).get(), &result),
              0x80000001u);
    zornClearErrorInfo();
    EXPECT_EQ(bench.sent(bridge), Commands());

    EXPECT_EQ(fromValue<int64_t>(bench.call(bridge, "GetSensorStatus")), 1);
    // The amplifier for vibration sensors has no area of its own.
    EXPECT_EQ(bench.listOf(iepe, "ReadTedsCustom", toValue(32)), std::vector<int64_t>{-1});
    EXPECT_EQ(fromValue<int64_t>(bench.call(iepe, "WriteTedsCustom", bytesOf({1, 2}))), -1);
}

TEST(Teds, WithoutAChipAndWithSensorsThatAreBroken) {
    auto scenario = allKinds();
    scenario.modules[bridge].tedsChip = false;
    scenario.modules[bridge].sensor = Sensor::Shorted;
    scenario.modules[iepe].sensor = Sensor::Open;
    Amplified bench(scenario);
    EXPECT_EQ(bench.listOf(bridge, "ReadTeds"), std::vector<int64_t>{-1});
    EXPECT_EQ(fromValue<int64_t>(bench.call(bridge, "GetSensorStatus")), 3);
    EXPECT_EQ(fromValue<int64_t>(bench.call(iepe, "GetSensorStatus")), 2);
    EXPECT_EQ(bench.listOf(iepe, "ReadTeds").size(), 9u) << "a broken wire doesn't unplug the chip";
}

TEST(Teds, AmplifierThatGoesSilentInTheMiddle) {
    Amplified bench(allKinds());
    EXPECT_EQ(fromValue<int64_t>(bench.call(bridge, "WriteTedsCustom", bytesOf({1, 2, 3, 4}))), 0);
    // It answers one more request and then none for one exchange of three attempts.
    bench.instrument().inject({.kind = FaultKind::AmplifierSilent, .target = bridge, .afterCount = 1, .times = 3});
    bench.sent(bridge);
    EXPECT_EQ(bench.listOf(bridge, "ReadTeds").size(), 9u);
    EXPECT_EQ(bench.listOf(bridge, "ReadTedsCustom", toValue(4)), std::vector<int64_t>{-1});
    EXPECT_EQ(bench.sent(bridge).size(), 4u) << "one, and three attempts";
    const auto read = bench.listOf(bridge, "ReadTedsCustom", toValue(4));
    ASSERT_EQ(read.size(), 33u);
    EXPECT_EQ(std::vector<int64_t>(read.begin(), read.begin() + 5), (std::vector<int64_t>{0, 1, 2, 3, 4}));

    // An answer that stops half-way is asked for again, and the next one is whole.
    bench.instrument().inject({.kind = FaultKind::AmplifierHalfFrame, .target = bridge, .times = 1});
    EXPECT_EQ(bench.listOf(bridge, "ReadTeds").size(), 9u);
    // Each function tells of the silence in its own way, and none of them hangs.
    bench.instrument().inject({.kind = FaultKind::AmplifierSilent, .target = bridge, .times = -1});
    EXPECT_EQ(bench.listOf(bridge, "ReadTeds"), std::vector<int64_t>{-1});
    EXPECT_EQ(fromValue<int64_t>(bench.call(bridge, "ResetTedsCustom")), -1);
    EXPECT_EQ(fromValue<int64_t>(bench.call(bridge, "GetSensorStatus")), -1);
    bench.instrument().clearFaults();
    EXPECT_EQ(fromValue<int64_t>(bench.call(bridge, "GetSensorStatus")), 1);
}
