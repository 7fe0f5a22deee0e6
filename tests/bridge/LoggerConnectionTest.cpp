#include "modules/daq/module/LoggerConnection.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "libraries/utils/ThreadEx.h"
#include "tests/bridge/Bench.h"

namespace {

TEST(LoggerConnection, threadsOfTheModuleReportToTheHost) {
    class Failing : public Harvane::Utils::Threading::ThreadEx {
    public:
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
