#pragma once

#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <string>

#include "libraries/utils/DeviceFile.h"

namespace Harvane::RT::Modules::Daq {

// One DMA stream of the kernel driver: even AI channels are the raw stream of module channel / 2, odd ones its
// filtered stream. The stream is nothing but consecutive samples (16 or 32 bits, byte order of the host) in a ring
// of buffer descriptors. Every failing call is logged and throws std::runtime_error.
// No lock: state changes and acquireData come from one thread at a time.
class KestrixKernel {
public:
    // Opens the device and reserves the default descriptors.
    explicit KestrixKernel(int channel);

    // Tells the driver the present bdSize and reserves the memory anew.
    void updateConfiguration(bool usbMode);
    void startTransfer(bool usbMode);
    void stopTransfer(bool usbMode);

    // Reads what is ready, `size` bytes at most, and never waits. Returns the number of bytes; -1 when nothing is
    // ready. Real-time safe except when it fails.
    long acquireData(unsigned char* buffer, unsigned long size) {
        const ssize_t count = read(file_.get(), buffer, size);
        if (count < 0 && errno != EAGAIN) [[unlikely]] {
            failRead();
        }
        return count;
    }

    const int32_t defaultBdSize;  // bytes of one descriptor at construction
    int32_t bdSize;               // bytes of one descriptor from the next updateConfiguration on
    const int32_t bdCount = 16;   // descriptors
    const std::string deviceName;

private:
    void configure();
    void setBdSize();
    void reserveBdMemory(bool usbMode);
    [[noreturn]] void fail(const char* what) const;
    [[noreturn]] void failRead() const;

    Utils::DeviceFile file_;
};

}  // namespace Harvane::RT::Modules::Daq
