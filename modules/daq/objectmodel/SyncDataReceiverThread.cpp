#include "modules/daq/objectmodel/SyncDataReceiverThread.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "modules/daq/objectmodel/DaqException.h"

namespace Harvane::RT::Modules::Daq {

namespace {

constexpr auto failedRead = static_cast<unsigned long>(-1);  // also what a connection point without a data path answers

}  // namespace

SyncDataReceiverThread::~SyncDataReceiverThread() {
    stop();
}

void SyncDataReceiverThread::execute() {
    try {
        receive();
    } catch (const TimeoutException&) {
        fail(timeoutFn);
    } catch (...) {
        fail(errorFn);
    }
}

void SyncDataReceiverThread::fail(const std::function<void()>& callback) {
    // First of all, as the callback may wait for the one who starts this thread, and that one waits here.
    setThreadIsStarted();
    reportCurrentException("reception ended");
    try {
        if (callback) {
            callback();
        }
    } catch (...) {
        reportCurrentException("callback failed");
    }
}

void SyncDataReceiverThread::receive() {
    std::vector<unsigned char> block(blockSize);
    int readTimeout = firstTimeout;
    if (!readFn) {
        throw std::runtime_error("There is no data source to read from.");
    }
    setThreadIsStarted();
    while (!getTerminated()) {
        const unsigned long received = readFn(readId, block.data(), blockSize, readTimeout);
        if (getTerminated()) {
            break;
        }
        if (received == failedRead) {
            throw std::runtime_error("The read failed.");
        }
        if (received > blockSize) {
            throw std::runtime_error("The data source answered with more bytes than were asked for.");
        }
        const std::int64_t remaining = static_cast<std::int64_t>(received) - skip;
        if (remaining <= 0) {
            skip = -remaining;
        } else {
            if (!store(block.data() + skip, static_cast<unsigned long>(remaining))) {
                report("reception ended: The buffer is full, data is lost.");
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
