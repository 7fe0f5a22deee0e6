#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/DaqObject.h"

namespace Harvane::RT::Modules::Daq {

class AIChannel;

// Signal conditioner in front of one analog input: settings with their lists of choices and the arithmetic that makes
// scale, offset and device range of them. It knows no hardware; a plain one stands where no module sits, with a range
// of +-10. Its parent is the AIDevice that made it.
//
// The index beside a list comes from the host and may lie outside of the list. The operations here answer then with
// "" for a text and with the nearest entry for a number (0.0 for an empty list); code that reads a list by its index
// goes through textAt and valueAt.
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
    // Hardware range in the bridge's unit, shifted by the balance.
    double getFullDeviceRangeMin(unsigned long index) const;
    double getFullDeviceRangeMax(unsigned long index) const;
    // The last device range that covers the chosen range around the bridge offset, the first one as the fallback.
    // std::invalid_argument or std::out_of_range for a range text that is no number.
    int calculateBridgeModeDeviceRangeIndex() const;
    int calculateRealDeviceRangeIndex() const;

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

    // Entry of a list by an index that need not be valid.
    static std::string textAt(const std::vector<std::string>& list, std::int64_t index);
    static double valueAt(const std::vector<double>& list, std::int64_t index);

    std::int32_t index = 0;  // Place of the amplifier's channel in its AIDevice.
    std::string softwareRevision;
    std::string hardwareRevision;
    std::string serialNumber;
    std::string calibrationDate;
    std::string rangeUnit;  // Unit of the ranges and of the channel.
    std::vector<std::string> measurements;
    std::int32_t measurementIndex = 0;
    std::vector<std::string> ranges;  // Display names; for a bridge each is a number in text form.
    std::int32_t rangeIndex = 0;
    std::int32_t deviceRangeIndex = 0;
    std::vector<double> deviceRanges;      // Ranges of the hardware.
    std::vector<double> minValues{-10.0};  // Lower end of each range choice.
    std::vector<double> maxValues{10.0};   // Upper end of each range choice.
    std::vector<std::string> lpFilters;
    std::int32_t lpFilterIndex = 0;
    std::vector<std::string> hpFilters;  // The texts serve as the coupling.
    std::int32_t hpFilterIndex = 0;
    std::vector<std::string> inputTypes;
    std::int32_t inputTypeIndex = 0;
    std::vector<std::string> bridgeTypes;
    std::int32_t bridgeTypeIndex = 0;
    double bridgeShuntValue = 0.0;
    std::vector<std::string> bridgeShunts;
    std::int32_t bridgeShuntIndex = 0;
    std::int32_t bridgeLeg = 0;
    std::int32_t externalShuntIndex = 0;
    double externalShuntResistance = 0.0;  // Ohm.
    double externalShuntPower = 0.0;
    double excitationValue = 0.0;
    std::int32_t excitationIndex = 0;
    std::vector<double> excitations;
    double bridgeResistance = 0.0;  // Ohm.
    std::vector<double> bridgeResistances;
    std::vector<std::string> excitationTypes;
    std::int32_t excitationTypeIndex = 0;
    std::vector<std::string> excitationUnits;
    std::int32_t excitationUnitIndex = 0;
    std::vector<std::string> connectionTypes;
    std::int32_t connectionTypeIndex = 0;
    bool shortPresent = false;  // The channel has a short switch at all.
    bool shortOn = false;       // The short switch.
    bool shunt = false;
    // Software balance offset, in the bridge's unit. The balancing thread moves it while others read it.
    std::atomic<double> bridgeOffset{0.0};
    bool altExcPolarity = false;
    std::int32_t bridgeWires = 0;
    bool ledControl = false;  // The module has an LED that notices are sent to.
};

}  // namespace Harvane::RT::Modules::Daq
