#include <zorn/manager/manager.h>

#include <chrono>
#include <thread>

#include <fmt/format.h>

#include "host/modulemanager/ModuleLibrary.h"

namespace Harvane::RT::Core {

namespace {

constexpr const char* LoggerName = "ModuleManager";
constexpr int DebugLevel = 1;
constexpr int InfoLevel = 2;
constexpr int WarningLevel = 3;
constexpr int ErrorLevel = 4;

constexpr const char* BalanceStatus = "GetSensorBalanceStatus";
constexpr auto BalancePollInterval = std::chrono::milliseconds(20);

void logLine(int level, const std::string& text) {
    zornLogMessageWithSource(LoggerName, level, __FILE__, __LINE__, "ModuleHost", text.c_str());
}

void ensureLogger(const char* name) {
    if (failed(zornCreateLogger(name, InfoLevel))) {
        zornClearErrorInfo();  // another host object has made it
    }
}

template <class I, class Operation>
ObjectPtr<I> made(const char* what, Operation&& operation) {
    I* object = nullptr;
    checkStep("host", what, [&] { return operation(&object); });
    return ObjectPtr<I>::take(object);
}

std::string versionText(void (*getVersion)(unsigned int*, unsigned int*, unsigned int*)) {
    unsigned int major = 0;
    unsigned int minor = 0;
    unsigned int patch = 0;
    getVersion(&major, &minor, &patch);
    return fmt::format("{}.{}.{}", major, minor, patch);
}

void collectChannels(const ChannelFolderPtr& folder, std::vector<ChannelPtr<>>& channels) {
    for (const auto& child : folder.getChildren()) {
        if (auto channel = child.asPtrOrNull<IChannel>()) {
            channels.emplace_back(std::move(channel));
        } else if (auto inner = child.asPtrOrNull<IChannelFolder>()) {
            collectChannels(inner, channels);
        }
    }
}

class SyncGuard {
public:
    explicit SyncGuard(const AcquisitionSyncPtr& sync) : sync_(sync) { sync_.lock(); }
    ~SyncGuard() { sync_.get()->unlock(); }
    SyncGuard(const SyncGuard&) = delete;
    SyncGuard& operator=(const SyncGuard&) = delete;

private:
    const AcquisitionSyncPtr& sync_;
};

}  // namespace

struct ModuleHost::State {
    enum class Phase { Closed, Open, Added, Configured, Initialized, Running, Broken };

    explicit State(long cycleTime)
        : cycleTimeMs(cycleTime),
          sync(made<IAcquisitionSync>("making the acquisition lock",
                                      [](IAcquisitionSync** r) { return createAcquisitionSync(r); })),
          scheduler(sync, cycleTime) {}

    void requirePhase(const char* step, std::initializer_list<Phase> allowed, const char* hint) const {
        for (const Phase one : allowed) {
            if (phase == one) {
                return;
            }
        }
        throw InvalidStateException("Can't %s: %s", step, phase == Phase::Broken ? "a step failed, close first" : hint);
    }

    template <class Step>
    void check(const char* step, Step&& body) const {
        checkStep(binary ? binary->file() : "module", step, body);
    }
    // One call of the module's life, named as the call is.
    void check(const char* step, ErrCode (IModule::*call)()) const {
        check(step, [&] { return (module.get()->*call)(); });
    }

    // For the steps on the way out: the first failure is what is reported, and the rest is done all the same.
    template <class Step>
    void attempt(std::string& firstFailure, Step&& step, int refusalLevel = ErrorLevel) const {
        const auto note = [&](int level, const char* text) {
            logLine(level, text);
            if (firstFailure.empty()) {
                firstFailure = text;
            }
        };
        try {
            step();
        } catch (const ZornException& exception) {
            note(exception.errorCode == Errors::InvalidState ? refusalLevel : ErrorLevel, exception.what());
        } catch (const std::exception& exception) {
            note(ErrorLevel, exception.what());
        }
    }

    void makeTree() {
        data = DataPtr(made<IData>("making the data object",
                                   [&](IData** r) { return createData(r, StringPtr("data").get(), cycleTimeMs); }));
        dataModule = DataModulePtr(made<IDataModule>(
            "making the data module", [](IDataModule** r) { return createDataModule(r, StringPtr("daq").get()); }));
        checkStep("host", "adding the data module", [&] { return data->addDataModule(dataModule.get()); });
    }

    // Rings for the channels as they are set now: who is used, at which rate. Nothing of an earlier run stays in them.
    void reserveRings() const {
        SyncGuard guard(sync);
        for (const auto& channel : allChannels()) {
            checkStep(binary->file(), "reserving memory of channel " + channel.getNodeId().toStdString(),
                      [&] { return channel->initializeAcquisition(); });
        }
    }

    void finalizeChannels() const {
        for (const auto& channel : allChannels()) {
            channel->stopAcquisition();
            channel->finalizeAcquisition();
        }
    }

    // A module that has not come up may refuse to be stopped: that is no news then.
    void stopModule(std::string& failure, int refusalLevel = ErrorLevel) {
        attempt(
            failure, [&] { check("preStop", &IModule::preStop); }, refusalLevel);
        attempt(
            failure,
            [&] {
                SyncGuard guard(sync);
                check("stop", &IModule::stop);
            },
            refusalLevel);
        attempt(
            failure, [&] { check("finalize", &IModule::finalize); }, refusalLevel);
        finalizeChannels();
    }

    std::vector<ChannelPtr<>> allChannels() const {
        std::vector<ChannelPtr<>> channels;
        if (dataModule) {
            collectChannels(dataModule.getRootFolder(), channels);
        }
        return channels;
    }

    // The balancing thread of an amplifier belongs to nobody; it works on objects that are about to go. Gives the
    // channel that is still at it after the time-out.
    std::string waitForBalancing(int timeoutMs) const {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (const auto& channel : allChannels()) {
            while (isBalancing(channel)) {
                if (std::chrono::steady_clock::now() >= until) {
                    return channel.getNodeId().toStdString();
                }
                std::this_thread::sleep_for(BalancePollInterval);
            }
        }
        return {};
    }

    static bool isBalancing(const ChannelPtr<>& channel) {
        try {
            if (!channel.isPropertySet(BalanceStatus)) {
                return false;
            }
            const auto function = channel.getPropertyValue(BalanceStatus).asPtrOrNull<IFuncObject>();
            if (!function) {
                return false;
            }
            const BasePtr status = executeFunc(function, nullptr);
            return status && fromValue<bool>(status);
        } catch (const std::exception&) {
            return false;  // no answer, no balancing that could be waited for
        }
    }

    // Everything that holds code of the module, in the order in which it may go: the providers first, since the data
    // object keeps the clock and the module the data object; the tree last, since the module still refers to it.
    void releaseModule() {
        if (config) {
            config->dispose();
        }
        config.release();
        clock.release();
        absTime.release();
        scheduler.setLoopProvider({});
        if (module) {
            scheduler.removeModule(module);
        }
        module.release();
        factory.release();
        driver.release();
        parameters.release();
        dataModule.release();
        data.release();
    }

    // For a module that must not be destroyed: its objects stay alive for good, in a list that nobody empties.
    void abandonModule() {
        static auto* const abandoned = new std::vector<BasePtr>;
        for (const auto& object : {asBase(module), asBase(factory), asBase(driver), asBase(dataModule), asBase(data)}) {
            abandoned->push_back(object);
        }
        releaseModule();
    }

    const long cycleTimeMs;
    const AcquisitionSyncPtr sync;
    Scheduler scheduler;
    Phase phase = Phase::Closed;
    bool added = false;

    std::unique_ptr<ModuleLibrary> binary;
    std::string driverName;
    std::string moduleVersion;
    ObjectPtr<IModuleDriver> driver;
    ObjectPtr<IModuleFactory> factory;
    ObjectPtr<IModule> module;
    ObjectPtr<IModuleAddParams> parameters;
    ModuleConfigPtr config;
    ObjectPtr<IClockProvider> clock;
    ObjectPtr<IAbsTimeProvider> absTime;
    DataPtr data;
    DataModulePtr dataModule;
};

ModuleHost::ModuleHost(long cycleTimeMs) {
    ensureLogger(LoggerName);
    ensureLogger("kestrix");  // the module's hardware layers ask for it and don't make it
    state_ = std::make_unique<State>(cycleTimeMs);
}

ModuleHost::~ModuleHost() {
    try {
        close();
    } catch (const std::exception& exception) {
        logLine(ErrorLevel, exception.what());
    }
}

void ModuleHost::open(const std::string& file) {
    auto& s = *state_;
    if (s.phase != State::Phase::Closed) {
        throw InvalidStateException("Can't open %s: %s is open", file.c_str(), s.binary->file().c_str());
    }
    s.binary = std::make_unique<ModuleLibrary>(file);
    try {
        s.driver = s.binary->createDriver();

        IString* name = nullptr;
        s.check("asking the driver for its name", [&] { return s.driver->getName(&name); });
        s.driverName = StringPtr(ObjectPtr<IString>::take(name)).toStdString();

        IVersionInfo* version = nullptr;
        s.check("asking the driver for its version", [&] { return s.driver->getVersionInfo(&version); });
        unsigned int number[3] = {0, 0, 0};
        if (const auto info = ObjectPtr<IVersionInfo>::take(version)) {
            s.check("reading the version", [&] { return info->getMajor(&number[0]); });
            s.check("reading the version", [&] { return info->getMinor(&number[1]); });
            s.check("reading the version", [&] { return info->getPatch(&number[2]); });
        }
        s.moduleVersion = fmt::format("{}.{}.{}", number[0], number[1], number[2]);

        IList* factories = nullptr;
        s.check("asking the driver for its modules", [&] { return s.driver->enumerateModuleFactories(&factories); });
        const ListPtr list = ObjectPtr<IList>::take(factories);
        if (!list || list.getCount() == 0) {
            throw InvalidValueException("%s: driver \"%s\" offers no module", file.c_str(), s.driverName.c_str());
        }
        s.factory = list.getItemAt(0).asPtr<IModuleFactory>();

        IString* instanceName = nullptr;
        IModule* module = nullptr;
        s.check("making the module", [&] { return s.factory->createInstance(&instanceName, &module); });
        const StringPtr instance = ObjectPtr<IString>::take(instanceName);
        s.module = ObjectPtr<IModule>::take(module);
        if (!s.module) {
            throw InvalidValueException("%s: driver \"%s\" made no module", file.c_str(), s.driverName.c_str());
        }
        s.makeTree();
        s.scheduler.addModule(s.module);
        s.phase = State::Phase::Open;
    } catch (...) {
        s.releaseModule();
        if (!s.binary->unload(0)) {
            logLine(WarningLevel,
                    fmt::format("{} stays loaded: {} of its objects are left", file, s.binary->objectCount()));
        }
        s.binary.reset();
        throw;
    }
    logLine(InfoLevel, fmt::format("{}: \"{}\" {} is loaded", file, s.driverName, s.moduleVersion));
}

void ModuleHost::add() {
    auto& s = *state_;
    s.requirePhase("add the module", {State::Phase::Open}, s.added ? "it is added already" : "no module is open");
    s.parameters = made<IModuleAddParams>("making the parameters", [&](IModuleAddParams** r) {
        return createModuleAddParams(r, s.data.get(), s.dataModule.get(), s.sync.get());
    });
    // A module that failed half-way rolls nothing back: it and the tree that it began only serve to be closed.
    s.phase = State::Phase::Broken;
    s.check("add", [&] { return s.module->add(s.parameters.get()); });
    s.added = true;
    s.phase = State::Phase::Added;
}

void ModuleHost::configure() {
    auto& s = *state_;
    using Phase = State::Phase;
    s.requirePhase("configure", {Phase::Added, Phase::Configured, Phase::Initialized},
                   s.phase == Phase::Running ? "the acquisition runs" : "the module is not added");
    // The set of providers may differ from the last time: forget all of them first.
    s.phase = Phase::Added;
    if (s.config) {
        s.config->dispose();
    }
    s.clock.release();
    s.absTime.release();
    s.scheduler.setLoopProvider({});
    s.config = made<IModuleConfig>("making the configuration",
                                   [&](IModuleConfig** r) { return createModuleConfig(r, s.data.get()); });
    s.check("configure", [&] { return s.module->configure(s.config.get()); });

    IClockProvider* clock = nullptr;
    ILoopProvider* loop = nullptr;
    IAbsTimeProvider* absTime = nullptr;
    checkStep("host", "reading the providers",
              [&] { return zornGetRegisteredProviders(s.config.get(), &clock, &loop, &absTime); });
    s.clock = ObjectPtr<IClockProvider>::take(clock);
    s.absTime = ObjectPtr<IAbsTimeProvider>::take(absTime);
    s.scheduler.setLoopProvider(ObjectPtr<ILoopProvider>::take(loop));
    s.phase = Phase::Configured;
}

void ModuleHost::initialize() {
    auto& s = *state_;
    using Phase = State::Phase;
    s.requirePhase("initialize", {Phase::Configured, Phase::Initialized},
                   s.phase == Phase::Running ? "the acquisition runs" : "the module is not configured");
    s.phase = Phase::Configured;
    s.check("initialize", &IModule::initialize);
    s.phase = Phase::Initialized;
}

void ModuleHost::start() {
    auto& s = *state_;
    using Phase = State::Phase;
    s.requirePhase("start", {Phase::Initialized},
                   s.phase == Phase::Running ? "the acquisition runs" : "the module is not initialized");
    // The module has said in `initialize` which channels want memory; it reads address and capacity when it starts.
    try {
        s.reserveRings();
    } catch (...) {
        s.finalizeChannels();
        throw;
    }
    try {
        for (const auto& channel : s.allChannels()) {
            s.check("starting a channel", [&] { return channel->startAcquisition(); });
        }
        {
            SyncGuard guard(s.sync);
            s.check("start", &IModule::start);
        }
        s.check("postStart", &IModule::postStart);
        s.scheduler.start();
    } catch (...) {
        // What has come up by now must not be left running.
        std::string failure;
        s.stopModule(failure, DebugLevel);
        s.phase = Phase::Added;
        throw;
    }
    s.phase = Phase::Running;
}

void ModuleHost::stop() {
    auto& s = *state_;
    if (s.phase != State::Phase::Running) {
        return;
    }
    std::string failure;
    s.attempt(failure, [&] { s.scheduler.stop(); });
    s.stopModule(failure);
    s.phase = State::Phase::Added;
    if (!failure.empty()) {
        throw GeneralErrorException("%s", failure.c_str());
    }
}

void ModuleHost::close(int timeoutMs) {
    auto& s = *state_;
    if (!s.binary) {
        return;
    }
    std::string failure;
    s.attempt(failure, [&] { stop(); });
    const std::string file = s.binary->file();
    std::string balancing;
    if (s.added) {
        s.attempt(failure, [&] { s.check("remove", &IModule::remove); });
        s.attempt(failure, [&] { balancing = s.waitForBalancing(timeoutMs); });
    }
    if (balancing.empty()) {
        s.releaseModule();
    } else {
        s.abandonModule();
    }
    s.added = false;
    s.phase = State::Phase::Closed;
    const bool unloaded = s.binary->unload(balancing.empty() ? timeoutMs : 0);  // abandoned objects hold it
    const uint64_t left = s.binary->objectCount();
    s.binary.reset();
    if (!unloaded) {
        const std::string text =
            fmt::format("{} can't be unloaded: {}{} of its objects are left; it stays loaded", file,
                        balancing.empty() ? "" : "channel " + balancing + " is still being balanced; ", left);
        logLine(WarningLevel, text);
        throw InvalidStateException("%s", text.c_str());
    }
    if (!failure.empty()) {
        throw GeneralErrorException("%s", failure.c_str());
    }
}

bool ModuleHost::isOpen() const {
    return state_->binary != nullptr;
}

bool ModuleHost::isAdded() const {
    return state_->added;
}

bool ModuleHost::isRunning() const {
    return state_->phase == State::Phase::Running;
}

std::string ModuleHost::file() const {
    return state_->binary ? state_->binary->file() : std::string();
}

std::string ModuleHost::driverName() const {
    return state_->binary ? state_->driverName : std::string();
}

std::string ModuleHost::moduleVersion() const {
    return state_->binary ? state_->moduleVersion : std::string();
}

bool ModuleHost::canUnload() const {
    return !state_->binary || state_->binary->canUnload();
}

uint64_t ModuleHost::moduleObjectCount() const {
    return state_->binary ? state_->binary->objectCount() : 0;
}

DataPtr ModuleHost::data() const {
    return state_->data;
}

DataModulePtr ModuleHost::dataModule() const {
    return state_->dataModule;
}

ObjectPtr<IModule> ModuleHost::module() const {
    return state_->module;
}

void ModuleHost::outsideOfCycles(const std::function<void()>& action) {
    const SyncGuard guard(state_->sync);
    action();
}

Scheduler& ModuleHost::scheduler() {
    return state_->scheduler;
}

ObjectPtr<IClockProvider> ModuleHost::clockProvider() const {
    return state_->clock;
}

ObjectPtr<IAbsTimeProvider> ModuleHost::absTimeProvider() const {
    return state_->absTime;
}

std::vector<ChannelPtr<>> ModuleHost::channels() const {
    return state_->added ? state_->allChannels() : std::vector<ChannelPtr<>>();
}

std::vector<LibraryVersionText> ModuleHost::hostVersions() {
    return {{"CoreTypes", versionText(zornCoreTypesGetVersion)},
            {"CoreObjects", versionText(zornCoreObjectsGetVersion)},
            {"CoreStructure", versionText(zornCoreStructureGetVersion)},
            {"ModuleManager", versionText(zornModuleManagerGetVersion)},
            {"Scheduler", versionText(zornSchedulerGetVersion)}};
}

ZORN_FUNCTION void zornModuleManagerGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    if (major != nullptr) {
        *major = 1;
    }
    if (minor != nullptr) {
        *minor = 0;
    }
    if (patch != nullptr) {
        *patch = 0;
    }
}

}  // namespace Harvane::RT::Core
