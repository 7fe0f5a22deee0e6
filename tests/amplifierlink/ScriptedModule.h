#pragma once

#include <atomic>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kestrixtest {

// An amplifier on a pseudo-terminal that answers each request with the next reply of its script, byte for byte, so
// that replies no real module sends can be tried. Without a script it acknowledges everything.
class ScriptedModule {
public:
    ScriptedModule();
    ~ScriptedModule();
    ScriptedModule(const ScriptedModule&) = delete;
    ScriptedModule& operator=(const ScriptedModule&) = delete;

    // The path that a serial port opens.
    const std::string& path() const { return path_; }

    // Replies as hexadecimal text; "" stays silent, "/" is a pause of 10 ms within a reply.
    void script(const std::vector<std::string>& replies);
    // The frame around a status and data given as hexadecimal text.
    static std::string frame(const std::string& statusAndData);
    static std::string acknowledge() { return "A5 01 00 5A"; }
    static std::string refuse() { return "A5 01 03 5A"; }

    // Requests since the last call, as "A5 01 67 5A".
    std::vector<std::string> takeRequests();

private:
    void run();
    void answer();

    int master_ = -1;
    std::string path_;
    std::mutex mutex_;
    std::deque<std::string> replies_;
    std::vector<std::string> requests_;
    std::atomic<bool> stopped_{false};
    std::thread thread_;
};

}  // namespace kestrixtest
