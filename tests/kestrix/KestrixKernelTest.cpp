#include "modules/daq/daqdevices/kestrix/src/KestrixKernel.h"

#include <cerrno>
#include <functional>

#include "tests/kestrix/KestrixFixture.h"
#include "tests/registers/FailureOf.h"

using namespace Harvane::RT::Modules::Daq;
using kestrixsim::FaultKind;
using kestrixsim::Stream;
using kestrixtest::failureOf;

namespace {

class KestrixKernelTest : public KestrixFixture {
protected:
    KestrixKernelTest() { kestrixsim::reset(warmScenario(8)); }
};

TEST_F(KestrixKernelTest, ParityChoosesStreamAndSize) {
    KestrixKernel raw(4);
    EXPECT_EQ(raw.deviceName, "/dev/tolvn_dma_r2");
    const KestrixKernel filtered(5);
    EXPECT_EQ(filtered.deviceName, "/dev/tolvn_dma_f2");
    EXPECT_EQ(filtered.bdCount, 16);
    EXPECT_EQ(kestrixsim::instrument().statistics(2, Stream::Raw).descriptorSize, 937500);
    EXPECT_EQ(kestrixsim::instrument().statistics(2, Stream::Filtered).descriptorSize, 234375);
    raw.bdSize = 1000;
    raw.updateConfiguration(false);
    EXPECT_EQ(kestrixsim::instrument().statistics(2, Stream::Raw).descriptorSize, 1000);
}

TEST_F(KestrixKernelTest, RefusedSetUpFailsAndClosesTheDevice) {
    struct {
        kestrixsim::Fault fault;
        const char* text;
    } const cases[] = {
        {{.kind = FaultKind::DmaOpen}, "Cannot open device file"},
        {{.kind = FaultKind::DmaIoctl, .code = 0x40064C01}, "SET_BD_CNT ioctl error"},
        {{.kind = FaultKind::DmaIoctl, .code = 0x40064C03}, "SET_BD_SIZE ioctl error"},
        {{.kind = FaultKind::DmaIoctl, .code = 0x40064C05}, "RESERVE_BD_MEM ioctl error"},
    };
    for (const auto& expected : cases) {
        inject(expected.fault);
        EXPECT_EQ(failureOf([] { KestrixKernel kernel(0); }), expected.text);
        EXPECT_EQ(kestrixsim::openDescriptors(), 0) << expected.text;
        clearFaults();
    }
}

TEST_F(KestrixKernelTest, EachModeHasItsOwnRequests) {
    struct {
        int code;
        const char* text;
        std::function<void(KestrixKernel&)> action;
    } const cases[] = {
        {0x40064C05, "RESERVE_BD_MEM ioctl error", [](KestrixKernel& kernel) { kernel.updateConfiguration(false); }},
        {0x40064C08, "START_TRANSFER ioctl error", [](KestrixKernel& kernel) { kernel.startTransfer(false); }},
        {0x40064C09, "STOP_TRANSFER ioctl error", [](KestrixKernel& kernel) { kernel.stopTransfer(false); }},
        {0x40064C0B, "RESERVE_BD_MEM ioctl error", [](KestrixKernel& kernel) { kernel.updateConfiguration(true); }},
        {0x00064C0C, "START_TRANSFER ioctl error", [](KestrixKernel& kernel) { kernel.startTransfer(true); }},
        {0x00064C0D, "STOP_TRANSFER ioctl error", [](KestrixKernel& kernel) { kernel.stopTransfer(true); }},
    };
    KestrixKernel kernel(1);
    for (const auto& expected : cases) {
        inject({.kind = FaultKind::DmaIoctl, .code = expected.code});
        EXPECT_EQ(failureOf([&] { expected.action(kernel); }), expected.text) << std::hex << expected.code;
        clearFaults();
        EXPECT_EQ(failureOf([&] { expected.action(kernel); }), "no failure") << std::hex << expected.code;
    }
}

TEST_F(KestrixKernelTest, NothingReadyIsNoFailure) {
    KestrixKernel kernel(1);
    kernel.startTransfer(false);
    std::vector<unsigned char> buffer(234375);
    EXPECT_LT(kernel.acquireData(buffer.data(), buffer.size()), 0);
    inject({.kind = FaultKind::DmaRead, .target = 1, .code = EIO});
    EXPECT_EQ(failureOf([&] { kernel.acquireData(buffer.data(), buffer.size()); }), "DMA device read failed");
    EXPECT_LT(kernel.acquireData(buffer.data(), buffer.size()), 0);
}

}  // namespace
