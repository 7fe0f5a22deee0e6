#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

#include "libraries/utils/ThreadEx.h"
#include "modules/daq/objectmodel/FifoBuffer.h"

namespace Harvane::RT::Modules::Daq {

// A thread that sits on a blocking read together with the FIFO of the bytes that it received. The numbers and
// callbacks are set before start() and not touched while the thread runs; the callbacks run on the thread. A read is
// never interrupted, so its time-out bounds the stop.
class DataReceiverThread : public Utils::Threading::ThreadEx, public FifoBuffer<unsigned char> {
public:
    DataReceiverThread();
    // A concrete class stops its thread in its own destructor, while its execute() still exists.
    ~DataReceiverThread() override;

    // Returns when the thread has allocated its block and is about to read, or has already ended.
    void start() override;

    void waitToStartThread();
    void setThreadIsStarted();
    void setBufferCapacity(unsigned long bytes);

    // The FIFO's lock. The thread's own is ThreadEx::getLock().
    using FifoBuffer<unsigned char>::getLock;
    using FifoBuffer<unsigned char>::readSamples;
    // The consumer's read: takes at most count bytes out and returns how many.
    unsigned long readSamples(unsigned char* target, unsigned long count);

    unsigned long blockSize = 512;  // Bytes asked for by one read.
    int timeout = 0;                // Of every read but the first, in ms.
    int firstTimeout = 1000;        // Of the first read, in ms.
    int readId = 0;                 // First argument of a read.
    std::int64_t skip = 0;          // Bytes still to be dropped from the stream's head.
    int delayMs = 0;                // Pause after each block.
    // Id, target, length in bytes, time-out in ms; returns the bytes read.
    std::function<unsigned long(int, unsigned char*, unsigned long, int)> readFn;
    std::function<void()> dataLostFn;  // The FIFO overflowed; the thread ends.
    std::function<void()> timeoutFn;   // The read threw TimeoutException; the thread ends.
    std::function<void()> errorFn;     // Any other failure; the thread ends.

protected:
    void ended() noexcept override;

private:
    std::mutex startedMutex_;
    std::condition_variable startedCondition_;
    bool threadStarted_ = false;
};

}  // namespace Harvane::RT::Modules::Daq
