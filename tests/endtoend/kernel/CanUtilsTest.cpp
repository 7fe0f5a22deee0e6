#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "tests/endtoend/programs/Process.h"

// The module in the host, on CAN interfaces of the machine's kernel, against Debian's tools for SocketCAN.
namespace {

using Lines = std::vector<std::string>;

// "(1436509052.249713) can0 123#DEADBEEF"
double timeOf(const std::string& line) {
    return std::stod(line.substr(1));
}
std::string frameOf(const std::string& line) {
    return line.substr(line.find(')') + 2);
}
Lines framesOf(const Lines& lines) {
    Lines frames;
    std::transform(lines.begin(), lines.end(), std::back_inserter(frames), frameOf);
    return frames;
}

class CanUtils : public testing::Test {
protected:
    CanUtils() {
        folder.write("kernel.json", R"({"slots": 1, "supplyOn": true, "canPorts": "0xC000",
            "modules": [{"slot": 0, "waveform": {"kind": "constant", "amplitude": 0}}], "can": {"kernel": true}})");
        // The controllers' interfaces have any name.
        if (std::filesystem::exists("/sys/module/kvaser_pci")) {
            shell("rmmod kvaser_pci");
        }
        for (const std::string& name : {std::string("can0"), std::string("can1")}) {
            if (std::filesystem::exists("/sys/class/net/" + name)) {
                shell("ip link del " + name);
            }
            std::string line = "ip link add dev ";
            line += name;
            line += " type vcan && ip link set up ";
            shell(line += name);
        }
        if (std::filesystem::exists("/sys/class/net/vcan0")) {
            shell("ip link del vcan0");
        }
    }
    static void shell(const std::string& line) { ASSERT_EQ(std::system(line.c_str()), 0) << line; }
    std::vector<std::string> host(std::vector<std::string> arguments) const {
        return Process::zornhostOn(folder.path("kernel.json"), std::move(arguments));
    }
    // A tool, found on the path.
    static std::vector<std::string> tool(const std::string& line) { return {"/bin/sh", "-c", "exec " + line}; }
    static void pauseMs(int milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

    Folder folder;
};

}  // namespace

// A candump and the host on the same port see the same: 1,000 frames and those of each kind, none lost, all in order.
// The host's program has begun when the first of the frames that go before has come through.
TEST_F(CanUtils, DumpShowsWhatWasSent) {
    const std::string own = folder.path("candump.log");
    Process theirs(tool("candump -D -L can0 >" + own));
    const std::string log = folder.path("host.log");
    auto arguments = host({"can", "dump", "can0", "-L", "-n", "1020"});
    std::string command = "exec";
    for (const auto& word : arguments) {
        command += " '" + word + "'";
    }
    Process ours({"/bin/sh", "-c", command + " >" + log});
    const auto linesIn = [](const std::string& file) { return linesOf(contents(file)); };
    for (int i = 0; i < 400 && linesIn(log).empty(); ++i) {
        (void)!std::system("cansend can0 7FF# 2>/dev/null");  // while the host brings the interface down and up
        pauseMs(50);
    }
    ASSERT_FALSE(linesIn(log).empty()) << ours.errors();
    Lines sent;
    for (const char* frame : {"000#", "123#DEADBEEF", "7FF#0102030405060708", "00000800#", "1FFFFFFF#0011223344556677",
                              "12345678#55", "456#01", "00000801#FF", "001#000000000000"}) {
        shell(std::string("cansend can0 ") + frame);
        sent.push_back(std::string("can0 ") + frame);
    }
    // A frame each 2 ms, as their generator sends it: identifiers of 29 bits, 8 bytes that count.
    shell("cangen can0 -g 2 -n 1000 -e -I 100000 -L 8 -D i");
    for (int i = 0; i < 1000; ++i) {
        char text[64];
        std::snprintf(text, sizeof text, "can0 00100000#%02X%02X000000000000", i % 256, i / 256);
        sent.emplace_back(text);
    }
    // Until as many have come as the host waits for.
    for (int i = 0; i < 200 && linesIn(log).size() < 1020; ++i) {
        shell("cansend can0 7FF#");
        pauseMs(50);
    }
    const auto result = ours.wait();
    EXPECT_EQ(result.exitCode, 0) << result.err;
    theirs.signal(SIGINT);
    theirs.wait();
    const Lines host = linesIn(log);
    Lines tool = linesIn(own);
    ASSERT_EQ(host.size(), 1020u);
    const auto begin = std::search(tool.begin(), tool.end(), host.begin(), host.end(),
                                   [](const auto& a, const auto& b) { return frameOf(a) == frameOf(b); });
    ASSERT_NE(begin, tool.end()) << "the two logs differ";
    const Lines frames = framesOf(host);
    EXPECT_NE(std::search(frames.begin(), frames.end(), sent.begin(), sent.end()), frames.end()) << "not what was sent";
    double worst = 0.0;
    double sum = 0.0;
    // The instrument calls a whole second its start, asked for when it has begun: all times are off alike.
    for (size_t i = 0; i < host.size(); ++i) {
        sum += timeOf(host[i]) - timeOf(begin[static_cast<std::ptrdiff_t>(i)]);
    }
    const double mean = sum / static_cast<double>(host.size());
    for (size_t i = 0; i < host.size(); ++i) {
        worst = std::max(worst, std::abs(timeOf(host[i]) - timeOf(begin[static_cast<std::ptrdiff_t>(i)]) - mean));
    }
    std::printf("measured: the host's log is %.0f ms off candump's as a whole, and %.0f us at most about that\n",
                mean * 1e3, worst * 1e6);
    EXPECT_LT(std::abs(mean), 10.0);
    EXPECT_LT(worst, 0.005);
}

TEST_F(CanUtils, SentFramesAreDumped) {
    const std::string own = folder.path("candump.log");
    Process theirs(tool("candump -D -L can0 can1 >" + own));
    pauseMs(300);
    const auto result = Process::run(
        host({"can", "send", "can0", "123#0102", "1FFFFFFF#", "00000800#1122334455667788", "--count", "100"}));
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "CAN Port 1: 300 of 300 frames sent\n");
    theirs.signal(SIGINT);
    theirs.wait();
    Lines expected;
    for (int i = 0; i < 100; ++i) {
        // Always with the extended format.
        expected.insert(expected.end(), {"can0 00000123#0102", "can0 1FFFFFFF#", "can0 00000800#1122334455667788"});
    }
    EXPECT_EQ(framesOf(linesOf(contents(own))), expected);
}
