#include <atomic>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <memory>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include <zorn/types/values.h>

#include "tests/host/runtime/RecordingSink.h"

using namespace Harvane::RT::Core;

namespace {

ObjectPtr<ILogger> logger(const char* name) {
    ILogger* raw = nullptr;
    checkErrorInfo(zornGetLogger(name, &raw));
    return ObjectPtr<ILogger>::take(raw);
}

void message(const char* name, int level, const char* text) {
    ASSERT_EQ(zornLogMessageWithSource(name, level, "file.cpp", 12, "function", text), Errors::Success);
}

std::vector<std::string> linesOf(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

}  // namespace

TEST(Logger, NamesAndLevels) {
    ILogger* raw = nullptr;
    EXPECT_EQ(zornGetLogger("unknown name", &raw), Errors::NotFound);
    EXPECT_EQ(raw, nullptr);
    EXPECT_NE(takeErrorMessage().find("unknown name"), std::string::npos);
    EXPECT_EQ(zornCreateLogger("names", 1), Errors::Success);
    EXPECT_EQ(zornCreateLogger("names", 2), Errors::AlreadyExists);
    EXPECT_EQ(zornCreateLogger("wrong", 7), Errors::InvalidParameter);
    EXPECT_EQ(zornCreateLogger("wrong", -1), Errors::InvalidParameter);
    EXPECT_EQ(zornGetLogger("wrong", &raw), Errors::NotFound);
    zornClearErrorInfo();

    const auto named = logger("names");
    int level = 9;
    checkErrorInfo(named->getLevel(&level));
    EXPECT_EQ(level, 1) << "the refused second creation changes nothing";
    checkErrorInfo(named->setLevel(0));
    checkErrorInfo(named->setLevel(0));
    checkErrorInfo(named->getLevel(&level));
    EXPECT_EQ(level, 0);
    EXPECT_THROW(checkErrorInfo(named->setLevel(7)), InvalidParameterException);
    EXPECT_TRUE(logger("names") == named);
}

TEST(Logger, LevelOfLoggerAndSinkDecide) {
    checkErrorInfo(zornCreateLogger("levels", 0));
    const auto named = logger("levels");
    for (int loggerLevel = 0; loggerLevel <= 6; ++loggerLevel) {
        checkErrorInfo(named->setLevel(loggerLevel));
        for (int sinkLevel = 0; sinkLevel <= 5; ++sinkLevel) {
            RecordingSink sink("levels", sinkLevel);
            for (int level = 0; level <= 5; ++level) {
                message("levels", level, std::to_string(level).c_str());
                checkErrorInfo(named->log(level, nullptr, 0, nullptr, std::to_string(level).c_str()));
            }
            std::vector<std::string> expected;
            for (int level = std::max(loggerLevel, sinkLevel); level <= 5; ++level)
                expected.insert(expected.end(), 2, std::to_string(level));
            EXPECT_EQ(sink.messages(), expected) << loggerLevel << " " << sinkLevel;
        }
    }
}

TEST(Logger, UnknownLoggerGoesToTheSinks) {
    RecordingSink sink("nobody made it");
    message("nobody made it", 0, "text");
    message("nobody made it", 99, "beyond");
    const auto lines = sink.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, 0);
    EXPECT_EQ(lines[1].level, 5);
    EXPECT_EQ(zornLogMessageWithSource(nullptr, 1, nullptr, 0, nullptr, nullptr), Errors::Success);
}

TEST(Logger, ThreadsWriteOneAtATime) {
    struct Sink : ILogSink {
        void write(const LogRecord&) override {
            overlapped = overlapped || inside.exchange(true);
            ++count;  // plain: the dispatcher is what protects it
            inside = false;
        }
        std::atomic<bool> inside{false};
        std::atomic<bool> overlapped{false};
        int count = 0;
    };
    checkErrorInfo(zornCreateLogger("threads", 0));
    Sink sink;
    addLogSink(&sink, 0);
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 500; ++i)
                message("threads", 3, "text");
        });
    }
    // Sinks come and go meanwhile; none may be called once it has been removed.
    std::thread changer([&] {
        while (!done)
            std::make_unique<RecordingSink>();
    });
    for (auto& thread : threads)
        thread.join();
    done = true;
    changer.join();
    removeLogSink(&sink);
    message("threads", 3, "after");
    EXPECT_EQ(sink.count, 2000);
    EXPECT_FALSE(sink.overlapped);
}

TEST(Logger, SinkThatLogsOrFailsHarmsNobody) {
    struct Sink : ILogSink {
        void write(const LogRecord&) override {
            ++calls;
            zornLogMessageWithSource("inner", 5, nullptr, 0, nullptr, "from a sink");
            throw std::runtime_error("full");
        }
        int calls = 0;
    };
    Sink bad;
    addLogSink(&bad, 0);
    RecordingSink good;
    message("outer", 5, "text");
    message("outer", 5, "again");
    removeLogSink(&bad);
    EXPECT_EQ(bad.calls, 2);
    EXPECT_EQ(good.messages(), (std::vector<std::string>{"text", "again"}));
}

TEST(Logger, FileSinkAppendsOneLineAMessage) {
    const std::string path = testing::TempDir() + "zorn-log-" + std::to_string(getpid()) + ".txt";
    std::remove(path.c_str());
    const char* texts[] = {"plain", "ends in a line feed\n", "two\nlines\tand a tab"};
    for (const char* text : texts) {
        std::unique_ptr<ILogSink> sink(createFileSink(path.c_str()));
        ASSERT_TRUE(sink);
        addLogSink(sink.get(), 0);
        message("file test", 4, text);
        removeLogSink(sink.get());
    }
    const auto lines = linesOf(path);
    std::remove(path.c_str());
    ASSERT_EQ(lines.size(), 3u);
    const char* expected[] = {"plain", "ends in a line feed", "two lines and a tab"};
    for (size_t i = 0; i < 3; ++i) {
        std::string form = lines[i];
        std::replace_if(form.begin(), form.end(), [](unsigned char c) { return std::isdigit(c) != 0; }, '9');
        EXPECT_EQ(form, std::string("9999-99-99 99:99:99.999 error   file test  ") + expected[i]);
    }
    EXPECT_EQ(createFileSink("/no/such/folder/log.txt"), nullptr);
}

TEST(Logger, StandardErrorWhereNobodyListens) {
    testing::internal::CaptureStderr();
    message("quiet", 2, "information");
    message("quiet", 3, "warning");
    std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(printed.find("information"), std::string::npos);
    EXPECT_NE(printed.find("warning quiet  warning"), std::string::npos) << printed;

    std::unique_ptr<ILogSink> console(createConsoleSink());
    addLogSink(console.get(), 0);
    testing::internal::CaptureStderr();
    message("quiet", 2, "information");
    printed = testing::internal::GetCapturedStderr();
    removeLogSink(console.get());
    EXPECT_NE(printed.find("info    quiet  information"), std::string::npos) << printed;
}
