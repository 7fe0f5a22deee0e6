#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <thread>
#include <vector>

#include "tests/simulator/preload/PreloadFixture.h"

using namespace kestrixsim;

namespace {

class Processes : public PreloadTest {
protected:
    static std::string everything(FILE* stream) {
        std::string all;
        char part[128];
        for (size_t count; (count = std::fread(part, 1, sizeof part, stream)) > 0;) {
            all.append(part, count);
        }
        return all;
    }
};

// ---- Commands ------------------------------------------------------------------------------------------------------

TEST_F(Processes, ScriptsAreAnsweredInsideTheProcess) {
    const std::string script = "/opt/harvane/scripts/ptp_control.sh";
    FILE* stream = ::popen((script + " status").c_str(), "re");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(fcntl(fileno(stream), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(everything(stream), "OK:mode=disabled;pps_mode=none\n");
    EXPECT_EQ(::pclose(stream), 0);
    EXPECT_EQ(instrument().commandsRun(), std::vector<std::string>{script + " status"});
    EXPECT_EQ(::popen(script.c_str(), "x"), nullptr);
    EXPECT_EQ(errno, EINVAL);
    instrument().inject({.kind = FaultKind::ScriptFails});
    EXPECT_EQ(::popen(script.c_str(), "r"), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    // Streams are given back by either call, the wrong one too: otherwise they would run out.
    for (int i = 0; i < 100; ++i) {
        FILE* volatile right = ::popen(script.c_str(), "r");
        FILE* volatile wrong = ::popen(script.c_str(), "r");
        ASSERT_TRUE(right != nullptr && wrong != nullptr) << i;
        EXPECT_EQ(fcntl(fileno(right), F_GETFD), 0);
        EXPECT_EQ(::pclose(right), 0);
        EXPECT_EQ(::fclose(wrong), 0);
    }
}

TEST_F(Processes, OtherCommandsRun) {
    FILE* reading = ::popen("echo one; echo two; exit 3 # /opt/harvane/scripts/ptp_control.sh", "re");
    ASSERT_NE(reading, nullptr);
    EXPECT_EQ(everything(reading), "one\ntwo\n");
    EXPECT_EQ(WEXITSTATUS(::pclose(reading)), 3);
    const Descriptor device(::open("/dev/mem", O_RDWR));
    FILE* writing = ::popen("read word; test \"$word\" = text", "w");
    ASSERT_NE(writing, nullptr);
    std::fputs("text\n", writing);
    EXPECT_EQ(::pclose(writing), 0);
    EXPECT_EQ(WEXITSTATUS(std::system("exit 5")), 5) << "beside an open device";
    EXPECT_TRUE(instrument().commandsRun().empty());
}

// ---- Fork ----------------------------------------------------------------------------------------------------------

// Runs `body` in a child, whose exit runs the library's own clean-up, and gives back its status.
template <typename Body>
int inChild(Body&& body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int result = body();
        std::fflush(nullptr);
        std::exit(result);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(Processes, AForkedChildHasAnInstrumentAndARootFolderOfItsOwn) {
    const Descriptor memory(::open("/dev/mem", O_RDWR));
    storeWord(memory, scratchWord, 0x1111);
    std::ofstream("/sys/class/gpio/gpio504/value") << "1";
    const std::string root = rootFolder();
    const int status = inChild([&] {
        EXPECT_EQ(loadWord(memory, scratchWord), 0u) << "not a fresh one, or the descriptor is not served any more";
        storeWord(memory, scratchWord, 0x2222);
        std::ofstream("/sys/class/gpio/gpio504/value") << "0";
        EXPECT_EQ(instrument().registerWord(scratchWord), 0x2222u);
        EXPECT_NE(rootFolder(), root);
        EXPECT_GE(::open("/dev/i2c-1", O_RDWR), 0);
        EXPECT_EQ(openDescriptors(), 2);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(loadWord(memory, scratchWord), 0x1111u);
    EXPECT_EQ(rootFolder(), root);
    EXPECT_TRUE(std::filesystem::exists(root)) << "the child took the parent's folder with it";
    std::string value;
    std::ifstream("/sys/class/gpio/gpio504/value") >> value;
    EXPECT_EQ(value, "1");
}

TEST_F(Processes, AbandonedRootFoldersAreSwept) {
    TemporaryFolder temporary;
    const char* old = getenv("TMPDIR");
    const std::string before = old != nullptr ? old : "";
    setenv("TMPDIR", temporary.path().c_str(), 1);
    // The second belongs to a process that lives and has lost its lock.
    const std::string abandoned = temporary / "kestrix-sim.abcdef";
    const std::string unlocked = temporary / ("kestrix-sim." + std::to_string(getppid()) + ".abcdef");
    const std::string foreign = temporary / "something.else";
    for (const std::string& folder : {abandoned, unlocked, foreign}) {
        std::filesystem::create_directories(folder + "/sys");
    }
    reset(quickScenario());
    const std::string mine = rootFolder();
    EXPECT_TRUE(std::filesystem::exists(abandoned)) << "it may just be in the making";
    for (const std::string& folder : {abandoned, unlocked, foreign, mine}) {
        std::filesystem::last_write_time(folder, std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
    }
    EXPECT_EQ(inChild([&] { return rootFolder().empty() ? 1 : 0; }), 0);
    EXPECT_FALSE(std::filesystem::exists(abandoned));
    EXPECT_TRUE(std::filesystem::exists(unlocked));
    EXPECT_TRUE(std::filesystem::exists(foreign));
    EXPECT_TRUE(std::filesystem::exists(mine)) << "in use by this process";
    reset(quickScenario());
    EXPECT_FALSE(std::filesystem::exists(mine));
    if (before.empty()) {
        unsetenv("TMPDIR");
    } else {
        setenv("TMPDIR", before.c_str(), 1);
    }
}

// ---- Threads -------------------------------------------------------------------------------------------------------

TEST_F(Processes, ThreadsOnDevicesAndOnOrdinaryFilesDoNotMeet) {
    TemporaryFolder folder;
    std::atomic<bool> stop{false};
    std::atomic<int> mistakes{0};
    const auto repeat = [&](auto body) {
        return std::thread([&, body]() mutable {
            while (!stop.load()) {
                if (!body()) {
                    ++mistakes;
                }
            }
        });
    };
    std::vector<std::thread> noise;
    for (char name : {'a', 'b'}) {
        // Descriptors of ordinary files get the numbers that devices have just given up, and the other way round.
        noise.push_back(repeat([path = folder / std::string(1, name), name] {
            const std::string text(100, name);
            const int writing = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
            bool good = ::write(writing, text.data(), text.size()) == 100;
            good = ::close(writing) == 0 && good;
            const int reading = ::open(path.c_str(), O_RDONLY);
            const int copy = ::dup(reading);
            good = ::close(reading) == 0 && good;
            char back[101] = {};
            good = ::read(copy, back, 100) == 100 && back == text && good;
            return ::close(copy) == 0 && good;
        }));
    }
    // Whoever changes a signal meets whoever changes the amplifier in front of it.
    noise.push_back(repeat([i = 0]() mutable {
        Waveform physical;
        physical.unit = WaveformUnit::Physical;
        physical.amplitude = ++i;
        instrument().setWaveform(1, physical);
        instrument().inject({.kind = FaultKind::DmaRead, .target = 5});
        instrument().clearFaults();
        return true;
    }));
    noise.push_back(repeat([i = 0]() mutable {
        uint8_t value[2] = {0, 2};
        I2cMessage messages[] = {{0x4D, false, value, 2}, {0x4F, false, value, 2}};
        const uint8_t range = ++i % 4;
        const uint8_t frames[] = {0xA5, 2, 0xBC, range, 0x5A, 0xA5, 1, 0x67, 0x5A};
        const bool good = instrument().i2cTransfer(messages, 2) == 2 && instrument().uartWrite(frames, 9) == 9;
        return instrument().amplifierState(1).range == range && good;
    }));
    noise.push_back(repeat([] {
        const int bus = ::open("/dev/i2c-1", O_RDWR);
        const uint8_t start = 1;
        uint8_t key = 0;
        const bool good = ioctl(bus, I2C_SLAVE, 0x50) == 0 && ::write(bus, &start, 1) == 1;
        (void)!::read(bus, &key, 1);  // the chip's pointer is shared with the other bus threads
        return ::close(bus) == 0 && good;
    }));

    const auto registers = [&](uint64_t address, uint32_t step) {
        const int memory = ::open("/dev/mem", O_RDWR);
        for (uint32_t i = 1; i <= 300; ++i) {
            storeWord(memory, address, loadWord(memory, address) + step);
        }
        ::close(memory);
    };
    const Descriptor memory(::open("/dev/mem", O_RDWR));
    const int stream = ::open("/dev/tolvn_dma_r0", O_RDWR | O_NONBLOCK);
    prepare(stream, 200);
    startModule(memory);
    uint64_t expected = 0;
    noise.push_back(repeat([&expected, stream] {
        uint16_t samples[500];
        const ssize_t count = ::read(stream, samples, sizeof samples);
        bool good = count > 0;
        for (ssize_t i = 0; i < count / 2; ++i) {
            good = samples[i] == static_cast<uint16_t>(expected++) && good;
        }
        return good;
    }));

    std::thread one(registers, moduleBlock + 0x110, 1);
    std::thread two(registers, moduleBlock + 0x10000 + 0x110, 3);
    one.join();
    two.join();
    stop = true;
    for (std::thread& thread : noise) {
        thread.join();
    }
    ::close(stream);
    EXPECT_EQ(mistakes, 0);
    EXPECT_GT(expected, 0u);
    EXPECT_EQ(instrument().registerWord(moduleBlock + 0x110), 300u);
    EXPECT_EQ(instrument().registerWord(moduleBlock + 0x10000 + 0x110), 900u);
}

}  // namespace
