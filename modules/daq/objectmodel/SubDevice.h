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
    void startAcquisition(bool recursive) override;
    void stopAcquisition(bool recursive) override;      // Reaches the children in any case.
    void finalizeAcquisition(bool recursive) override;  // Reaches the children in any case.

    // Numbers of the receiver thread: blocks of 50 ms, a FIFO of two seconds, read from the parent's connection point.
    // After initializeAcquisition, which settles the active channels; the device has a parent and the thread isn't
    // running.
    virtual void initializeReceiverThread();
    // Makes the receiver thread unless there is one, then initializes it.
    void createAndInitializeReceiverThread();

    std::shared_ptr<Device> getDevice() const;
    bool isUsed() const { return true; }

    std::shared_ptr<DataReceiverThread> receiverThread;  // Null unless the device wants one.
};

}  // namespace Harvane::RT::Modules::Daq
