#include "modules/daq/daqdevices/kestrix/src/KestrixKernel.h"

#include <array>
#include <cerrno>
#include <functional>
#include <stdexcept>

#include "tests/kestrix/KestrixFixture.h"

using namespace Harvane::RT::Modules::Daq;
using kestrixsim::Fault;
using kestrixsim::FaultKind;
using kestrixsim::Stream;

namespace {

class KestrixKernelTest : public KestrixFixture {
protected:
    KestrixKernelTest() { kestrixsim::reset(warmScenario(8)); }
};

Fault ioctlFault(int code) {
    Fault fault;
    fault.kind = FaultKind::DmaIoctl;
    fault.code = code;
    return fault;
}

std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "none";
}

TEST_F(KestrixKernelTest, ParityChoosesStreamAndSize) {
    const KestrixKernel raw(4);
    EXPECT_EQ(raw.deviceName, "/dev/tolvn_dma_r2");
    EXPECT_EQ(raw.bdSize, 937500);
    const KestrixKernel filtered(5);
    EXPECT_EQ(filtered.deviceName, "/dev/tolvn_dma_f2");
    EXPECT_EQ(filtered.bdSize, 234375);
    EXPECT_EQ(filtered.bdCount, 16);
    EXPECT_EQ(kestrixsim::instrument().statistics(2, Stream::Raw).descriptorSize, 937500);
    EXPECT_EQ(kestrixsim::instrument().statistics(2, Stream::Filtered).descriptorSize, 234375);
}

TEST_F(KestrixKernelTest, NodeThatIsMissing) {
    Fault fault;
    fault.kind = FaultKind::DmaOpen;
    fault.target = 3;
    kestrixsim::instrument().inject(fault);
    EXPECT_EQ(failureOf([] { KestrixKernel kernel(3); }), "Cannot open device file");
}

struct IoctlCase {
    int code;
    const char* text;
};

TEST_F(KestrixKernelTest, RefusedSetUpFailsAndClosesTheDevice) {
    const int before = kestrixsim::openDescriptors();
    const IoctlCase cases[] = {
        {0x40064C01, "SET_BD_CNT ioctl error"},
        {0x40064C03, "SET_BD_SIZE ioctl error"},
        {0x40064C05, "RESERVE_BD_MEM ioctl error"},
    };
    for (const IoctlCase& expected : cases) {
        kestrixsim::instrument().inject(ioctlFault(expected.code));
        EXPECT_EQ(failureOf([] { KestrixKernel kernel(0); }), expected.text);
        EXPECT_EQ(kestrixsim::openDescriptors(), before) << expected.text;
        kestrixsim::instrument().clearFaults();
    }
}

TEST_F(KestrixKernelTest, EachModeHasItsOwnRequests) {
    struct Case {
        int code;
        const char* text;
        std::function<void(KestrixKernel&)> action;
    };
    const Case cases[] = {
        {0x40064C05, "RESERVE_BD_MEM ioctl error", [](KestrixKernel& kernel) { kernel.updateConfiguration(false); }},
        {0x40064C0B, "RESERVE_BD_MEM ioctl error", [](KestrixKernel& kernel) { kernel.updateConfiguration(true); }},
        {0x40064C08, "START_TRANSFER ioctl error", [](KestrixKernel& kernel) { kernel.startTransfer(false); }},
        {0x00064C0C, "START_TRANSFER ioctl error", [](KestrixKernel& kernel) { kernel.startTransfer(true); }},
        {0x40064C09, "STOP_TRANSFER ioctl error", [](KestrixKernel& kernel) { kernel.stopTransfer(false); }},
        {0x00064C0D, "STOP_TRANSFER ioctl error", [](KestrixKernel& kernel) { kernel.stopTransfer(true); }},
    };
    for (const Case& expected : cases) {
        KestrixKernel kernel(1);
        kestrixsim::instrument().inject(ioctlFault(expected.code));
        EXPECT_EQ(failureOf([&] { expected.action(kernel); }), expected.text) << std::hex << expected.code;
        kestrixsim::instrument().clearFaults();
    }
}

TEST_F(KestrixKernelTest, ChangedSizeReachesTheDriver) {
    KestrixKernel kernel(0);
    kernel.bdSize = 1000;
    kernel.updateConfiguration(false);
    EXPECT_EQ(kestrixsim::instrument().statistics(0, Stream::Raw).descriptorSize, 1000);
}

TEST_F(KestrixKernelTest, NothingReadyIsNoFailure) {
    KestrixKernel kernel(1);
    kernel.startTransfer(false);
    std::vector<unsigned char> buffer(234375);
    EXPECT_LT(kernel.acquireData(buffer.data(), buffer.size()), 0);

    Fault fault;
    fault.kind = FaultKind::DmaRead;
    fault.target = 1;
    fault.code = EIO;
    kestrixsim::instrument().inject(fault);
    EXPECT_EQ(failureOf([&] { kernel.acquireData(buffer.data(), buffer.size()); }), "DMA device read failed");
    EXPECT_LT(kernel.acquireData(buffer.data(), buffer.size()), 0);
}

}  // namespace
