#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "modules/daq/amplifier/DaqAmplifiersFactory.h"

// How long a module's start waits for a folder of amplifier definitions.
namespace {

using Harvane::RT::Modules::Daq::DaqAmplifiersFactory;

class Folder {
public:
    explicit Folder(int count) {
        std::string name = (std::filesystem::temp_directory_path() / "definitions-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no temporary folder");
        }
        path = name;
        for (int i = 0; i < count; ++i) {
            const std::string number = std::to_string(i);
            std::ofstream file(path / (number + ".json"));
            file << R"({"__type": "PropertyObjectClass", "name": "ampl_)" << number
                 << R"(", "properties": [{"name": "AmplifierID", "type": "string", "default": "", "readOnly": true, )"
                 << R"("readOnlyValue": "9.9.9.)" << number << R"json("},
                {"name": "Measurement", "type": "int", "selection": true, "default": 0,
                 "values": ["Voltage", "Bridge"]},
                {"name": "Range", "type": "reference", "reference": {"__type": "Eval",
                 "expr": "switch($Measurement, 0, %VoltageRange, 1, %BridgeRange)"}},
                {"name": "VoltageRange", "type": "int", "selection": true, "default": 0, "unit": "V", "values": [
                  {"className": "RangeItem", "propValues": {"DisplayName": "10", "Min": -10.0, "Max": 10.0}},
                  {"className": "RangeItem", "propValues": {"DisplayName": "1", "Min": -1.0, "Max": 1.0}}]},
                {"name": "BridgeRange", "type": "int", "selection": true, "default": 0, "unit": "mV/V", "values": [
                  {"className": "RangeItem", "propValues": {"DisplayName": "2", "Min": -2.0, "Max": 2.0}}]},
                {"name": "LPFilter", "type": "int", "selection": true, "default": 0,
                 "values": ["Off", "10 kHz"]}]})json";
        }
    }
    ~Folder() { std::filesystem::remove_all(path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::filesystem::path path;
};

void registerDefinitions(benchmark::State& state) {
    const Folder folder(static_cast<int>(state.range(0)));
    for ([[maybe_unused]] auto _ : state) {
        DaqAmplifiersFactory factory;
        factory.registerAmplifiers(folder.path.string());
        if (factory.getAmplifierClassName("9.9.9.0") != "ampl_0") {
            state.SkipWithError("the definitions were not registered");
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(registerDefinitions)->Arg(10)->Arg(1000)->Unit(benchmark::kMillisecond);

}  // namespace
