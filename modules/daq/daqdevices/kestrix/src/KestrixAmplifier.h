#pragma once

#include <memory>

#include "modules/daq/objectmodel/Amplifier.h"

namespace Harvane::Shared::Kestrix {
class AmplifierProperties;
}

namespace Harvane::RT::Modules::Daq {

// An amplifier module of the instrument: settings of the base class, hardware behind AmplifierProperties, which the
// link shares. A module type of 1 or more means that the slot is occupied.
class KestrixAmplifier : public Amplifier {
public:
    explicit KestrixAmplifier(std::shared_ptr<Shared::Kestrix::AmplifierProperties> properties);
    ~KestrixAmplifier() override;

    void initialize() override;
    // Writes the settings to the module, measurement type first since it invalidates the coupling. False when the
    // module refuses one; the settings after it are not written then, and all of them go back to what the module has.
    // True without a module.
    bool update() override;

    int getModuleType() override;
    double getScale() override;
    double getOffset() override;
    int getSensorStatus() override;
    int readTeds(unsigned char* data) override;
    int resetTedsCustom() override;
    int writeTedsCustom(unsigned char* data, unsigned long size) override;
    int readTedsCustom(unsigned char* data, unsigned long size) override;
    int finalizeTedsCustom() override;
    // The set-up LED, for modules that have one under control.
    void notifyEnterChSetup() override;
    void notifyLeaveChSetup() override;
    int getHwCapabilities() override;
    int getConnectorType() override;
    int getFwCapabilities() override;

    const std::shared_ptr<Shared::Kestrix::AmplifierProperties>& getAmplifier() const { return properties_; }

private:
    void writeSettings();
    void takeBackSettings();

    const std::shared_ptr<Shared::Kestrix::AmplifierProperties> properties_;
};

}  // namespace Harvane::RT::Modules::Daq
