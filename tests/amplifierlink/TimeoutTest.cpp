#include <gtest/gtest.h>
#include <termios.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "shared/libraries/kestrix/src/AmplifierProperties.h"
#include "simulator/preload/Control.h"
#include "tests/amplifierlink/ScriptedModule.h"

namespace {

using namespace Harvane::Shared::Kestrix;
using namespace std::chrono_literals;
using kestrixtest::ScriptedModule;

// Commands that take the firmware long: the first request is not answered, the second is. Tested from below only; the
// amplifiers have a port each, so that the waits run side by side.
TEST(AmplifierTimeouts, eachCommandWaitsAsLongAsTheModuleMayTake) {
    kestrixsim::reset(kestrixsim::Scenario{});
    struct Case {
        const char* what;
        std::chrono::milliseconds wait;
        std::function<short(AmplifierProperties&)> run;
    };
    const Case cases[] = {
        {"a read", 200ms, [](AmplifierProperties& a) { return a.readModuleType(); }},
        {"updateAmplifier", 500ms, [](AmplifierProperties& a) { return a.updateAmplifier(); }},
        {"goBootLoad", 1000ms, [](AmplifierProperties& a) { return a.goBootLoad(); }},
        {"eraseFlash", 2000ms, [](AmplifierProperties& a) { return a.eraseFlash(); }},
        {"exitBootLoad", 7000ms, [](AmplifierProperties& a) { return a.exitBootLoad(); }},
    };
    const auto waitOf = [](const Case& entry) {
        ScriptedModule module;
        module.script({"", ScriptedModule::frame("00 01")});
        auto uart = std::make_shared<AmplifierProperties::Uart>(module.path(), B38400, 200);
        uart->openDeviceFile();
        uart->initialize();
        AmplifierProperties amplifier(0, uart, std::make_shared<UartMux>("/dev/i2c-1", board_t::eightChannels));
        const auto start = std::chrono::steady_clock::now();
        EXPECT_GT(entry.run(amplifier), 0);
        const auto wait = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(module.takeRequests().size(), 2u);
        return wait;
    };
    std::vector<std::future<std::chrono::nanoseconds>> waits;
    for (const Case& entry : cases) {
        waits.push_back(std::async(std::launch::async, waitOf, std::cref(entry)));
    }
    for (size_t n = 0; n < waits.size(); ++n) {
        EXPECT_GE(waits[n].get(), cases[n].wait) << cases[n].what;
    }
}

}  // namespace
