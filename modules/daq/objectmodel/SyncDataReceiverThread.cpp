#include "modules/daq/objectmodel/SyncDataReceiverThread.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "modules/daq/objectmodel/DaqException.h"

namespace Harvane::RT::Modules::Daq {

namespace {

// A callback that fails has nobody to tell: the thread is at its end already.
void notify(const std::function<void()>& callback) {
    try {
        if (callback) {
            callback();
        }
    } catch (...) {
    }
}

}  // namespace

SyncDataReceiverThread::~SyncDataReceiverThread() {
    stop();
}

void SyncDataReceiverThread::execute() {
    try {
        receive();
    } catch (const TimeoutException&) {
        notify(timeoutFn);
    } catch (...) {
        notify(errorFn);
    }
    // Also on a failure ahead of the first read, or start() would wait for ever.
    setThreadIsStarted();
}

void SyncDataReceiverThread::receive() {
    std::vector<unsigned char> block(blockSize);
    int readTimeout = firstTimeout;
    setThreadIsStarted();
    while (!getTerminated()) {
        const unsigned long received = readFn(readId, block.data(), blockSize, readTimeout);
        if (getTerminated()) {
            break;
        }
        if (received > blockSize) {
            // What a connection point without a data path answers.
            throw std::runtime_error("The data source answered with more bytes than were asked for.");
        }
        const std::int64_t remaining = static_cast<std::int64_t>(received) - skip;
        if (remaining <= 0) {
            skip = -remaining;
        } else {
            if (!store(block.data() + skip, static_cast<unsigned long>(remaining))) {
                if (dataLostFn) {
                    dataLostFn();
                }
                break;
            }
            skip = 0;
        }
        if (delayMs > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        }
        readTimeout = timeout;
    }
}

bool SyncDataReceiverThread::store(const unsigned char* data, unsigned long count) {
    // One operation under the FIFO's lock: a reader sees none of a block until it is all in.
    return writeSamples(data, count, true) == count;
}

}  // namespace Harvane::RT::Modules::Daq
