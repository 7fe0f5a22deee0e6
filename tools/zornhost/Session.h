#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <zorn/manager/manager.h>

#include "tools/zornhost/HostTree.h"

namespace zornhost {

// What all commands share.
struct SessionOptions {
    std::string module;                   // path of the .zmod; empty: beside the program
    std::string amplifiers;               // folder of amplifier definitions; empty: see defaultAmplifiers
    std::optional<std::string> simulate;  // set: run on the simulated instrument; empty text: the standard scenario
    std::string logLevel = "error";
    std::string logFile;
    std::vector<std::string> settings;  // "PATH=VALUE", applied after the tree has been built
    std::string synchronization;        // name or number of an option, applied behind the settings; empty: as it is
    long cycleTimeMs = 10;
    bool json = false;
};

// Directory of the running program, and the module beside it (../lib).
std::string programFolder();
std::string defaultModule();
// "amplifiers" in the working directory, else the one that came with the program; empty when there is neither.
std::string defaultAmplifiers();

// Starts this program anew with the simulated instrument preloaded, if that was asked for and is not there yet. Returns
// when the instrument is in place (or none was asked for); raises std::runtime_error when it can't be had.
void ensureSimulation(const SessionOptions& options, char** argv);

// Whether the instrument is a simulated one, which only this process has.
bool runsOnSimulation();

// A loaded module with its tree. Listens to the log for reports of lost data.
class Session {
public:
    explicit Session(const SessionOptions& options);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void open();  // load and add
    // Sets a property as a user would: converts the text, refuses what can't be. Returns the value that the property
    // has afterwards. With an index or a display text for selections.
    Harvane::RT::Core::BasePtr set(const PropertyEntry& property, const std::string& text);
    // configure, initialize
    void prepare();
    void start();
    void stop();
    void close();

    Harvane::RT::Core::ModuleHost& host() { return host_; }
    HostTree tree() const { return HostTree(host_.dataModule()); }

    // Counts the module's reports of lost data since the last start.
    uint64_t lostReports() const { return lostReports_.load(); }

private:
    class Listener;
    SessionOptions options_;
    std::unique_ptr<Harvane::RT::Core::ILogSink> console_;
    std::unique_ptr<Harvane::RT::Core::ILogSink> logFile_;
    std::unique_ptr<Listener> listener_;
    std::atomic<uint64_t> lostReports_{0};
    Harvane::RT::Core::ModuleHost host_;
};

}  // namespace zornhost
