#include "modules/daq/daqdevices/kestrix/src/KestrixKernel.h"

#include <functional>

#include "tests/kestrix/KestrixFixture.h"
#include "tests/registers/FailureOf.h"

using namespace Harvane::RT::Modules::Daq;
using kestrixsim::FaultKind;
using kestrixtest::failureOf;

namespace {

struct KestrixKernelTest : KestrixFixture {
    KestrixKernelTest() { kestrixsim::reset(warmScenario(8)); }
};

TEST_F(KestrixKernelTest, EachModeHasItsOwnRequests) {
    const std::tuple<int, const char*, std::function<void(KestrixKernel&)>> cases[] = {
        {0x40064C05, "RESERVE_BD_MEM ioctl error", [](KestrixKernel& kernel) { kernel.updateConfiguration(false); }},
        {0x40064C08, "START_TRANSFER ioctl error", [](KestrixKernel& kernel) { kernel.startTransfer(false); }},
        {0x40064C09, "STOP_TRANSFER ioctl error", [](KestrixKernel& kernel) { kernel.stopTransfer(false); }},
        {0x40064C0B, "RESERVE_BD_MEM ioctl error", [](KestrixKernel& kernel) { kernel.updateConfiguration(true); }},
        {0x00064C0C, "START_TRANSFER ioctl error", [](KestrixKernel& kernel) { kernel.startTransfer(true); }},
        {0x00064C0D, "STOP_TRANSFER ioctl error", [](KestrixKernel& kernel) { kernel.stopTransfer(true); }},
    };
    KestrixKernel kernel(1);
    for (const auto& [code, text, action] : cases) {
        inject({.kind = FaultKind::DmaIoctl, .code = code});
        EXPECT_EQ(failureOf([&, act = action] { act(kernel); }), text) << std::hex << code;
        clearFaults();
        EXPECT_EQ(failureOf([&, act = action] { act(kernel); }), "no failure") << std::hex << code;
    }
}

}  // namespace
