#include "libraries/protocols/can/Commands.h"

#include <cstdio>
#include <cstdlib>

namespace {

constexpr const char* countCommand = "ls -A /sys/class/net | grep \"can\" | wc -l";
constexpr int longestAnswer = 20;  // characters

int run(const std::string& line) {
    // The shell is meant: these are the lines that a person would type on the instrument.
    return std::system(line.c_str());  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
}

}  // namespace

int Commands::link(const std::string& settings) const {
    return run("ip link set " + deviceDesignation_ + settings);
}

int Commands::runLinkSetUp() const {
    return run("ip link set up " + deviceDesignation_);
}

int Commands::runLinkSetDown() const {
    return run("ip link set down " + deviceDesignation_);
}

int Commands::runLinkSetBitrate(std::uint64_t bitsPerSecond) const {
    return link(" type can bitrate " + std::to_string(bitsPerSecond));
}

int Commands::runIsListenOnly(bool on) const {
    return link(std::string(" type can listen-only ") + (on ? "on" : "off"));
}

int Commands::runLinkSetTxQueueLength(std::uint32_t frames) const {
    return link(" txqueuelen " + std::to_string(frames));
}

int Commands::runLinkSetRestartTimeout(std::uint64_t milliseconds) const {
    return link(" type can restart-ms " + std::to_string(milliseconds));
}

int Commands::getNoOfCANPorts() {
    FILE* const pipe = popen(countCommand, "re");
    if (pipe == nullptr) {
        std::printf("popen error (get number of CAN ports)\n");
        return -1;
    }
    int count = -1;
    char answer[longestAnswer + 1] = {};
    if (std::fgets(answer, sizeof answer, pipe) != nullptr) {
        count = static_cast<int>(std::strtol(answer, nullptr, 10));
    }
    if (pclose(pipe) == -1) {
        std::printf("pclose error\n");
    }
    return count;
}
