#include "simulator/model/ScenarioJson.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/simulator/preload/PreloadFixture.h"

using namespace kestrixsim;

namespace {

TEST(ScenarioJson, WrittenScenariosReadBackAlike) {
    Scenario full = Scenario::standard();
    full.boardType = 1;
    full.slots = 200;
    full.serialNumber = 0xFFFFFFFFFFFFFFFF;
    full.hardwareVersion = 0xFEDCBA98;
    full.eepromKeyValid = false;
    full.supplyOn = true;
    full.timeFactor = 2.5;
    full.oscillatorErrorPpm = -12.25;
    full.seed = 0x8000000000000001;
    full.modules[1].waveform = {WaveformKind::Wav, 12.5, -3.25, 0.5, 1.5, "/somewhere/take.wav"};
    full.modules[2].serial = 0x123456789ABCDEF0;
    Fault late;
    late.kind = FaultKind::DmaIoctl;
    late.target = 3;
    late.code = static_cast<int>(0xC0064C01);
    late.atSeconds = 1.5;
    late.afterCount = 7;
    late.times = -1;
    full.faults = {late, Fault{}};
    const std::string text = ScenarioJson::write(full);
    const Scenario back = ScenarioJson::parse(text, "full");
    EXPECT_EQ(ScenarioJson::write(back), text);
    EXPECT_EQ(back.serialNumber, full.serialNumber);
    EXPECT_EQ(back.seed, full.seed);
    EXPECT_EQ(back.modules[1].waveform.kind, WaveformKind::Wav);
    EXPECT_EQ(back.modules[1].waveform.amplitude, -3.25);
    EXPECT_EQ(back.modules[2].serial, full.modules[2].serial);
    EXPECT_EQ(back.faults[0].code, late.code);
    EXPECT_EQ(back.faults[0].times, -1);
    EXPECT_EQ(back.modules.size(), full.modules.size());
}

// Every name of a choice is written and read as itself.
TEST(ScenarioJson, AllKindsHaveNames) {
    Scenario scenario;
    for (int kind = 0; kind <= static_cast<int>(FaultKind::SysfsMissing); ++kind) {
        Fault fault;
        fault.kind = static_cast<FaultKind>(kind);
        scenario.faults.push_back(fault);
    }
    for (int kind = 0; kind <= static_cast<int>(WaveformKind::Counter); ++kind) {
        ModuleScenario module;
        module.slot = kind;
        module.kind = static_cast<AmplifierKind>(kind % 4);
        module.waveform.kind = static_cast<WaveformKind>(kind);
        module.waveform.file = module.waveform.kind == WaveformKind::Wav ? "/a.wav" : "";
        scenario.modules.push_back(module);
    }
    const Scenario back = ScenarioJson::parse(ScenarioJson::write(scenario), "kinds");
    ASSERT_EQ(back.faults.size(), scenario.faults.size());
    for (size_t i = 0; i < back.faults.size(); ++i) {
        EXPECT_EQ(back.faults[i].kind, scenario.faults[i].kind);
    }
    for (size_t i = 0; i < back.modules.size(); ++i) {
        EXPECT_EQ(back.modules[i].kind, scenario.modules[i].kind);
        EXPECT_EQ(back.modules[i].waveform.kind, scenario.modules[i].waveform.kind);
    }
}

TEST(ScenarioJson, LeftOutKeysHaveTheirDefaults) {
    const Scenario empty = ScenarioJson::parse("{}", "empty");
    EXPECT_EQ(ScenarioJson::write(empty), ScenarioJson::write(Scenario{}));
    EXPECT_EQ(ScenarioJson::parse(R"({"hardwareVersion": 5})", "number").hardwareVersion, 5u);
}

TEST(ScenarioJson, MistakesAreNamedWithTheirPlace) {
    const std::pair<const char*, const char*> cases[] = {
        {R"([1])", "s: the scenario must be an object"},
        {R"({"slots": })", "line 1, column 11"},
        {R"({"slot": 3})", "s: slot: unknown key; known are boardType, slots,"},
        {R"({"slots": 8, "slots": 2})", "s: slots: stands twice"},
        {R"({"slots": 256})", "s: slots: is 256, must be from 0 to 255"},
        {R"({"slots": -1})", "s: slots: is -1, must be from 0 to 255"},
        {R"({"slots": 2.5})", "s: slots: is 2.5, must be a whole number"},
        {R"({"seed": 18446744073709551616})", "must be a whole number"},
        {R"({"seed": "0x1G"})", "must be a whole number or a text \"0x...\""},
        {R"({"supplyOn": 1})", "s: supplyOn: is 1, must be true or false"},
        {R"({"timeFactor": 0})", "s: timeFactor: is 0, must be from 0.001 to 1000"},
        {R"({"timeFactor": "fast"})", "s: timeFactor: is \"fast\", must be a number"},
        {R"({"modules": {}})", "s: modules: is {}, must be a list"},
        {R"({"modules": [{}]})", "s: modules[0].slot: is missing"},
        {R"({"modules": [3]})", "modules[0] must be an object"},
        {R"({"modules": [{"slot": 8}]})", "s: modules[0].slot: is 8, must be from 0 to 7"},
        {R"({"modules": [{"slot": 1}, {"slot": 1}]})", "s: modules[1].slot: is 1, where a module stands already"},
        {R"({"modules": [{"slot": 1, "amplifier": "tube"}]})",
         "modules[0].amplifier: is \"tube\", must be one of voltage, bridge, iepe, highVoltage"},
        {R"({"modules": [{"slot": 1, "waveform": {"kind": 3}}]})",
         "modules[0].waveform.kind: is 3, must be one of constant"},
        {R"({"modules": [{"slot": 1, "waveform": {"frequency": 3}}]})", "modules[0].waveform.frequency: unknown key"},
        {R"({"modules": [{"slot": 1, "waveform": {"kind": "wav"}}]})", "waveform.file: is missing"},
        {R"({"modules": [{"slot": 1, "waveform": {"file": "a"}}]})", "waveform.file: goes with kind wav only"},
        {R"({"faults": [{"target": 1}]})", "faults[0].kind: is missing"},
        {R"({"faults": [{"kind": "fire"}]})", "faults[0].kind: is \"fire\", must be one of eepromSilent"},
        {R"({"faults": [{"kind": "dmaRead", "times": 0}]})", "faults[0].times: is 0"},
        {R"({"faults": [{"kind": "dmaRead", "afterCount": -1}]})", "faults[0].afterCount: is -1"},
    };
    for (const auto& [text, expected] : cases) {
        try {
            ScenarioJson::parse(text, "s");
            ADD_FAILURE() << text << " was accepted";
        } catch (const ScenarioError& error) {
            EXPECT_NE(std::string(error.what()).find(expected), std::string::npos) << text << "\n" << error.what();
        }
    }
}

TEST(ScenarioJson, FilesAreFoundBesideTheScenario) {
    TemporaryFolder folder;
    std::ofstream(folder / "s.json") << R"({"modules": [
        {"slot": 0, "waveform": {"kind": "wav", "file": "takes/one.wav"}},
        {"slot": 1, "waveform": {"kind": "wav", "file": "/other.wav"}}]})";
    const Scenario scenario = ScenarioJson::read(folder / "s.json");
    EXPECT_EQ(scenario.modules[0].waveform.file, folder / "takes/one.wav");
    EXPECT_EQ(scenario.modules[1].waveform.file, "/other.wav");
    EXPECT_THROW(ScenarioJson::read(folder / "none.json"), ScenarioError);
    EXPECT_THROW(ScenarioJson::read(folder.path().string()), ScenarioError);
}

}  // namespace
