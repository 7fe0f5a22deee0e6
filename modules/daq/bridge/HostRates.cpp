#include "modules/daq/bridge/HostRates.h"

#include <algorithm>
#include <optional>
#include <vector>

#include <zorn/structure/property_classes.h>

#include "modules/daq/bridge/DaqStructureConsts.h"
#include "modules/daq/bridge/HostValues.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/objectmodel/AIDevice.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "modules/daq/objectmodel/Log.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

int changedRate(const GenericPropertyObjectPtr& sender, const PropertyValueChangedEventArgsPtr& args) {
    return intOf(changedObject(sender, args));
}

void logFailure(const char* handler, const std::exception& exception) {
    LOG_(0, plog::error) << "Error executing DaqStructure::" << handler << ": " << textOf(exception);
}

}  // namespace

int baseClockIndex(const AIDevice& device) {
    const auto& clocks = device.baseClocks;
    const auto found = std::find(clocks.begin(), clocks.end(), device.baseClock);
    return found == clocks.end() ? -1 : static_cast<int>(found - clocks.begin());
}

HostRates::HostRates(BridgeState& state) : state_(state), controller_(state.controller) {}

template <class Body>
void HostRates::runHandler(const char* name, Body&& body) {
    if (state_.updating > 0 || controller_.acqRunning()) {
        return;
    }
    const UpdatingScope scope(state_);
    controller_.invalidate();
    try {
        body();
    } catch (const std::exception& exception) {
        logFailure(name, exception);
    }
}

// The one way to answer a request: what differs is logged and written back.
template <class I>
int HostRates::adjust(const char* what, int requested, int possible, const PropertyObjectPtr<I>& owner,
                      const char* property) {
    if (possible != requested) {
        LOG_(0, plog::error) << what << " was set to " << requested << ", adjusted to " << possible;
        owner.setPropertyValue(property, rateValue(possible));
    }
    return possible;
}

bool HostRates::isUpdatingFromConfiguration() const {
    const auto parent = state_.dataModule.getParent();
    return parent && parent.hasProperty(DataModuleConsts::IsUpdatingFromConfigurationProp) &&
           parent.getPropertyValue<bool>(DataModuleConsts::IsUpdatingFromConfigurationProp);
}

// ---- Clock ----------------------------------------------------------------------------------------------------------

bool HostRates::setDaqDeviceBaseClock(const std::shared_ptr<AIDevice>& aiDevice, int clock) {
    const int before = aiDevice->baseClock;
    try {
        aiDevice->setBaseClock(clock);
    } catch (...) {
        writeMaxRates();
        throw;
    }
    if (aiDevice->baseClock == before) {
        return false;
    }
    writeMaxRates();
    return true;
}

void HostRates::writeMaxRates() {
    for (const auto& [channel, hostChannel] : state_.channels) {
        if (isSync(*channel) && hostChannel.hasProperty(DaqChannelConsts::MaxSampleRateProp)) {
            hostChannel.setPropertyValue(DaqChannelConsts::MaxSampleRateProp, rateValue(channel->maxRate));
        }
    }
    for (const auto& [device, folder] : state_.devices) {
        if (folder.hasProperty(DeviceFolderConsts::MaxSampleRateProp)) {
            folder.setPropertyValue(DeviceFolderConsts::MaxSampleRateProp, rateValue(device->maxRate));
        }
    }
    if (state_.dataModule.hasProperty(DataModuleConsts::MaxSampleRateProp)) {
        state_.dataModule.setPropertyValue(DataModuleConsts::MaxSampleRateProp,
                                           rateValue(controller_.getMaxSampleRate()));
    }
}

// A clock that can't be had is logged like every failure of a handler; what is in force then is shown and counts.
bool HostRates::tryBaseClock(const char* handler, const std::shared_ptr<AIDevice>& aiDevice, int clock) {
    try {
        return setDaqDeviceBaseClock(aiDevice, clock);
    } catch (const std::exception& exception) {
        logFailure(handler, exception);
        return true;
    }
}

bool HostRates::setDaqDeviceBaseClockFromSampleRate(const char* handler, const std::shared_ptr<DaqDevice>& device,
                                                    const ChannelFolderPtr& folder, int rate) {
    if (!device->aiDevice || !folder.hasProperty(DeviceFolderConsts::BaseClockProp)) {
        return false;
    }
    const auto aiDevice = device->aiDevice;
    const int clock = aiDevice->getBaseClockForSampleRate(rate);
    if (clock == aiDevice->baseClock) {
        return false;
    }
    LOG_(0, plog::warning) << "Device base clock will be changed to " << clock << ", based on SR: " << rate;
    const bool changed = tryBaseClock(handler, aiDevice, clock);
    folder.setPropertyValue(DeviceFolderConsts::BaseClockProp, baseClockIndex(*aiDevice));
    return changed;
}

void HostRates::onDaqDeviceBaseClockChanged(GenericPropertyObjectPtr& sender, PropertyValueChangedEventArgsPtr& args) {
    constexpr const char* handler = "onDaqDeviceBaseClockChanged";
    runHandler(handler, [&] {
        const int index = changedRate(sender, args);
        bool changed = false;
        for (const auto& [device, folder] : state_.devices) {
            if (!device->aiDevice || !isSameObject(asBase(sender), folder)) {
                continue;
            }
            const auto& clocks = device->aiDevice->baseClocks;
            if (index >= 0 && static_cast<size_t>(index) < clocks.size() &&
                tryBaseClock(handler, device->aiDevice, clocks[static_cast<size_t>(index)])) {
                changed = true;
            }
            if (!changed || baseClockIndex(*device->aiDevice) != index) {
                sender.setPropertyValue(DeviceFolderConsts::BaseClockProp, baseClockIndex(*device->aiDevice));
            }
        }
        if (changed) {
            recheckRates();
        }
    });
}

// ---- Rates ----------------------------------------------------------------------------------------------------------

void HostRates::applyInitialRate() {
    const GenericPropertyObjectPtr owner(state_.dataModule.get());
    const int rate = controller_.sampleRate;
    owner.setPropertyValue(DataModuleConsts::SampleRateProp, rateValue(rate));
    applySystemRate(
        adjust("Sample rate", rate, controller_.checkSampleRate(rate), owner, DataModuleConsts::SampleRateProp));
}

void HostRates::applySystemRate(int rate) {
    controller_.setSampleRate(rate);
    writeDeviceRates();
    writeChannelRates();
}

// A request that no divider of the system rate meets leaves the device where it is. No device is faster than the
// system.
int HostRates::possibleDeviceRate(const DaqDevice& device, int requested) const {
    const int systemRate = controller_.sampleRate;
    const int checked = device.checkRate(systemRate, std::min(requested, systemRate));
    return checked < 1 || checked > systemRate ? device.getRate() : checked;
}

void HostRates::writeDeviceRates() {
    for (const auto& [device, folder] : state_.devices) {
        folder.setPropertyValue(DeviceFolderConsts::SampleRateProp, rateValue(device->getRate()));
    }
}

void HostRates::writeChannelRates() {
    for (const auto& [channel, hostChannel] : state_.channels) {
        if (isSync(*channel)) {
            hostChannel.setPropertyValue(ChannelPropertyClass::SampleRateProp, rateValue(channel->getRate()));
            writeExactRate(*channel, hostChannel);
        }
    }
}

void HostRates::writeExactRate(const Channel& channel, const ChannelPtr<IChannel>& hostChannel) {
    const ChannelRate exact = channel.exactRate();
    hostChannel.setPropertyValue(DaqChannelConsts::ExactSampleRateProp, Ratio{exact.fullRate, exact.divider});
}

// After a clock has changed: rates that the new clock can't do move to the nearest ones that it can. Rates that stay
// possible, also those that devices and channels have of their own, are left alone.
void HostRates::recheckRates() {
    const int systemRate = controller_.sampleRate;
    const int checkedRate = adjust("Sample rate", systemRate, controller_.checkSampleRate(systemRate),
                                   GenericPropertyObjectPtr(state_.dataModule.get()), DataModuleConsts::SampleRateProp);
    if (checkedRate != systemRate) {
        applySystemRate(checkedRate);
        return;
    }
    for (const auto& [device, folder] : state_.devices) {
        const int rate = device->getRate();
        if (!device->hasDeviceRate() || device->checkRate(systemRate, rate) == rate) {
            continue;
        }
        // Without a divider for its own rate the device goes back to the system's.
        const int possible = device->checkRate(systemRate, rate) < 1 ? systemRate : possibleDeviceRate(*device, rate);
        adjust("Daq Device Sample rate", rate, possible, folder, DeviceFolderConsts::SampleRateProp);
        device->setRate(possible);
    }
    for (const auto& [channel, hostChannel] : state_.channels) {
        if (!isSync(*channel)) {
            continue;
        }
        if (const auto device = controller_.findDeviceByChannel(channel)) {
            const int rate = channel->getRate();
            const int possible = device->checkChannelRate(channel->number, device->getRate(), rate);
            if (possible != rate) {
                adjust("Channel rate", rate, possible, hostChannel, ChannelPropertyClass::SampleRateProp);
                channel->setRate(possible);
            }
        }
    }
    writeDeviceRates();
    writeChannelRates();
}

void HostRates::takeWrittenInRun() noexcept {
    const UpdatingScope scope(state_);
    try {
        // What stands there now: a change of the system's rate writes the others anew.
        const auto shownRate = [](const auto& object) {
            return intOf(object.getPropertyValue(DataModuleConsts::SampleRateProp));
        };
        std::vector<std::optional<int>> deviceRates;
        std::vector<std::optional<int>> channelRates;
        for (const auto& [device, folder] : state_.devices) {
            const int shown = shownRate(folder);
            deviceRates.push_back(shown == device->getRate() ? std::nullopt : std::optional(shown));
        }
        for (const auto& [channel, hostChannel] : state_.channels) {
            const int shown = shownRate(hostChannel);
            channelRates.push_back(shown == channel->getRate() ? std::nullopt : std::optional(shown));
        }
        bool clockChanged = false;
        for (const auto& [device, folder] : state_.devices) {
            if (!device->aiDevice || !folder.hasProperty(DeviceFolderConsts::BaseClockProp)) {
                continue;
            }
            const auto& clocks = device->aiDevice->baseClocks;
            const int index = intOf(folder.getPropertyValue(DeviceFolderConsts::BaseClockProp));
            if (index != baseClockIndex(*device->aiDevice)) {
                clockChanged =
                    (index >= 0 && static_cast<size_t>(index) < clocks.size() &&
                     tryBaseClock("takeWrittenInRun", device->aiDevice, clocks[static_cast<size_t>(index)])) ||
                    clockChanged;
                folder.setPropertyValue(DeviceFolderConsts::BaseClockProp, baseClockIndex(*device->aiDevice));
            }
        }
        const int systemRate = shownRate(state_.dataModule);
        if (systemRate != controller_.sampleRate) {
            applySystemRate(adjust("Sample rate", systemRate, controller_.checkSampleRate(systemRate),
                                   GenericPropertyObjectPtr(state_.dataModule.get()),
                                   DataModuleConsts::SampleRateProp));
        } else if (clockChanged) {
            recheckRates();
        }
        for (size_t i = 0; i < deviceRates.size(); ++i) {
            if (deviceRates[i]) {
                const auto& [device, folder] = state_.devices[i];
                device->setRate(adjust("Daq Device Sample rate", *deviceRates[i],
                                       possibleDeviceRate(*device, *deviceRates[i]), folder,
                                       DeviceFolderConsts::SampleRateProp));
                folder.setPropertyValue(DeviceFolderConsts::SampleRateProp, rateValue(device->getRate()));
                writeChannelRates();
            }
        }
        for (size_t i = 0; i < channelRates.size(); ++i) {
            const auto& [channel, hostChannel] = state_.channels[i];
            const auto device = channelRates[i] ? controller_.findDeviceByChannel(channel) : nullptr;
            if (device) {
                channel->setRate(adjust("Channel rate", *channelRates[i],
                                        device->checkChannelRate(channel->number, device->getRate(), *channelRates[i]),
                                        hostChannel, ChannelPropertyClass::SampleRateProp));
                hostChannel.setPropertyValue(ChannelPropertyClass::SampleRateProp, rateValue(channel->getRate()));
                if (isSync(*channel)) {
                    writeExactRate(*channel, hostChannel);
                }
            }
        }
    } catch (const std::exception& exception) {
        logFailure("takeWrittenInRun", exception);
    }
}

void HostRates::onSampleRateChanged(GenericPropertyObjectPtr& sender, PropertyValueChangedEventArgsPtr& args) {
    constexpr const char* handler = "onSampleRateChanged";
    runHandler(handler, [&] {
        const int requested = changedRate(sender, args);
        if (isUpdatingFromConfiguration()) {
            for (const auto& [device, folder] : state_.devices) {
                setDaqDeviceBaseClockFromSampleRate(handler, device, folder, requested);
            }
        }
        applySystemRate(adjust("Sample rate", requested, controller_.checkSampleRate(requested), sender,
                               DataModuleConsts::SampleRateProp));
    });
}

void HostRates::onDaqDeviceSampleRateChanged(GenericPropertyObjectPtr& sender, PropertyValueChangedEventArgsPtr& args) {
    constexpr const char* handler = "onDaqDeviceSampleRateChanged";
    runHandler(handler, [&] {
        const int requested = changedRate(sender, args);
        const auto entry = std::find_if(state_.devices.begin(), state_.devices.end(), [&](const auto& candidate) {
            return isSameObject(asBase(sender), candidate.second);
        });
        if (entry == state_.devices.end()) {
            return;
        }
        const auto& [device, folder] = *entry;
        if (isUpdatingFromConfiguration() && setDaqDeviceBaseClockFromSampleRate(handler, device, folder, requested)) {
            recheckRates();
            sender.setPropertyValue(DeviceFolderConsts::SampleRateProp, rateValue(requested));
        }
        device->setRate(adjust("Daq Device Sample rate", requested, possibleDeviceRate(*device, requested), sender,
                               DeviceFolderConsts::SampleRateProp));
        writeChannelRates();
    });
}

void HostRates::onChannelSampleRateChanged(GenericPropertyObjectPtr& sender, PropertyValueChangedEventArgsPtr& args) {
    // Every property of every channel comes by here: the name decides before anything else is done.
    if (args.getPropertyName().view() != ChannelPropertyClass::SampleRateProp) {
        return;
    }
    constexpr const char* handler = "onChannelSampleRateChanged";
    runHandler(handler, [&] {
        const int requested = changedRate(sender, args);
        const auto entry = std::find_if(state_.channels.begin(), state_.channels.end(), [&](const auto& candidate) {
            return isSameObject(asBase(sender), candidate.second);
        });
        if (entry == state_.channels.end()) {
            return;
        }
        const auto& [channel, hostChannel] = *entry;
        const auto device = controller_.findDeviceByChannel(channel);
        if (!device) {
            throw NotFoundException("No device has the channel \"%s\".", channel->name.c_str());
        }
        const int possible = device->checkChannelRate(channel->number, device->getRate(), requested);
        channel->setRate(adjust("Channel rate", requested, possible, sender, ChannelPropertyClass::SampleRateProp));
        if (isSync(*channel)) {
            writeExactRate(*channel, hostChannel);
        }
    });
}

}  // namespace Harvane::RT::Modules::Daq
