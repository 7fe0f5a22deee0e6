#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "modules/daq/objectmodel/Amplifier.h"

namespace Harvane::Shared::Kestrix {
class AmplifierProperties;
struct LinkFailure;
}  // namespace Harvane::Shared::Kestrix

namespace Harvane::RT::Modules::Daq {

// An amplifier module of the instrument: settings of the base class, hardware behind AmplifierProperties, which the
// link shares. A module type of 1 or more means that the slot is occupied.
class KestrixAmplifier : public Amplifier {
public:
    explicit KestrixAmplifier(std::shared_ptr<Shared::Kestrix::AmplifierProperties> properties);
    ~KestrixAmplifier() override;

    void initialize() override;
    // Writes the settings to the module, measurement type first since it invalidates the coupling, then the command
    // that puts all of them in force, then scale and offset are read. False when that failed; the rest isn't done then.
    //
    // What the module refuses is taken back: the settings become those that it took last, as a whole. Without an
    // answer, or when the bus fails, the request stays and the next update sends it again, all of it. A multiplexer
    // that is stuck passes on as std::logic_error, and the request stays. True without a module, and for one that has
    // no numbers for its calibration: its settings are in force, but the failure says what the scale is not.
    bool update() override;

    int getModuleType() override;
    double getScale() override;
    // The module's own offset, and for a bridge the balance on top of it.
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

    std::shared_ptr<const AmplifierSettings> settingsInForce() const override;
    bool areSettingsInForceKnown() const override;
    void beginRequest() override;

private:
    struct Row;
    static const std::array<Row, 8> rows;
    // What is sent of the settings, in the order of the rows; nothing where the amplifier doesn't have the setting.
    using Request = std::array<std::optional<double>, 8>;

    static Request requestOf(const AmplifierSettings& settings);
    static AmplifierSettings takenBack(const AmplifierSettings& inForce, const AmplifierSettings& requested);
    bool fail(const Request& request, const std::string& step, const Shared::Kestrix::LinkFailure& failure);

    const std::shared_ptr<Shared::Kestrix::AmplifierProperties> properties_;
    std::optional<Request> fallback_;  // what was gone back to after a refusal
};

}  // namespace Harvane::RT::Modules::Daq
