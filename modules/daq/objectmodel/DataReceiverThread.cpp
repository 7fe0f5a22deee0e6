#include "modules/daq/objectmodel/DataReceiverThread.h"

namespace Harvane::RT::Modules::Daq {

using Utils::Threading::ThreadExPriority;

DataReceiverThread::DataReceiverThread() : ThreadEx("receiver") {
    setPriority(static_cast<ThreadExPriority>(6));
}

DataReceiverThread::~DataReceiverThread() {
    ThreadEx::stop();
}

void DataReceiverThread::start() {
    if (!getStarted()) {
        std::lock_guard<std::mutex> guard(startedMutex_);
        threadStarted_ = false;
    }
    ThreadEx::start();
    waitToStartThread();
}

void DataReceiverThread::waitToStartThread() {
    std::unique_lock<std::mutex> guard(startedMutex_);
    startedCondition_.wait(guard, [this] { return threadStarted_; });
}

void DataReceiverThread::setThreadIsStarted() {
    std::lock_guard<std::mutex> guard(startedMutex_);
    threadStarted_ = true;
    startedCondition_.notify_one();
}

void DataReceiverThread::ended() noexcept {
    setThreadIsStarted();
}

void DataReceiverThread::setBufferCapacity(unsigned long bytes) {
    setCapacity(bytes);
}

unsigned long DataReceiverThread::readSamples(unsigned char* target, unsigned long count) {
    return readSamples(target, count, true);
}

}  // namespace Harvane::RT::Modules::Daq
