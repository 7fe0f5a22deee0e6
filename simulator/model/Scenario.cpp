#include "simulator/model/Scenario.h"

namespace kestrixsim {

Scenario Scenario::standard() {
    static constexpr AmplifierKind kinds[] = {AmplifierKind::Voltage, AmplifierKind::Bridge, AmplifierKind::Iepe,
                                              AmplifierKind::HighVoltage};
    static constexpr double frequencies[] = {50.0, 100.0, 160.0, 50.0, 10.0, 200.0, 5.0, 250.0};
    // V, mV/V, V, V: all within the widest range, which amplifiers have at power-on.
    static constexpr double amplitudes[] = {7.5, 1.8, 2.5, 325.0, 3.0, 4.5, 0.8, 565.0};
    static constexpr double offsets[] = {0.0, 0.5, 0.0, 0.0, 1.0, -1.5, 0.0, 0.0};
    Scenario scenario;
    for (int slot = 0; slot < 8; ++slot) {
        ModuleScenario module;
        module.slot = slot;
        module.kind = kinds[slot % 4];
        module.waveform.frequencyHz = frequencies[slot];
        module.waveform.amplitude = amplitudes[slot];
        module.waveform.offset = offsets[slot];
        module.waveform.unit = WaveformUnit::Physical;
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
