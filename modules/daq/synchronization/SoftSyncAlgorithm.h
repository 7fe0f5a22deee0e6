#pragma once

#include <cstdint>
#include <shared_mutex>

#include "modules/daq/synchronization/SoftSyncBase.h"

namespace Harvane::Utils::Synchronization {

// A running straight line through the pairs of both clocks. Each pair weighs the forgetting factor times as much as the
// one after it.
//
// The sums stand about the last pair and move along with it. About a fixed origin, let alone about 0, the squares
// outgrow their differences: after a million seconds a double would have three per cent of error in the slope.
//
// One thread brings pairs, resets and ends; any thread asks for times.
class SoftSyncAlgorithm : public SoftSyncBase {
public:
    // The line as it stands, for many times in a row: no lock, and the same line for all of them.
    struct Line {
        double master = 0.0;  // the last pair; 0 without any
        double slave = 0.0;
        double slope = 1.0;
        double offset = 0.0;

        // -1 without any pair.
        double masterTimeAt(double slaveTime) const {
            return master > 0.0 ? master + (slope * (slaveTime - slave) + offset) : -1.0;
        }
    };

    SoftSyncAlgorithm() = default;

    void initiate() override;
    // The device's rate is the slope's inverse, once there is a slope.
    void deInit() override;
    // Takes a pair of times above 0 that is not older than the last one. When one clock goes on and the other has
    // stepped back by more than a second, what was learned of the offset is void and the line begins again; its slope
    // stays until there are enough new pairs.
    void synchronizeClocks(double master, double slave) override;
    double masterTimeAt(double slave) const override { return line().masterTimeAt(slave); }
    Line line() const;
    double slaveTimeAt(double master) const override;
    void reset() override;

    void setDeviceTime(double master, double slave) { synchronizeClocks(master, slave); }
    double readSystemTimeD(double slave) const { return masterTimeAt(slave); }
    bool deviceStarted(double master, double slave) const;
    bool validTimeStamp(double master, double slave) const;

private:
    bool isNotOlder(double master, double slave) const;
    bool oneSteppedBack(double master, double slave) const;
    void resetRegression();
    void moveOrigin(double master, double slave);

    // Guards all that follows, and the last times.
    mutable std::shared_mutex mutex;
    // Seconds of the master in a second of the slave.
    double slope = 1.0;
    // The line's distance from the last pair, seconds of the master.
    double offset = 0.0;
    // Pairs until there is a slope, and what the forgetting factor follows from.
    std::int32_t window = 2;
    std::int64_t sampleCount = 0;
    double sumWeight = 0.0;
    double sumSlave = 0.0;
    double sumMaster = 0.0;
    double sumMasterSlave = 0.0;
    double sumSlaveSquared = 0.0;
    double forgettingFactor = 0.5;
};

}  // namespace Harvane::Utils::Synchronization
