#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "modules/daq/objectmodel/AmplifierSettings.h"
#include "modules/daq/objectmodel/DaqObject.h"

namespace Harvane::RT::Modules::Daq {

class AIChannel;

// Why settings are not in force.
struct AmplifierFailure {
    std::string step;    // The setting, or what was done with all of them.
    std::string reason;  // "refused with status 3", "no answer", or what the bus said.
    std::chrono::system_clock::time_point time;

    std::string text() const { return step + ": " + reason; }
};

// Signal conditioner in front of one analog input: its settings and the arithmetic that makes scale, offset and device
// range of them. It knows no hardware; a plain one stands where no module sits, with a range of +-10. Its parent is
// the AIDevice that made it.
//
// The settings are published as a whole. One thread at a time changes them, the one that configures; any thread may
// read. Nothing is called and nothing waited for while the lock behind them is held.
class Amplifier : public DaqObject {
public:
    Amplifier();
    ~Amplifier() override;

    virtual void initialize();
    // Sends changed settings to the hardware; false when that failed.
    virtual bool update();
    virtual int getModuleType();
    virtual double getScale();
    virtual double getOffset();
    virtual double getMinValue();
    virtual double getMaxValue();
    virtual int getSensorStatus();
    virtual int readTeds(unsigned char* data);
    virtual int resetTedsCustom();
    virtual int writeTedsCustom(unsigned char* data, unsigned long length);
    virtual int readTedsCustom(unsigned char* data, unsigned long length);
    virtual int finalizeTedsCustom();
    virtual void notifyEnterChSetup();
    virtual void notifyLeaveChSetup();
    virtual int getHwCapabilities();
    virtual int getConnectorType();
    virtual int getFwCapabilities();
    virtual bool isBridgeExcScalingEnabled() const;
    virtual bool isCurrentScalingEnabled() const;
    virtual bool isResistanceScalingEnabled() const;
    virtual bool isSelectedExternalShuntUnitInmA() const;
    virtual int calculateResistanceModeDeviceRangeIndex() const;
    virtual void updateDeviceRangeDuringAcquisition(int index);
    virtual void updateCalibrationFactorsDuringAcquisition();
    // The settings by which the hardware works, to which scale and range of the channel belong: those that it has
    // acknowledged last, and before the first ones those of a plain amplifier. Without hardware the settings.
    virtual std::shared_ptr<const AmplifierSettings> settingsInForce() const;
    // Whether the hardware is known to work by them.
    virtual bool areSettingsInForceKnown() const;
    // The coming update is a request of its own, whatever has been refused before.
    virtual void beginRequest();

    // What is asked for. Never null.
    std::shared_ptr<const AmplifierSettings> settings() const;
    void setSettings(AmplifierSettings settings);
    // Publishes a copy that `change` has edited.
    template <class Change>
    void edit(Change change) {
        AmplifierSettings copy = *settings();
        change(copy);
        setSettings(std::move(copy));
    }
    // Why an update failed. It stays until a newer request is in force.
    std::optional<AmplifierFailure> lastFailure() const;

    // Module type, hardware and firmware capabilities and connector type, joined by ".": the key of a definition.
    std::string getId();
    std::string getMeasureType() const;
    std::string getBridgeType() const;
    std::string getInputType() const;
    std::string getCoupling() const;
    // The channel of the parent at the amplifier's index; null when the device is gone. std::out_of_range beyond the
    // device's channels.
    std::shared_ptr<AIChannel> getAIChannel();
    double getBridgeExcitationScale() const;
    double getCurrentScale() const;
    double getResistanceScale() const;
    // Of the settings around the present balance offset, see there.
    double getFullDeviceRangeMin(unsigned long index) const;
    double getFullDeviceRangeMax(unsigned long index) const;
    int calculateBridgeModeDeviceRangeIndex() const;
    int calculateRealDeviceRangeIndex() const;

    // Each edits the settings by itself.
    void clearMeasurementValues();
    void addMeasurementValue(const std::string& value);
    void clearRanges();
    void addRangeValue(const std::string& value);
    void clearMinValues();
    void addMinValue(double value);
    void clearMaxValues();
    void addMaxValue(double value);
    void clearLpFilters();
    void addLpFilter(const std::string& value);
    void clearHpFilters();
    void addHpFilter(const std::string& value);
    void clearInputTypes();
    void addInputType(const std::string& value);
    void clearConnectionTypes();
    void addConnectionType(const std::string& value);
    void clearExcitations();
    void addExcitation(double value);
    void clearExcitationTypes();
    void addExcitationType(const std::string& value);
    void clearExcitationUnits();
    void addExcitationUnit(const std::string& value);
    void clearBridgeTypes();
    void addBridgeType(const std::string& value);
    void clearBridgeShunts();
    void addBridgeShunt(const std::string& value);
    void clearBridgeResistances();
    void addBridgeResistance(double value);
    void clearDeviceRanges();
    void addDeviceRange(double value);

    std::int32_t index = 0;  // Place of the amplifier's channel in its AIDevice.
    std::string softwareRevision;
    std::string hardwareRevision;
    std::string serialNumber;
    std::string calibrationDate;
    // Software balance offset, in the bridge's unit. The balancing thread moves it while others read it.
    std::atomic<double> bridgeOffset{0.0};
    bool ledControl = false;  // The module has an LED that notices are sent to.

protected:
    void setFailure(std::optional<AmplifierFailure> failure);
    // What the hardware has taken last; null before the first.
    std::shared_ptr<const AmplifierSettings> taken() const;
    void setTaken(std::shared_ptr<const AmplifierSettings> settings);

private:
    mutable std::mutex mutex_;
    std::shared_ptr<const AmplifierSettings> settings_ = std::make_shared<const AmplifierSettings>();
    std::shared_ptr<const AmplifierSettings> taken_;
    std::optional<AmplifierFailure> failure_;
};

}  // namespace Harvane::RT::Modules::Daq
