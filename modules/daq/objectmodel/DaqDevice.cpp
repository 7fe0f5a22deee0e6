#include "modules/daq/objectmodel/DaqDevice.h"

#include "modules/daq/objectmodel/AIDevice.h"
#include "modules/daq/objectmodel/CANDevice.h"
#include "modules/daq/objectmodel/DaqClock.h"
#include "modules/daq/objectmodel/DaqLoop.h"
#include "modules/daq/objectmodel/DaqTiming.h"
#include "modules/daq/objectmodel/GenericDaqClock.h"
#include "modules/daq/objectmodel/Log.h"
#include "modules/daq/objectmodel/StatusDevice.h"
#include "modules/daq/objectmodel/SubDevice.h"

namespace Harvane::RT::Modules::Daq {

DaqDevice::DaqDevice() = default;
DaqDevice::~DaqDevice() = default;

template <class T>
void DaqDevice::addPart(const std::shared_ptr<T>& part) {
    if (part) {
        part->setParent(shared_from_this());
        push_back(part);
    }
}

void DaqDevice::initialize() {
    // Each part may use those made before it.
    daqClock = createDaqClock();
    if (daqClock) {
        daqClock->setParent(shared_from_this());
    }
    masterClock = daqClock;
    daqTiming = createDaqTiming();
    addPart(daqTiming);
    statusDevice = createStatusDevice();
    addPart(statusDevice);
    aiDevice = createAIDevice();
    addPart(aiDevice);
    aoDevice = createAODevice();
    addPart(aoDevice);
    canDevice = createCANDevice();
    addPart(canDevice);
    cntDevice = createCntDevice();
    addPart(cntDevice);
    daqLoop = createDaqLoop();
    if (daqLoop) {
        daqLoop->setParent(shared_from_this());
    }
    Device::initialize();
}

void DaqDevice::initializeAcquisition(bool recursive) {
    Device::initializeAcquisition(recursive);
    if (daqClock) {
        daqClock->initializeAcquisition();
    }
    if (connectionPoint) {
        connectionPoint->connectData();
    }
}

void DaqDevice::startAcquisition(bool recursive) {
    Device::startAcquisition(recursive);
    if (daqClock) {
        daqClock->startAcquisition();
    }
}

void DaqDevice::finalizeAcquisition(bool) {
    if (connectionPoint) {
        connectionPoint->disconnectData();
    }
    Device::finalizeAcquisition(true);
}

void DaqDevice::abortAcquisition() noexcept {
    Device::abortAcquisition();
    try {
        if (connectionPoint && connectionPoint->dataConnected) {
            connectionPoint->disconnectData();
        }
    } catch (const std::exception& exception) {
        LOG_WARNING << getDisplayName() << ": the data connection could not be ended: " << textOf(exception);
    }
}

void DaqDevice::applySynchronization() {
    appliedSynchronization = synchronization;
    Device::applySynchronization();
}

SynchronizationOptions DaqDevice::getSynchronizationOptions() {
    return {Synchronization::CreateSyncOption(SynchronizationMode::Standalone, {})};
}

bool DaqDevice::ioctl(int, const std::string&, std::string&) {
    return false;
}

std::shared_ptr<DaqClock> DaqDevice::createDaqClock() {
    return std::make_shared<GenericDaqClock>();
}

std::shared_ptr<DaqTiming> DaqDevice::createDaqTiming() {
    return nullptr;
}

std::shared_ptr<AIDevice> DaqDevice::createAIDevice() {
    return nullptr;
}

std::shared_ptr<SubDevice> DaqDevice::createAODevice() {
    return nullptr;
}

std::shared_ptr<CANDevice> DaqDevice::createCANDevice() {
    return nullptr;
}

std::shared_ptr<SubDevice> DaqDevice::createCntDevice() {
    return nullptr;
}

std::shared_ptr<StatusDevice> DaqDevice::createStatusDevice() {
    return nullptr;
}

std::shared_ptr<DaqLoop> DaqDevice::createDaqLoop() {
    return nullptr;
}

void DaqDevice::setSynchronizationOption(const SynchronizationOption& option) {
    synchronization.slaveMode = option.first;
    synchronization.sourceModes = option.second;
}

std::vector<std::shared_ptr<DaqDevice>> DaqDevice::getDaqDevicesWithSR() const {
    std::vector<std::shared_ptr<DaqDevice>> found;
    if (auto owner = getParent<Device>()) {
        for (const auto& device : owner->getAllDevices()) {
            auto daqDevice = std::dynamic_pointer_cast<DaqDevice>(device);
            if (daqDevice && daqDevice->hasDeviceRate()) {
                found.push_back(daqDevice);
            }
        }
    }
    return found;
}

}  // namespace Harvane::RT::Modules::Daq
