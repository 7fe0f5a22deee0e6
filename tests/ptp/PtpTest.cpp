#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "libraries/protocols/ptp/PTPApi.h"
#include "libraries/protocols/ptp/print.h"
#include "libraries/protocols/ptp/replies.h"
#include "simulator/preload/Control.h"

using namespace kestrixsim;
using Error = PTPApi::ErrorCondition;
using State = PTPApi::PortState;
using testing::HasSubstr;

namespace {

using Milliseconds = std::chrono::milliseconds;

const std::string daemonPath = "/var/run/ptp4l";

std::string clientPath(int number = 1) {
    return "/var/run/ptpapi." + std::to_string(getpid()) + (number > 1 ? "." + std::to_string(number) : "");
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

// One line for whatever came of a question.
template <typename T>
std::string told(const PTPApi::Result<T>& result) {
    if (!result) {
        return PTPApi::to_string(result.error());
    }
    if constexpr (std::is_same_v<T, std::string>) {
        return *result;
    } else if constexpr (std::is_same_v<T, bool>) {
        return *result ? "yes" : "no";
    } else {
        return PTPApi::to_string(*result);
    }
}

// The daemon of a fresh instrument whose time is moved by hand, as a slave that has settled.
struct Ptp : testing::Test {
    Ptp() : instrument_(reset(scenario(), [this] { return now_.load(); })) {
        script("slave");
        pass(10.0);
    }

    static Scenario scenario() {
        Scenario scenario;
        scenario.ptp.clockIdentity = 0x02A0B1FFFEC2D3E4;
        scenario.ptp.grandmaster = 0x02112233FFFE4455;
        return scenario;
    }

    // As the module's platform does it.
    void script(const std::string& role) {
        for (const std::string& argument : {role, std::string("restart")}) {
            FILE* stream = ::popen(("/opt/harvane/scripts/ptp_control.sh " + argument).c_str(), "re");
            char reply[8] = {};
            ASSERT_NE(std::fgets(reply, sizeof reply, stream), nullptr);
            EXPECT_STREQ(reply, "OK:\n");
            ::pclose(stream);
        }
    }

    void pass(double seconds) { now_ = now_ + seconds; }

    std::atomic<double> now_{1000.0};
    Instrument& instrument_;
};

// ---- Answers -------------------------------------------------------------------------------------------------------

TEST_F(Ptp, RolesTimeAndNetworkMakeTheAnswers) {
    PTPApi api({});
    const std::string own = "02a0b1.fffe.c2d3e4";
    const std::string foreign = "021122.33ff.fe4455";
    const auto all = [&] {
        return told(api.port_state()) + " " + told(api.port_identity()) + " " + told(api.gm_identity()) + " " +
               told(api.gm_present());
    };
    EXPECT_EQ(all(), "SLAVE " + own + "-1 " + foreign + " yes");
    // seconds: since the restart.
    const std::tuple<const char*, double, const char*> steps[] = {
        {"slave", 0.5, "LISTENING"},         {"slave", 1.5, "UNCALIBRATED"}, {"slave", 3.5, "SLAVE"},
        {"master", 0.5, "PRE_MASTER"},       {"master", 1.5, "MASTER"},      {"master pps", 0.5, "PRE_MASTER"},
        {"master standalone", 1.5, "MASTER"}};
    for (const auto& [role, seconds, state] : steps) {
        script(role);
        pass(seconds);
        const bool follows = std::string(role) == "slave" && seconds > 1.0;
        EXPECT_EQ(all(), std::string(state) + " " + own + "-1 " + (follows ? foreign + " yes" : own + " no"))
            << role << " after " << seconds << " s";
    }
    script("slave");
    pass(10.0);
    PtpScenario network = instrument_.scenario().ptp;
    network.masterPresent = false;
    instrument_.setPtpNetwork(network);
    EXPECT_EQ(all(), "LISTENING " + own + "-1 " + own + " no");
    network.linkUp = false;
    instrument_.setPtpNetwork(network);
    EXPECT_EQ(told(api.port_state()), "FAULTY");
    network = {.clockIdentity = 0xFFFFFFFFFFFFFFFF, .grandmaster = 0};
    instrument_.setPtpNetwork(network);
    pass(10.0);
    EXPECT_EQ(all(), "SLAVE ffffff.ffff.ffffff-1 000000.0000.000000 yes");
}

TEST(PtpTexts, OfAllNumbers) {
    const char* const states[] = {"NONE",   "INITIALIZING", "FAULTY",       "DISABLED", "LISTENING",    "PRE_MASTER",
                                  "MASTER", "PASSIVE",      "UNCALIBRATED", "SLAVE",    "GRAND_MASTER", "unknown"};
    for (size_t i = 0; i < std::size(states); ++i) {
        EXPECT_EQ(PTPApi::to_string(static_cast<State>(i)), states[i]);
    }
    const char* const errors[] = {"ok", "timeout", "io_error", "parse_error", "unknown"};
    for (size_t i = 0; i < std::size(errors); ++i) {
        EXPECT_EQ(PTPApi::to_string(static_cast<Error>(i)), errors[i]);
    }
    EXPECT_EQ(Harvane::Ptp::pid2str({{0, 1, 2, 0xAB, 0xCD, 0xEF, 0xFE, 0xFF}, 65535}), "000102.abcd.effeff-65535");
}

TEST_F(Ptp, WhatIsLoggedStaysWithinTheLevels) {
    const std::pair<PTPApi::Config, const char*> cases[] = {{{1, 9}, "ptp: debug\nptp: error\n"},
                                                            {{1, 6}, "ptp: error\n"},
                                                            {{1, -1}, ""},
                                                            {{0, 7}, ""},
                                                            {{-5, 3}, "ptp: error\n"}};
    for (const auto& [config, printed] : cases) {
        PTPApi api(config);
        testing::internal::CaptureStdout();
        Harvane::Ptp::print(8, "nothing");
        Harvane::Ptp::print(7, "debug");
        Harvane::Ptp::print(3, "error");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), printed);
    }
}

// ---- The daemon comes and goes -------------------------------------------------------------------------------------

TEST_F(Ptp, WithoutADaemonEachQuestionTimesOut) {
    script("disable");
    EXPECT_FALSE(exists(daemonPath));
    testing::internal::CaptureStdout();
    PTPApi api({.verbose = 1, .logging_level = 3});
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(told(api.gm_present()), "timeout");
    EXPECT_GE(std::chrono::steady_clock::now() - before, Milliseconds(100));
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("uds: sendto failed: No such file"));
    // Its successor is found by the same client; so is the one after a crash, which leaves a name that refuses.
    script("master");
    EXPECT_EQ(told(api.port_state()), "PRE_MASTER");
    instrument_.crashPtpDaemon();
    testing::internal::CaptureStdout();
    EXPECT_EQ(told(api.port_state()), "timeout");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "a daemon that isn't there is no failure to report";
    EXPECT_TRUE(exists(daemonPath));
    instrument_.restartPtpDaemon();
    pass(5.0);
    EXPECT_EQ(told(api.port_state()), "MASTER");
    // What a restarted daemon was asked before is lost.
    instrument_.inject({.kind = FaultKind::PtpLate, .code = 2000});
    EXPECT_EQ(told(api.gm_present()), "timeout");
    instrument_.restartPtpDaemon();
    pass(5.0);
    EXPECT_EQ(told(api.port_state()), "MASTER");
}

TEST_F(Ptp, ADaemonThatStandsStillHoldsNobodyUp) {
    PTPApi api({});
    instrument_.hangPtpDaemon(true);
    const sockaddr_un daemon = addressOf(daemonPath);
    const int other = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const auto fill = [&] {
        return ::sendto(other, "", 0, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&daemon), sizeof daemon);
    };
    while (fill() == 0) {
    }
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(told(api.port_state()), "timeout") << "and no wait for room in its queue";
    instrument_.hangPtpDaemon(false);
    EXPECT_EQ(told(api.port_state()), "SLAVE");
    ::close(other);
}

// ---- Faults of the daemon ------------------------------------------------------------------------------------------

TEST_F(Ptp, EachFaultIsOneErrorAndNoMore) {
    const std::pair<Fault, const char*> cases[] = {
        {{.kind = FaultKind::PtpLost}, "timeout"},
        {{.kind = FaultKind::PtpGarbled}, "parse_error"},
        {{.kind = FaultKind::PtpWrongId}, "parse_error"},
        {{.kind = FaultKind::PtpOversized}, "parse_error"},
        {{.kind = FaultKind::PtpOversized, .code = 1501}, "parse_error"},
        {{.kind = FaultKind::PtpErrorStatus}, "parse_error"},
        {{.kind = FaultKind::PtpErrorStatus, .code = 1}, "parse_error"},
        {{.kind = FaultKind::PtpBadVersion}, "parse_error"},
        {{.kind = FaultKind::PtpBadVersion, .code = 3}, "parse_error"},
    };
    PTPApi api({});
    for (const auto& [fault, words] : cases) {
        SCOPED_TRACE(testing::Message() << static_cast<int>(fault.kind) << " " << fault.code);
        instrument_.inject(fault);
        EXPECT_EQ(told(api.port_state()), words);
        EXPECT_EQ(told(api.gm_identity()), "021122.33ff.fe4455");
        instrument_.inject(fault);
        EXPECT_EQ(told(api.gm_identity()), words);
        EXPECT_EQ(told(api.port_state()), "SLAVE");
        instrument_.clearFaults();
    }
}

// A late or doubled answer serves the next question of its kind. To another question it is an error, after which the
// client is in step again within one round.
TEST_F(Ptp, AnAnswerTooManyShiftsNothingForLong) {
    PTPApi api({});
    const auto round = [&] {  // in the module's order
        const std::string state = told(api.port_state());
        const std::string identity = told(api.port_identity());
        return state + " " + identity + " " + told(api.gm_identity());
    };
    const std::string good = "SLAVE 02a0b1.fffe.c2d3e4-1 021122.33ff.fe4455";
    instrument_.inject({.kind = FaultKind::PtpLate, .code = 150});
    EXPECT_EQ(told(api.gm_present()), "timeout");
    pass(1.0);
    instrument_.setPtpNetwork({.masterPresent = false});
    EXPECT_EQ(told(api.gm_present()), "yes") << "the late one, from before";
    instrument_.setPtpNetwork(scenario().ptp);
    pass(10.0);
    EXPECT_EQ(told(api.gm_present()), "no") << "and so on";
    EXPECT_EQ(told(api.port_state()), "parse_error");
    EXPECT_EQ(round(), good);
    for (const int before : {0, 1, 2}) {
        instrument_.inject({.kind = FaultKind::PtpTwice, .afterCount = static_cast<uint64_t>(before)});
        const std::string first = round();
        const std::string second = round();
        EXPECT_EQ(before == 2 ? second : first, before == 2 ? "parse_error 02a0b1.fffe.c2d3e4-1 021122.33ff.fe4455"
                                                            : "SLAVE 02a0b1.fffe.c2d3e4-1 parse_error");
        EXPECT_EQ(before == 2 ? first : second, good);
        EXPECT_EQ(round(), good);
        instrument_.clearFaults();
    }
}

// ---- The socket ----------------------------------------------------------------------------------------------------

TEST_F(Ptp, TheNameIsMadeGuardedAndRemoved) {
    const auto first = std::make_unique<PTPApi>(PTPApi::Config{});
    struct stat status {};
    ASSERT_EQ(::stat(clientPath().c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0660u);
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        sockaddr_un name{};
        socklen_t length = sizeof name;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&name), &length) == 0 && clientPath() == name.sun_path) {
            EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
        }
    }
    // Each client of a process has its own answers, and a name that has been given back is used again.
    auto second = std::make_unique<PTPApi>(PTPApi::Config{});
    auto third = std::make_unique<PTPApi>(PTPApi::Config{});
    for (PTPApi* api : {first.get(), second.get(), third.get()}) {
        EXPECT_EQ(told(api->port_state()), "SLAVE");
    }
    EXPECT_TRUE(exists(clientPath(2)) && exists(clientPath(3)));
    second.reset();
    EXPECT_FALSE(exists(clientPath(2)));
    second = std::make_unique<PTPApi>(PTPApi::Config{});
    EXPECT_TRUE(exists(clientPath(2)));
    EXPECT_FALSE(exists(clientPath(4)));
    EXPECT_EQ(told(second->gm_present()), "yes");
    EXPECT_EQ(told(first->gm_present()), "yes");
}

TEST_F(Ptp, ANameThatADeadProcessLeftIsTakenOver) {
    const int dead = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un name = addressOf(clientPath());
    ASSERT_EQ(::bind(dead, reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
    ::close(dead);
    PTPApi api({});
    EXPECT_EQ(told(api.port_state()), "SLAVE");
    EXPECT_FALSE(exists(clientPath(2)));
    // Nowhere to make the name.
    std::filesystem::remove_all(rootFolder() + "/var/run");
    EXPECT_THROW(PTPApi({}), PTPApi::RuntimeError);
}

TEST_F(Ptp, TwoClientsOnTwoThreads) {
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 20; ++round) {
                PTPApi api({});
                for (int question = 0; question < 10; ++question) {
                    good += api.port_state() == State::SLAVE && api.gm_present() == true;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(good, 400);
}

// A stranger's datagram is an error once. It doesn't lead the next questions away, nor does one without an address.
TEST_F(Ptp, WhoeverSendsDoesNotBecomeTheDaemon) {
    PTPApi api({});
    const sockaddr_un client = addressOf(clientPath());
    for (const bool named : {false, true}) {
        const int stranger = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const sockaddr_un name = addressOf(clientPath() + ".stranger");
        if (named) {
            ASSERT_EQ(::bind(stranger, reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
        }
        EXPECT_EQ(::sendto(stranger, "", 0, 0, reinterpret_cast<const sockaddr*>(&client), sizeof client), 0);
        EXPECT_EQ(told(api.port_state()), "parse_error") << "an empty datagram";
        EXPECT_EQ(told(api.port_state()), "SLAVE");
        ::close(stranger);
    }
}

// ---- Waiting -------------------------------------------------------------------------------------------------------

class PtpSignals : public Ptp {
protected:
    PtpSignals() {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, &before_);
    }
    ~PtpSignals() override {
        every(Milliseconds(0), Milliseconds(0));
        sigaction(SIGALRM, &before_, nullptr);
    }

    void every(Milliseconds first, Milliseconds interval) {
        const itimerval timer{{0, interval.count() * 1000}, {0, first.count() * 1000}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }

private:
    struct sigaction before_ {};
};

TEST_F(PtpSignals, StartTheWaitAnewAndEndIt) {
    // The answer comes 160 ms after the question, with a signal half-way.
    reset(scenario()).inject({.kind = FaultKind::PtpLate, .code = 160});
    script("slave");
    PTPApi api({});
    every(Milliseconds(80), Milliseconds(0));
    EXPECT_EQ(told(api.port_state()), "LISTENING");
    // Signals without end, and no answer.
    instrument().inject({.kind = FaultKind::PtpLost});
    every(Milliseconds(20), Milliseconds(20));
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(told(api.port_state()), "timeout");
    EXPECT_GE(std::chrono::steady_clock::now() - before, Milliseconds(950));
}

}  // namespace
