#pragma once

namespace Harvane::RT::Modules::Daq {

// Names of the properties that the bridge puts on the data module.
class DataModuleConsts {
public:
    static constexpr const char* SampleRateProp = "SampleRate";
    static constexpr const char* MinSampleRateProp = "MinSampleRate";
    static constexpr const char* MaxSampleRateProp = "MaxSampleRate";
    static constexpr const char* CheckSampleRateProp = "CheckSampleRate";
    static constexpr const char* CycleRateProp = "CycleRate";
    static constexpr const char* CheckCycleRateProp = "CheckCycleRate";
    static constexpr const char* CheckCycleRateBasedOnDeviceSampleRatesProp = "CheckCycleRateBasedOnDeviceSampleRates";
    static constexpr const char* BeforeStartProp = "BeforeStart";
    static constexpr const char* SynchronizationOptionsProp = "SynchronizationOptions";
    static constexpr const char* SynchronizationProp = "Synchronization";
    static constexpr const char* AppliedSynchronizationProp = "AppliedSynchronization";  // the option in force
    static constexpr const char* ClockStateProp = "ClockState";    // a function, list of [name, value]; any thread
    static constexpr const char* HealthStateProp = "HealthState";  // likewise; see HostHealth
    // Of the data module's parent, kept by the host.
    static constexpr const char* IsUpdatingFromConfigurationProp = "isUpdatingFromConfiguration";
    // Of the data, kept by the host.
    static constexpr const char* OperationModeProp = "OperationMode";
};

// Names of the properties on the folder of a device.
class DeviceFolderConsts {
public:
    static constexpr const char* SerialNumberProp = "SerialNumber";
    static constexpr const char* RevisionCounterProp = "RevisionCounter";
    static constexpr const char* ManufacturerProp = "Manufacturer";
    static constexpr const char* ModelProp = "Model";
    static constexpr const char* DeviceManualProp = "DeviceManual";
    static constexpr const char* DeviceRevisionProp = "DeviceRevision";
    static constexpr const char* SoftwareRevisionProp = "SoftwareRevision";
    static constexpr const char* HardwareRevisionProp = "HardwareRevision";
    static constexpr const char* DeviceHealthProp = "DeviceHealth";
    static constexpr const char* SampleRateProp = "SampleRate";
    static constexpr const char* MinSampleRateProp = "MinSampleRate";
    static constexpr const char* MaxSampleRateProp = "MaxSampleRate";
    static constexpr const char* CheckRateProp = "CheckRate";
    static constexpr const char* IOCtlProp = "IOCtl";
    static constexpr const char* BaseClockProp = "BaseClock";
    static constexpr const char* SharedInputsProp = "SharedInputs";  // of a group of channels
};

// Names of the properties that every channel gets besides those of the class "Channel".
class DaqChannelConsts {
public:
    static constexpr const char* BufferSizeIsMultipleOfProp = "BufferSizeIsMultipleOf";
    static constexpr const char* MinSampleRateProp = "MinSampleRate";
    static constexpr const char* MaxSampleRateProp = "MaxSampleRate";
    static constexpr const char* CheckRateProp = "CheckRate";
    static constexpr const char* EnabledProp = "Enabled";
    static constexpr const char* PhaseDelayProp = "PhaseDelay";
    static constexpr const char* ExactSampleRateProp = "ExactSampleRate";  // of a synchronous channel, a ratio in Hz
    static constexpr const char* LostSamplesProp = "LostSamples";          // of an asynchronous channel, a function
};

// Names of the properties of a route out of the instrument and of a CAN port, on the channel itself.
class OutputChannelConsts {
public:
    static constexpr const char* RtcProp = "RTC";
    static constexpr const char* BaudRateProp = "BaudRate";
    static constexpr const char* OperationModeProp = "OperationMode";
    static constexpr const char* ReadOnlyMode = "ReadOnly";
    static constexpr const char* ReadWriteMode = "ReadWriteAcq";
};

}  // namespace Harvane::RT::Modules::Daq
