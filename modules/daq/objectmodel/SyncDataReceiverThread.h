#pragma once

#include "modules/daq/objectmodel/DataReceiverThread.h"

namespace Harvane::RT::Modules::Daq {

// Loop for a synchronous stream: it stops at the first byte that it can't keep, so that the FIFO never holds a stream
// with a gap.
class SyncDataReceiverThread : public DataReceiverThread {
public:
    ~SyncDataReceiverThread() override;

    void execute() override;

private:
    void receive();
    // False when bytes had to be dropped.
    bool store(const unsigned char* data, unsigned long count);
};

}  // namespace Harvane::RT::Modules::Daq
