#include "modules/daq/daqdevices/kestrix/src/KestrixKernel.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "shared/libraries/kestrix/src/paths/InstrumentPaths.h"

namespace Harvane::RT::Modules::Daq {

namespace {

// Requests of the kernel driver. They take their argument by value.
constexpr unsigned long setBdCntRequest = 0x40064C01;
constexpr unsigned long setBdSizeRequest = 0x40064C03;

struct ModeRequest {
    unsigned long normal;
    unsigned long usb;

    unsigned long of(bool usbMode) const { return usbMode ? usb : normal; }
};

constexpr ModeRequest reserveBdMemRequest{0x40064C05, 0x40064C0B};
constexpr ModeRequest startTransferRequest{0x40064C08, 0x00064C0C};
constexpr ModeRequest stopTransferRequest{0x40064C09, 0x00064C0D};

const char* modeName(bool usbMode) {
    return usbMode ? "USB" : "normal";
}

std::string makeDeviceName(int channel) {
    using namespace Harvane::Shared::Kestrix;
    return (channel % 2 == 0 ? InstrumentPaths::rawStreamDevice : InstrumentPaths::filteredStreamDevice) +
           std::to_string(channel / 2);
}

}  // namespace

KestrixKernel::KestrixKernel(int channel)
    : defaultBdSize(channel % 2 == 0 ? 937500 : 234375), bdSize(defaultBdSize), deviceName(makeDeviceName(channel)) {
    KESTRIX_LOG(2, "initialize KestrixKernel, channel: {}", channel);
    KESTRIX_LOG(2, "channel: {}, device name: {}", channel, deviceName);
    configure();
}

void KestrixKernel::configure() {
    try {
        file_ = Utils::openDevice(deviceName, O_RDWR | O_NONBLOCK);
    } catch (const std::system_error& error) {
        KESTRIX_LOG(6, "unable to open device: {}, err={}", deviceName, error.code().message());
        throw std::runtime_error("Cannot open device file");
    }
    if (ioctl(file_.get(), setBdCntRequest, static_cast<unsigned long>(bdCount)) < 0) {
        fail("SET_BD_CNT");
    }
    setBdSize();
    reserveBdMemory(false);
}

void KestrixKernel::fail(const char* what) const {
    KESTRIX_LOG(6, "{} ioctl error, device: {}, err={}", what, deviceName, strerror(errno));
    throw std::runtime_error(std::string(what) + " ioctl error");
}

void KestrixKernel::setBdSize() {
    KESTRIX_LOG(2, "setting BD size, device: {}, sz: {}", deviceName, bdSize);
    if (ioctl(file_.get(), setBdSizeRequest, static_cast<unsigned long>(bdSize)) != 0) {
        KESTRIX_LOG(6, "SET_BD_SIZE ioctl error, device: {}, sz: {}, err={}", deviceName, bdSize, strerror(errno));
        throw std::runtime_error("SET_BD_SIZE ioctl error");
    }
}

void KestrixKernel::reserveBdMemory(bool usbMode) {
    KESTRIX_LOG(2, "reserving BD memory, device: {}", deviceName);
    if (ioctl(file_.get(), reserveBdMemRequest.of(usbMode), 0UL) < 0) {
        fail("RESERVE_BD_MEM");
    }
}

void KestrixKernel::updateConfiguration(bool usbMode) {
    KESTRIX_LOG(1, "updating configuration, device: {}", deviceName);
    setBdSize();
    reserveBdMemory(usbMode);
}

void KestrixKernel::startTransfer(bool usbMode) {
    KESTRIX_LOG(1, "starting {} data transfer, device mode: {}", deviceName, modeName(usbMode));
    if (ioctl(file_.get(), startTransferRequest.of(usbMode), 0UL) < 0) {
        fail("START_TRANSFER");
    }
}

void KestrixKernel::stopTransfer(bool usbMode) {
    KESTRIX_LOG(1, "stopping {} data transfer, device mode: {}", deviceName, modeName(usbMode));
    if (ioctl(file_.get(), stopTransferRequest.of(usbMode), 0UL) < 0) {
        fail("STOP_TRANSFER");
    }
}

void KestrixKernel::failRead() const {
    KESTRIX_LOG(6, "DMA device read failed, device: {}, err={}", deviceName, strerror(errno));
    throw std::runtime_error("DMA device read failed");
}

}  // namespace Harvane::RT::Modules::Daq
