#pragma once

#include <memory>
#include <string>

#include "modules/daq/objectmodel/Device.h"

namespace Harvane::RT::Modules::Daq {

class DataReceiverThread;

// One functional part of a DaqDevice.
class SubDevice : public Device {
public:
    SubDevice();
    // Ends a receiver thread that still runs; the thread's last read bounds the time.
    ~SubDevice() override;

    // The display name alone.
    std::string getElementId() const override;
    // Joins a receiver thread that an earlier stop has told to end and nobody has joined; one that still receives is
    // refused as ThreadEx::start has it.
    void startAcquisition(bool recursive) override;
    // Reaches the children in any case, and tells the receiver thread to end even when a child fails.
    void stopAcquisition(bool recursive) override;
    // Reaches the children in any case. Ends the receiver thread also when no stop has come this far.
    void finalizeAcquisition(bool recursive) override;
    // Ends the receiver thread, whatever state it is in; the thread's last read bounds the time.
    void abortAcquisition() noexcept override;

    // Numbers of the receiver thread: blocks of 50 ms, a FIFO of two seconds, read from the parent's connection point.
    // After initializeAcquisition, which settles the active channels; the device has a parent. A thread that still runs
    // is ended first; its last read bounds the time.
    virtual void initializeReceiverThread();
    // Makes the receiver thread unless there is one, ends one that still runs, then initializes it.
    void createAndInitializeReceiverThread();

    std::shared_ptr<Device> getDevice() const;
    bool isUsed() const { return true; }

    std::shared_ptr<DataReceiverThread> receiverThread;  // Null unless the device wants one.

private:
    void endReceiver() noexcept;
};

}  // namespace Harvane::RT::Modules::Daq
