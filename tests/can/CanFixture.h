#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "simulator/preload/Control.h"

namespace Harvane::Test {

using kestrixsim::CanFrame;
using kestrixsim::Fault;
using kestrixsim::FaultKind;
using kestrixsim::instrument;
using Texts = std::vector<std::string>;

// Interfaces of these names, each on a bus of its own.
inline kestrixsim::Scenario withInterfaces(const Texts& names) {
    kestrixsim::Scenario scenario;
    scenario.slots = 1;
    scenario.can.interfaces.emplace();
    for (const auto& name : names) {
        kestrixsim::CanInterfaceScenario interface;
        interface.name = name;
        interface.bus = static_cast<int>(scenario.can.interfaces->size());
        scenario.can.interfaces->push_back(interface);
    }
    return scenario;
}

// "can0" and so on.
inline kestrixsim::Scenario withPorts(int count) {
    Texts names;
    for (int i = 0; i < count; ++i) {
        names.push_back("can" + std::to_string(i));
    }
    return withInterfaces(names);
}

inline CanFrame frameOf(uint32_t id, const std::vector<uint8_t>& data = {}) {
    CanFrame frame;
    frame.id = id;
    frame.length = static_cast<uint8_t>(data.size());
    std::copy(data.begin(), data.end(), frame.data.begin());
    return frame;
}

}  // namespace Harvane::Test
