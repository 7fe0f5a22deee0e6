#pragma once

namespace Harvane::RT::Modules::Daq {

// The host's classes for routes from a host channel out of the instrument: "RTC_CAN" and "RTC_CAN_V1" for the messages
// of a CAN port, "RTC_AO" for an analog output. The registry of classes belongs to the whole process, so several
// modules share one registration: the first object registers, the last one unregisters. Objects of a class that is
// gone keep the values that were set. Module thread.
class RtcClasses {
public:
    RtcClasses();
    ~RtcClasses();
    RtcClasses(const RtcClasses&) = delete;
    RtcClasses& operator=(const RtcClasses&) = delete;

    static constexpr const char* CanClass = "RTC_CAN";
    static constexpr const char* CanV1Class = "RTC_CAN_V1";
    static constexpr const char* AOClass = "RTC_AO";

    // What the bridge and the routes read and write.
    static constexpr const char* EnabledProp = "Enabled";
    static constexpr const char* MessagesProp = "Messages";      // List of [CAN identifier, NodeId of the source].
    static constexpr const char* OutputRateProp = "OutputRate";  // Messages per second.
    static constexpr const char* ChIndexProp = "ChIndex";        // NodeId of the source channel.
    static constexpr const char* ScalingTypeProp = "ScalingType";

private:
    static void registerCanClass();
    static void registerAOClass();
    static void unregisterCanClass() noexcept;
    static void unregisterAOClass() noexcept;
};

}  // namespace Harvane::RT::Modules::Daq
