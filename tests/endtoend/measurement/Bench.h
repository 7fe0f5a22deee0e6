#pragma once

#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <thread>

#include "simulator/preload/Control.h"
#include "tests/endtoend/RecordingReader.h"
#include "tools/zornhost/Recorder.h"
#include "tools/zornhost/Session.h"

// The path of one of a module's two channels; modules count from 0.
inline std::string channelPath(int module, bool filtered) {
    return "KESTRIX/Analog inputs/AI " + std::to_string(module + 1) + (filtered ? "/Filtered input" : "/Raw input");
}

// The first sample of a counter that isn't its own index, cut to the sample's width; -1 when there is none.
template <class T>
long firstWrong(const std::vector<T>& samples) {
    for (size_t i = 0; i < samples.size(); ++i) {
        if (samples[i] != static_cast<T>(static_cast<uint32_t>(i))) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

// Waits for a condition; false when it has not come true within ten seconds.
inline bool eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 2000 && !condition(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

// A measuring place: a fresh simulated instrument, the module binary in the host, and a folder for recordings.
//
// The board has the slots that the scenario fills: each empty one costs the module more than half a second of waiting
// for an answer.
class Bench {
public:
    // `amplifiers` is the folder of definitions that the module reads.
    explicit Bench(kestrixsim::Scenario scenario, std::vector<std::string> settings = {},
                   std::string amplifiers = KESTRIX_AMPLIFIERS) {
        scenario.supplyOn = true;
        const bool identified = scenario.eepromKeyValid && scenario.eepromVersion != 0;
        if (identified && scenario.slots == kestrixsim::Scenario().slots) {
            scenario.slots = 0;
            for (const auto& module : scenario.modules) {
                scenario.slots = std::max(scenario.slots, module.slot + 1);
            }
        }
        kestrixsim::reset(std::move(scenario));
        folder_ = std::filesystem::temp_directory_path() / ("kestrix-bench-" + std::to_string(::getpid()));
        std::filesystem::create_directories(folder_);
        options_.module = KESTRIX_MODULE;
        options_.amplifiers = std::move(amplifiers);
        options_.logLevel = "off";
        options_.settings = std::move(settings);
        session_ = std::make_unique<zornhost::Session>(options_);
    }
    ~Bench() {
        session_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }

    zornhost::Session& session() { return *session_; }
    kestrixsim::Instrument& instrument() { return kestrixsim::instrument(); }
    std::string file(const std::string& name) const { return (folder_ / name).string(); }

    // Marks the channels that are to be measured; the rest is not used.
    std::vector<zornhost::ChannelEntry> use(const std::vector<std::string>& patterns = {}) {
        const auto tree = session().tree();
        const auto chosen = tree.channels(patterns);
        std::vector<zornhost::ChannelEntry> used;
        for (const auto& entry : tree.channels()) {
            const bool wanted =
                entry.channel.getPropertyValue<bool>("Enabled") &&
                std::ranges::any_of(chosen, [&](const auto& other) { return other.path == entry.path; });
            entry.channel.setUsed(wanted);
            if (wanted) {
                used.push_back(entry);
            }
        }
        return used;
    }

    // One recording of the used channels. `during` runs in the middle of it.
    zornhost::RecordingReport record(const std::string& name, double seconds,
                                     const std::vector<std::string>& patterns = {},
                                     const std::function<void()>& during = {}) {
        const auto channels = use(patterns);
        session().prepare();
        zornhost::Recorder recorder({file(name)}, channels, session().host().scheduler());
        session().start();
        recorder.start(0);
        const auto half = std::chrono::duration<double>(seconds / 2);
        std::this_thread::sleep_for(half);
        if (during) {
            during();
        }
        std::this_thread::sleep_for(half);
        session().stop();
        for (uint64_t i = 0; i < session().lostReports(); ++i) {
            recorder.reportLostByModule();
        }
        return recorder.finish(false);
    }

private:
    zornhost::SessionOptions options_;
    std::filesystem::path folder_;
    std::unique_ptr<zornhost::Session> session_;
};
