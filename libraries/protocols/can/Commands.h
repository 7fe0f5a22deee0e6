#pragma once

#include <cstdint>
#include <string>
#include <utility>

// The command lines that configure one network interface, run by the system's shell. Each call takes as long as its
// tool, and answers what `system` does: the tool's exit status, -1 when it could not be run. No state but the name; one
// thread at a time.
class Commands {
public:
    Commands() = default;
    explicit Commands(std::string deviceDesignation) : deviceDesignation_(std::move(deviceDesignation)) {}

    void setDeviceDesignation(const std::string& name) { deviceDesignation_ = name; }
    // "can" and the number.
    void setDeviceDesignation(int number) { deviceDesignation_ = "can" + std::to_string(number); }
    const std::string& getDeviceDesignation() const { return deviceDesignation_; }

    int runLinkSetUp() const;
    int runLinkSetDown() const;
    int runLinkSetBitrate(std::uint64_t bitsPerSecond) const;
    int runIsListenOnly(bool on) const;
    int runLinkSetTxQueueLength(std::uint32_t frames) const;
    int runLinkSetRestartTimeout(std::uint64_t milliseconds) const;

    // Interfaces of the system with "can" in their names, virtual ones included; -1 when it can't be found out.
    static int getNoOfCANPorts();

private:
    int link(const std::string& settings) const;

    std::string deviceDesignation_ = "can0";
};
