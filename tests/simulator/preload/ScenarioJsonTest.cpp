#include "simulator/model/ScenarioJson.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/simulator/preload/PreloadFixture.h"

using namespace kestrixsim;

namespace {

// Every key with a value that is not its default, and every name of a choice.
TEST(ScenarioJson, WrittenScenariosReadBackAlike) {
    Scenario full{.boardType = 7,
                  .slots = 200,
                  .serialNumber = 0xFFFFFFFFFFFFFFFF,
                  .hardwareVersion = 0xFEDCBA98,
                  .canPorts = 1,
                  .eepromKeyValid = false,
                  .eepromVersion = 0,
                  .supplyOn = true,
                  .pll = {3, false, false},
                  .modules = {},
                  .faults = {},
                  .timeFactor = 2.5,
                  .unthrottled = true,
                  .oscillatorErrorPpm = -12.25,
                  .oscillator = {512, 0.9, 3.0, -1.5, 2.5, 600.0, 7.0},
                  .irig = {.present = false, .offsetSeconds = 0.25, .jitterNs = 0.0, .wanderNs = 3.0},
                  .pps = {.outages = {{1.0, 2.5}, {3.0, 4.0}}},
                  .ptpPulse = {.steps = {{5.0, -6.5}}, .spikes = {{7.0, 8.0}}},
                  .realtimeAtStart = 1795000000.5,
                  .realtimeSteps = {{9.0, 1000.0}},
                  .seed = 0x8000000000000001,
                  .thermals = {SensorFamily::Both, -12.5, 7.5, false, 321.0, false, true, true}};
    for (size_t i = 0; i <= static_cast<size_t>(WaveformKind::Counter); ++i) {
        const auto kind = static_cast<WaveformKind>(i);
        full.modules.push_back({.slot = 7 - static_cast<int>(i),
                                .kind = static_cast<AmplifierKind>(i % 5),
                                .waveform = {kind, 12.5 + static_cast<double>(i), -3.25, 0.5, 1.5, {}},
                                .serial = 0x123456789ABCDEF0 + i,
                                .sensor = static_cast<Sensor>(i % 3),
                                .tedsChip = i % 2 == 0});
        full.modules[i].waveform.file = kind == WaveformKind::Wav ? "/somewhere/take.wav" : "";
        full.modules[i].waveform.unit = i % 2 == 1 ? WaveformUnit::Physical : WaveformUnit::Counts;
    }
    for (int kind = 0; kind <= static_cast<int>(FaultKind::SensorSlow); ++kind) {
        full.faults.push_back({.kind = static_cast<FaultKind>(kind),
                               .atSeconds = 1.5,
                               .afterCount = 7,
                               .times = -1,
                               .untilSeconds = 2.5});
    }
    full.faults.push_back({.kind = FaultKind::DmaIoctl, .target = 3, .code = static_cast<int>(0xC0064C01)});
    full.faults.push_back({.kind = FaultKind::CanRead, .target = 31, .code = 5});
    // The delivered example says what the keys of the buses mean.
    full.can = ScenarioJson::read(KESTRIX_SCENARIOS "/can.json").can;
    ASSERT_EQ(full.can.buses.size(), 2u);
    full.can.stampsFromStart = false;
    full.can.kernel = true;
    full.can.interfaces->push_back({"pcan7", 3, false, false, true});
    full.can.buses.push_back({12345, false, {{{CanFrame::remote | 5, 8, {}}, 0.25, 1.5, 7, false}}, {}});
    const std::string text = ScenarioJson::write(full);
    const Scenario back = ScenarioJson::parse(text, "full");
    EXPECT_EQ(ScenarioJson::write(back), text);
    EXPECT_EQ(back.serialNumber, full.serialNumber);
    EXPECT_EQ(back.seed, full.seed);
    EXPECT_EQ(back.oscillator.temperaturePeriodSeconds, 600.0);
    EXPECT_EQ(back.irig.wanderNs, 3.0);
    EXPECT_EQ(back.pps.outages.back().until, 4.0);
    EXPECT_EQ(back.ptpPulse.spikes.front().byMicroseconds, 8.0);
    EXPECT_EQ(back.realtimeSteps.front().byMicroseconds, 1000.0);
    EXPECT_EQ(back.thermals.sensors, SensorFamily::Both);
    EXPECT_TRUE(!back.thermals.cableSensor && !back.thermals.cableLines && back.thermals.cable1);
    EXPECT_EQ(back.thermals.ambientCelsius + back.thermals.timeConstantSeconds + back.thermals.cableCelsius, 316.0);
    EXPECT_EQ(back.faults.front().untilSeconds, 2.5);
    ASSERT_EQ(back.modules.size(), full.modules.size());
    for (size_t i = 0; i < back.modules.size(); ++i) {
        EXPECT_EQ(back.modules[i].kind, full.modules[i].kind);
        EXPECT_EQ(back.modules[i].sensor, full.modules[i].sensor);
        EXPECT_EQ(back.modules[i].waveform.kind, full.modules[i].waveform.kind);
        EXPECT_EQ(back.modules[i].waveform.unit, full.modules[i].waveform.unit);
    }
    ASSERT_EQ(back.faults.size(), full.faults.size());
    for (size_t i = 0; i < back.faults.size(); ++i) {
        EXPECT_EQ(back.faults[i].kind, full.faults[i].kind);
    }
    EXPECT_EQ(back.faults.back().target, 31);
    EXPECT_EQ(back.faults.rbegin()[1].code, full.faults.rbegin()[1].code);
    for (const size_t bus : {0, 2}) {
        EXPECT_EQ(back.can.buses.at(bus).cyclic.at(0).frame, full.can.buses[bus].cyclic[0].frame);
    }
    EXPECT_EQ(back.can.interfaces->back().bus, 3);
    EXPECT_TRUE(back.can.interfaces->back().isVirtual() && !back.can.interfaces->front().isVirtual());
    EXPECT_TRUE(back.can.kernel && !back.can.stampsFromStart);
}

TEST(ScenarioJson, UnitsFollowTheKeys) {
    const struct {
        const char* keys;
        WaveformUnit unit;
        double amplitude;
        double offset;
    } cases[] = {{"", WaveformUnit::Counts, 16000.0, 0.0},
                 {R"("amplitudeCounts": 500, "offsetCounts": 3)", WaveformUnit::Counts, 500.0, 3.0},
                 {R"("amplitude": 2.5)", WaveformUnit::Physical, 2.5, 0.0},
                 {R"("offset": -1)", WaveformUnit::Physical, 1.0, -1.0},
                 {R"("unit": "physical")", WaveformUnit::Physical, 1.0, 0.0},
                 {R"("unit": "counts", "amplitude": 77)", WaveformUnit::Counts, 77.0, 0.0},
                 {R"("kind": "counter", "amplitude": 5)", WaveformUnit::Counts, 5.0, 0.0}};
    for (const auto& [keys, unit, amplitude, offset] : cases) {
        const std::string text = R"({"modules": [{"slot": 0, "waveform": {)" + std::string(keys) + "}}]}";
        const Waveform result = ScenarioJson::parse(text, "s").modules[0].waveform;
        EXPECT_EQ(unit, result.unit) << keys;
        EXPECT_EQ(amplitude, result.amplitude) << keys;
        EXPECT_EQ(offset, result.offset) << keys;
    }
}

TEST(ScenarioJson, LeftOutKeysHaveTheirDefaults) {
    const Scenario empty = ScenarioJson::parse("{}", "empty");
    EXPECT_EQ(ScenarioJson::write(empty), ScenarioJson::write(Scenario{}));
    EXPECT_EQ(ScenarioJson::parse(R"({"hardwareVersion": 5})", "number").hardwareVersion, 5u);
}

template <typename Call>
void expectRefused(Call&& call, const std::string& expected) {
    try {
        call();
        ADD_FAILURE() << "not refused: " << expected;
    } catch (const ScenarioError& error) {
        EXPECT_NE(std::string(error.what()).find(expected), std::string::npos) << expected << "\n" << error.what();
    }
}

TEST(ScenarioJson, MistakesAreNamedWithTheirPlace) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"slots": })", "line 1, column 11"},
        {R"({"slot": 3})", "s: slot: unknown key; known are boardType, slots,"},
        {R"({"slots": 8, "slots": 2})", "s: slots: stands twice"},
        {R"({"slots": 256})", "s: slots: is 256, must be from 0 to 255"},
        {R"({"slots": 2.5})", "s: slots: is 2.5, must be a whole number"},
        {R"({"seed": 18446744073709551616})", "must be a whole number"},
        {R"({"seed": "0x1G"})", "must be a whole number or a text \"0x...\""},
        {R"({"supplyOn": 1})", "s: supplyOn: is 1, must be true or false"},
        {R"({"timeFactor": 0})", "s: timeFactor: is 0, must be from 0.001 to 1000"},
        {R"({"timeFactor": "fast"})", "s: timeFactor: is \"fast\", must be a number"},
        {R"({"modules": {}})", "s: modules: is {}, must be a list"},
        {R"({"modules": [{}]})", "s: modules[0].slot: is missing"},
        {R"({"modules": [{"slot": 1}, {"slot": 1}]})", "s: modules[1].slot: is 1, where a module stands already"},
        {R"({"modules": [{"slot": 1, "amplifier": "tube"}]})",
         "modules[0].amplifier: is \"tube\", must be one of voltage, bridge, iepe, highVoltage"},
        {R"({"modules": [{"slot": 1, "waveform": {"frequency": 3}}]})", "modules[0].waveform.frequency: unknown key"},
        {R"({"modules": [{"slot": 1, "waveform": {"kind": "wav"}}]})", "waveform.file: is missing"},
        {R"({"modules": [{"slot": 1, "waveform": {"file": "a"}}]})", "waveform.file: goes with kind wav only"},
        {R"({"boardType": 1, "modules": [{"slot": 2}]})", "s: modules[0].slot: is 2, but a board of type 1 has"},
        {R"({"modules": [{"slot": 1, "waveform": {"unit": "physical", "kind": "counter"}}]})",
         "waveform.unit: is \"physical\", but a counter"},
        {R"({"modules": [{"slot": 1, "waveform": {"amplitude": 1, "offsetCounts": 3}}]})",
         "waveform.offsetCounts: goes neither"},
        {R"({"modules": [{"slot": 1, "waveform": {"unit": "physical", "amplitudeCounts": 3}}]})",
         "waveform.amplitudeCounts: goes neither"},
        {R"({"faults": [{"kind": "amplifierLate", "target": 8}]})", "faults[0].target: is 8, must be from -1 to 7"},
        {R"({"faults": [{"kind": "memOpen", "target": 0}]})", "faults[0].target: is 0, but this kind has none"},
        {R"({"faults": [{"kind": "memOpen", "code": 4096}]})", "faults[0].code: is 4096, must be from 0"},
        {R"({"faults": [{"kind": "amplifierBadStatus", "code": 256}]})", "faults[0].code: is 256, must be from 0"},
        {R"({"faults": [{"kind": "muxError", "code": 1}]})", "faults[0].code: is 1, but this kind has none"},
        {R"({"faults": [{"kind": "muxError", "command": 1}]})", "faults[0].command: is 1, but this kind has none"},
        {R"({"faults": [{"kind": "dmaRead", "times": 0}]})", "faults[0].times: is 0"},
        {R"({"faults": [{"kind": "sensorSlow", "target": 15}]})", "faults[0].target: is 15, must be from -1 to 14"},
        {R"({"faults": [{"kind": "dmaRead", "atSeconds": 2, "untilSeconds": 2}]})",
         "faults[0].untilSeconds: is 2, must"},
        {R"({"thermals": {"sensors": "few"}})", "thermals.sensors: is \"few\", must be one of monitors, chips"},
        {R"({"thermals": {"cableCelsius": -201}})", "thermals.cableCelsius: is -201"},
        {R"({"can": {"interfaces": [{}]}})", "can.interfaces[0].name: is missing"},
        {R"({"can": {"interfaces": [{"name": "../x"}]}})", "can.interfaces[0].name: is \"../x\", must be 1 to 15"},
        {R"({"can": {"interfaces": [{"name": "a"}, {"name": "a"}]}})", "interfaces[1].name: is \"a\", which another"},
        {R"({"can": {"buses": [{"bitrate": 0}]}})", "can.buses[0].bitrate: is 0, must be from 5000"},
        {R"({"can": {"buses": [{"cyclic": [{"id": 2048}]}]}})", "cyclic[0].id: is 2048, must be from 0 to 2047"},
        {R"({"can": {"buses": [{"cyclic": [{"id": 1, "data": "123"}]}]}})", "data: is \"123\", must be 0 to 8"},
        {R"({"can": {"buses": [{"cyclic": [{"id": 1, "data": "12", "remote": true}]}]}})", "data: goes with no remote"},
        {R"({"can": {"buses": [{"cyclic": [{"id": 1, "data": "12", "length": 2}]}]}})", "length: is 2, must be from 1"},
        {R"({"can": {"buses": [{"cyclic": [{"id": 1, "counter": true}]}]}})", "counter: is true, but there are not"},
        {R"({"can": {"buses": [{"log": {"file": ""}}]}})", "can.buses[0].log.file: is empty"},
    };
    for (const auto& mistake : cases) {
        expectRefused([&] { ScenarioJson::parse(mistake.first, "s"); }, mistake.second);
    }
}

TEST(ScenarioJson, FilesAreFoundBesideTheScenarioAndTried) {
    TemporaryFolder folder;
    const auto write = [&](const std::string& name, const std::string& content) {
        std::ofstream(folder / name, std::ios::binary) << content;
    };
    std::filesystem::create_directory(folder / "takes");
    write("takes/one.wav", std::string("RIFF\x28\0\0\0WAVEfmt \x10\0\0\0\1\0\1\0\x80\xBB\0\0\0\x77\1\0\2\0\x10\0"
                                       "data\4\0\0\0\1\0\2\0",
                                       48));
    write("good.json", R"({"modules": [{"slot": 0, "waveform": {"kind": "wav", "file": "takes/one.wav"}}]})");
    write("bad.json", R"({"modules": [{"slot": 0, "waveform": {"kind": "wav", "file": "good.json"}}]})");
    EXPECT_EQ(ScenarioJson::read(folder / "good.json").modules[0].waveform.file, folder / "takes/one.wav");
    write("traffic.log", "(1.0) can0 123#\n(1.0) can0 12#\n");
    write("can.json", R"({"can": {"buses": [{"log": {"file": "traffic.log"}}]}})");
    const std::pair<std::string, std::string> cases[] = {
        {folder / "can.json", "traffic.log:2: must have"},
        {folder / "bad.json", "bad.json: modules[0].waveform.file: \""},
        {folder / "none.json", "none.json: cannot be read: No such file"},
        {folder.path().string(), "is a folder"}};
    for (const auto& mistake : cases) {
        expectRefused([&] { ScenarioJson::read(mistake.first); }, mistake.second);
    }
}

}  // namespace
