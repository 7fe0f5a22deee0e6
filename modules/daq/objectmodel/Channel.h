#pragma once

#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "modules/daq/objectmodel/ChannelBuffer.h"
#include "modules/daq/objectmodel/ChannelRate.h"
#include "modules/daq/objectmodel/DaqException.h"
#include "modules/daq/objectmodel/DynArrayPositionIndex.h"
#include "modules/daq/objectmodel/IChannelBuffer.h"
#include "modules/daq/objectmodel/LossCount.h"
#include "modules/daq/objectmodel/SampleCounter.h"
#include "modules/daq/objectmodel/SampleType.h"

namespace Harvane::RT::Modules::Daq {

// One stream of samples of a device. No lock: the thread of the cycle writes while the acquisition runs, the module's
// thread between acquisitions. Only samplesAcquired may be read from other threads meanwhile. Rates are in Hz.
class Channel {
public:
    explicit Channel(int number);
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    virtual ~Channel();

    // Makes the sample buffer in the concrete classes.
    virtual void initialize();
    virtual void prepareAcquisition();
    // Counters to 0, buffers sized for two seconds.
    virtual void initializeAcquisition();
    // Around each cycle's reading, called only where hasCycleHooks() says so: an idle cycle of sixteen channels takes
    // hardly longer than its reads, and 32 calls that do nothing would be a tenth of it.
    virtual void beforeAcquireData();
    virtual void afterAcquireData();
    // For a class that overrides one of the two. Asked at initializeAcquisition.
    virtual bool hasCycleHooks() const { return false; }
    virtual void finalizeAcquisition();
    // Physical value of a raw one.
    virtual double scaleValue(double value);

    double getSampleAtPos(unsigned long position);
    double getTimeAtPos(unsigned long position);
    // Slot at this distance from the next write, -1 being the newest sample. The ring must not be empty and the
    // distance not beyond its capacity.
    unsigned long getPosAtRelativePos(int relative);
    double getSampleAtRelativePos(int relative);
    double getCurrentSample();
    double getTimeAtRelativePos(int relative);
    double getCurrentTime();
    bool hasSamples();

    // A divider below 1 is ignored.
    void setSRDiv(int divider);
    // Synchronous: sets the divider that gives this rate, a rate below 1 is ignored. Asynchronous: stores the rate.
    void setRate(int rate);
    // Whole samples per second, as the user sees it.
    int getRate() const;
    // Of a synchronous channel: the exact rate behind getRate().
    ChannelRate exactRate() const { return {deviceRate, srDiv}; }

    // Samples: two seconds of the rate, rounded down to the granularity; 0 for an inactive channel.
    unsigned long calculateBufferCapacity();
    void reserveMemory();
    void freeMemory();

    // Stores the time of a sample in seconds; nothing without a time buffer. Throws InvalidTimestampException on NaN.
    void addTimeToBuffer(double time);

    // One sample with its time in seconds. Throws NotActiveChannelException, InvalidTypeException when the buffer's
    // samples have another size, InvalidCallException for a channel of arrays, DataLostException when this cycle has
    // already filled the buffer, InvalidTimestampException. After any of them nothing has changed.
    template <class T>
    void addSample(const T& value, double time) {
        checkAddSample(sizeof(T), time);
        buffer->addSample(&value);
        ++samplesThisCycle;
        addTimeToBuffer(time);
        ++samplesAcquired;
    }

    // Accounts for samples that stand in the buffer's memory already. Throws NotActiveChannelException, and
    // DataLostException when the samples of this cycle reach the capacity.
    void incSamplePosition(unsigned long count);

    template <class T>
    void createChannelBuffer() {
        buffer = std::make_shared<ChannelBuffer<T>>();
        createSideBuffers();
        isFloat = std::is_floating_point_v<T>;
    }

    // What every cycle looks at comes first, so that it stands in one cache line.
    bool active = false;  // This acquisition fills the channel.
    SampleType sampleType = SampleType::Async;
    int srDiv = 1;                       // Divider of a synchronous channel.
    SampleCounter samplesAcquired;       // Since the start of the acquisition. Readable from any thread.
    std::uint64_t samplesThisCycle = 0;  // Samples added in the present acquireData.
    std::uint64_t samplesBehind = 0;     // Written by the controller, in samples of the full rate.

    std::string name;
    std::string unit;
    int number;                // Place of the channel within its device.
    int index = 0;             // Place in the whole tree, given by the controller.
    bool used = false;         // The host wants the channel.
    bool enableFirst = false;  // The controller needs the channel although the host may not.
    double scale = 1.0;
    double offset = 0.0;
    double minValue = -10.0;
    double maxValue = 10.0;
    std::shared_ptr<IChannelBuffer> buffer;
    std::shared_ptr<IChannelBuffer> timeBuffer;      // double, seconds; asynchronous channels only.
    std::shared_ptr<IChannelBuffer> positionBuffer;  // DynArrayPositionIndex; channels of arrays only.
    int deviceRate = 1000;                           // The device's full rate.
    int minRate = 1;
    int maxRate = 100000000;
    int asyncRate = 1000;                 // Rate of an asynchronous channel.
    double arrayFactor = 100.0;           // With a positionBuffer: elements of buffer per position.
    bool dynamicArray = false;            // Samples are arrays of varying length.
    std::uint64_t bufferGranularity = 1;  // Capacities are a multiple of this.
    bool isFloat = false;                 // Samples are float or double.
    bool enabled = true;                  // The channel can be used at all.
    int phaseDelay = 0;                   // Samples.
    bool isControl = false;               // Output channel: data flows from the host to the device.
    bool noReserve = false;               // The host is not to reserve memory.
    // What the device counts of samples that don't get through; asynchronous channels only. The device resets them.
    std::vector<std::shared_ptr<LossCount>> losses;

protected:
    // Sample buffer of an analog channel: the smallest type that holds the bits; float or double with isFloat. Throws
    // InvalidTypeException where there is none.
    void createAnalogBuffer(int resolution);

private:
    void checkAddSample(unsigned long sampleSize, double time);
    void createSideBuffers();
};

}  // namespace Harvane::RT::Modules::Daq
