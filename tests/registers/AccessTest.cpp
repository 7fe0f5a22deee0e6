#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "libraries/devices/embedded/FileRegisterAccess.h"
#include "libraries/devices/embedded/I2cRegisterAccess.h"
#include "libraries/devices/embedded/MmapRegisterAccess.h"

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
    if (request != selectSlave)
        return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
    selectedSlaves.push_back(argument);
    errno = EBUSY;
    return busAnswers ? 0 : -1;
}

namespace {

using namespace Harvane::ZornLib::Devices::Embedded;
using Bytes = std::vector<unsigned char>;

std::string failureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const std::runtime_error& failure) {
        return failure.what();
    }
    return "no failure";
}

class TemporaryPath {
public:
    TemporaryPath() {
        std::string pattern = testing::TempDir() + "/kestrix-access-XXXXXX";
        folder_ = ::mkdtemp(pattern.data());
        path_ = folder_ + "/node";
    }
    ~TemporaryPath() {
        ::unlink(path_.c_str());
        ::rmdir(folder_.c_str());
    }
    const std::string& path() const { return path_; }

    void write(const Bytes& content) const {
        const int fd = ::open(path_.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
        EXPECT_EQ(::write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        ::close(fd);
    }
    Bytes content() const {
        Bytes bytes(65536);
        const int fd = ::open(path_.c_str(), O_RDONLY);
        bytes.resize(static_cast<size_t>(::read(fd, bytes.data(), bytes.size())));
        ::close(fd);
        return bytes;
    }
    // A pipe gives back what was written to it, in order.
    int makePipe() const {
        EXPECT_EQ(::mkfifo(path_.c_str(), 0600), 0);
        return ::open(path_.c_str(), O_RDWR | O_NONBLOCK);
    }

private:
    std::string folder_;
    std::string path_;
};

Bytes takeFrom(int pipe) {
    Bytes bytes(64);
    const ssize_t count = ::read(pipe, bytes.data(), bytes.size());
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
}

// A failed access must not keep the bus from the other threads.
void expectFree(IRegisterAccess& access) {
    bool locked = false;
    std::thread other([&] {
        locked = access.getSync().try_lock();
        if (locked)
            access.getSync().unlock();
    });
    other.join();
    EXPECT_TRUE(locked);
}

TEST(MmapRegisterAccess, movesOneWordWhateverTheSizeAndLeavesTheRest) {
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    TemporaryPath file;
    Bytes content(2 * page, 0xEE);
    file.write(content);
    MmapRegisterAccess access(file.path());
    const uint64_t base = page;
    const std::array<unsigned char, 4> word{1, 2, 3, 4};
    access.write(base, 0x124, word.data(), 1);
    for (size_t n = 0; n < 4; ++n)
        content[page + 0x124 + n] = word[n];
    EXPECT_EQ(file.content(), content);

    std::array<unsigned char, 4> back{};
    access.read(base + 0x100, 0x24, back.data(), 2);
    EXPECT_EQ(back, word);
    // The last word of a page.
    access.write(0, page - 4, word.data(), 4);
    access.read(0, page - 4, back.data(), 4);
    EXPECT_EQ(back, word);
}

TEST(MmapRegisterAccess, failures) {
    EXPECT_EQ(failureOf([] { MmapRegisterAccess("/nonexistent/mem"); }), "Failed to open device handle.");
    MmapRegisterAccess access("/dev/null");  // opens, but has no memory
    std::array<unsigned char, 4> word{};
    EXPECT_EQ(failureOf([&] { access.read(0, 0, word.data(), 4); }), "Failed to map memory.");
    EXPECT_EQ(failureOf([&] { access.write(0, 0, word.data(), 4); }), "Failed to map memory.");
    expectFree(access);
}

TEST(FileRegisterAccess, readsAndWritesTheWholeBufferWhateverTheAddress) {
    TemporaryPath file;
    const int pipe = file.makePipe();
    FileRegisterAccess access(file.path());
    const Bytes data{7, 8, 9};
    access.write(0x1234, 0x56, data.data(), data.size());
    EXPECT_EQ(takeFrom(pipe), data);
    access.write(0, 0, data.data(), data.size());
    Bytes back(3);
    access.read(99, 1, back.data(), back.size());
    EXPECT_EQ(back, data);
    ::close(pipe);
}

TEST(FileRegisterAccess, failures) {
    EXPECT_EQ(failureOf([] { FileRegisterAccess("/nonexistent/i2c"); }), "Failed to open device handle.");
    TemporaryPath file;
    file.write({1, 2, 3});
    FileRegisterAccess access(file.path());
    Bytes buffer(4);
    EXPECT_EQ(failureOf([&] { access.read(0, 0, buffer.data(), 4); }), "Failed to read from the file(3).");
    expectFree(access);
    // A device without room: the call itself fails, and its -1 shows as a count.
    FileRegisterAccess full("/dev/full");
    EXPECT_EQ(failureOf([&] { full.write(0, 0, buffer.data(), 4); }),
              "Failed to write to the file (18446744073709551615).");
    expectFree(full);
}

class I2c : public testing::Test {
protected:
    I2c() : pipe(file.makePipe()), access(file.path()) {
        busAnswers = true;
        selectedSlaves.clear();
    }
    ~I2c() override { ::close(pipe); }

    TemporaryPath file;
    int pipe;
    I2cRegisterAccess access;
};

TEST_F(I2c, selectsASlaveOnlyWhenItChanges) {
    const unsigned char byte = 0;
    access.write(0x50, 0, &byte, 1);
    access.write(0x50, 1, &byte, 1);
    access.write(0x58, 0, &byte, 1);
    access.write(0x50, 0, &byte, 1);
    EXPECT_EQ(selectedSlaves, (std::vector<unsigned long>{0x50, 0x58, 0x50}));
}

TEST_F(I2c, writeSendsRegisterAndDataInOne) {
    const Bytes data{0xAA, 0xBB};
    access.write(0x50, 0x1FA, data.data(), data.size());
    EXPECT_EQ(takeFrom(pipe), (Bytes{0xFA, 0xAA, 0xBB}));
    const Bytes longer(40, 0x11);
    access.write(0x50, 3, longer.data(), longer.size());
    Bytes expected{3};
    expected.insert(expected.end(), longer.begin(), longer.end());
    EXPECT_EQ(takeFrom(pipe), expected);
}

TEST_F(I2c, readSendsTheRegisterFirst) {
    // The pipe gives the register back as the data.
    unsigned char byte = 0;
    access.read(0x48, 0x142, &byte, 1);
    EXPECT_EQ(byte, 0x42);
    EXPECT_EQ(takeFrom(pipe), Bytes{});
}

TEST_F(I2c, slaveThatCannotBeSelected) {
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
