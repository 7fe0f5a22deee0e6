#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <ostream>
#include <thread>

#include "modules/daq/controller/AcquisitionPhase.h"
#include "simulator/preload/Control.h"
#include "tests/bridge/ModuleBench.h"

namespace Harvane::RT::Modules::Daq {

const char* nameOf(AcquisitionPhase phase);
inline void PrintTo(AcquisitionPhase phase, std::ostream* out) {
    *out << nameOf(phase);
}

namespace Test {

using Core::Testing::failure;
using kestrixsim::FaultKind;
using Phase = AcquisitionPhase;

// The module object in a host's tree, driven through its interfaces only, as a host drives it. What a step answers is
// "" or the code and the text of its failure, as in "80000029 The acquisition is running".
class ModuleInHost : public HostData {
public:
    ModuleInHost();
    ~ModuleInHost();
    ModuleInHost(const ModuleInHost&) = delete;
    ModuleInHost& operator=(const ModuleInHost&) = delete;

    enum class Step { Add, Configure, Initialize, BeforeStart, Start, Cycle, Stop };
    static constexpr Step allSteps[] = {Step::Add,   Step::Configure, Step::Initialize, Step::BeforeStart,
                                        Step::Start, Step::Cycle,     Step::Stop};
    std::string take(Step step);

    std::string add() { return addTo(dataModule); }
    std::string addTo(const Core::DataModulePtr& place) const;
    std::string configure();
    std::string initialize();
    // A host reserves its rings anew for both, unless it takes the module to be running. Old ones are those of some
    // time before.
    enum class Rings { New, Old };
    std::string beforeStart(Rings rings = Rings::New);
    std::string start(Rings rings = Rings::New);
    void reserveRings();
    std::string cycle();
    std::string stop();

    // Everything that the host has of the module.
    void release();

    Phase phase() const;

    void use(const std::vector<Core::ChannelPtr<>>& wanted) const;
    std::vector<Core::ChannelPtr<>> channels() const;
    Core::ChannelFolderPtr device() const;  // the first one's folder

    // A synchronisation option: chosen for the next configuration, and in force. Shown as "[1, [14]]".
    std::string choose(int mode, const std::vector<int>& sources = {}) const;
    std::string chosen() const { return textOf(dataModule.getPropertyValue("Synchronization")); }
    std::string applied() const { return textOf(dataModule.getPropertyValue("AppliedSynchronization")); }
    std::string ioctl(int command, const char* argument) const;

    OpenModule* impl;
    Core::ObjectPtr<Core::IModule> module;

private:
    bool running_ = false;  // as the host sees it
};

const char* nameOf(ModuleInHost::Step step);
// Where a step leads when it succeeds; nothing where it isn't allowed.
std::optional<Phase> leadsTo(Phase from, ModuleInHost::Step step);
// Whether a step was refused because of the phase: the code, and words that name both.
bool isRefusal(const std::string& words, ModuleInHost::Step step, Phase phase);

// An edit as a user makes it, with all its refusals, and as a host makes it, which may write anything.
template <class I, class T>
std::string asUser(const Core::PropertyObjectPtr<I>& object, const char* name, const T& value) {
    return failure([&] {
        Core::checkErrorInfo(
            Core::zornCheckedSetProperty(object.get(), Core::StringPtr(name).get(), Core::toValue(value).get()));
    });
}
template <class I, class T>
std::string asHost(const Core::PropertyObjectPtr<I>& object, const char* name, const T& value) {
    return failure([&] { object.setPropertyValue(name, value); });
}
template <class I>
std::string askFor(const Core::PropertyObjectPtr<I>& object, int rate) {
    return asUser(object, "SampleRate", Core::Ratio{rate, 1});
}

// Seconds of a clock query; the answer in ticks must be a success.
template <class Provider>
double secondsOf(Provider* provider, Core::ErrCode (Core::IClockProvider::*getter)(long*)) {
    return static_cast<double>(ask(static_cast<Core::IClockProvider*>(provider), getter)) / 1e9;
}

// The instrument's seconds. They pass by themselves, so that what the module waits for comes. While samples are taken
// they pass by hand, so that it is known to the step when they arrived, whatever else the computer does. Any thread.
// The thread sanitizer doesn't see locks that are taken inside of poll, where the instrument asks too.
class InstrumentTime {
public:
    __attribute__((no_sanitize_thread)) double now() const;
    __attribute__((no_sanitize_thread)) void hold();
    __attribute__((no_sanitize_thread)) void run();
    __attribute__((no_sanitize_thread)) void step(double seconds);

private:
    __attribute__((no_sanitize_thread)) double elapsed() const;

    mutable std::mutex mutex_;
    mutable double asked_ = 0.0;  // the steady clock, when the time was asked for last
    mutable double lag_ = 0.0;    // of what has been passed over
    bool held_ = false;
    double ahead_ = 0.0;   // of the steady clock, while it runs
    double heldAt_ = 0.0;  // seconds, while it is held
};

// A measuring place: module object, bridge and controller on a fresh simulated instrument whose signals are counters.
class Station : public ModuleInHost {
public:
    explicit Station(kestrixsim::Scenario scenario = slots(2));
    // Another module on the instrument as it was left, as in a new process.
    explicit Station(std::shared_ptr<InstrumentTime> sameTime);
    ~Station();

    // A board with so many slots, all filled, with the supply up: switching it on takes 0.3 s a slot.
    static kestrixsim::Scenario slots(int count);

    Core::ChannelPtr<> raw(int slot) const { return input(slot, "Raw input"); }  // slots count from 1, as shown
    Core::ChannelPtr<> filtered(int slot) const { return input(slot, "Filtered input"); }

    // Cycles for so many seconds of the instrument, in a run. Every used analog channel must carry the counter from
    // where it is, at the rate that it shows, by the instrument's own time; the others nothing. And the module's clocks
    // must go with them.
    testing::AssertionResult deliversWhatItShows(double seconds = 0.6);
    // The whole road, from wherever no run is: configure, initialize, start, deliver, stop.
    testing::AssertionResult goodRun(double seconds = 0.6);
    // No converter, no DSP chain and no stream is on.
    static testing::AssertionResult isQuiet();

    static kestrixsim::Instrument& instrument() { return kestrixsim::instrument(); }
    static void inject(const kestrixsim::Fault& fault) { instrument().inject(fault); }
    static void clearFaults() { instrument().clearFaults(); }

    const std::shared_ptr<InstrumentTime> time;

private:
    Core::ChannelPtr<> input(int slot, const char* name) const;
};

// Asks a module for every time and clock, all the while, as other parts of a host do. Goes before the module.
class Questioner {
public:
    explicit Questioner(OpenModule* module, int threads = 2,
                        std::chrono::microseconds pause = std::chrono::microseconds(50));
    ~Questioner();

private:
    std::atomic<bool> done_{false};
    std::vector<std::thread> threads_;
};

}  // namespace Test
}  // namespace Harvane::RT::Modules::Daq
