#pragma once

namespace Harvane::RT::Modules::Daq {

// Names of the host properties that an amplifier may have. Which of them it has, its definition says.
struct DaqAmplifierConsts {
    static constexpr const char* AmplifierID = "AmplifierID";
    static constexpr const char* Range = "Range";
    static constexpr const char* Measurement = "Measurement";
    static constexpr const char* LPFilter = "LPFilter";
    static constexpr const char* HPFilter = "HPFilter";
    static constexpr const char* InputType = "InputType";
    static constexpr const char* BridgeType = "BridgeType";
    static constexpr const char* BridgeShunt = "BridgeShunt";
    static constexpr const char* BridgeLeg = "BridgeLeg";
    static constexpr const char* BridgeShuntValue = "BridgeShuntValue";
    static constexpr const char* BridgeResistance = "BridgeResistance";
    static constexpr const char* ExcitationType = "ExcitationType";
    static constexpr const char* ExcitationUnit = "ExcitationUnit";
    static constexpr const char* ExcitationValue = "Excitation";
    static constexpr const char* ConnectionType = "ConnectionType";
    static constexpr const char* Short = "Short";
    static constexpr const char* Shunt = "Shunt";
    static constexpr const char* ExternalShunt = "ExternalShunt";
    static constexpr const char* ExternalShuntResistance = "ExternalShuntResistance";
    static constexpr const char* ExternalShuntPower = "ExternalShuntPower";
    static constexpr const char* BridgeOffset = "BridgeOffset";
    static constexpr const char* DeviceRanges = "DeviceRanges";
    static constexpr const char* AltExcPolarity = "AltExcPolarity";
    static constexpr const char* BridgeWires = "BridgeWires";
    static constexpr const char* ReadTeds = "ReadTeds";
    static constexpr const char* ResetTedsCustom = "ResetTedsCustom";
    static constexpr const char* WriteTedsCustom = "WriteTedsCustom";
    static constexpr const char* ReadTedsCustom = "ReadTedsCustom";
    static constexpr const char* FinalizeTedsCustom = "FinalizeTedsCustom";
    static constexpr const char* GetSensorStatus = "GetSensorStatus";
    static constexpr const char* SupportsLed1Control = "SupportsLed1Control";
    static constexpr const char* NotifyEnterChSetup = "NotifyEnterChSetup";
    static constexpr const char* NotifyLeaveChSetup = "NotifyLeaveChSetup";
    // What the module says of each amplifier, whatever its definition.
    static constexpr const char* AmplifierFailure = "AmplifierFailure";
    static constexpr const char* SettingsInForce = "SettingsInForce";
    static constexpr const char* GetSensorBalanceResult = "GetSensorBalanceResult";
};

}  // namespace Harvane::RT::Modules::Daq
