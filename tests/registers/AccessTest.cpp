#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <exception>
#include <functional>
#include <thread>
#include <vector>

#include "libraries/devices/embedded/FileRegisterAccess.h"
#include "libraries/devices/embedded/I2cRegisterAccess.h"
#include "libraries/devices/embedded/MmapRegisterAccess.h"
#include "tests/registers/FailureOf.h"

namespace {

constexpr unsigned long selectSlave = 0x0703;
bool busAnswers = true;
std::vector<unsigned long> selectedSlaves;

}  // namespace

// Stands in front of the C library's: files and pipes have no I2C slaves to select.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    const unsigned long argument = va_arg(arguments, unsigned long);
    va_end(arguments);
    if (request != selectSlave) {
        return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
    }
    selectedSlaves.push_back(argument);
    errno = EBUSY;
    return busAnswers ? 0 : -1;
}

namespace {

using namespace Harvane::ZornLib::Devices::Embedded;
using kestrixtest::failureOf;
using Bytes = std::vector<unsigned char>;

// A descriptor of this process as a file that can be opened again.
std::string pathOf(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

// Memory that stands in for a device's.
int memoryOf(const Bytes& content) {
    const int fd = ::memfd_create("memory", MFD_CLOEXEC);
    EXPECT_EQ(::write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    return fd;
}

Bytes takeFrom(int pipe) {
    Bytes bytes(64);
    const ssize_t count = ::read(pipe, bytes.data(), bytes.size());
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
}

// A pipe gives back what was written to it, in order.
struct Pipe : testing::Test {
    Pipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_NONBLOCK), 0);
        pipe = ends[0];
        ::close(ends[1]);
        busAnswers = true;
        selectedSlaves.clear();
    }
    ~Pipe() override { ::close(pipe); }

    int pipe = -1;
};

// A failed access must not keep the bus from the other threads.
void expectFree(IRegisterAccess& access) {
    bool locked = false;
    std::thread other([&] {
        locked = access.getSync().try_lock();
        if (locked) {
            access.getSync().unlock();
        }
    });
    other.join();
    EXPECT_TRUE(locked);
}

TEST(MmapRegisterAccess, movesOneWordWhateverTheSizeAndLeavesTheRest) {
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    Bytes content(2 * page, 0xEE);
    const int memory = memoryOf(content);
    MmapRegisterAccess access(pathOf(memory));
    const std::array<unsigned char, 4> word{1, 2, 3, 4};
    for (const size_t place : {page + 0x124, page - 4}) {
        access.write(page - 0x10, place - page + 0x10, word.data(), 1);
        std::copy(word.begin(), word.end(), content.begin() + static_cast<std::ptrdiff_t>(place));
        std::array<unsigned char, 4> back{};
        access.read(0, place, back.data(), 2);
        EXPECT_EQ(back, word);
    }
    Bytes found(content.size());
    EXPECT_EQ(::pread(memory, found.data(), found.size(), 0), static_cast<ssize_t>(found.size()));
    EXPECT_EQ(found, content);
    ::close(memory);
}

// A store to a register waits in no cache.
TEST(MmapRegisterAccess, memoryIsOpenedForSynchronousAccess) {
    const int memory = memoryOf({0});
    const int next = ::dup(memory);  // takes the lowest free descriptor
    ::close(next);
    const MmapRegisterAccess access(pathOf(memory));
    EXPECT_EQ(::fcntl(next, F_GETFL) & (O_ACCMODE | O_SYNC), O_RDWR | O_SYNC);
    ::close(memory);
}

// The text is the same for every node; what it was caused by tells them apart.
TEST(RegisterAccess, whichNodeIsMissingStandsBehindTheFailure) {
    const std::function<void()> cases[] = {[] { MmapRegisterAccess("/nonexistent/node"); },
                                           [] { I2cRegisterAccess("/nonexistent/node"); }};
    for (const auto& open : cases) {
        try {
            open();
            FAIL();
        } catch (const std::runtime_error& failure) {
            EXPECT_EQ(failureOf([&] { std::rethrow_if_nested(failure); }),
                      "/nonexistent/node: No such file or directory");
        }
    }
}

TEST(MmapRegisterAccess, failures) {
    EXPECT_EQ(failureOf([] { MmapRegisterAccess("/nonexistent/mem"); }), "Failed to open device handle.");
    MmapRegisterAccess access("/dev/null");  // opens, but has no memory
    std::array<unsigned char, 4> word{};
    EXPECT_EQ(failureOf([&] { access.read(0, 0, word.data(), 4); }), "Failed to map memory.");
    EXPECT_EQ(failureOf([&] { access.write(0, 0, word.data(), 4); }), "Failed to map memory.");
    expectFree(access);
}

TEST_F(Pipe, fileIsReadAndWrittenWholeWhateverTheAddress) {
    FileRegisterAccess access(pathOf(pipe));
    const Bytes data{7, 8, 9};
    access.write(0x1234, 0x56, data.data(), data.size());
    Bytes back(3);
    access.read(99, 1, back.data(), back.size());
    EXPECT_EQ(back, data);
}

TEST(FileRegisterAccess, failures) {
    EXPECT_EQ(failureOf([] { FileRegisterAccess("/nonexistent/i2c"); }), "Failed to open device handle.");
    const int memory = memoryOf({1, 2, 3});
    FileRegisterAccess access(pathOf(memory));
    Bytes buffer(4);
    EXPECT_EQ(failureOf([&] { access.read(0, 0, buffer.data(), 4); }), "Failed to read from the file(3).");
    expectFree(access);
    ::close(memory);
    // A device without room: the call itself fails, and its -1 shows as a count.
    FileRegisterAccess full("/dev/full");
    EXPECT_EQ(failureOf([&] { full.write(0, 0, buffer.data(), 4); }),
              "Failed to write to the file (18446744073709551615).");
    expectFree(full);
}

TEST_F(Pipe, i2cRegisterGoesInFrontAndASlaveIsSelectedOnlyWhenItChanges) {
    I2cRegisterAccess access(pathOf(pipe));
    const Bytes data{0xAA, 0xBB};
    access.write(0x50, 0x1FA, data.data(), data.size());
    EXPECT_EQ(takeFrom(pipe), (Bytes{0xFA, 0xAA, 0xBB}));
    const Bytes longer(40, 0x11);
    access.write(0x50, 0x11, longer.data(), longer.size());
    EXPECT_EQ(takeFrom(pipe), Bytes(41, 0x11));
    // The pipe gives the register back as the data.
    unsigned char byte = 0;
    access.read(0x48, 0x142, &byte, 1);
    EXPECT_EQ(byte, 0x42);
    EXPECT_EQ(takeFrom(pipe), Bytes{});
    access.write(0x50, 0, &byte, 1);
    EXPECT_EQ(selectedSlaves, (std::vector<unsigned long>{0x50, 0x48, 0x50}));
}

TEST_F(Pipe, i2cSlaveThatCannotBeSelected) {
    I2cRegisterAccess access(pathOf(pipe));
    constexpr const char* text = "Failed to acquire bus access and/or talk to slave.";
    unsigned char byte = 0;
    busAnswers = false;
    EXPECT_EQ(failureOf([&] { access.read(0x48, 0, &byte, 1); }), text);
    EXPECT_EQ(failureOf([&] { access.write(0x48, 0, &byte, 1); }), text);
    EXPECT_FALSE(access.checkSlave(0x48));
    expectFree(access);
    // It was not selected, so it is asked for again.
    busAnswers = true;
    EXPECT_TRUE(access.checkSlave(0x48));
    EXPECT_EQ(selectedSlaves.size(), 4u);
}

}  // namespace
