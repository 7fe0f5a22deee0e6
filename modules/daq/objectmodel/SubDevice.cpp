#include "modules/daq/objectmodel/SubDevice.h"

#include <algorithm>
#include <cstdint>

#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/SyncDataReceiverThread.h"

namespace Harvane::RT::Modules::Daq {

SubDevice::SubDevice() = default;

SubDevice::~SubDevice() {
    endReceiver();
}

std::string SubDevice::getElementId() const {
    return getDisplayName();
}

void SubDevice::startAcquisition(bool recursive) {
    Device::startAcquisition(recursive);
    if (receiverThread) {
        // A stop that failed elsewhere is followed by no finalizeAcquisition.
        if (receiverThread->getTerminated()) {
            receiverThread->waitFor();
        }
        receiverThread->start();
    }
}

void SubDevice::stopAcquisition(bool) {
    // Behind the children, and also when one of them fails.
    struct AtTheEnd {
        const std::shared_ptr<DataReceiverThread>& thread;
        ~AtTheEnd() {
            if (thread) {
                thread->terminate();
            }
        }
    } const atTheEnd{receiverThread};
    Device::stopAcquisition(true);
}

void SubDevice::finalizeAcquisition(bool) {
    if (receiverThread) {
        receiverThread->stop();
    }
    Device::finalizeAcquisition(true);
}

void SubDevice::abortAcquisition() noexcept {
    // The thread first: it reads what the device below is about to let go.
    endReceiver();
    Device::abortAcquisition();
}

void SubDevice::endReceiver() noexcept {
    try {
        if (receiverThread) {
            receiverThread->stop();
        }
    } catch (...) {
        // It can't be joined from itself. It has been told to end, which it does at its next look.
    }
}

void SubDevice::initializeReceiverThread() {
    receiverThread->stop();
    auto device = getDevice();
    const std::int64_t deviceRate = device->getRate();
    const std::int64_t active = channels.activeChannelCount;
    std::int64_t block = 1;
    std::int64_t sampleSize = 0;
    if (active > 0) {
        sampleSize = static_cast<std::int64_t>(channels.front()->buffer->getSampleSize());
        block = static_cast<std::int64_t>(static_cast<double>(active * deviceRate * sampleSize) * 0.05);
    }
    auto& thread = *receiverThread;
    thread.blockSize = static_cast<unsigned long>(std::max<std::int64_t>(block, 1));
    thread.readId = 0;
    thread.setBufferCapacity(static_cast<unsigned long>(2 * deviceRate * active * sampleSize));
    thread.skip = 0;
    thread.timeout = 0;
    thread.firstTimeout = 1000;
    thread.readFn = nullptr;
    if (auto source = device->connectionPoint) {
        thread.readFn = [source](int id, unsigned char* data, unsigned long length, int timeout) {
            return source->readData(id, data, length, timeout);
        };
    }
}

void SubDevice::createAndInitializeReceiverThread() {
    if (receiverThread) {
        receiverThread->stop();
    } else {
        receiverThread = std::make_shared<SyncDataReceiverThread>();
        receiverThread->setName(getDisplayName());
    }
    initializeReceiverThread();
}

std::shared_ptr<Device> SubDevice::getDevice() const {
    return getParent<Device>();
}

}  // namespace Harvane::RT::Modules::Daq
