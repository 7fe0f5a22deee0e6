#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <nlohmann/json.hpp>

#include "tests/endtoend/programs/Process.h"

using Json = nlohmann::json;

namespace {

// A board with two modules whose time runs ten times as fast.
class StatusProgram : public testing::Test {
protected:
    struct Board {
        std::string more;  // keys of the scenario
        std::string faults;
    };

    std::vector<std::string> onInstrument(std::vector<std::string> arguments, const Board& board = {}) {
        const std::string file = "board-" + std::to_string(boards++) + ".json";
        folder.write(file, R"({"slots": 2, "supplyOn": true, "timeFactor": 10, )" + board.more +
                               R"("modules": [{"slot": 0, "waveform": {"kind": "counter"}},
                                              {"slot": 1, "waveform": {"kind": "counter"}}], "faults": [)" +
                               board.faults + "]}");
        return Process::zornhostOn(folder.path(file), std::move(arguments));
    }
    Folder folder;
    int boards = 0;
};

// The body of an HTTP answer; empty as long as nobody answers.
std::string get(int port, const std::string& path) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string answer;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        const std::string request = "GET " + path + " HTTP/1.0\r\n\r\n";
        if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
            char piece[4096];
            for (ssize_t count = 0; (count = ::recv(fd, piece, sizeof piece, 0)) > 0;) {
                answer.append(piece, static_cast<size_t>(count));
            }
        }
    }
    ::close(fd);
    const size_t body = answer.find("\r\n\r\n");
    return body == std::string::npos ? std::string() : answer.substr(body + 4);
}

int freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), size), 0);
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
    ::close(fd);
    return ntohs(address.sin_port);
}

}  // namespace

// What is wrong with the instrument shows in the line where a person looks for it, and in no other but the errors.
TEST_F(StatusProgram, EachFaultInItsLine) {
    struct Row {
        const char* name;
        Board board;
        const char* key;  // empty: all is well
        const char* state;
        const char* words;
        std::vector<std::string> arguments = {"status"};
    };
    // From the second `at` on; -1: from the beginning.
    const auto fault = [](const std::string& kind, int target, int at = -1, const std::string& more = "") {
        return Board{"", R"({"times": -1, "kind": ")" + kind + R"(", "target": )" + std::to_string(target) +
                             (at < 0 ? "" : R"(, "atSeconds": )" + std::to_string(at)) + more + "}"};
    };
    const std::string limits = folder.path("limits.json");
    const char* const cpu = "processorTemperature";
    // What goes away must have been there when the instrument was opened. Two looks; the second counts.
    const std::vector<std::string> later{"status", "--live", "--interval", "30", "-d", "31"};
    const Row rows[] = {
        {"nothing", {}, "", "OK", ""},
        {"sensor gone", fault("sensorMissing", 2, 20), cpu, "WARN", "temp3_input) fails: unable to open", later},
        {"sensor forbidden", fault("sensorDenied", 1, 20), cpu, "WARN", "Permission denied", later},
        {"rubbish", fault("sensorRubbish", 3), "boardTemperature", "WARN", "holds no number"},
        {"sensor hangs", fault("sensorSlow", 3, 0, R"(, "code": 8000)"), "boardTemperature", "FAIL",
         "has not been read yet"},
        {"hot", {R"("thermals": {"ambientCelsius": 68}, )", ""}, cpu, "FAIL", "95 and more"},
        {"no sensors", {R"("thermals": {"sensors": "none"}, )", ""}, cpu, "WARN", "no sensor"},
        {"hot cable",
         {R"("boardType": 1, "thermals": {"cableCelsius": 90}, )", ""},
         "cableTemperature",
         "FAIL",
         "90.0 C"},
        {"no reference",
         {R"("pps": {"outages": [{"from": 0, "until": 1e6}]}, )", ""},
         "lock",
         "FAIL",
         "not locked",
         {"--sync", "PPS", "status", "--timeout", "2"}},
        {"no timing device", fault("timingSilent", -1), "controlWord", "WARN", "no pulse"},
        {"silent amplifier",
         fault("amplifierSilent", 1),
         "amplifiers",
         "WARN",
         "nothing answers in AI 2",
         {"status", "--thresholds", limits}},
        {"stalled stream", fault("dmaStall", 1), "streams", "FAIL", "1 without samples"},
        {"port that can't be opened", fault("canBind", 1), "errors", "WARN",
         "can1 of \"CAN Port 2 Input\" is not as wanted; it is not open (-112, No such device)"},
        {"port that can't be read", fault("canWait", 0), "ports", "WARN", "frames lost by reads that failed"},
        {"line gone", fault("sensorMissing", 13, 20), "lines", "WARN", "Cable detect 1 can't be read", later},
        {"slow cycles",
         {},
         "descriptors",
         "FAIL",
         "of 16 in one cycle",
         {"--cycle", "1000", "status", "--thresholds", limits}},
    };
    folder.write("limits.json", R"({"emptySlots": {"warn": 1}, "descriptors": {"warn": 7, "fail": 8}})");
    for (const Row& row : rows) {
        std::vector<std::string> arguments = row.arguments;
        arguments.insert(arguments.begin(), "--json");
        const auto result = Process::run(onInstrument(arguments, row.board));
        const size_t second = row.arguments == later ? result.out.find('\n') + 1 : 0;
        const Json report = Json::parse(result.out.substr(second), nullptr, false);
        ASSERT_TRUE(report.is_object()) << row.name << ": " << result.out << result.err;
        EXPECT_EQ(result.exitCode, row.state == std::string("FAIL") ? 1 : 0) << row.name;
        EXPECT_EQ(report["state"], row.state) << row.name << result.out;
        bool found = *row.key == '\0';
        for (const Json& line : report["lines"]) {
            const std::string text = line["text"];
            if (line["key"] == row.key) {
                found = true;
                EXPECT_EQ(line["state"], row.state) << row.name << ": " << text;
                EXPECT_NE(text.find(row.words), std::string::npos) << row.name << ": " << text;
            } else if (line["key"] != "errors" && row.name != std::string("sensor hangs") &&
                       row.name != std::string("hot") && row.name != std::string("no sensors")) {
                EXPECT_EQ(line["state"], "OK") << row.name << ": " << line["key"] << " " << text;
            }
        }
        EXPECT_TRUE(found) << row.name;
    }
}

// Whoever holds the instrument is asked; what it records is undisturbed and in the figures.
TEST_F(StatusProgram, AsksWhoeverHoldsTheInstrument) {
    const std::string lock = folder.path("lock");
    auto arguments = onInstrument({"record", "-o", folder.path("r.h5"), "-d", "60"});
    arguments.insert(arguments.begin() + 1, {"--lock", lock});
    Process recording(arguments);
    Process::Result status;
    const std::vector<std::string> asking{KESTRIX_ZORNHOST, "--lock", lock, "status"};
    ASSERT_TRUE(await([&] {
        status = Process::run(asking);
        return status.exitCode == 0 && status.out.find("Lost samples  none") != std::string::npos;
    })) << status.out
        << status.err << recording.errors();
    EXPECT_EQ(status.out.find("Held by record -o " + folder.path("r.h5") + "\n"), 0u) << status.out;
    EXPECT_NE(status.out.find("OK    Streams       4 channels"), std::string::npos) << status.out;
    const auto live = Process::run(
        {KESTRIX_ZORNHOST, "--lock", lock, "status", "--live", "--interval", "0.2", "-d", "0.9", "--explain"});
    EXPECT_GE(std::count(live.out.begin(), live.out.end(), '\n'), 40) << live.out;
    recording.signal(SIGINT);
    EXPECT_EQ(recording.wait().exitCode, 0);
    const auto nobody = Process::run({KESTRIX_ZORNHOST, "--lock", lock, "--module", "/nowhere.zmod", "status"});
    EXPECT_NE(nobody.exitCode, 0);
}

// Rings hold two seconds, those of status channels two hundred cycles: the monitor empties them more often than it
// prints.
TEST_F(StatusProgram, MonitorLosesNothingBetweenTwoReports) {
    const auto watched =
        Process::run(onInstrument({"--json", "--cycle", "5", "monitor", "--interval", "30", "-d", "29", "--channel",
                                   "Phase error", "--channel", "AI 1/*", "--channel", "CAN Port 1 Input"},
                                  {R"("can": {"buses": [{"bitrate": 500000, "cyclic": [{"id": 1, "data": "00",
                                      "periodSeconds": 0.01}]}, {"bitrate": 500000}]}, )",
                                   ""}));
    EXPECT_EQ(watched.exitCode, 0) << watched.out << watched.err;
    const Json report = Json::parse(watched.out);
    for (const Json& channel : report["channels"]) {
        EXPECT_EQ(channel["lost"], 0) << channel;
        const std::string name = channel["channel"];
        const double rate = channel["rate"];
        EXPECT_NEAR(rate, name.find("AI") == 0 ? 1000.0 : name.find("CAN") == 0 ? 100.0 : 200.0, 60.0) << name;
        EXPECT_EQ(channel["minimum"].is_null(), name.find("CAN") == 0) << "frames are no numbers: " << channel;
    }
    EXPECT_EQ(report["channels"].size(), 4u);
}

// Prometheus itself scrapes what is served, and its own checker has nothing against the format.
TEST_F(StatusProgram, PrometheusScrapesTheFigures) {
    const int port = freePort();
    Process serving(onInstrument({"status", "--listen", "127.0.0.1:" + std::to_string(port)},
                                 {"", R"({"kind": "sensorMissing", "target": 2, "atSeconds": 20, "times": -1})"}));
    std::string metrics;
    ASSERT_TRUE(await([&] {
        metrics = get(port, "/metrics");
        return metrics.find("kestrix_up 1") != std::string::npos;
    })) << serving.errors();
    folder.write("metrics", metrics);
    folder.write("check.sh", "promtool check metrics < " + folder.path("metrics") + "\n");
    const auto checked = Process::run({"/bin/sh", folder.path("check.sh")});
    EXPECT_EQ(checked.exitCode, 0) << checked.out << checked.err << metrics;

    const int server = freePort();
    folder.write("prometheus.yml",
                 "scrape_configs:\n  - job_name: kestrix\n    scrape_interval: 1s\n    static_configs:\n"
                 "      - targets: ['127.0.0.1:" +
                     std::to_string(port) + "']\n");
    Process prometheus({"/usr/bin/prometheus", "--config.file=" + folder.path("prometheus.yml"),
                        "--storage.tsdb.path=" + folder.path("tsdb"),
                        "--web.listen-address=127.0.0.1:" + std::to_string(server)});
    const auto query = [server](const std::string& expression) {
        const Json answer = Json::parse(get(server, "/api/v1/query?query=" + expression), nullptr, false);
        return answer.is_object() && answer.contains("data") ? answer["data"]["result"] : Json::array();
    };
    ASSERT_TRUE(await([&] { return query("kestrix_up").size() == 1; })) << prometheus.errors();
    const auto value = [&query](const std::string& expression) {
        const Json result = query(expression);
        return result.empty() ? std::string("nothing") : result[0]["value"][1].get<std::string>();
    };
    EXPECT_EQ(value("kestrix_channels"), "4");
    EXPECT_EQ(value("count(kestrix_amplifier_up==1)"), "2");
    EXPECT_TRUE(await([&] { return value("kestrix_health%7Bline=%22processorTemperature%22%7D") == "1"; }));
    EXPECT_EQ(value("sum(kestrix_sensor_up)"), "4");
    EXPECT_EQ(value("kestrix_clock_lock%7Bstate=%22free-running%22%7D"), "1");
    serving.signal(SIGINT);
    EXPECT_EQ(serving.wait().exitCode, 0);
    EXPECT_TRUE(await([&] { return value("up") == "0"; }));
}
