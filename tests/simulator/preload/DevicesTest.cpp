#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/uio.h>
#include <termios.h>

#include <array>
#include <chrono>
#include <csignal>
#include <limits>
#include <thread>
#include <vector>

#include "tests/simulator/preload/PreloadFixture.h"

using namespace kestrixsim;

namespace {

using Bytes = std::vector<uint8_t>;

class Devices : public PreloadTest {};

// ---- /dev/mem ------------------------------------------------------------------------------------------------------

TEST_F(Devices, MemoryMappingsFollowTheirProtection) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const Descriptor memory(::open("/dev/mem", O_RDWR));
    const off_t block = adcBlock;
    // Two mappings at one time; each is given back by itself, and what the first stored the second shows only anew.
    auto* one = static_cast<uint32_t*>(mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, memory, block));
    auto* two = static_cast<uint32_t*>(mmap64(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, memory, block));
    ASSERT_TRUE(one != MAP_FAILED && two != MAP_FAILED);
    one[2] = 0xF0;
    EXPECT_EQ(munmap(one, page), 0);
    two[2] = 0x0F;  // changes bits of its own only
    EXPECT_EQ(munmap(two, page), 0);
    EXPECT_EQ(instrument().registerWord(scratchWord), 0xFFu);

    auto* apart = static_cast<uint32_t*>(mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE, memory, block));
    ASSERT_NE(apart, MAP_FAILED);
    apart[2] = 1;
    EXPECT_EQ(munmap(apart, page), 0);
    EXPECT_EQ(instrument().registerWord(scratchWord), 0xFFu) << "a private mapping stores nothing";

    auto* whole = static_cast<uint32_t*>(mmap(nullptr, 2 * page, PROT_READ, MAP_SHARED, memory, block));
    ASSERT_NE(whole, MAP_FAILED);
    EXPECT_EQ(whole[2], 0xFFu);
    EXPECT_EQ(munmap(whole, page), -1) << "only as a whole";
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(munmap(whole, 2 * page), 0);

    const auto refused = [&](int fd, off_t offset) {
        EXPECT_EQ(mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset), MAP_FAILED);
        return errno;
    };
    EXPECT_EQ(refused(memory, block + 4), EINVAL);
    EXPECT_EQ(refused(Descriptor(::open("/dev/mem", O_RDONLY)), block), EACCES);
    instrument().inject({.kind = FaultKind::MemMap});
    EXPECT_EQ(refused(memory, block), EPERM);
    EXPECT_EQ(refused(Descriptor(::open("/dev/i2c-1", O_RDWR)), 0), ENODEV);
}

TEST_F(Devices, MemoryTakesWholeWordsOfABlock) {
    const Descriptor memory(::open("/dev/mem", O_RDWR));
    const auto place = static_cast<off_t>(scratchWord);
    uint32_t word = 0xCAFE0001;
    EXPECT_EQ(::pwrite(memory, &word, 4, place), 4);
    word = 0;
    EXPECT_EQ(::pread(memory, &word, 4, place), 4);
    EXPECT_EQ(word, 0xCAFE0001u);
    EXPECT_EQ(::pread(memory, &word, 2, place), -1);
    EXPECT_EQ(errno, EINVAL);
    // A ninth module, or an address that was added up wrongly.
    constexpr uint64_t ninth = moduleBlock + 0x80000;
    EXPECT_EQ(::pread(memory, &word, 4, static_cast<off_t>(ninth)), -1);
    EXPECT_EQ(errno, EFAULT);
    const auto access = [&] {
        std::signal(SIGBUS, SIG_DFL);  // a sanitizer's own handler would answer in its place
        loadWord(memory, ninth);
    };
    EXPECT_EXIT(access(), testing::KilledBySignal(SIGBUS), "no register block at 0xa0080000");
}

// ---- /dev/i2c-1 ----------------------------------------------------------------------------------------------------

TEST_F(Devices, ASlaveBelongsToTheOpenFile) {
    const Descriptor bus(::open("/dev/i2c-1", O_RDWR));
    const Descriptor other(::open("/dev/i2c-1", O_RDWR));
    instrument().inject({.kind = FaultKind::I2cSlave});
    EXPECT_EQ(ioctl(bus, I2C_SLAVE, 0x50), -1);
    EXPECT_EQ(errno, EBUSY);
    ASSERT_EQ(ioctl(bus, I2C_SLAVE, 0x50), 0);
    const uint8_t start = 1;
    std::array<uint8_t, 3> key{};
    ASSERT_EQ(::write(bus, &start, 1), 1);
    ASSERT_EQ(::read(bus, key.data(), key.size()), 3);
    EXPECT_EQ(key, (std::array<uint8_t, 3>{0xFA, 0xF3, 0x20}));
    EXPECT_EQ(::write(other, &start, 1), -1) << "each open file has its own slave";
    EXPECT_EQ(ioctl(bus, I2C_SLAVE, 0x80), -1);
    EXPECT_EQ(errno, EINVAL);
    { ASSERT_EQ(ioctl(Descriptor(::open("/dev/i2c-1", O_RDWR)), I2C_SLAVE, 0x50), 0); }
    EXPECT_EQ(::write(Descriptor(::open("/dev/i2c-1", O_RDWR)), &start, 1), -1) << "nor does it outlive a close";
    // The number of a request comes with its sign extended from callers that keep it in an int.
    ASSERT_EQ(ioctl(bus, 0xFFFFFFFF00000000UL | I2C_SLAVE, 0x33L), 0);
    EXPECT_EQ(::write(bus, &start, 1), -1);
    EXPECT_EQ(errno, ENXIO) << "no chip there";
    i2c_msg noBuffer{0x4D, 0, 2, nullptr};
    i2c_rdwr_ioctl_data one{&noBuffer, 1};
    EXPECT_EQ(ioctl(bus, I2C_RDWR, &one), -1);
    EXPECT_EQ(errno, EFAULT);
}

// Connects the port to slot 0.
void setMultiplexers(int bus) {
    uint8_t message[] = {0, 1};
    i2c_msg writes[] = {{0x4D, 0, 2, message}, {0x4F, 0, 2, message}};
    i2c_rdwr_ioctl_data all{writes, 2};
    EXPECT_EQ(ioctl(bus, I2C_RDWR, &all), 2);
}

// ---- /dev/ttyPS1 ---------------------------------------------------------------------------------------------------

class Uart : public PreloadTest {
protected:
    Descriptor bus_{-1};
    Descriptor port_{-1};

    void SetUp() override {
        PreloadTest::SetUp();
        bus_.reset(::open("/dev/i2c-1", O_RDWR));
        port_.reset(::open("/dev/ttyPS1", O_RDWR));
        ASSERT_GE(port_, 0);
        setMultiplexers(bus_);
    }

    void TearDown() override {
        bus_.reset();
        port_.reset();
        PreloadTest::TearDown();
    }

    void configure(speed_t speed, uint8_t minimum, uint8_t time) {
        termios settings{};
        ASSERT_EQ(tcgetattr(port_, &settings), 0);
        cfmakeraw(&settings);
        settings.c_cc[VMIN] = minimum;
        settings.c_cc[VTIME] = time;
        cfsetispeed(&settings, speed);
        cfsetospeed(&settings, speed);
        ASSERT_EQ(tcsetattr(port_, TCSANOW, &settings), 0);
    }

    void ask() {  // the type of the amplifier
        const Bytes request{0xA5, 0x01, 0xA7, 0x5A};
        ASSERT_EQ(::write(port_, request.data(), request.size()), 4);
    }

    // Until a read brings nothing.
    Bytes answer() {
        Bytes all;
        uint8_t part[64];
        for (ssize_t count; (count = ::read(port_, part, sizeof part)) > 0;) {
            all.insert(all.end(), part, part + count);
        }
        return all;
    }
};

const Bytes voltageType{0xA5, 0x02, 0x00, 0x01, 0x5A};

TEST_F(Uart, AttributesBelongToThePort) {
    EXPECT_EQ(isatty(port_), 1);
    EXPECT_EQ(isatty(bus_), 0);
    configure(B38400, 0, 2);
    const Descriptor second(::open("/dev/ttyPS1", O_RDWR));
    termios settings{};
    ASSERT_EQ(tcgetattr(second, &settings), 0);
    EXPECT_EQ(cfgetospeed(&settings), static_cast<speed_t>(B38400));
    EXPECT_EQ(settings.c_cc[VTIME], 2);
    EXPECT_EQ(settings.c_lflag & ICANON, 0u);
    EXPECT_EQ(tcgetattr(bus_, &settings), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(tcflush(port_, 4711), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(tcdrain(port_), 0);
    for (int call = 0; call < 2; ++call) {
        instrument().inject({.kind = FaultKind::UartAttributes});
        EXPECT_EQ(call == 0 ? tcgetattr(port_, &settings) : tcsetattr(port_, TCSANOW, &settings), -1);
        EXPECT_EQ(errno, EIO);
    }
}

TEST_F(Uart, ReadWithoutAnAnswerEndsWithItsTimeout) {
    configure(B38400, 0, 2);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(answer(), Bytes());
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(190)) << "VTIME 2 is 0.2 s";
}

TEST_F(Uart, ReadWithAMinimumWaitsForThatMany) {
    configure(B38400, 5, 0);
    ask();
    uint8_t reply[64] = {};
    const ssize_t count = ::read(port_, reply, sizeof reply);
    EXPECT_EQ(Bytes(reply, reply + std::max<ssize_t>(count, 0)), voltageType);
    ASSERT_EQ(fcntl(port_, F_SETFL, O_NONBLOCK), 0);
    EXPECT_EQ(::read(port_, reply, sizeof reply), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Uart, WrongSpeedIsNotHeard) {
    configure(B9600, 0, 1);
    ask();
    EXPECT_EQ(answer(), Bytes());
    EXPECT_TRUE(instrument().framesReceived().empty());
}

TEST_F(Uart, PollTellsOfAReplyAndTakesNothing) {
    configure(B38400, 0, 2);
    pollfd waiting[] = {{port_, POLLIN, 0}, {bus_, POLLOUT, 0}};
    EXPECT_EQ(::poll(waiting, 1, 20), 0);
    ask();
    EXPECT_EQ(::poll(waiting, 1, 2000), 1);
    EXPECT_EQ(waiting[0].revents, POLLIN);
    EXPECT_EQ(::poll(waiting, 2, 0), 2) << "the bus is always ready";
    EXPECT_EQ(answer(), voltageType) << "the byte that poll saw is still there";
    ask();
    EXPECT_EQ(::poll(waiting, 1, 2000), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(tcflush(port_, TCIOFLUSH), 0);
    EXPECT_EQ(answer(), Bytes()) << "flushed, the one that poll saw too";
}

TEST_F(Uart, WaitsHearOrdinaryDescriptorsBesideTheInstruments) {
    configure(B38400, 0, 2);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const Descriptor out(ends[0]);
    const Descriptor in(ends[1]);
    fd_set readable;
    const auto select = [&](timeval limit) {
        FD_ZERO(&readable);
        FD_SET(port_, &readable);
        FD_SET(out, &readable);
        return ::select(std::max<int>(port_, out) + 1, &readable, nullptr, nullptr, &limit);
    };
    EXPECT_EQ(select({0, 20000}), 0);
    EXPECT_FALSE(FD_ISSET(port_, &readable));
    ask();
    EXPECT_EQ(select({std::numeric_limits<time_t>::max(), 0}), 1) << "a wait that is never over";
    EXPECT_TRUE(FD_ISSET(port_, &readable));
    EXPECT_EQ(answer(), voltageType);

    pollfd waiting[] = {{port_, POLLIN, 0}, {out, POLLIN, 0}, {-1, POLLIN, 0}};
    const timespec limit{5, 0};
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        EXPECT_EQ(::write(in, "x", 1), 1);
    });
    EXPECT_EQ(::ppoll(waiting, 3, &limit, nullptr), 1);
    EXPECT_EQ(waiting[1].revents, POLLIN);
    EXPECT_EQ(waiting[0].revents, 0);
    EXPECT_EQ(select({5, 0}), 1);
    EXPECT_TRUE(FD_ISSET(out, &readable));
    EXPECT_FALSE(FD_ISSET(port_, &readable));
    EXPECT_EQ(::pselect(out + 1, &readable, nullptr, nullptr, &limit, nullptr), 1);
    writer.join();
}

// ---- Streams -------------------------------------------------------------------------------------------------------

TEST_F(Devices, StreamsDeliverWholeDescriptorsInOrder) {
    const Descriptor memory(::open("/dev/mem", O_RDWR));
    const Descriptor raw(::open("/dev/tolvn_dma_r0", O_RDWR | O_NONBLOCK));
    const Descriptor filtered(::open("/dev/tolvn_dma_f0", O_RDWR | O_NONBLOCK));
    prepare(raw, 200);
    prepare(filtered, 400);
    std::vector<int16_t> shorts(1000, -1);
    EXPECT_EQ(::read(raw, shorts.data(), 2000), -1);
    EXPECT_EQ(errno, EAGAIN) << "nothing converts yet";
    startModule(memory);

    EXPECT_EQ(::read(raw, shorts.data(), 450), 400);
    EXPECT_EQ(::read(raw, shorts.data() + 200, 1000), 1000);
    for (int16_t i = 0; i < 700; ++i) {
        ASSERT_EQ(shorts[static_cast<size_t>(i)], i);
    }
    std::vector<int32_t> words(300, -1);
    const iovec parts[] = {{nullptr, 0}, {words.data(), 1200}};
    EXPECT_EQ(::readv(filtered, parts, 2), 1200);
    for (int32_t i = 0; i < 300; ++i) {
        ASSERT_EQ(words[static_cast<size_t>(i)], i);
    }
    EXPECT_EQ(instrument().statistics(0, Stream::Raw).reads, 2u);
    EXPECT_GE(ioctl(raw, stopTransfer, 0L), 0);
    EXPECT_EQ(::read(raw, shorts.data(), 2000), -1);
    EXPECT_EQ(errno, EAGAIN) << "stopped";
}

TEST_F(Devices, BlockingStreamWaitsForItsFirstDescriptor) {
    Scenario realTime = quickScenario();
    realTime.unthrottled = false;
    reset(realTime);
    const Descriptor memory(::open("/dev/mem", O_RDWR));
    const Descriptor raw(::open("/dev/tolvn_dma_r0", O_RDWR));
    prepare(raw, 40);  // 20 samples: 20 ms
    startModule(memory);
    std::array<int16_t, 20> samples{};
    ASSERT_EQ(::read(raw, samples.data(), 40), 40);
    EXPECT_EQ(samples[19], 19);
}

}  // namespace
