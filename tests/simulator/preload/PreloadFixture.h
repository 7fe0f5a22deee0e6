#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>

#include "simulator/preload/Control.h"

// Closes a descriptor at the end of its scope.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&&) = delete;
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor() { reset(); }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }
    operator int() const { return fd_; }

private:
    int fd_;
};

// A folder for one test, removed after it.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "preload-test.XXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// A fresh instrument for every test: eight modules that count samples, supply up, all data ready at once.
class PreloadTest : public testing::Test {
protected:
    void SetUp() override { kestrixsim::reset(quickScenario()); }
    void TearDown() override { EXPECT_EQ(kestrixsim::openDescriptors(), 0); }

    static kestrixsim::Scenario quickScenario() {
        kestrixsim::Scenario scenario = kestrixsim::Scenario::counters(8);
        scenario.supplyOn = true;
        scenario.unthrottled = true;
        return scenario;
    }
};

constexpr uint64_t adcBlock = 0xA0200000;
constexpr uint64_t moduleBlock = 0xA0000000;
constexpr uint64_t scratchWord = adcBlock + 0x08;  // 32 bits that nothing uses

// One register access as a driver makes it: map a page, one load or store, unmap.
template <typename Access>
void accessWord(int fd, uint64_t address, Access&& access) {
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const auto start = static_cast<off_t>(address & ~(page - 1));
    void* memory = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, fd, start);
    if (memory == MAP_FAILED) {
        ADD_FAILURE() << "mmap: " << errno;
        return;
    }
    access(static_cast<volatile uint32_t*>(memory)[(address & (page - 1)) / 4]);
    EXPECT_EQ(munmap(memory, page), 0);
}

inline uint32_t loadWord(int fd, uint64_t address) {
    uint32_t word = 0;
    accessWord(fd, address, [&](volatile uint32_t& place) { word = place; });
    return word;
}

inline void storeWord(int fd, uint64_t address, uint32_t word) {
    accessWord(fd, address, [&](volatile uint32_t& place) { place = word; });
}

constexpr unsigned long setCount = 0x40064C01;
constexpr unsigned long setSize = 0x40064C03;
constexpr unsigned long reserve = 0x40064C05;
constexpr unsigned long startTransfer = 0x40064C08;
constexpr unsigned long stopTransfer = 0x40064C09;

inline void prepare(int stream, long descriptorSize) {
    ASSERT_GE(ioctl(stream, setCount, 16L), 0);
    ASSERT_EQ(ioctl(stream, setSize, descriptorSize), 0);
    ASSERT_GE(ioctl(stream, reserve, 0L), 0);
    ASSERT_GE(ioctl(stream, startTransfer, 0L), 0);
}

// Module 0 at 1 kHz on both streams.
inline void startModule(int memory) {
    const std::pair<uint64_t, uint32_t> stores[] = {{moduleBlock + 0x10C, 15000},
                                                    {moduleBlock + 0x130, 0xFFFFFFFF},
                                                    {moduleBlock + 0x100, 0x30000000},
                                                    {moduleBlock + 0x104, 0x35},
                                                    {moduleBlock + 0x108, 11},
                                                    {moduleBlock + 0x124, 3},
                                                    {adcBlock + 0x04, 1},
                                                    {adcBlock + 0x00, 1}};
    for (const auto& [address, word] : stores) {
        storeWord(memory, address, word);
    }
}
