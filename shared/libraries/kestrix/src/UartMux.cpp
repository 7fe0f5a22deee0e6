#include "shared/libraries/kestrix/src/UartMux.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <system_error>

#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace Harvane::Shared::Kestrix {

namespace {

constexpr int channelCount = 8;
constexpr int maxTries = 32;
constexpr int maxTransferAttempts = 10;
constexpr useconds_t transferPauseUs = 50;

// The multiplexer of a board: its devices, all written alike, and the value of channel 0.
struct MuxHardware {
    std::array<__u16, 2> addresses;
    size_t deviceCount;
    unsigned int channelZero;
    const char* selectingText;  // {0} channel
    const char* retryText;      // {0} channel, {1} try
};

constexpr MuxHardware eightChannelBoard{{0x4D, 0x4F},
                                        2,
                                        0x01,
                                        "selecting channel {0} of the 8CH board",
                                        "setting amplifiers channel {0}, UART mux failed, try {1}, retrying..."};
constexpr MuxHardware twoChannelBoard{{0x4F, 0},
                                      1,
                                      0x11,
                                      "selecting channel {0} of the 2CH board",
                                      "setting amplifiers UART mux failed, try {1}, retrying..."};

std::runtime_error systemError(int error) {
    return std::runtime_error(std::generic_category().message(error));
}

void transfer(int fd, i2c_msg* messages, size_t count) {
    i2c_rdwr_ioctl_data transaction{messages, static_cast<__u32>(count)};
    for (int attempt = 1;; ++attempt) {
        ::usleep(transferPauseUs);
        if (::ioctl(fd, I2C_RDWR, &transaction) >= 0) {
            return;
        }
        const int error = errno;
        if (error != EAGAIN || attempt == maxTransferAttempts) {
            throw systemError(error);
        }
    }
}

// Disconnects all modules, then connects the one, in one transaction.
void writeValue(int fd, const MuxHardware& hardware, unsigned char value) {
    std::array<unsigned char, 2> none{0, 0};
    std::array<unsigned char, 2> selection{0, value};
    std::array<i2c_msg, 4> messages{};
    size_t count = 0;
    for (auto* bytes : {&none, &selection}) {
        for (size_t device = 0; device < hardware.deviceCount; ++device) {
            messages[count++] = {hardware.addresses[device], 0, static_cast<__u16>(bytes->size()), bytes->data()};
        }
    }
    transfer(fd, messages.data(), count);
}

bool readsBack(int fd, const MuxHardware& hardware, unsigned char value) {
    std::array<unsigned char, 2> bytes{};
    std::array<i2c_msg, 2> messages{};
    for (size_t device = 0; device < hardware.deviceCount; ++device) {
        messages[device] = {hardware.addresses[device], I2C_M_RD, 1, &bytes[device]};
    }
    transfer(fd, messages.data(), hardware.deviceCount);
    for (size_t device = 0; device < hardware.deviceCount; ++device) {
        if (bytes[device] != value) {
            return false;
        }
    }
    return true;
}

}  // namespace

UartMux::UartMux(const char* deviceName, board_t board) : deviceName_(deviceName), board_(board) {
    KESTRIX_LOG(1, "opening i2c device {}", deviceName_);
    try {
        file_ = Utils::openDevice(deviceName_, O_RDWR);
    } catch (const std::system_error& error) {
        const std::runtime_error failure = systemError(error.code().value());
        KESTRIX_LOG(5, "unable to open i2c device {}, {}", deviceName_, failure.what());
        throw failure;
    }
}

void UartMux::selectChannel(int channel) const {
    const std::lock_guard lock(mutex_);
    // The value of a higher channel would be 0, which the multiplexer takes gladly and then connects nothing.
    if (channel < 0 || channel >= channelCount) {
        throw systemError(ENODEV);
    }
    const MuxHardware& hardware = board_ == board_t::eightChannels ? eightChannelBoard : twoChannelBoard;
    const auto value = static_cast<unsigned char>(hardware.channelZero << channel);

    for (int n = 0; n < maxTries; ++n) {
        KESTRIX_LOG(2, fmt::runtime(hardware.selectingText), channel);
        writeValue(file_.get(), hardware, value);
        if (readsBack(file_.get(), hardware, value)) {
            return;
        }
        KESTRIX_LOG(4, fmt::runtime(hardware.retryText), channel, n);
    }
    KESTRIX_LOG(5, "unable to set amplifiers UART mux");
    throw std::logic_error("unable to set amplifiers UART mux");
}

}  // namespace Harvane::Shared::Kestrix
