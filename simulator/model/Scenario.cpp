#include "simulator/model/Scenario.h"

namespace kestrixsim {

Scenario Scenario::standard() {
    static constexpr AmplifierKind kinds[] = {AmplifierKind::Voltage, AmplifierKind::Bridge, AmplifierKind::Iepe,
                                              AmplifierKind::HighVoltage};
    static constexpr double frequencies[] = {50.0, 100.0, 20.0, 400.0, 10.0, 1000.0, 5.0, 250.0};
    Scenario scenario;
    for (int slot = 0; slot < 8; ++slot) {
        ModuleScenario module;
        module.slot = slot;
        module.kind = kinds[slot % 4];
        module.waveform.frequencyHz = frequencies[slot];
        module.waveform.amplitude = 16000.0 - 1000.0 * slot;
        scenario.modules.push_back(module);
    }
    return scenario;
}

Scenario Scenario::counters(int modules) {
    Scenario scenario = standard();
    scenario.modules.resize(static_cast<size_t>(modules < 0 ? 0 : modules > 8 ? 8 : modules));
    for (ModuleScenario& module : scenario.modules) {
        module.waveform = {};
        module.waveform.kind = WaveformKind::Counter;
    }
    return scenario;
}

}  // namespace kestrixsim
