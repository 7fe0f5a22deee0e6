#include <cctype>
#include <fstream>
#include <memory>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/host/Made.h"
#include "tests/host/runtime/RecordingSink.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Core::Testing;

namespace {

ObjectPtr<ILogger> logger(const char* name) {
    return made<ILogger>([&](ILogger** found) { return zornGetLogger(name, found); });
}

int levelOf(const char* name) {
    int level = -1;
    checkErrorInfo(logger(name)->getLevel(&level));
    return level;
}

void message(const char* name, int level, const char* text) {
    ASSERT_EQ(zornLogMessageWithSource(name, level, "file.cpp", 12, "function", text), Errors::Success);
}

}  // namespace

TEST(Logger, NamesAndLevels) {
    EXPECT_EQ(failure([] { logger("unknown name"); }), "80000006 There is no logger \"unknown name\"");
    EXPECT_EQ(zornCreateLogger("names", 1), Errors::Success);
    EXPECT_EQ(zornCreateLogger("names", 2), Errors::AlreadyExists);
    EXPECT_EQ(levelOf("names"), 1) << "the refused second creation changes nothing";
    for (const int level : {7, -1}) {
        EXPECT_EQ(zornCreateLogger("wrong", level), Errors::InvalidParameter);
    }
    EXPECT_THROW(logger("wrong"), NotFoundException);
    checkErrorInfo(logger("names")->setLevel(0));
    EXPECT_EQ(logger("names")->setLevel(7), Errors::InvalidParameter);
    EXPECT_EQ(levelOf("names"), 0);
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
            for (int level = std::max(loggerLevel, sinkLevel); level <= 5; ++level) {
                expected.insert(expected.end(), 2, std::to_string(level));
            }
            EXPECT_EQ(sink.messages(), expected) << loggerLevel << " " << sinkLevel;
        }
    }
}

TEST(Logger, ThreadsWriteOneAtATime) {
    struct Sink : ILogSink {
        void write(const LogRecord&) override { ++count; }
        int count = 0;  // plain: the dispatcher is what protects it
    };
    checkErrorInfo(zornCreateLogger("threads", 0));
    Sink sink;
    addLogSink(&sink, 0);
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 500; ++i) {
                RecordingSink passing;  // never called once it has been removed
                message("threads", 3, "text");
            }
        });
    }
    threads.clear();
    removeLogSink(&sink);
    message("threads", 3, "after");
    EXPECT_EQ(sink.count, 2000);
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
    for (const char* text : {"plain", "ends in a line feed\n", "two\nlines\tand a tab"}) {
        std::unique_ptr<ILogSink> sink(createFileSink(path.c_str()));
        ASSERT_TRUE(sink);
        addLogSink(sink.get(), 0);
        message("file test", 4, text);
        removeLogSink(sink.get());
    }
    std::ifstream file(path);
    std::string all((std::istreambuf_iterator<char>(file)), {});
    std::remove(path.c_str());
    std::replace_if(
        all.begin(), all.end(), [](unsigned char c) { return std::isdigit(c) != 0; }, '9');
    EXPECT_EQ(all,
              "9999-99-99 99:99:99.999 error   file test  plain\n"
              "9999-99-99 99:99:99.999 error   file test  ends in a line feed\n"
              "9999-99-99 99:99:99.999 error   file test  two lines and a tab\n");
    EXPECT_EQ(createFileSink("/no/such/folder/log.txt"), nullptr);
}

TEST(Logger, StandardErrorWhereNobodyListens) {
    testing::internal::CaptureStderr();
    message("quiet", 2, "information");
    message("quiet", 3, "warning");
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(printed.find("information"), std::string::npos);
    EXPECT_NE(printed.find("warning quiet  warning"), std::string::npos) << printed;
}
