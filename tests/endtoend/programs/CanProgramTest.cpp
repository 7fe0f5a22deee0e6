#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>

#include "tests/endtoend/RecordingReader.h"
#include "tests/endtoend/programs/Process.h"

using Json = nlohmann::json;

namespace {

// Two ports on one bus of 500 kbit/s and one on another; on the first a counter every 10 ms and an extended frame every
// 100 ms.
class CanProgram : public testing::Test {
protected:
    Process::Result run(std::vector<std::string> arguments, const std::string& more = "") {
        folder.write("can.json", R"({"slots": 1, "supplyOn": true, "canPorts": "0xE000",
            "modules": [{"slot": 0, "waveform": {"kind": "constant", "amplitude": 0, "offset": 2.5, "unit": "physical"}}],
            "can": {"interfaces": [{"name": "can0", "bus": 0}, {"name": "can1", "bus": 1}, {"name": "can2", "bus": 0}],
                    "buses": [{"bitrate": 500000, "cyclic": [
                        {"id": "0x0C0", "data": "0000000000000000", "periodSeconds": 0.01, "counter": true},
                        {"id": "0x18FEF100", "extended": true, "data": "FF7D", "periodSeconds": 0.1}]},
                              {"bitrate": 500000}]})" +
                                     more + "}");
        return Process::run(Process::zornhostOn(folder.path("can.json"), std::move(arguments)));
    }
    Folder folder;
};

// The counter in the data of the frames of an identifier, as a log has them: each once and in order.
void expectCounting(const std::vector<std::string>& log, const std::string& before) {
    int64_t last = -1;
    size_t count = 0;
    for (const auto& line : log) {
        const size_t at = line.find(before);
        if (at == std::string::npos) {
            continue;
        }
        int64_t value = 0;
        for (int byte = 7; byte >= 0; --byte) {
            value = value * 256 +
                    std::stoi(line.substr(at + before.size() + static_cast<size_t>(2 * byte), 2), nullptr, 16);
        }
        EXPECT_TRUE(last < 0 || value == last + 1) << line;
        last = value;
        ++count;
    }
    EXPECT_GT(count, 50u);
}

}  // namespace

TEST_F(CanProgram, DumpShowsEachFrameOnce) {
    const auto log = run({"can", "dump", "can0", "CAN Port 3", "-L", "-d", "1"});
    ASSERT_EQ(log.exitCode, 0) << log.err;
    const auto lines = linesOf(log.out);
    expectCounting(lines, " can0 0C0#");
    expectCounting(lines, " can2 0C0#");
    const std::string now = std::to_string(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()));
    EXPECT_EQ(lines.front().substr(0, 6), "(" + now.substr(0, 5)) << lines.front();

    const auto some = run({"can", "dump", "1", "-t", "d", "--filter", "18FEF100", "-n", "3", "-d", "5"});
    ASSERT_EQ(some.exitCode, 0) << some.err;
    const auto shown = linesOf(some.out);
    ASSERT_EQ(shown.size(), 3u) << some.out;
    for (size_t i = 0; i < shown.size(); ++i) {
        EXPECT_NE(shown[i].find("can0  18FEF100   [2]  FF 7D"), std::string::npos) << shown[i];
        EXPECT_NEAR(std::stod(shown[i].substr(2)), i == 0 ? 0.0 : 0.1, 0.002) << shown[i];
    }
    // A port at another bit rate hears nothing.
    EXPECT_EQ(run({"can", "dump", "can0", "-d", "0.5", "--bitrate", "250000"}).out, "");
}

TEST_F(CanProgram, SendTellsWhatHasNotGoneOut) {
    const auto good = run({"can", "send", "can1", "123#0102", "18FEF100#", "--count", "20"});
    EXPECT_EQ(good.exitCode, 0) << good.err;
    EXPECT_EQ(good.out, "CAN Port 2: 40 of 40 frames sent\n");
    const auto failing = run({"can", "send", "can0", "123#0102", "--count", "5"},
                             R"(, "faults": [{"kind": "canWrite", "target": 0, "times": 2}])");
    EXPECT_EQ(failing.exitCode, 1);
    EXPECT_EQ(failing.out, "CAN Port 1: 3 of 5 frames sent; NOT SENT: 2 because the system refused\n");
    for (const auto& [arguments, words] : std::initializer_list<std::pair<std::vector<std::string>, const char*>>{
             {{"can", "send", "can7", "1#"}, "there is no CAN port \"can7\"; there are \"CAN Port 1\" (can0)"},
             {{"can", "send", "can0", "12G#"}, "no CAN frame"},
             {{"can", "dump", "--filter", "z"}, "no filter"},
             {{"can", "send", "can0", "1#", "--bitrate", "7"}, "7 bit/s can't be had; there are 1000000, 500000"}}) {
        const auto result = run(arguments);
        EXPECT_EQ(result.exitCode, 1) << words;
        EXPECT_NE(result.err.find(words), std::string::npos) << result.err;
    }
}

TEST_F(CanProgram, StatsCountFramesAndLoad) {
    const auto result = run({"--json", "can", "stats", "-d", "1.5"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const Json ports = Json::parse(result.out)["ports"];
    ASSERT_EQ(ports.size(), 3u);
    EXPECT_NEAR(ports[0]["framesPerSecond"].get<double>(), 110.0, 4.0);
    // A frame of 8 bytes with zeros takes 111 bits and stuff bits, the other one some 90.
    EXPECT_NEAR(ports[0]["loadPercent"].get<double>(), 2.8, 0.4);
    EXPECT_EQ(ports[1]["frames"], 0);
}

TEST_F(CanProgram, RecordsFramesAndRoutesAndExportsThem) {
    const std::string file = folder.path("r.h5");
    const auto recorded =
        run({"--json", "record", "-o", file, "-d", "2", "--route", "AI 1/Raw input -> CAN Port 1 id 0x1ABCDE every 10",
             "--route", "AI 1/Filtered input -> CAN Port 1 id 0x1ABCDF every 10"});
    ASSERT_EQ(recorded.exitCode, 0) << recorded.err << recorded.out;
    std::map<std::string, uint64_t> frames;
    const Json report = Json::parse(recorded.out);
    for (const Json& channel : report["asyncChannels"]) {
        if (channel.contains("frames")) {
            frames[channel["channel"].get<std::string>()] = channel["frames"];
        }
    }
    // Ten a second of each, where something new has come: samples do in blocks of an eighth of a second.
    EXPECT_NEAR(static_cast<double>(frames["CAN Port 1/CAN Port 1 Output"]), 34.0, 8.0);
    EXPECT_GT(frames["CAN Port 3/CAN Port 3 Input"], 200u);

    EXPECT_EQ(
        RecordingReader(file).text("", "routes"),
        "AI 1/Raw input -> CAN Port 1 id 0x1ABCDE every 10\nAI 1/Filtered input -> CAN Port 1 id 0x1ABCDF every 10");
    const auto exported = Process::run({KESTRIX_ZORNHOST, "can", "export", file});
    ASSERT_EQ(exported.exitCode, 0) << exported.err;
    const auto lines = linesOf(exported.out);
    expectCounting(lines, " can0 0C0#");
    EXPECT_TRUE(std::is_sorted(lines.begin(), lines.end(),
                               [](const auto& a, const auto& b) { return a.substr(0, 20) < b.substr(0, 20); }));
    uint64_t sum = 0;
    for (const auto& [channel, count] : frames) {
        sum += count;
    }
    EXPECT_EQ(lines.size(), sum);
    // Scaled, in volts, and heard by the other port of the bus.
    float value = 0.0f;
    for (const char* id : {" can2 001ABCDE#", " can2 001ABCDF#"}) {
        std::string last;
        for (const auto& line : lines) {
            last = line.find(id) != std::string::npos ? line : last;
        }
        ASSERT_NE(last, "") << id;
        const auto bits = static_cast<uint32_t>(std::stoul(last.substr(last.find('#') + 1, 8), nullptr, 16));
        const uint32_t ordered = __builtin_bswap32(bits);
        std::memcpy(&value, &ordered, sizeof value);
        EXPECT_NEAR(value, 2.5, 0.05) << last;
    }

    const std::string log = folder.path("r.log");
    EXPECT_EQ(Process::run({KESTRIX_ZORNHOST, "can", "export", file, "-o", log}).exitCode, 0);
    EXPECT_EQ(contents(log), exported.out);
    for (const auto& [arguments, words] : std::initializer_list<std::pair<std::vector<std::string>, const char*>>{
             {{"can", "export", "/etc/hostname"}, "is no recording"},
             {{"can", "export", file, "-o", "/nowhere/x"}, "/nowhere/x: No such file"}}) {
        auto command = arguments;
        command.insert(command.begin(), KESTRIX_ZORNHOST);
        const auto result = Process::run(command);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_NE(result.err.find(words), std::string::npos) << result.err;
    }
    for (const auto& [route, words] : std::initializer_list<std::pair<const char*, const char*>>{
             {"AI 1/Raw input -> CAN Port 9 id 1", "no CAN port \"CAN Port 9\""},
             {"AI 1/* -> CAN Port 1 id 1", "one channel at each end"},
             {"AI 1/Raw input -> CAN Port 1 id 1 every 40", "can't be had at 100 cycles a second"},
             {"AI 1/Raw input -> AI 1/Filtered input", "nothing can be routed"}}) {
        const auto result = run({"record", "-o", "/dev/null", "-d", "1", "--route", route});
        EXPECT_EQ(result.exitCode, 1) << route;
        EXPECT_NE(result.err.find(words), std::string::npos) << result.err;
    }
}

// What is lost is in the verdict, with its cause; what is not used costs the others nothing.
TEST_F(CanProgram, LossesAreInTheVerdict) {
    const auto lossy = run({"record", "-o", "/dev/null", "-d", "1"},
                           R"(, "faults": [{"kind": "canRead", "target": 0, "afterCount": 20, "times": 3}])");
    EXPECT_EQ(lossy.exitCode, 1);
    EXPECT_NE(lossy.out.find("CAN Port 1/CAN Port 1 Input: LOST 3 by reads that failed."), std::string::npos)
        << lossy.out;
    const auto unused = run({"record", "-o", "/dev/null", "-d", "1", "--channel", "AI 1/*"});
    EXPECT_EQ(unused.exitCode, 0) << unused.out;
    EXPECT_NE(unused.err.find("frames on can0 while its input channel is not in use"), std::string::npos) << unused.err;
    EXPECT_LE(linesOf(unused.err).size(), 20u) << "told once, not in each cycle";
}
