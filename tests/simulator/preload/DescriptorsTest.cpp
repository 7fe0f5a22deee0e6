#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <termios.h>

#include <fstream>

#include "tests/simulator/preload/PreloadFixture.h"

extern "C" {
int __open_2(const char*, int);
int __open64_2(const char*, int);
int __openat_2(int, const char*, int);
int __openat64_2(int, const char*, int);
ssize_t __read_chk(int, void*, size_t, size_t);
ssize_t __pread_chk(int, void*, size_t, off_t, size_t);
}

using namespace kestrixsim;

namespace {

class Descriptors : public PreloadTest {
protected:
    TemporaryFolder folder_;
    std::string ordinary_ = folder_ / "ordinary";

    void SetUp() override {
        PreloadTest::SetUp();
        std::ofstream(ordinary_) << "0123456789";
    }

    static void expectOrdinary(int fd) {
        char text[11] = {};
        EXPECT_EQ(::read(fd, text, 10), 10);
        EXPECT_STREQ(text, "0123456789");
    }
};

const std::pair<const char*, int (*)(const char*)> openers[] = {
    {"open", [](const char* path) { return ::open(path, O_RDWR); }},
    {"open64", [](const char* path) { return ::open64(path, O_RDWR); }},
    {"__open_2", [](const char* path) { return __open_2(path, O_RDWR); }},
    {"__open64_2", [](const char* path) { return __open64_2(path, O_RDWR); }},
    {"openat", [](const char* path) { return ::openat(AT_FDCWD, path, O_RDWR); }},
    {"openat64", [](const char* path) { return ::openat64(AT_FDCWD, path, O_RDWR); }},
    {"__openat_2", [](const char* path) { return __openat_2(AT_FDCWD, path, O_RDWR); }},
    {"__openat64_2", [](const char* path) { return __openat64_2(AT_FDCWD, path, O_RDWR); }},
};

TEST_F(Descriptors, EveryNameOfOpenServesDevicesRewritesFilesAndPassesTheRestOn) {
    for (const auto& [name, open] : openers) {
        SCOPED_TRACE(name);
        {
            const Descriptor device(open("/dev/mem"));
            ASSERT_GE(device, 0);
            EXPECT_EQ(openDescriptors(), 1);
        }
        EXPECT_EQ(openDescriptors(), 0);

        const Descriptor gpio(open("/sys/class/gpio/gpio504/value"));
        ASSERT_GE(gpio, 0);
        struct stat here {};
        struct stat there {};
        ASSERT_EQ(::fstat(gpio, &here), 0);
        ASSERT_EQ(::stat((rootFolder() + "/sys/class/gpio/gpio504/value").c_str(), &there), 0);
        EXPECT_EQ(here.st_ino, there.st_ino);

        const Descriptor plain(open(ordinary_.c_str()));
        expectOrdinary(plain);
    }
}

TEST_F(Descriptors, ModeArgumentReachesNewFiles) {
    const mode_t old = umask(0);
    struct stat status {};
    const Descriptor made(::open((folder_ / "made").c_str(), O_CREAT | O_WRONLY, 0640));
    ASSERT_EQ(::fstat(made, &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    umask(old);
}

TEST_F(Descriptors, PathsOfTheInstrumentWithoutADeviceAreAbsent) {
    Scenario two = quickScenario();
    two.slots = 2;
    two.modules.resize(2);
    reset(two);
    for (const char* path :
         {"/dev/tolvn_timing2", "/dev/tolvn_dma_r", "/dev/tolvn_dma_r2", "/dev/tolvn_dma_f8", "/dev/tolvn_dma_r01",
          "/dev/tolvn_dma_r-1", "/dev/tolvn_dma_x0", "/sys/class/gpio/gpio9/value"}) {
        errno = 0;
        EXPECT_EQ(::open(path, O_RDWR), -1) << path;
        EXPECT_EQ(errno, ENOENT) << path;
    }
    EXPECT_TRUE(Descriptor(::open("/dev/tolvn_dma_f1", O_RDWR | O_NONBLOCK)) >= 0);
    EXPECT_TRUE(Descriptor(::open("/dev/../dev//./mem", O_RDWR)) >= 0) << "another spelling of a device";
    EXPECT_EQ(::open("/dev/memory", O_RDWR), -1);
    EXPECT_EQ(::open("/dev/mem", O_RDWR | O_DIRECTORY), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(Descriptors, DuplicatesShareOneOpenFile) {
    const int first = ::open("/dev/i2c-1", O_RDWR);
    ASSERT_GE(first, 0);
    ASSERT_EQ(ioctl(first, 0x0703, 0x50), 0);  // the slave belongs to the open file
    const Descriptor target(::open(ordinary_.c_str(), O_RDONLY));

    const Descriptor copies[] = {Descriptor(::dup(first)), Descriptor(::fcntl(first, F_DUPFD, 100)),
                                 Descriptor(::fcntl(first, F_DUPFD_CLOEXEC, 100)),
                                 Descriptor(::dup3(first, 200, O_CLOEXEC))};
    EXPECT_GE(copies[1], 100);
    EXPECT_EQ(fcntl(copies[2], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(copies[3], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::dup2(first, target), target);  // an ordinary descriptor becomes a served one
    EXPECT_EQ(openDescriptors(), 6);
    EXPECT_EQ(::close(first), 0);

    for (int fd : {int(copies[0]), int(copies[1]), int(copies[2]), int(copies[3]), int(target)}) {
        const uint8_t registerNumber = 1;
        uint8_t key = 0;
        EXPECT_EQ(::write(fd, &registerNumber, 1), 1) << fd;
        EXPECT_EQ(::read(fd, &key, 1), 1) << fd;
        EXPECT_EQ(key, 0xFA) << fd;
    }
    // And back: an ordinary file takes the place of a served one.
    const Descriptor plain(::open(ordinary_.c_str(), O_RDONLY));
    EXPECT_EQ(::dup2(plain, target), target);
    EXPECT_EQ(openDescriptors(), 4);
    expectOrdinary(target);
}

TEST_F(Descriptors, NumbersAreNotServedAfterTheirClose) {
    const int device = ::open("/dev/i2c-1", O_RDWR);
    ASSERT_GE(device, 0);
    EXPECT_EQ(::close(device), 0);
    errno = 0;
    EXPECT_EQ(::close(device), -1);
    EXPECT_EQ(errno, EBADF);
    const Descriptor plain(::open(ordinary_.c_str(), O_RDONLY));
    ASSERT_EQ(plain, device) << "the kernel gives the lowest free number";
    expectOrdinary(plain);

    const int one = ::open("/dev/mem", O_RDWR);
    ASSERT_EQ(::fcntl(one, F_DUPFD, 300), 300);
    EXPECT_EQ(openDescriptors(), 2);
    ::closefrom(300);
    EXPECT_EQ(openDescriptors(), 1);
    EXPECT_EQ(::close_range(static_cast<unsigned>(one), static_cast<unsigned>(one), 0), 0);
    EXPECT_EQ(openDescriptors(), 0);
}

TEST_F(Descriptors, FlagsOfOpenAreKept) {
    const Descriptor stream(::open("/dev/tolvn_dma_r0", O_RDWR | O_CLOEXEC | O_NONBLOCK));
    EXPECT_EQ(fcntl(stream, F_GETFD), FD_CLOEXEC);
    EXPECT_NE(fcntl(stream, F_GETFL) & O_NONBLOCK, 0);
    const Descriptor readOnly(::open("/dev/i2c-1", O_RDONLY));
    EXPECT_EQ(fcntl(readOnly, F_GETFD), 0);
    EXPECT_EQ(::write(readOnly, "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Descriptors, ADeviceLooksLikeOneAndHidesNoWrite) {
    const Descriptor device(::open("/dev/i2c-1", O_RDWR));
    struct stat byDescriptor {};
    struct stat byEmptyPath {};
    ASSERT_EQ(::fstat(device, &byDescriptor), 0);
    ASSERT_EQ(::fstatat(device, "", &byEmptyPath, AT_EMPTY_PATH), 0);
    EXPECT_TRUE(S_ISCHR(byDescriptor.st_mode));
    EXPECT_EQ(byDescriptor.st_rdev, makedev(89, 1));
    EXPECT_EQ(byEmptyPath.st_rdev, byDescriptor.st_rdev);
    char byte = 0;
    const iovec part{&byte, 1};
    EXPECT_EQ(::pwritev(device, &part, 1, 0), -1) << "a call that falls through";
    int on = 1;
    ASSERT_EQ(ioctl(device, FIONBIO, &on), 0);
    EXPECT_NE(fcntl(device, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(Descriptors, UnknownIoctlsAreRefused) {
    for (const char* path : {"/dev/mem", "/dev/i2c-1", "/dev/ttyPS1"}) {
        const Descriptor device(::open(path, O_RDWR));
        int waiting = 0;
        errno = 0;
        EXPECT_EQ(ioctl(device, TIOCGSERIAL, &waiting), -1) << path;
        EXPECT_EQ(errno, ENOTTY) << path;
    }
}

TEST_F(Descriptors, OrdinaryFilesKeepEveryCall) {
    const Descriptor device(::open("/dev/mem", O_RDWR));  // so that no call takes the short way round the table
    const Descriptor file(::open(ordinary_.c_str(), O_RDWR));
    int waiting = 0;
    EXPECT_EQ(ioctl(file, FIONREAD, &waiting), 0);
    EXPECT_EQ(waiting, 10);
    char text[16] = {};
    EXPECT_EQ(__read_chk(file, text, 2, sizeof text), 2);
    EXPECT_EQ(::pread(file, text, 3, 4), 3);
    EXPECT_EQ(std::string(text), "456");
    EXPECT_EQ(::pread64(file, text, 3, 5), 3);
    EXPECT_EQ(std::string(text), "567");
    EXPECT_EQ(__pread_chk(file, text, 3, 6, sizeof text), 3);
    EXPECT_EQ(std::string(text), "678");
    EXPECT_EQ(::pwrite(file, "ab", 2, 0), 2);
    EXPECT_EQ(::write(file, "c", 1), 1);
    char one[2] = {};
    char two[3] = {};
    const iovec parts[] = {{one, 1}, {two, 2}};
    EXPECT_EQ(::lseek(file, 0, SEEK_SET), 0);
    EXPECT_EQ(::readv(file, parts, 2), 3);
    EXPECT_EQ(std::string(one) + two, "abc");
    EXPECT_EQ(::writev(file, parts, 2), 3);
    void* memory = ::mmap(nullptr, 10, PROT_READ, MAP_PRIVATE, file, 0);
    ASSERT_NE(memory, MAP_FAILED);
    EXPECT_EQ(std::string(static_cast<char*>(memory), 10), "abcabc6789");
    EXPECT_EQ(::munmap(memory, 10), 0);
    termios settings{};
    EXPECT_EQ(tcgetattr(file, &settings), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(isatty(file), 0);
}

TEST_F(Descriptors, TheInstrumentIsNotReplacedUnderAnOpenDescriptor) {
    const Descriptor device(::open("/dev/mem", O_RDWR));
    EXPECT_THROW(reset(quickScenario()), std::logic_error);
}

}  // namespace
