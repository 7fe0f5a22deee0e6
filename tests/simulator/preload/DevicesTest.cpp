#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/uio.h>
#include <termios.h>

#include <array>
#include <chrono>
#include <numeric>
#include <thread>
#include <vector>

#include "tests/simulator/preload/PreloadFixture.h"

using namespace kestrixsim;

namespace {

using Bytes = std::vector<uint8_t>;

class Devices : public PreloadTest {};

// ---- /dev/mem ------------------------------------------------------------------------------------------------------

TEST_F(Devices, MemoryKeepsWhatIsStored) {
    const Descriptor memory(::open("/dev/mem", O_RDWR | O_SYNC));
    ASSERT_GE(memory, 0);
    EXPECT_EQ(loadWord(memory, scratchWord), 0u);
    storeWord(memory, scratchWord, 0x12345678);
    EXPECT_EQ(instrument().registerWord(scratchWord), 0x12345678u);
    storeWord(memory, scratchWord, (loadWord(memory, scratchWord) & ~0xFF00u) | 0xAB00u);
    EXPECT_EQ(loadWord(memory, scratchWord), 0x1234AB78u);
    // Bits that the hardware does not have stay away, and a neighbour is not touched.
    storeWord(memory, globalBlock + 0x08, 85);
    EXPECT_EQ(loadWord(memory, globalBlock + 0x08), 21u);
    EXPECT_EQ(loadWord(memory, globalBlock + 0x0C), 0u);
}

TEST_F(Devices, MemoryMappingsFollowTheirProtection) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const Descriptor memory(::open("/dev/mem", O_RDWR));
    const off_t block = adcBlock;
    // Two mappings at one time; each is given back by itself, and what the first stored the second shows only anew.
    auto* one = static_cast<uint32_t*>(mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, memory, block));
    auto* two = static_cast<uint32_t*>(mmap64(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, memory, block));
    ASSERT_NE(one, MAP_FAILED);
    ASSERT_NE(two, MAP_FAILED);
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

    EXPECT_EQ(mmap(nullptr, page, PROT_READ, MAP_SHARED, memory, block + 4), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    const Descriptor readOnly(::open("/dev/mem", O_RDONLY));
    EXPECT_EQ(mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, readOnly, block), MAP_FAILED);
    EXPECT_EQ(errno, EACCES);
    instrument().inject(fault(FaultKind::MemMap));
    EXPECT_EQ(mmap(nullptr, page, PROT_READ, MAP_SHARED, memory, block), MAP_FAILED);
    EXPECT_EQ(errno, EPERM);
    const Descriptor bus(::open("/dev/i2c-1", O_RDWR));
    EXPECT_EQ(mmap(nullptr, page, PROT_READ, MAP_SHARED, bus, 0), MAP_FAILED);
    EXPECT_EQ(errno, ENODEV);
}

TEST_F(Devices, MemoryTakesWholeWordsAtAnOffset) {
    const Descriptor memory(::open("/dev/mem", O_RDWR));
    uint32_t word = 0xCAFE0001;
    EXPECT_EQ(::pwrite(memory, &word, 4, static_cast<off_t>(scratchWord)), 4);
    word = 0;
    EXPECT_EQ(::pread(memory, &word, 4, static_cast<off_t>(scratchWord)), 4);
    EXPECT_EQ(word, 0xCAFE0001u);
    EXPECT_EQ(::pread(memory, &word, 2, static_cast<off_t>(scratchWord)), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(::read(memory, &word, 4), -1);
    EXPECT_EQ(errno, EINVAL);
}

// ---- /dev/i2c-1 ----------------------------------------------------------------------------------------------------

TEST_F(Devices, EepromIsReadThroughTheSelectedSlave) {
    const Descriptor bus(::open("/dev/i2c-1", O_RDWR));
    const Descriptor other(::open("/dev/i2c-1", O_RDWR));
    ASSERT_EQ(ioctl(bus, I2C_SLAVE, 0x50), 0);
    const uint8_t start = 1;
    std::array<uint8_t, 3> key{};
    ASSERT_EQ(::write(bus, &start, 1), 1);
    ASSERT_EQ(::read(bus, key.data(), key.size()), 3);
    EXPECT_EQ(key, (std::array<uint8_t, 3>{0xFA, 0xF3, 0x20}));
    EXPECT_EQ(::write(other, &start, 1), -1) << "each open file has its own slave";
    EXPECT_EQ(ioctl(bus, I2C_SLAVE, 0x80), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(ioctl(bus, I2C_SLAVE, 0x33), 0);
    EXPECT_EQ(::write(bus, &start, 1), -1);
    EXPECT_EQ(errno, ENXIO) << "no chip there";
    { ASSERT_EQ(ioctl(Descriptor(::open("/dev/i2c-1", O_RDWR)), I2C_SLAVE, 0x50), 0); }
    EXPECT_EQ(::write(Descriptor(::open("/dev/i2c-1", O_RDWR)), &start, 1), -1) << "nor does it outlive a close";
    unsigned long functions = 0;
    ASSERT_EQ(ioctl(bus, I2C_FUNCS, &functions), 0);
    EXPECT_NE(functions & I2C_FUNC_I2C, 0u);

    // The number of a request comes with its sign extended from callers that keep it in an int.
    ASSERT_EQ(ioctl(bus, 0xFFFFFFFF00000000UL | I2C_SLAVE, 0x50L), 0);
    instrument().inject(fault(FaultKind::EepromSilent));
    EXPECT_EQ(::write(bus, &start, 1), -1);
    EXPECT_EQ(errno, ENXIO);
}

// Writes `value` into both multiplexers and gives back what they say.
Bytes setMultiplexers(int bus, uint8_t value) {
    uint8_t message[] = {0, value};
    i2c_msg writes[] = {{0x4D, 0, 2, message}, {0x4F, 0, 2, message}};
    i2c_rdwr_ioctl_data all{writes, 2};
    EXPECT_EQ(ioctl(bus, I2C_RDWR, &all), 2);
    Bytes back(2);
    i2c_msg reads[] = {{0x4D, I2C_M_RD, 1, &back[0]}, {0x4F, I2C_M_RD, 1, &back[1]}};
    all = {reads, 2};
    EXPECT_EQ(ioctl(bus, I2C_RDWR, &all), 2);
    return back;
}

TEST_F(Devices, CombinedTransfersReachTheMultiplexers) {
    const Descriptor bus(::open("/dev/i2c-1", O_RDWR));
    EXPECT_EQ(setMultiplexers(bus, 0x08), (Bytes{0x08, 0x08}));
    instrument().inject(fault(FaultKind::MuxReadsBack, -1, 0x4F));
    EXPECT_EQ(setMultiplexers(bus, 0x10), (Bytes{0x10, 0x00}));
    i2c_rdwr_ioctl_data none{nullptr, 0};
    EXPECT_EQ(ioctl(bus, I2C_RDWR, &none), -1);
    EXPECT_EQ(errno, EINVAL);
    for (const auto& [kind, error] : {std::pair{FaultKind::MuxAgain, EAGAIN}, std::pair{FaultKind::MuxError, EIO}}) {
        instrument().inject(fault(kind));
        uint8_t message[] = {0, 1};
        i2c_msg write{0x4D, 0, 2, message};
        i2c_rdwr_ioctl_data one{&write, 1};
        EXPECT_EQ(ioctl(bus, I2C_RDWR, &one), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(ioctl(bus, I2C_RDWR, &one), 1);
    }
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
        setMultiplexers(bus_, 0x01);
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
}

TEST_F(Uart, AmplifierAnswersWithinTheReadTimeout) {
    configure(B38400, 0, 2);
    ask();
    EXPECT_EQ(answer(), voltageType);
    const auto before = std::chrono::steady_clock::now();
    uint8_t byte = 0;
    EXPECT_EQ(::read(port_, &byte, 1), 0);
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
    configure(B38400, 0, 2);
    ask();
    EXPECT_EQ(answer(), voltageType);
}

TEST_F(Uart, PollTellsOfAReplyAndTakesNothing) {
    configure(B38400, 0, 2);
    pollfd waiting[] = {{port_, POLLIN, 0}, {bus_, POLLOUT, 0}};
    EXPECT_EQ(::poll(waiting, 1, 20), 0);
    ask();
    EXPECT_EQ(::poll(waiting, 1, 2000), 1);
    EXPECT_EQ(waiting[0].revents, POLLIN);
    EXPECT_EQ(::poll(waiting, 2, 0), 2) << "the bus is always ready";
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(port_, &readable);
    timeval limit{2, 0};
    EXPECT_EQ(::select(port_ + 1, &readable, nullptr, nullptr, &limit), 1);
    EXPECT_TRUE(FD_ISSET(port_, &readable));
    EXPECT_EQ(answer(), voltageType) << "the byte that poll saw is still there";
    limit = {0, 20000};
    EXPECT_EQ(::select(port_ + 1, &readable, nullptr, nullptr, &limit), 0);
    EXPECT_FALSE(FD_ISSET(port_, &readable));
}

TEST_F(Uart, PollWakesForOrdinaryDescriptorsBesideTheInstruments) {
    configure(B38400, 0, 2);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const Descriptor out(ends[0]);
    const Descriptor in(ends[1]);
    pollfd waiting[] = {{port_, POLLIN, 0}, {out, POLLIN, 0}, {-1, POLLIN, 0}};
    const timespec limit{5, 0};
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        EXPECT_EQ(::write(in, "x", 1), 1);
    });
    EXPECT_EQ(::ppoll(waiting, 3, &limit, nullptr), 1);
    EXPECT_EQ(waiting[1].revents, POLLIN);
    EXPECT_EQ(waiting[0].revents, 0);
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(port_, &readable);
    FD_SET(out, &readable);
    EXPECT_EQ(::pselect(std::max<int>(port_, out) + 1, &readable, nullptr, nullptr, &limit, nullptr), 1);
    EXPECT_TRUE(FD_ISSET(out, &readable));
    EXPECT_FALSE(FD_ISSET(port_, &readable));
    writer.join();
}

TEST_F(Uart, FlushDropsWhatHasCome) {
    configure(B38400, 0, 2);
    ask();
    pollfd waiting{port_, POLLIN, 0};
    ASSERT_EQ(::poll(&waiting, 1, 2000), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(tcflush(port_, TCIOFLUSH), 0);
    EXPECT_EQ(answer(), Bytes());
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
    EXPECT_EQ(errno, EAGAIN) << "not started";
    ASSERT_GE(ioctl(raw, startTransfer, 0L), 0);
    ASSERT_GE(ioctl(filtered, startTransfer, 0L), 0);
    startModule(memory);

    const ssize_t first = ::read(raw, shorts.data(), 450);
    ASSERT_GT(first, 0);
    EXPECT_EQ(first % 200, 0);
    const ssize_t second = ::read(raw, reinterpret_cast<char*>(shorts.data()) + first, 1000);
    ASSERT_GT(second, 0);
    for (ssize_t i = 0; i < (first + second) / 2; ++i) {
        ASSERT_EQ(shorts[static_cast<size_t>(i)], i);
    }
    std::vector<int32_t> words(300, -1);
    const iovec parts[] = {{nullptr, 0}, {words.data(), 1200}};
    const ssize_t third = ::readv(filtered, parts, 2);
    ASSERT_GT(third, 0);
    for (ssize_t i = 0; i < third / 4; ++i) {
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
    ASSERT_GE(ioctl(raw, startTransfer, 0L), 0);
    startModule(memory);
    std::array<int16_t, 20> samples{};
    ASSERT_EQ(::read(raw, samples.data(), 40), 40);
    EXPECT_EQ(samples[19], 19);
}

TEST_F(Devices, StreamFaultsComeOutAsErrno) {
    const Descriptor raw(::open("/dev/tolvn_dma_r3", O_RDWR | O_NONBLOCK));
    prepare(raw, 200);
    char buffer[400];
    instrument().inject(fault(FaultKind::DmaRead, 6, EOVERFLOW));
    EXPECT_EQ(::read(raw, buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EOVERFLOW);
    instrument().inject(fault(FaultKind::DmaIoctl, 6));
    EXPECT_EQ(ioctl(raw, startTransfer, 0L), -1);
    EXPECT_EQ(errno, EIO);
}

}  // namespace
