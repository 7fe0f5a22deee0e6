#pragma once

#include "modules/daq/objectmodel/DataReceiverThread.h"

namespace Harvane::RT::Modules::Daq {

// Loop for a synchronous stream: it stops at the first byte that it can't keep, so that the FIFO never holds a stream
// with a gap. Each end but that by terminate is reported with its reason. A callback may wait for the return of
// start().
class SyncDataReceiverThread : public DataReceiverThread {
public:
    ~SyncDataReceiverThread() override;

    void execute() override;

private:
    void receive();
    // Tells of the exception in flight.
    void fail(const std::function<void()>& callback);
    // False when bytes had to be dropped.
    bool store(const unsigned char* data, unsigned long count);
};

}  // namespace Harvane::RT::Modules::Daq
