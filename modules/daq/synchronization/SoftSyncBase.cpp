#include "modules/daq/synchronization/SoftSyncBase.h"

namespace Harvane::Utils::Synchronization {

void SoftSyncBase::initiate() {
    reset();
}

void SoftSyncBase::setDeviceRate(double rate) {
    deviceRate = rate;
}

double SoftSyncBase::getDeviceRate() {
    return deviceRate;
}

void SoftSyncBase::reset() {
    lastMasterTime = 0.0;
    lastSlaveTime = 0.0;
}

}  // namespace Harvane::Utils::Synchronization
