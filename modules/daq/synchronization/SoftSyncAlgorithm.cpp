#include "modules/daq/synchronization/SoftSyncAlgorithm.h"

#include <cmath>
#include <mutex>

namespace Harvane::Utils::Synchronization {

namespace {

// A clock set by more than this has begun again; less is jitter, and its pairs are passed over until it has caught up.
constexpr double stepSeconds = 1.0;
constexpr double unknownTime = -1.0;

}  // namespace

void SoftSyncAlgorithm::initiate() {
    reset();
    const std::unique_lock lock(mutex);
    slope = deviceRate > 0.0 ? 1.0 / deviceRate : 1.0;
    forgettingFactor = static_cast<double>(window - 1) / static_cast<double>(window);
}

void SoftSyncAlgorithm::deInit() {
    const std::unique_lock lock(mutex);
    // A master that stood still has said nothing about the rate.
    if (sampleCount > window && slope > 0.0) {
        deviceRate = 1.0 / slope;
    }
}

void SoftSyncAlgorithm::synchronizeClocks(double master, double slave) {
    const std::unique_lock lock(mutex);
    if (!deviceStarted(master, slave) || !std::isfinite(master) || !std::isfinite(slave)) {
        return;
    }
    if (oneSteppedBack(master, slave)) {
        resetRegression();
    } else if (!isNotOlder(master, slave)) {
        return;
    }

    moveOrigin(master, slave);
    // The new pair is the origin itself: it adds its weight and nothing else.
    sumWeight = 1.0 + forgettingFactor * sumWeight;
    sumMaster *= forgettingFactor;
    sumSlave *= forgettingFactor;
    sumMasterSlave *= forgettingFactor;
    sumSlaveSquared *= forgettingFactor;

    ++sampleCount;
    if (sampleCount > window) {
        const double spread = sumSlaveSquared - sumSlave * sumSlave / sumWeight;
        const double fitted = (sumMasterSlave - sumSlave * sumMaster / sumWeight) / spread;
        // A slave that stood still says nothing about the slope.
        if (spread > 0.0 && std::isfinite(fitted)) {
            slope = fitted;
        }
    }
    lastMasterTime = master;
    lastSlaveTime = slave;
    offset = (sumMaster - sumSlave * slope) / sumWeight;
}

SoftSyncAlgorithm::Line SoftSyncAlgorithm::line() const {
    const std::shared_lock lock(mutex);
    return {lastMasterTime, lastSlaveTime, slope, offset};
}

double SoftSyncAlgorithm::slaveTimeAt(double master) const {
    const std::shared_lock lock(mutex);
    if (lastSlaveTime <= 0.0 || slope == 0.0) {
        return unknownTime;
    }
    return lastSlaveTime + (master - lastMasterTime - offset) / slope;
}

void SoftSyncAlgorithm::reset() {
    const std::unique_lock lock(mutex);
    SoftSyncBase::reset();
    resetRegression();
}

bool SoftSyncAlgorithm::deviceStarted(double master, double slave) const {
    return master > 0.0 && slave > 0.0;
}

bool SoftSyncAlgorithm::validTimeStamp(double master, double slave) const {
    const std::shared_lock lock(mutex);
    return isNotOlder(master, slave);
}

bool SoftSyncAlgorithm::isNotOlder(double master, double slave) const {
    return lastMasterTime <= master && lastSlaveTime <= slave;
}

// When both are back it is an old pair that comes late.
bool SoftSyncAlgorithm::oneSteppedBack(double master, double slave) const {
    return (lastMasterTime - master > stepSeconds && lastSlaveTime <= slave) ||
           (lastSlaveTime - slave > stepSeconds && lastMasterTime <= master);
}

void SoftSyncAlgorithm::resetRegression() {
    sampleCount = 0;
    sumWeight = 0.0;
    sumSlave = 0.0;
    sumMaster = 0.0;
    sumMasterSlave = 0.0;
    sumSlaveSquared = 0.0;
}

// Expresses the sums about this pair instead of the last one: exact but for rounding, and small numbers stay small.
void SoftSyncAlgorithm::moveOrigin(double master, double slave) {
    const double masterMove = master - lastMasterTime;
    const double slaveMove = slave - lastSlaveTime;
    sumMasterSlave += -masterMove * sumSlave - slaveMove * sumMaster + masterMove * slaveMove * sumWeight;
    sumSlaveSquared += -2.0 * slaveMove * sumSlave + slaveMove * slaveMove * sumWeight;
    sumMaster -= masterMove * sumWeight;
    sumSlave -= slaveMove * sumWeight;
}

}  // namespace Harvane::Utils::Synchronization
