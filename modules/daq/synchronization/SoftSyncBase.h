#pragma once

namespace Harvane::Utils::Synchronization {

// Relates the time of a device without hardware synchronisation (slave) to the master clock's. Times are seconds.
class SoftSyncBase {
public:
    // Begins anew, with what is known of the device's rate.
    virtual void initiate();
    // Keeps what has been learned for the next time.
    virtual void deInit() = 0;
    // The same moment on both clocks.
    virtual void synchronizeClocks(double master, double slave) = 0;
    // -1.0 as long as nothing is known.
    virtual double masterTimeAt(double slave) const = 0;
    virtual double slaveTimeAt(double master) const = 0;
    // Seconds of the device in a second of the master. The owner's thread.
    virtual void setDeviceRate(double rate);
    virtual double getDeviceRate();
    // Forgets the pairs.
    virtual void reset();

    virtual ~SoftSyncBase() = default;

protected:
    SoftSyncBase() = default;
    SoftSyncBase(const SoftSyncBase&) = delete;
    SoftSyncBase& operator=(const SoftSyncBase&) = delete;

    // The last pair taken; 0 before the first one.
    double lastMasterTime = 0.0;
    double lastSlaveTime = 0.0;
    double deviceRate = 1.0;
};

}  // namespace Harvane::Utils::Synchronization
