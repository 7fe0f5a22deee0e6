#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "simulator/model/Instrument.h"
#include "simulator/model/Oscillator.h"
#include "simulator/model/Signal.h"

namespace kestrixsim {

// The driver's requests. The direction bits of some do not fit their use; the numbers are what the driver has.
enum class DriverRequest : unsigned long {
    SetDescriptorCount = 0x40064C01,
    SetDescriptorSize = 0x40064C03,
    ReserveMemory = 0x40064C05,
    ReserveMemoryUsb = 0x40064C0B,
    StartTransfer = 0x40064C08,
    StartTransferUsb = 0x00064C0C,
    StopTransfer = 0x40064C09,
    StopTransferUsb = 0x00064C0D,
};

// One DMA stream: the driver's ring of descriptors, filled by one half of a module's DSP chain. Samples are made while
// they are read, straight into the reader's buffer; until then a descriptor is only a number. Thread-safe, with one
// mutex a stream.
class DmaStream {
public:
    enum class ReadFault { None, OneDescriptorLess, PartOfDescriptor };

    DmaStream(const Oscillator& clock, Stream kind, bool unthrottled);
    ~DmaStream();

    // ---- From the FPGA ----
    void enable(const StreamFormat& format);  // RAWEN or FILTEN set: the ratios are latched
    void disable();
    // The module converts from this instant of the oscillator's own time on, which may be ahead. `baseClock` and
    // `pull`: as fast as it is now, for the frequencies that the samples show; only the ratios are latched.
    void run(double since, bool debugCounter, double baseClock, double pull);
    void halt();
    void flush();  // the DSP chain was cleared
    void setSource(const SignalSource& source);

    // ---- From the driver's node ----
    int control(unsigned long request, unsigned long argument);  // 0 or -errno
    // Bytes or -errno. `fault` is asked when there is something to deliver.
    ssize_t read(void* buffer, size_t size, const std::function<ReadFault()>& fault);
    StreamStatistics statistics();

private:
    void rebuildSignal();
    void updateFlow(double start);
    uint64_t produced(double now) const;
    void settle(double now);
    void emptyRing();
    void generate(uint64_t firstByte, size_t size, uint8_t* buffer) const;
    size_t sampleSize() const { return kind_ == Stream::Raw ? 2 : 4; }
    bool wholeSamples() const { return descriptorSize_ % sampleSize() == 0; }

    const Oscillator& clock_;
    const Stream kind_;
    const bool unthrottled_;
    mutable std::mutex mutex_;

    // Driver.
    size_t descriptorCount_ = 0;
    size_t descriptorSize_ = 0;  // bytes
    bool reserved_ = false;
    bool usb_ = false;
    bool started_ = false;

    // FPGA.
    bool enabled_ = false;
    bool running_ = false;
    double runningSince_ = 0.0;
    SignalSource source_;
    StreamFormat format_;
    std::unique_ptr<Signal> signal_;

    // Flow: samples come while started, enabled and running.
    bool flowing_ = false;
    double flowStart_ = 0.0;  // oscillator's own time of sample `flowBase_`
    uint64_t flowBase_ = 0;
    uint64_t finished_ = 0;       // descriptors accounted for, in the ring, read or dropped
    std::vector<uint64_t> ring_;  // numbers of the finished descriptors, oldest at ringHead_
    size_t ringHead_ = 0;
    size_t headOffset_ = 0;  // bytes of the oldest descriptor already delivered

    StreamStatistics statistics_;
};

}  // namespace kestrixsim
