#include "tests/seams/Station.h"

#include <cmath>
#include <filesystem>

#include "modules/daq/controller/DaqController.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDevice.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDeviceFactory_CP.h"
#include "modules/daq/objectmodel/DaqObjectFactory.h"
#include "modules/daq/objectmodel/DaqObjectFactoryManager.h"
#include "modules/daq/objectmodel/DaqTiming.h"
#include "modules/daq/objectmodel/GenericDeviceFactory.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"

#if defined(__SANITIZE_THREAD__)
// The simulated daemon works inside its clients' poll and sendto, where the run time sees no locks. Nor does it see
// that a page of registers is mapped: one that lies where a ring was would count as that ring still.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "race:kestrixsim::PtpDaemon\nrace:kestrixsim::Mappings\n";
}
#endif

namespace Harvane::RT::Modules::Daq {

const char* nameOf(AcquisitionPhase phase) {
    static constexpr const char* names[] = {"Empty", "Scanned", "Prepared", "Initialised", "Running", "Stopping"};
    return names[static_cast<size_t>(phase)];
}

namespace Test {

using namespace Core;
namespace RegistersAddress = Shared::Kestrix::RegistersAddress;

namespace {

// Behind the bench's own factory, which comes with the program and finds nothing unless a test plugs something.
void registerInstrument() {
    static DaqObjectFactory<GenericDeviceFactory<KestrixDevice, KestrixDeviceFactory_CP>,
                            DaqObjectFactoryType::DeviceFactory>
        factory;
    DaqObjectFactoryManager::registerObjectFactory(&factory);
    Shared::Kestrix::KestrixLogger::get_logger().setLevel(7);
}

// The module looks for amplifier definitions in the working directory, once, when it is made.
OpenModule* makeModule() {
    registerInstrument();
    namespace fs = std::filesystem;
    const auto before = fs::current_path();
    fs::current_path(fs::path(KESTRIX_AMPLIFIERS).parent_path());
    auto* const made = new OpenModule();
    fs::current_path(before);
    return made;
}

void collect(const ChannelFolderPtr& folder, std::vector<ChannelPtr<>>& found) {
    for (const auto& child : folder.getChildren()) {
        if (auto channel = child.asPtrOrNull<IChannel>()) {
            found.emplace_back(std::move(channel));
        } else if (auto inner = child.asPtrOrNull<IChannelFolder>()) {
            collect(inner, found);
        }
    }
}

}  // namespace

const char* nameOf(ModuleInHost::Step step) {
    static constexpr const char* names[] = {"add",   "configure",   "initialize", "BeforeStart",
                                            "start", "processData", "stop"};
    return names[static_cast<size_t>(step)];
}

std::optional<Phase> leadsTo(Phase from, ModuleInHost::Step step) {
    using enum AcquisitionPhase;
    constexpr std::nullopt_t no = std::nullopt;
    static constexpr std::optional<Phase> rows[][std::size(ModuleInHost::allSteps)] = {
        // add, configure, initialize, BeforeStart, start, processData, stop
        {Scanned, no, no, no, no, no, no},                             // Empty
        {no, Scanned, Prepared, no, no, no, no},                       // Scanned
        {no, Prepared, Prepared, Initialised, Running, no, Prepared},  // Prepared
        {no, Prepared, Prepared, Initialised, Running, no, Prepared},  // Initialised
        {no, no, no, no, no, Running, Prepared},                       // Running
    };
    return rows[static_cast<size_t>(from)][static_cast<size_t>(step)];
}

bool isRefusal(const std::string& words, ModuleInHost::Step step, Phase phase) {
    const auto contains = [&](const std::string& word) {
        return std::search(words.begin(), words.end(), word.begin(), word.end(), [](char a, char b) {
                   return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
               }) != words.end();
    };
    return words.starts_with("80000029 ") && contains(nameOf(step)) && contains(nameOf(phase));
}

ModuleInHost::ModuleInHost() : impl(makeModule()), module(ObjectPtr<IModule>::take(impl)) {}

ModuleInHost::~ModuleInHost() {
    release();
}

std::string ModuleInHost::take(Step step) {
    const std::function<std::string()> calls[] = {[&] { return add(); },        [&] { return configure(); },
                                                  [&] { return initialize(); }, [&] { return beforeStart(); },
                                                  [&] { return start(); },      [&] { return cycle(); },
                                                  [&] { return stop(); }};
    return calls[static_cast<size_t>(step)]();
}

std::string ModuleInHost::addTo(const DataModulePtr& place) const {
    return failure([&] { checkErrorInfo(HostData::add(*module, place)); });
}

std::string ModuleInHost::configure() {
    return failure([&] { HostData::configure(*module); });
}

std::string ModuleInHost::initialize() {
    return failure([&] { checkErrorInfo(module->initialize()); });
}

std::string ModuleInHost::beforeStart(Rings rings) {
    if (rings == Rings::New) {
        reserveRings();
    }
    return failure(
        [&] { checkErrorInfo(dataModule.getPropertyValue("BeforeStart").asPtr<IProcObject>()->dispatch(nullptr)); });
}

std::string ModuleInHost::start(Rings rings) {
    if (rings == Rings::New) {
        reserveRings();
    }
    std::string failed = failure([&] { checkErrorInfo(module->start()); });
    running_ = running_ || failed.empty();
    return failed;
}

std::string ModuleInHost::cycle() {
    return failure([&] { checkErrorInfo(module->processData()); });
}

std::string ModuleInHost::stop() {
    running_ = false;
    return failure([&] { checkErrorInfo(module->stop()); });
}

void ModuleInHost::reserveRings() {
    if (!running_) {
        for (const auto& channel : channels()) {
            checkErrorInfo(channel->initializeAcquisition());
        }
    }
}

void ModuleInHost::release() {
    forgetProviders();
    module.release();
    impl = nullptr;
}

Phase ModuleInHost::phase() const {
    return impl->daqController.phase();
}

void ModuleInHost::use(const std::vector<ChannelPtr<>>& wanted) const {
    for (const auto& channel : channels()) {
        channel.setUsed(std::find(wanted.begin(), wanted.end(), channel) != wanted.end());
    }
}

std::vector<ChannelPtr<>> ModuleInHost::channels() const {
    std::vector<ChannelPtr<>> found;
    collect(dataModule.getRootFolder(), found);
    return found;
}

ChannelFolderPtr ModuleInHost::device() const {
    return dataModule.getRootFolder().getChildren().at(0).asPtr<IChannelFolder>();
}

std::string ModuleInHost::choose(int mode, const std::vector<int>& sources) const {
    return asHost(dataModule, "Synchronization", ListPtr::create({toValue(mode), listOf(sources)}));
}

std::string ModuleInHost::ioctl(int command, const char* argument) const {
    return failure([&] {
        executeFunc(functionOf(device(), "IOCtl"), asBase(ListPtr::create({toValue(command), toValue(argument)})));
    });
}

// The steady clock without what passed while nobody asked: a computer that stood still for two seconds has filled the
// drivers in the instrument's time, and the module's reading is what is tested here, not the computer.
double InstrumentTime::elapsed() const {
    constexpr double longest = 0.25;
    const double steady = std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    if (asked_ > 0.0 && steady - asked_ > longest) {
        lag_ += steady - asked_ - longest;
    }
    asked_ = steady;
    return steady - lag_;
}

double InstrumentTime::now() const {
    const std::lock_guard lock(mutex_);
    return held_ ? heldAt_ : elapsed() + ahead_;
}

void InstrumentTime::hold() {
    // In one go: whoever asks in between would see the time go back, and the clock's count seem to have wrapped.
    const std::lock_guard lock(mutex_);
    heldAt_ = held_ ? heldAt_ : elapsed() + ahead_;
    held_ = true;
}

void InstrumentTime::run() {
    const std::lock_guard lock(mutex_);
    ahead_ = held_ ? heldAt_ - elapsed() : ahead_;
    held_ = false;
}

void InstrumentTime::step(double seconds) {
    const std::lock_guard lock(mutex_);
    (held_ ? heldAt_ : ahead_) += seconds;
}

Station::Station(kestrixsim::Scenario scenario) : Station(std::make_shared<InstrumentTime>()) {
    kestrixsim::reset(std::move(scenario), [time = time] { return time->now(); });
}

Station::Station(std::shared_ptr<InstrumentTime> sameTime) : time(std::move(sameTime)) {
    RegistersAddress::baseClock = 15000000;
    RegistersAddress::maxAIModules = 8;
    RegistersAddress::maxAIChannels = 16;
    RegistersAddress::deviceType = 0;
}

Station::~Station() = default;

kestrixsim::Scenario Station::slots(int count) {
    auto scenario = kestrixsim::Scenario::counters(count);
    scenario.slots = count;
    scenario.supplyOn = true;
    return scenario;
}

ChannelPtr<> Station::input(int slot, const char* name) const {
    const std::string end = "/AI " + std::to_string(slot) + "/" + name;
    for (const auto& channel : channels()) {
        const auto folder = channel.getParent().asPtr<IChannelNode>();
        if (("/" + ChannelNodePtr<>(folder).getName().toStdString() + "/" + channel.getName().toStdString()) == end) {
            return channel;
        }
    }
    throw NotFoundException("The tree has no channel %s", end.c_str());
}

namespace {

double ratioOf(const Ratio& ratio) {
    return static_cast<double>(ratio.numerator) / static_cast<double>(ratio.denominator);
}

// Follows one channel's ring through a run.
class Follower {
public:
    explicit Follower(const ChannelPtr<>& channel)
        : channel_(channel), shown_(channel.getSampleRate()), exact_(shown_), seen_(acquired()) {
        if (channel.hasProperty("ExactSampleRate")) {
            exact_ = channel.getPropertyValue<Ratio>("ExactSampleRate");
        }
    }

    // "" or what is wrong with what came since the last call, which the instrument made after `since` and until `now`.
    std::string take(double since, double now, bool timed) {
        const auto buffer = channel_.getBuffer();
        const uint64_t count = acquired();
        const uint64_t capacity = buffer.getCapacity();
        if (count == seen_) {
            return "";
        }
        if (count < seen_ || count - seen_ > capacity) {
            return name() + ": went from sample " + std::to_string(seen_) + " to " + std::to_string(count);
        }
        const bool isRaw = buffer.getSampleSize() == 2;
        const void* samples = buffer.getData();
        for (uint64_t k = seen_; k < count; ++k) {
            const bool right = isRaw ? static_cast<const uint16_t*>(samples)[k % capacity] == static_cast<uint16_t>(k)
                                     : static_cast<const uint32_t*>(samples)[k % capacity] == static_cast<uint32_t>(k);
            if (!right) {
                return name() + ": sample " + std::to_string(k) + " is another one";
            }
        }
        seen_ = count;
        if (timed) {
            (arrivals_++ == 0 ? first_ : last_) = {count, since, now};
        }
        return "";
    }

    // The bounds hold to the step: no tolerance.
    std::string verdict() const {
        if (exact_.numerator / exact_.denominator != shown_.numerator / shown_.denominator) {
            return name() + ": shows " + std::to_string(ratioOf(shown_)) + " S/s for " +
                   std::to_string(ratioOf(exact_));
        }
        if (arrivals_ < 3) {
            return name() + ": nothing came, or only once or twice";
        }
        const auto samples = static_cast<double>(last_.count - first_.count);
        const double slowest = samples / (last_.by - first_.after);
        const double fastest = samples / (last_.after - first_.by);
        if (rate() < slowest || rate() > fastest) {
            return name() + ": shows " + std::to_string(rate()) + " S/s and runs at " + std::to_string(slowest) +
                   " to " + std::to_string(fastest);
        }
        return "";
    }

    double seconds() const { return static_cast<double>(seen_) / rate(); }
    double rate() const { return ratioOf(exact_); }
    std::string name() const { return channel_.getNodeId().toStdString(); }

private:
    struct Arrival {
        uint64_t count;
        double after;
        double by;
    };

    uint64_t acquired() const { return static_cast<uint64_t>(channel_.getSamplesAcquired()); }

    ChannelPtr<> channel_;
    Ratio shown_;
    Ratio exact_;
    uint64_t seen_;
    int arrivals_ = 0;
    Arrival first_{};
    Arrival last_{};
};

}  // namespace

testing::AssertionResult Station::deliversWhatItShows(double seconds) {
    constexpr double step = 0.001;
    std::vector<Follower> used;
    std::vector<ChannelPtr<>> others;
    for (const auto& channel : channels()) {
        if (!channel.getUsed() || !channel.getPropertyValue<bool>("Enabled")) {
            others.push_back(channel);
        } else if (channel.getType() == 0) {
            used.emplace_back(channel);
        }
    }
    time->hold();
    std::string wrong;
    const auto fail = [&](const std::string& text) { wrong += text.empty() ? text : text + "\n"; };
    // The first cycle takes what has been ready for some time.
    for (int i = 0; wrong.empty() && i <= static_cast<int>(seconds / step); ++i) {
        const double since = time->now();
        time->step(i == 0 ? 0.0 : step);
        fail(cycle());
        for (auto& follower : used) {
            fail(follower.take(since, time->now(), i > 0));
        }
    }
    if (wrong.empty()) {
        double longest = 0.0;
        for (const auto& follower : used) {
            fail(follower.verdict());
            longest = std::max(longest, follower.seconds());
        }
        for (const auto& channel : others) {
            if (channel.getSamplesAcquired() != 0 && (channel.getType() == 0 || !channel.getUsed())) {
                fail(channel.getNodeId().toStdString() + " isn't used and has samples");
            }
        }
        const double acquired = secondsOf(impl, &IClockProvider::getAcquiredClock);
        const double current = secondsOf(impl, &IClockProvider::getCurrentClock);
        if (std::abs(acquired - longest) > 1e-6 || std::abs(current - longest) > 0.2) {
            fail("the channels have " + std::to_string(longest) + " s, the acquired clock says " +
                 std::to_string(acquired) + " and the current one " + std::to_string(current));
        }
    }
    time->run();
    return wrong.empty() ? testing::AssertionSuccess() : testing::AssertionFailure() << wrong;
}

testing::AssertionResult Station::goodRun(double seconds) {
    const auto failed = [](const char* step, const std::string& text) {
        return testing::AssertionFailure() << step << ": " << text;
    };
    for (const Step step : {Step::Configure, Step::Initialize, Step::Start}) {
        if (const std::string text = take(step); !text.empty()) {
            return failed(nameOf(step), text);
        }
    }
    const auto delivered = deliversWhatItShows(seconds);
    if (const std::string text = stop(); !text.empty()) {
        return failed("stop", text);
    }
    return delivered ? isQuiet() : delivered;
}

testing::AssertionResult Station::isQuiet() {
    constexpr uint64_t adcEnable = 0xA0200000;
    constexpr uint64_t trigger = 0xA0200004;
    constexpr uint64_t dspEnable = 0xA0000124;
    std::string on;
    const auto note = [&](bool isOn, const std::string& what) { on += isOn ? what + " is on\n" : ""; };
    note((instrument().registerWord(adcEnable) & 1) != 0, "the converters' word");
    note((instrument().registerWord(trigger) & 0xFFFF) != 0, "the start trigger");
    for (int module = 0; module < 8; ++module) {
        const std::string number = std::to_string(module + 1);
        note((instrument().registerWord(dspEnable + (static_cast<uint64_t>(module) << 16)) & 3) != 0,
             "DSP chain " + number);
        note(instrument().statistics(module, kestrixsim::Stream::Raw).started, "raw stream " + number);
        note(instrument().statistics(module, kestrixsim::Stream::Filtered).started, "filtered stream " + number);
    }
    return on.empty() ? testing::AssertionSuccess() : testing::AssertionFailure() << on;
}

namespace {

// A clock whose register can't be read answers with that failure, and with nothing else.
template <class Provider, class Getter>
void askOrFailInWords(Provider* provider, Getter getter, long least) {
    try {
        EXPECT_GE(ask(provider, getter), least);
    } catch (const std::exception& failure) {
        const std::string text = failure.what();
        EXPECT_TRUE(text == "Failed to map memory." || text == "Failed to open memory device.") << text;
    }
}

void askAll(OpenModule& module) {
    for (const auto getter : {&IClockProvider::getCurrentClock, &IClockProvider::getAcquiredClock}) {
        askOrFailInWords(&module, getter, -1000000000);
    }
    for (const auto getter : {&IAbsTimeProvider::getStartAbsTime, &IAbsTimeProvider::getCurrentAbsTime}) {
        askOrFailInWords(&module, getter, -1);
    }
    ask(&module, &IAbsTimeProvider::getTracking);
    ask(&module, &IAbsTimeProvider::getTimingError);
    ask(&module, &IAbsTimeProvider::getIsAbsTimeSynchronized);
    module.daqController.phase();
    if (const auto timing = module.daqController.timeSources().timing) {
        timing->getClockState();
    }
}

}  // namespace

Questioner::Questioner(OpenModule* module, int threads, std::chrono::microseconds pause) {
    for (int i = 0; i < threads; ++i) {
        threads_.emplace_back([this, module, pause] {
            while (!done_) {
                askAll(*module);
                std::this_thread::sleep_for(pause);
            }
        });
    }
}

Questioner::~Questioner() {
    done_ = true;
    for (auto& thread : threads_) {
        thread.join();
    }
}

}  // namespace Test
}  // namespace Harvane::RT::Modules::Daq
