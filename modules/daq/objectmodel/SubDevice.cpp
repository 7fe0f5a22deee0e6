#include "modules/daq/objectmodel/SubDevice.h"

#include <algorithm>
#include <cstdint>

#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/SyncDataReceiverThread.h"

namespace Harvane::RT::Modules::Daq {

SubDevice::SubDevice() = default;

SubDevice::~SubDevice() {
    if (receiverThread) {
        receiverThread->stop();
    }
}

std::string SubDevice::getElementId() const {
    return getDisplayName();
}

void SubDevice::startAcquisition(bool recursive) {
    Device::startAcquisition(recursive);
    if (receiverThread) {
        receiverThread->start();
    }
}

void SubDevice::stopAcquisition(bool) {
    Device::stopAcquisition(true);
    if (receiverThread) {
        receiverThread->terminate();
    }
}

void SubDevice::finalizeAcquisition(bool) {
    if (receiverThread) {
        receiverThread->waitFor();
    }
    Device::finalizeAcquisition(true);
}

void SubDevice::initializeReceiverThread() {
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
    if (!receiverThread) {
        receiverThread = std::make_shared<SyncDataReceiverThread>();
    }
    initializeReceiverThread();
}

std::shared_ptr<Device> SubDevice::getDevice() const {
    return getParent<Device>();
}

}  // namespace Harvane::RT::Modules::Daq
