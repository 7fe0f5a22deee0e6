#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <zorn/logger/logger.h>
#include <zorn/scheduler/scheduler.h>
#include <zorn/structure/module.h>

namespace Harvane::RT::Core {

struct LibraryVersionText {
    std::string name;     // "CoreTypes"
    std::string version;  // "1.1.0"
};

// Loads one module library, drives its module through its life and unloads it again. One thread, the module thread.
// Every failure is an exception (ZornException or std::runtime_error) whose text names the file or the step and the
// reason; the object stays usable: after a failed step `close` tidies up, and `open` may be called again.
//
//   open        load, version check, init, driver, factory, instance
//   add         tree built below the data module
//   configure, initialize   providers; what the channels need
//   start       initializeAcquisition of every host channel: rings for what is used now, at the rate of now; then
//   start,
//               postStart, scheduler on. Without memory for a ring the module is not touched, and `start` may be
//               repeated
//   stop        scheduler off, preStop, stop, finalize
//   close       remove, release everything in the order that lets the library go, unload
class ZORN_EXPORT ModuleHost {
public:
    explicit ModuleHost(long cycleTimeMs = 10);
    ~ModuleHost();  // stops and closes; never throws
    ModuleHost(const ModuleHost&) = delete;
    ModuleHost& operator=(const ModuleHost&) = delete;

    void open(const std::string& file);
    void add();
    void configure();
    void initialize();
    void start();
    void stop();
    // Everything that holds module code must be gone: waits at most `timeoutMs` for zornCanUnload, and says what is
    // left (number of objects) when it can't. Tree pointers that a caller still holds keep the library loaded.
    void close(int timeoutMs = 3000);

    bool isOpen() const;
    bool isAdded() const;
    bool isRunning() const;
    std::string file() const;
    std::string driverName() const;
    std::string moduleVersion() const;  // "1.0.0"
    bool canUnload() const;             // what zornCanUnload answers; true when nothing is loaded
    uint64_t moduleObjectCount() const;

    DataPtr data() const;
    DataModulePtr dataModule() const;
    ObjectPtr<IModule> module() const;
    Scheduler& scheduler();
    // Runs the action while no cycle does, so that it may add samples to channels that the module takes them from. Must
    // be short: the cycle waits for it.
    void outsideOfCycles(const std::function<void()>& action);
    ObjectPtr<IClockProvider> clockProvider() const;      // empty before configure
    ObjectPtr<IAbsTimeProvider> absTimeProvider() const;  // empty when the module offers none

    // All channels below the data module, depth first, in tree order.
    std::vector<ChannelPtr<>> channels() const;

    static std::vector<LibraryVersionText> hostVersions();

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace Harvane::RT::Core
