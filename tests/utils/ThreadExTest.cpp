#include "libraries/utils/ThreadEx.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace {

using namespace Harvane::Utils::Threading;

class FunctionThread : public ThreadEx {
public:
    explicit FunctionThread(std::function<void(FunctionThread&)> body) : body_(std::move(body)) {}
    ~FunctionThread() override { stop(); }
    void execute() override { body_(*this); }

private:
    std::function<void(FunctionThread&)> body_;
};

void runUntilTerminated(FunctionThread& thread) {
    while (!thread.getTerminated()) {
        std::this_thread::yield();
    }
}

struct Collector : ThreadExceptionAdapter {
    void handleException(const std::string& text) override {
        texts.push_back(text);
        if (failItself) {
            throw std::runtime_error("adapter");
        }
    }
    std::vector<std::string> texts;  // read after the join
    bool failItself = false;
};

TEST(ThreadEx, runsFromStartUntilStopAndCanStartAgain) {
    int runs = 0;
    FunctionThread thread([&runs](FunctionThread& self) {
        ++runs;
        runUntilTerminated(self);
    });
    thread.stop();  // there is nothing to stop yet
    EXPECT_FALSE(thread.getStarted());
    for (int run = 1; run <= 2; ++run) {
        thread.start();
        EXPECT_TRUE(thread.getStarted());
        EXPECT_FALSE(thread.getTerminated());
        EXPECT_FALSE(thread.getFinished());
        thread.stop();
        EXPECT_FALSE(thread.getStarted());
        EXPECT_TRUE(thread.getFinished());
        EXPECT_EQ(runs, run);
    }
}

TEST(ThreadEx, secondStartIsRefusedUntilTheThreadIsJoined) {
    FunctionThread thread(runUntilTerminated);
    const auto refusal = [&thread] {
        try {
            thread.start();
            return std::string();
        } catch (const std::runtime_error& failure) {
            return std::string(failure.what());
        }
    };
    EXPECT_EQ(refusal(), "");
    EXPECT_EQ(refusal(), "Thread is already started.");
    EXPECT_FALSE(thread.getFinished());
    EXPECT_FALSE(thread.getTerminated());
    thread.terminate();
    while (!thread.getFinished()) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(thread.getStarted());
    EXPECT_EQ(refusal(), "Thread is already started.");
    thread.waitFor();
    EXPECT_FALSE(thread.getStarted());
}

// What the process's reporter hears while this lives, as "thread: text".
struct Reports {
    explicit Reports(bool failItself = false) {
        ThreadEx::setReporter([this, failItself](const char* thread, const std::string& text) {
            texts.push_back(std::string(thread) + ": " + text);
            if (failItself) {
                throw std::runtime_error("reporter");
            }
        });
    }
    ~Reports() { ThreadEx::setReporter({}); }
    std::vector<std::string> texts;  // read after the join
};

TEST(ThreadEx, exceptionOfTheBodyIsToldInWordsAndTheThreadEndsInOrder) {
    class Wordless : public std::exception {
        const char* what() const noexcept override { return nullptr; }
    };
    struct {
        std::function<void(FunctionThread&)> body;
        const char* text;
        bool adapterFails = false;
        bool reporterFails = false;
    } const cases[] = {
        {[](FunctionThread&) { throw std::runtime_error("no such register"); }, "ended: no such register"},
        {[](FunctionThread&) { throw 7; }, "ended: Unknown exception."},
        {[](FunctionThread&) { throw Wordless(); }, "ended: Unknown exception."},
        {[](FunctionThread&) {
             try {
                 throw std::system_error(ENOENT, std::generic_category(), "/dev/mem");
             } catch (...) {
                 std::throw_with_nested(std::runtime_error("Cannot open file\n"));
             }
         },
         "ended: Cannot open file (/dev/mem: No such file or directory)"},
        {[](FunctionThread&) { throw std::runtime_error("twice"); }, "ended: twice", true},
        {[](FunctionThread&) { throw std::runtime_error("thrice"); }, "ended: thrice", true, true},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.text);
        Collector collector;
        collector.failItself = entry.adapterFails;
        FunctionThread thread(entry.body);
        thread.setName("clock discipline");
        thread.setExceptionAdapter(&collector);
        Reports reports(entry.reporterFails);
        for (const size_t runs : {1u, 2u}) {
            thread.start();
            thread.waitFor();
            EXPECT_TRUE(thread.getFinished());
            EXPECT_EQ(reports.texts, std::vector<std::string>(runs, std::string("clock discipline: ") + entry.text));
            EXPECT_EQ(collector.texts, std::vector<std::string>{entry.text});
            thread.setExceptionAdapter(nullptr);
        }
    }
    // Nobody to tell at all.
    FunctionThread thread(cases[0].body);
    thread.start();
    thread.waitFor();
    EXPECT_TRUE(thread.getFinished());
}

// Whoever takes the reporter away may destroy what it uses.
TEST(ThreadEx, reporterIsInUseNoMoreOnceItIsReplaced) {
    std::atomic<bool> inUse{false};
    std::promise<void> entered;
    ThreadEx::setReporter([&](const char*, const std::string&) {
        inUse = true;
        entered.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        inUse = false;
    });
    FunctionThread thread([](FunctionThread&) { throw 1; });
    thread.start();
    const auto status = entered.get_future().wait_for(std::chrono::seconds(10));
    ThreadEx::setReporter({});
    EXPECT_EQ(status, std::future_status::ready);
    EXPECT_FALSE(inUse);
}

TEST(ThreadEx, nameIsCutToWhatTheKernelKeeps) {
    for (const auto& [name, kept] : {std::pair{"phaseTimer", "phaseTimer"},
                                     {"fifteen letters", "fifteen letters"},
                                     {"sixteen letters!", "sixteen letters"}}) {
        std::array<char, 32> result{};
        FunctionThread thread(
            [&](FunctionThread&) { pthread_getname_np(pthread_self(), result.data(), result.size()); });
        thread.setName(name);
        thread.start();
        thread.waitFor();
        EXPECT_STREQ(result.data(), kept);
        EXPECT_EQ(thread.getName(), name);
    }
}

}  // namespace
