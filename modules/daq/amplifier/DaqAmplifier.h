#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <zorn/structure/channel.h>
#include <zorn/structure/module.h>

#include "modules/daq/amplifier/AmplifierBridgeBalancer.h"
#include "modules/daq/hostobjects/LifeToken.h"

namespace Harvane::RT::Modules::Daq {

class Amplifier;

// Joins a host channel, whose properties come from an amplifier's definition and are edited by the user, with the
// amplifier that drives the hardware. An edit changes nothing by itself; update carries it: lists of choices, then
// values, then the hardware, and what that really took goes back into the properties.
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
    // changed. Always true: what the hardware refused shows in the values that come back.
    bool update(bool adjustFilter);
    void updateCapabilities(bool adjustFilter);
    void writeToDevice() const;
    void updateRtAmplifierProperties() const;

    bool hasProperty(const Core::StringPtr& name) const;
    bool hasTedsProperties() const;
    bool hasBridgeBalanceProperties() const;
    // These two fill what the definition has declared.
    void initTedsProperties();
    void initBridgeBalanceProperties();

private:
    using Texts = std::vector<std::string>;
    using Numbers = std::vector<double>;

    std::string channelName() const;
    template <class Body>
    void ifPresent(const char* name, Body&& body) const;
    bool excitationIsChoice() const;
    template <class T>
    void takeList(const char* name, std::vector<T> Amplifier::*list) const;
    void takeRanges() const;
    void takeHighPassFilters(bool adjustFilter) const;
    template <class T>
    void takeValue(const char* name, T Amplifier::*field) const;
    template <class T>
    void giveValue(const char* name, T Amplifier::*field) const;
    template <class T>
    T settingOf(T Amplifier::*field) const;

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
    LifeToken life_;
};

}  // namespace Harvane::RT::Modules::Daq
