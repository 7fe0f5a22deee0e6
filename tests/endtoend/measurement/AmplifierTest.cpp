#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <map>
#include <numbers>

#include "tests/endtoend/measurement/Bench.h"
#include "tools/zornhost/AmplifierCommands.h"

// An amplifier as a user sees it: settings in the host, frames on the wire, values back, samples in physical units.
using namespace kestrixsim;
using namespace Harvane::RT::Core;

namespace {

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

Waveform constant(double value) {
    return physical(WaveformKind::Constant, 0.0, value, 0.0);
}

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

    // Commands with their payload that the slot's amplifier has taken since the last call: "BC 02".
    std::vector<std::string> sent(int slot) {
        const auto all = instrument().framesReceived();
        std::vector<std::string> commands;
        const std::string prefix = std::to_string(slot) + ": A5 ";
        for (size_t i = seen_[slot]; i < all.size(); ++i) {
            if (all[i].starts_with(prefix)) {
                commands.push_back(all[i].substr(prefix.size() + 3, all[i].size() - prefix.size() - 3 - 3));
            }
        }
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
    if (samples.size() < settled + period) {
        return {NAN, NAN};
    }
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

}  // namespace

// Five volts are five volts, whatever the range: what is played in is what the file holds.
TEST(AmplifierRoad, EveryRangeOfEveryDefinitionReadsPhysicalUnits) {
    constexpr double hz = 100.0;
    Amplified bench(allKinds());
    size_t runs = 0;
    for (const auto& list : choices) {
        runs = std::max(runs, list.size());
    }
    for (size_t run = 0; run < runs; ++run) {
        std::map<int, Choice> chosen;
        for (int slot = 0; slot < 4; ++slot) {
            if (run >= choices[slot].size()) {
                continue;
            }
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
                const std::string path = channelPath(slot, filtered);
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

    // Later ones only what has changed; the coupling follows each change of the measurement.
    bench.channel(bridge).setPropertyValue("Measurement", 1);
    bench.channel(bridge).setPropertyValue("Range", 1);
    EXPECT_EQ(bench.sent(bridge), Commands());
    ASSERT_EQ(bench.update(bridge), Errors::Success);
    EXPECT_EQ(bench.sent(bridge), (Commands{"60 01", "BC 01", "C3 00", "67", "FA", "FB"}));

    // A start sends the settings that nobody has updated yet.
    bench.sent(voltage);
    bench.channel(voltage).setPropertyValue("Range", 2);
    ASSERT_TRUE(bench.record("start.h5", 0.2).good());
    const auto atStart = bench.sent(voltage);
    ASSERT_GT(atStart.size(), 4u);
    EXPECT_EQ(Commands(atStart.begin(), atStart.begin() + 4), (Commands{"BC 02", "67", "FA", "FB"}));
    for (size_t i = 4; i < atStart.size(); ++i) {
        EXPECT_TRUE(atStart[i] == "67" || atStart[i] == "FA" || atStart[i] == "FB") << atStart[i];
    }
    EXPECT_EQ(bench.channel(voltage).getMaxValue(), 1.0);
}

// A bridge's offset is taken away twice, since none but the largest range has room for it, and no sample gets lost.
TEST(Balancing, WhileARecordingRuns) {
    Amplified bench(allKinds());
    bench.instrument().setWaveform(bridge, constant(1.25));
    const auto report = bench.record("balance.h5", 0.6, {}, [&] {
        EXPECT_EQ(bench.dispatch(bridge, "StartSensorBalance"), Errors::Success);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (fromValue<bool>(bench.call(bridge, "GetSensorBalanceStatus")) &&
               std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    EXPECT_TRUE(report.good()) << report.verdict();
    EXPECT_EQ(bench.update(bridge), Errors::Success);
    // A reading is the newest number of the filtered stream by the amplifier's own scale and offset.
    const RecordingReader file(bench.file("balance.h5"));
    const auto samples = file.samples<int32_t>(channelPath(bridge, true));
    const auto state = bench.instrument().amplifierState(bridge);
    const double reading = static_cast<double>(static_cast<float>(samples.back())) * state.scale +
                           static_cast<double>(state.offset) * state.scale / 1000.0;
    EXPECT_NEAR(bench.channel(bridge).getPropertyValue<double>("BridgeOffset"), -2.0 * reading,
                1e-5 * std::abs(reading));
    // The hardware's range has not moved, and neither has the channel's scaling.
    EXPECT_NEAR(sineOf<int32_t>(file, channelPath(bridge, true), 100.0).mean, 1.25, 0.00125);
    EXPECT_EQ(bench.dispatch(bridge, "ResetSensorBalance"), Errors::Success);
    EXPECT_EQ(bench.update(bridge), Errors::Success);
    EXPECT_EQ(bench.channel(bridge).getPropertyValue<double>("BridgeOffset"), 0.0);
}

TEST(Balancing, ModuleUnloadsWhileItRuns) {
    Amplified bench(allKinds());
    bench.instrument().setWaveform(bridge, constant(1.0));
    bench.use();
    bench.session().prepare();
    bench.session().start();
    auto channel = bench.channel(bridge);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (channel.getSamplesAcquired() < 1000 && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
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
