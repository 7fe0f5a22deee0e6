#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "tests/simulator/preload/PreloadFixture.h"

using namespace kestrixsim;

namespace {

const char* const gpio = "/sys/class/gpio/gpio504/value";
const char* const macAddress = "/sys/class/net/eth0/address";

class Paths : public PreloadTest {
protected:
    static std::string content(const std::string& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static std::string under(const char* path) { return rootFolder() + path; }
};

TEST_F(Paths, StreamsReachTheRootFolder) {
    const std::string mac = content(under(macAddress));
    ASSERT_EQ(mac.size(), 18u) << "six bytes in hexadecimal, colons, line end";
    EXPECT_EQ(content(macAddress), mac);
    char line[64] = {};
    FILE* const opened[] = {::fopen(macAddress, "r"), ::fopen64(macAddress, "r"),
                            ::freopen(macAddress, "r", ::fopen("/dev/null", "r")),
                            ::freopen64(macAddress, "r", ::fopen("/dev/null", "r"))};
    for (FILE* stream : opened) {
        ASSERT_NE(stream, nullptr);
        EXPECT_NE(std::fgets(line, sizeof line, stream), nullptr);
        EXPECT_EQ(line, mac);
        EXPECT_EQ(std::fclose(stream), 0);
    }
    std::ofstream(gpio) << "1";
    EXPECT_EQ(content(under(gpio)), "1");
}

TEST_F(Paths, AWriteReplacesAnAttribute) {
    const char* const trigger = "/sys/class/leds/led2/trigger";
    for (const char* text : {"timer", "none"}) {
        const Descriptor file(::open(trigger, O_WRONLY));
        ASSERT_GE(file, 0);
        ASSERT_EQ(::write(file, text, std::strlen(text)), static_cast<ssize_t>(std::strlen(text)));
    }
    EXPECT_EQ(content(trigger), "none");
    std::ofstream(trigger, std::ios::app) << "+";
    EXPECT_EQ(content(trigger), "none+");
}

TEST_F(Paths, QuestionsAboutFilesAndDevices) {
    // The kind of each; 0: not there.
    const std::pair<const char*, mode_t> cases[] = {{gpio, S_IFREG},
                                                    {"/sys/class/gpio/", S_IFDIR},
                                                    {"/sys/class/gpio/nothing", 0},
                                                    {"/dev/mem", S_IFCHR},
                                                    {"/dev/tolvn_dma_r7", S_IFCHR},
                                                    {"/dev/tolvn_dma_r8", 0},
                                                    {"/dev/tolvn_timing", S_IFCHR},
                                                    {"/dev/tolvn_gpio", 0},
                                                    {"/", S_IFDIR},
                                                    {"/dev/null", S_IFCHR}};
    for (const auto& [path, type] : cases) {
        SCOPED_TRACE(path);
        struct stat status[6] = {};
        struct statx extended {};
        const int expected = type != 0 ? 0 : -1;
        errno = 0;
        EXPECT_EQ(::stat(path, &status[0]), expected);
        EXPECT_EQ(errno, type != 0 ? 0 : ENOENT);
        EXPECT_EQ(::lstat(path, &status[1]), expected);
        EXPECT_EQ(::fstatat(AT_FDCWD, path, &status[2], 0), expected);
        EXPECT_EQ(::stat64(path, reinterpret_cast<struct stat64*>(&status[3])), expected);
        EXPECT_EQ(::lstat64(path, reinterpret_cast<struct stat64*>(&status[4])), expected);
        EXPECT_EQ(::fstatat64(AT_FDCWD, path, reinterpret_cast<struct stat64*>(&status[5]), 0), expected);
        EXPECT_EQ(::statx(AT_FDCWD, path, 0, STATX_BASIC_STATS, &extended), expected);
        EXPECT_EQ(::access(path, F_OK), expected);
        EXPECT_EQ(::euidaccess(path, F_OK), expected);
        EXPECT_EQ(::eaccess(path, F_OK), expected);
        EXPECT_EQ(::faccessat(AT_FDCWD, path, R_OK, 0), expected);
        if (expected == 0) {
            for (const struct stat& each : status) {
                EXPECT_EQ(each.st_mode & S_IFMT, type);
            }
            EXPECT_EQ(extended.stx_mode & S_IFMT, type);
        }
    }
    EXPECT_EQ(::access("/dev/mem", X_OK), -1);
    EXPECT_EQ(errno, EACCES);
    int (*const volatile ask)(const char*, int) = ::access;  // whose type lets null through
    EXPECT_EQ(ask(nullptr, F_OK), -1);
    EXPECT_EQ(errno, EFAULT);
}

TEST_F(Paths, FoldersAreListed) {
    const std::filesystem::directory_iterator network("/sys/class/net");
    const auto isEth0 = [](const auto& entry) { return entry.path().filename() == "eth0"; };
    EXPECT_EQ(std::count_if(begin(network), end(network), isEth0), 1);
    EXPECT_EQ(::opendir("/dev/mem"), nullptr);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(Paths, FilesThatAreMissingInTheRootAreNotLookedForElsewhere) {
    ASSERT_EQ(::access("/sys/class/net/eth0", F_OK), 0);
    std::filesystem::remove_all(under("/sys/class/net"));
    EXPECT_EQ(::access("/sys/class/net", F_OK), -1) << "the machine's own folder stays hidden";
    EXPECT_EQ(::fopen(macAddress, "r"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Paths, DevicesAreNotOpenedAsStreams) {
    EXPECT_EQ(::fopen("/dev/mem", "r+"), nullptr);
    EXPECT_EQ(errno, ENOTSUP);
    EXPECT_EQ(::fopen("/dev/tolvn_gpio", "r"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    const Descriptor device(::open("/dev/ttyPS1", O_RDWR));
    EXPECT_EQ(::fdopen(device, "r+"), nullptr);
    EXPECT_EQ(errno, ENOTSUP);
}

// A driver's folder lets nobody make a file: a wrong name must not pass for a right one.
TEST_F(Paths, NothingIsMadeInTheInstrumentsFolders) {
    const char* const wrong = "/sys/class/gpio/gpio504/valeu";
    EXPECT_EQ(::fopen(wrong, "w"), nullptr);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(::freopen(wrong, "a", ::fopen("/dev/null", "r")), nullptr);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(::open(wrong, O_WRONLY | O_CREAT, 0600), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(::access(wrong, F_OK), -1);
    EXPECT_TRUE(Descriptor(::open(gpio, O_WRONLY | O_CREAT, 0600)) >= 0);
}

// Each open finds what the sensor says now, and each question whether it is there now.
TEST_F(Paths, SensorsAreReadAnew) {
    const char* const sensor = "/sys/class/hwmon/hwmon2/temp1_input";
    const std::string before = content(sensor);
    EXPECT_EQ(before, "53100\n");
    const Descriptor open(::open(sensor, O_RDONLY));
    instrument().storeWord(0xA0200000, 0, 1);
    for (int i = 0; i < 500 && content(sensor) == before; ++i) {
        ::usleep(10000);
    }
    EXPECT_GT(std::stoi(content(sensor)), std::stoi(before)) << "converters warm it";
    char held[16] = {};
    EXPECT_EQ(::read(open, held, sizeof held), 6) << "the old file is whole";
    struct stat status {};
    for (const auto& [kind, error, there] :
         {std::tuple{FaultKind::SensorMissing, ENOENT, -1}, {FaultKind::SensorDenied, EACCES, 0}}) {
        instrument().inject({.kind = kind, .target = 0, .times = -1});
        EXPECT_EQ(::access(sensor, R_OK), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(::access(sensor, F_OK), there);
        EXPECT_EQ(::stat(sensor, &status), there);
        errno = 0;
        EXPECT_EQ(::open(sensor, O_RDONLY), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(::fopen(sensor, "r"), nullptr);
        EXPECT_EQ(::access(gpio, R_OK), 0) << "a line of something else";
        instrument().clearFaults();
        EXPECT_EQ(::access(sensor, R_OK), 0);
    }
    // What a line says is written from outside.
    const char* const line = "/sys/class/gpio/gpio496/value";
    std::ofstream(under(line)) << "1\n";
    EXPECT_EQ(content(line), "1\n");
}

}  // namespace
