#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/endtoend/measurement/Bench.h"
#include "tools/zornhost/ClockPlot.h"
#include "tools/zornhost/ClockWatch.h"
#include "tools/zornhost/InstrumentSocket.h"

using namespace zornhost;

namespace {

constexpr int64_t second = 1000000;

// A clock whose looks are set by hand, a pulse each second.
struct HandClock {
    ClockWatch::Look look;
    std::string failure;
    ClockWatch watch{"PPS", false, [this] {
                         if (!failure.empty()) {
                             throw std::runtime_error(failure);
                         }
                         return look;
                     }};

    HandClock() { look.absTimeUs = 1795000000 * second; }
    void pulse(bool tracking, bool error, bool steered, double phaseNs, uint64_t pulses = 1) {
        look.pulses = look.row.pulse += pulses;
        look.absTimeUs += static_cast<int64_t>(pulses) * second;
        look.row.timeUs = look.absTimeUs;
        look.row.steered = steered;
        look.row.phaseErrorNs = phaseNs;
        look.row.frequencyErrorPpb = phaseNs / 2.0;
        look.tracking = tracking;
        look.error = error;
        watch.look();
        watch.look();  // a pulse counts once, however often it is seen
    }
    std::string state() const { return lockText(watch.report().lock); }
};

}  // namespace

TEST(ClockWatch, TellsLockHoldAndLossApart) {
    HandClock clock;
    clock.look.acquisitionTimeS = 1.0;
    const struct {
        bool tracking, error, steered;
        const char* lock;
        const char* obstacle;
    } steps[] = {
        {false, false, true, "not locked", "the frequency is being pulled in"},
        {false, false, false, "not locked", "the reference is away"},
        {true, true, true, "not locked", "the frequency is locked, the phase comes with the next start"},
        {true, false, true, "locked", ""},
        {false, false, false, "holding", "the reference is away"},
        {true, false, true, "locked", ""},
        {false, true, true, "not locked", "the phase is out of reach: it takes a new start"},
        {false, false, false, "not locked", "the reference is away"},  // what is lost is not held
    };
    size_t next = 0;
    size_t changes = 0;
    std::string before;
    for (const auto& step : steps) {
        SCOPED_TRACE(&step - steps);
        clock.pulse(step.tracking, step.error, step.steered, 100.0);
        EXPECT_EQ(clock.state(), step.lock);
        EXPECT_EQ(clock.watch.report().obstacle(), step.obstacle);
        EXPECT_EQ(clock.watch.report().errorBoundNs.has_value(), step.lock != std::string("not locked"));
        const auto fresh = clock.watch.changes(next);
        EXPECT_EQ(fresh.size(), before == step.lock ? 0u : 1u);
        changes += fresh.size();
        before = step.lock;
    }
    EXPECT_EQ(next, changes);

    // Who follows PTP is told of its port; who doesn't isn't.
    ClockReport ptp = clock.watch.report();
    ptp.ptpPort = "timeout";
    EXPECT_EQ(describe(ptp).find("PTP port"), std::string::npos);
    ptp.mode = "PTP";
    EXPECT_EQ(ptp.obstacle(), "the PTP port: the PTP daemon gives no answer (timeout)");
    ptp.ptpPort = "LISTENING";
    EXPECT_EQ(ptp.obstacle(), "the PTP port: LISTENING");

    // Who can't be asked isn't locked, and the reason is told; what was seen stays.
    clock.pulse(true, false, true, 1.0);
    clock.failure = "the bus is gone";
    clock.watch.look();
    EXPECT_EQ(clock.state() + ": " + clock.watch.report().obstacle(), "not locked: the bus is gone");
    EXPECT_EQ(clock.watch.rows().size(), std::size(steps) + 1);
    clock.failure.clear();
    clock.pulse(true, false, true, 1.0);
    EXPECT_EQ(clock.state(), "locked");
}

TEST(ClockWatch, FiguresAreThoseOfTheLockedPulsesOfAMinute) {
    HandClock clock;
    clock.pulse(true, true, true, 1e6);  // pulled in: no figure of the lock
    clock.pulse(true, false, true, 5000.0);
    for (int i = 0; i < 60; ++i) {
        clock.pulse(true, false, true, i % 2 == 0 ? 30.0 : -10.0);
    }
    ClockReport report = clock.watch.report();
    EXPECT_EQ(report.figures.pulses, 60u);
    EXPECT_NEAR(report.figures.meanNs, 10.0, 1e-9);
    EXPECT_NEAR(report.figures.meanPpb, 5.0, 1e-9);
    EXPECT_NEAR(report.figures.rmsNs, std::sqrt((30.0 * 30.0 + 10.0 * 10.0) / 2.0), 1e-9);
    EXPECT_NEAR(report.errorBoundNs.value(), 30.0, 1e-9);
    // Without a lock the bound grows with each second, and what is measured meanwhile is no figure of the lock.
    for (int i = 0; i < 100; ++i) {
        clock.pulse(false, false, i % 2 == 0, -2500.0);
    }
    report = clock.watch.report();
    EXPECT_EQ(report.figures.pulses, 0u);
    EXPECT_NEAR(report.errorBoundNs.value(), 30.0 + 98.0 * 350.0, 1.0);
    EXPECT_EQ(report.missedPulses, 0u);
    clock.pulse(true, false, true, 7.0, 4);
    EXPECT_EQ(clock.watch.report().missedPulses, 3u);

    // What another process is told is the same, and rows are told once.
    const auto answer = nlohmann::ordered_json::parse(clock.watch.answer("history 160"));
    EXPECT_EQ(describe(clockReportFromJson(answer["clock"])), describe(clock.watch.report()));
    ASSERT_EQ(answer["rows"].size(), 3u);
    EXPECT_EQ(csvRow(clockRowFromJson(answer["rows"][2])), csvRow(clock.watch.rows(165).at(0)));
    EXPECT_THROW(clockReportFromJson({{"mode", "PPS"}}), std::runtime_error);
}

TEST(ClockWatch, ADayIsKeptAndNoMore) {
    HandClock clock;
    for (int i = 0; i < 86400 + 50; ++i) {
        clock.look.pulses = clock.look.row.pulse += 1;
        clock.look.tracking = i % 2 == 0;
        clock.look.error = !clock.look.tracking;
        clock.watch.look();
    }
    EXPECT_EQ(clock.watch.rows().size(), 86400u);
    EXPECT_EQ(clock.watch.rows().front().pulse, 51u);
    size_t next = 86450 - 10;
    EXPECT_EQ(clock.watch.changes(next).size(), 10u);
    EXPECT_EQ(next, 86450u);
    EXPECT_EQ(clock.watch.changes(next).size(), 0u);
}

TEST(ClockPlot, IsDrawnOrRefused) {
    const std::string folder = std::filesystem::temp_directory_path() / ("clock-plot-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    std::vector<ClockRow> rows(100);
    for (size_t i = 0; i < rows.size(); ++i) {
        rows[i] = {i + 1,
                   static_cast<int64_t>(i) * second,
                   true,
                   i < 10 ? Lock::NotLocked : Lock::Locked,
                   i == 0 ? -1e9 : std::sin(static_cast<double>(i)) * 100.0,
                   0.0,
                   506,
                   506.0};
    }
    const auto beginning = [](const std::string& file, size_t count) {
        std::ifstream stream(file);
        std::string text(count, ' ');
        stream.read(text.data(), static_cast<std::streamsize>(count));
        return text;
    };
    drawClockPlot(folder + "/a.png", "PPS", rows);
    drawClockPlot(folder + "/a.svg", "PPS", rows);
    drawClockPlot(folder + "/one.png", "PPS", {rows[0]});
    EXPECT_EQ(beginning(folder + "/a.png", 4), "\x89PNG");
    EXPECT_EQ(beginning(folder + "/a.svg", 5), "<?xml");
    for (const auto& [file, rowsOf] : {std::pair{folder + "/a.jpg", rows},
                                       {folder + "/none.png", {}},
                                       {folder + "/nowhere/a.png", rows},
                                       {folder + "/nowhere/a.svg", rows}}) {
        EXPECT_THROW(drawClockPlot(file, "PPS", rowsOf), std::runtime_error) << file;
    }
    std::filesystem::remove_all(folder);
}

TEST(InstrumentSocket, AnswersWhoAsksAndLeavesWhoDoesNot) {
    const std::string folder = std::filesystem::temp_directory_path() / ("socket-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    const std::string file = folder + "/kestrix-1.sock";
    const std::string big(3000000, 'x');
    const auto answer = [&big](const std::string& request) {
        if (request == "fail") {
            throw std::runtime_error("no\nidea");
        }
        return request == "big" ? big : "<" + request + ">";
    };
    const auto failure = [](const std::string& at, const std::string& request) {
        try {
            InstrumentSocket::ask(at, request);
        } catch (const std::runtime_error& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    EXPECT_NE(failure(file, "clock").find("nobody answers there"), std::string::npos);
    {
        // One that a killed process has left is replaced; a file is not.
        const int left = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{AF_UNIX, {}};
        std::strncpy(address.sun_path, file.c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(::bind(left, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        ::close(left);
        std::ofstream(folder + "/file") << "kept";
        EXPECT_THROW(InstrumentSocket(folder + "/file", answer), std::runtime_error);
        EXPECT_TRUE(std::filesystem::exists(folder + "/file"));

        const auto mask = ::umask(0);
        InstrumentSocket socket(file, answer);
        ::umask(mask);
        struct stat status {};
        ASSERT_EQ(::stat(file.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777u, 0660u);

        // Clients that say nothing, that ask without end, and that don't read the answer.
        std::vector<int> clients;
        for (const std::string& text : {std::string(), std::string(5000, 'a'), std::string("big\n")}) {
            clients.push_back(::socket(AF_UNIX, SOCK_STREAM, 0));
            ASSERT_EQ(::connect(clients.back(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
            ::send(clients.back(), text.data(), text.size(), MSG_NOSIGNAL);
        }
        EXPECT_EQ(InstrumentSocket::ask(file, "clock"), "<clock>");
        EXPECT_EQ(InstrumentSocket::ask(file, "big"), big);
        EXPECT_NE(failure(file, "fail").find("no idea"), std::string::npos);
        for (const int client : clients) {
            ::close(client);
        }
    }
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_NE(failure(std::string(200, 'a'), "clock"), "");
    std::filesystem::remove_all(folder);
}
