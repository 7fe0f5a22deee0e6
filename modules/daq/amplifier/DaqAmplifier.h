#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <zorn/structure/channel.h>
#include <zorn/structure/module.h>

#include "modules/daq/amplifier/AmplifierBridgeBalancer.h"
#include "modules/daq/hostobjects/HostHooks.h"

namespace Harvane::RT::Modules::Daq {

class Amplifier;
struct AmplifierSettings;

// Joins a host channel, whose properties come from an amplifier's definition and are edited by the user, with the
// amplifier that drives the hardware. An edit changes nothing by itself; update carries it: lists of choices and values
// become one value, the amplifier's settings, the hardware is told, and what of that came to differ goes back into the
// properties.
//
// Two hidden properties say how it stands, on each channel of the amplifier; nobody else can write them.
// "AmplifierFailure": why an update failed ("Range: refused with status 3"), "" when none did. It stays until a newer
// request is in force. "SettingsInForce": what the hardware works by ("Measurement: Bridge; Range: 5 mV/V; ..."), ""
// while that isn't known.
//
// A property that the channel doesn't have is passed over everywhere: what an amplifier can do is decided by its
// definition. Failures of the host are exceptions of its codes, whose text names channel and property. All of it runs
// on the host's configuration thread.
class DaqAmplifier {
public:
    DaqAmplifier(const Core::ChannelPtr<Core::IChannel>& channel, const std::shared_ptr<Amplifier>& amplifier,
                 Core::AcquisitionSyncPtr sync,
                 std::chrono::nanoseconds settleTime = AmplifierBridgeBalancer::usualSettleTime);
    // Tells a running balancing to stop and doesn't wait for it.
    ~DaqAmplifier();
    DaqAmplifier(const DaqAmplifier&) = delete;
    DaqAmplifier& operator=(const DaqAmplifier&) = delete;

    std::shared_ptr<Amplifier> getAmplifier() const { return amplifier_; }

    // Gives the channel its class and its operations. Once, right after construction.
    void init(const std::string& className);

    // The road of a change. With adjustFilter the high-pass filter goes back to its default when its choices have
    // changed. True: what the hardware refused shows in the values that come back. Only from within an update, by a
    // listener to one of the properties, it does nothing and is false.
    bool update(bool adjustFilter);
    // The parts of update: lists, values, and what comes back.
    void updateCapabilities(bool adjustFilter);
    void writeToDevice() const;
    void updateRtAmplifierProperties() const;

    // Another channel of this amplifier, which shows how the amplifier stands as well.
    void addSharer(const Core::ChannelPtr<Core::IChannel>& channel);

    bool hasProperty(const Core::StringPtr& name) const;
    bool hasTedsProperties() const;
    bool hasBridgeBalanceProperties() const;
    // These two fill what the definition has declared.
    void initTedsProperties();
    void initBridgeBalanceProperties();

private:
    struct Row;
    static const Row rows[];

    std::string channelName() const;
    template <class Body>
    void ifPresent(const char* name, Body&& body) const;
    template <class T>
    std::vector<T> listOf(const char* name) const;
    template <class T>
    void giveBack(const char* name, const T& value) const;
    bool excitationIsChoice() const;
    void readLists(AmplifierSettings& settings, bool adjustFilter) const;
    void readRanges(AmplifierSettings& settings) const;
    void readHighPassFilters(AmplifierSettings& settings, bool adjustFilter) const;
    void readValues(AmplifierSettings& settings) const;
    void readValue(const Row& row, AmplifierSettings& settings) const;
    void giveValue(const Row& row, const AmplifierSettings& settings) const;
    std::string settingsInForceText() const;
    void showState();
    void showStateOn(const Core::ChannelPtr<Core::IChannel>& channel);

    template <class Body>
    void setProcedure(const char* name, Body body);
    template <class Body>
    void setFunction(const char* name, Body body);
    template <class Body>
    void registerProcedure(const char* name, Body body);
    void registerFacts();
    Core::ErrCode onUpdateAmplifier(const Core::BasePtr& argument);
    Core::BasePtr readTeds() const;
    Core::BasePtr writeTedsCustom(const Core::BasePtr& argument) const;
    Core::BasePtr readTedsCustom(const Core::BasePtr& argument) const;

    Core::ChannelPtr<Core::IChannel> channel_;
    std::shared_ptr<Amplifier> amplifier_;
    AmplifierBridgeBalancer balancer_;
    std::vector<Core::ChannelPtr<Core::IChannel>> shownOn_;
    bool updating_ = false;
    bool showing_ = false;
    HostHooks hooks_;
};

}  // namespace Harvane::RT::Modules::Daq
