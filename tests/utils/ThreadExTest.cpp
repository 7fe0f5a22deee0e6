#include "libraries/utils/ThreadEx.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <functional>
#include <future>
#include <stdexcept>
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

class Collector : public ThreadExceptionAdapter {
public:
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

TEST(ThreadEx, exceptionOfTheBodyEndsInTheAdapterAndTheThreadEndsInOrder) {
    struct {
        std::function<void(FunctionThread&)> body;
        const char* text;
        bool adapterFails;
    } const cases[] = {
        {[](FunctionThread&) { throw std::runtime_error("no such register"); }, "no such register", false},
        {[](FunctionThread&) { throw 7; }, "Unknown exception.", false},
        {[](FunctionThread&) { throw std::runtime_error("twice"); }, "twice", true},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.text);
        Collector collector;
        collector.failItself = entry.adapterFails;
        FunctionThread thread(entry.body);
        thread.setExceptionAdapter(&collector);
        thread.start();
        thread.waitFor();
        EXPECT_TRUE(thread.getFinished());
        EXPECT_EQ(collector.texts, std::vector<std::string>{entry.text});
        thread.setExceptionAdapter(nullptr);
        thread.start();
        thread.waitFor();
        EXPECT_TRUE(thread.getFinished());
    }
}

TEST(ThreadEx, nameIsCutToWhatTheKernelKeeps) {
    const auto nameAfter = [](const char* name) {
        std::array<char, 32> result{};
        FunctionThread thread([&](FunctionThread&) {
            ThreadEx::setThreadName(name);
            pthread_getname_np(pthread_self(), result.data(), result.size());
        });
        thread.start();
        thread.waitFor();
        return std::string(result.data());
    };
    EXPECT_EQ(nameAfter("phaseTimer"), "phaseTimer");
    EXPECT_EQ(nameAfter("fifteen letters"), "fifteen letters");
    EXPECT_EQ(nameAfter("sixteen letters!"), "sixteen letters");
}

}  // namespace
