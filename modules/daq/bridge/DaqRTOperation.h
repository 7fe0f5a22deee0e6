#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <zorn/structure/channel.h>
#include <zorn/structure/module.h>

namespace Harvane::RT::Modules::Daq {

class DaqStructure;

// Routes from host channels out of the instrument: as messages of a CAN port, on every nth cycle where the source has
// something new, or as the value of an analog output, on every cycle. A user describes a route as an object of one of
// three host classes, which stands on the host channel as its property "RTC". Routes run in the host's real-time
// operation mode only.
//
// Registers the classes as long as it lives. The registry of classes belongs to the whole process: objects of this
// class, in whatever library, share one registration, and classes that others have registered stay. Objects of a class
// that is gone keep the values that were set.
//
// Module thread, but for processData, which never runs at the same time.
class DaqRTOperation {
public:
    DaqRTOperation(DaqStructure& structure, const Core::DataPtr& data);
    virtual ~DaqRTOperation();
    DaqRTOperation(const DaqRTOperation&) = delete;
    DaqRTOperation& operator=(const DaqRTOperation&) = delete;

    static constexpr const char* CanClass = "RTC_CAN";
    static constexpr const char* CanV1Class = "RTC_CAN_V1";
    static constexpr const char* AOClass = "RTC_AO";

    static constexpr const char* EnabledProp = "Enabled";
    static constexpr const char* MessagesProp = "Messages";      // List of [CAN identifier, NodeId of the source].
    static constexpr const char* OutputRateProp = "OutputRate";  // Messages per second; "RTC_CAN" sends in each cycle.
    static constexpr const char* ChIndexProp = "ChIndex";        // NodeId of the source channel.
    static constexpr const char* ScalingTypeProp = "ScalingType";

    void registerCanClass();
    void registerAOClass();
    void unregisterCanClass() noexcept;
    void unregisterAOClass() noexcept;

    // Reads the routes. `rate`: cycles per second. A route that lacks what it needs is left out, with a remark; one
    // that isn't made as it should be is the host's exception, with the channel's name.
    void prepareAcquisition(int rate);
    // The remarks go to the log.
    void tellRemarks() const;
    // Once per cycle. A route that fails holds up no other; the first failure leaves at the end.
    void processData();

    // The channel with this NodeId, in the whole tree or from a node down; an empty pointer when there is none.
    Core::ChannelPtr<Core::IChannel> findChannel(const Core::StringPtr& identifier) const;
    Core::ChannelPtr<Core::IChannel> findChannel(const Core::NodePtr<Core::INode>& node,
                                                 const Core::StringPtr& identifier) const;
    // The output channel in the folder of a CAN port's input channel; an empty pointer when there is none.
    Core::ChannelPtr<Core::IChannel> getCanChannel(const Core::ChannelPtr<Core::IChannel>& channel,
                                                   bool isControl) const;

private:
    struct RtcCanStruct {
        Core::AsyncChannelPtr canChannel;
        Core::ChannelPtr<Core::IChannel> channel;
        std::int32_t messageId = 0;
        std::int64_t lastSampleCount = 0;  // of the source, at the last message
        std::int32_t outputDivider = 1;
    };
    struct RtcAOStruct {
        Core::AsyncChannelPtr aoChannel;
        Core::ChannelPtr<Core::IChannel> channel;
        double scale = 1.0;
        double offset = 0.0;
        // Of the target.
        Core::SampleDataType type = Core::SampleDataType::Float64;
        double channelScale = 1.0;
        double channelOffset = 0.0;
    };

    void prepareCanMessages(int rate);
    void prepareCanRoutes(int rate, const Core::ChannelPtr<Core::IChannel>& hostChannel);
    void prepareAO();
    void prepareAORoute(const Core::ChannelPtr<Core::IChannel>& hostChannel);
    Core::ChannelPtr<Core::IChannel> findSource(const Core::ChannelPtr<Core::IChannel>& target,
                                                const Core::StringPtr& identifier);
    void remark(const Core::ChannelPtr<Core::IChannel>& channel, const std::string& text);
    void processCanMessages();
    void processAO();
    static void process(RtcCanStruct& route, long now);
    static void process(const RtcAOStruct& route, long now);
    long currentClock() const;

    const Core::DataPtr data_;
    DaqStructure& structure_;
    bool active_ = false;
    std::uint64_t cycleCounter_ = 0;  // since prepareAcquisition
    std::vector<RtcCanStruct> canRoutes_;
    std::vector<RtcAOStruct> aoRoutes_;
    std::vector<std::string> remarks_;    // of the last preparation
    Core::PropertyObjectClassPtr users_;  // held by everybody who needs the classes
};

}  // namespace Harvane::RT::Modules::Daq
