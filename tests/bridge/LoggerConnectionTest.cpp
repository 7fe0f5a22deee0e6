#include "modules/daq/module/LoggerConnection.h"

#include "libraries/utils/ThreadEx.h"
#include "tests/bridge/Bench.h"

namespace {

TEST(LoggerConnection, threadsOfTheModuleReportToTheHost) {
    struct Failing : Harvane::Utils::Threading::ThreadEx {
        Failing() : ThreadEx("phaseTimer") {}
        void execute() override { throw std::runtime_error("no such register"); }
    };
    Harvane::RT::Modules::Daq::Test::LogCapture log;
    Failing thread;
    thread.start();
    thread.waitFor();
    EXPECT_EQ(log.take(3), (std::vector<std::string>{"Thread \"phaseTimer\": ended: no such register"}));
}

}  // namespace
