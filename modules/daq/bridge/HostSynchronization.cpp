#include "modules/daq/bridge/HostSynchronization.h"

#include "modules/daq/bridge/DaqStructureConsts.h"
#include "modules/daq/bridge/HostValues.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/objectmodel/DaqTiming.h"
#include "modules/daq/synchronization/Synchronization.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

void HostSynchronization::registerProperties() {
    const DataModulePtr& dataModule = state_.dataModule;
    const ListPtr options = ListPtr::create();
    for (const auto& option : state_.controller.getSynchronizationOptions()) {
        options.pushBack(asBase(syncOptionValueToRtCore(option)));
    }
    dataModule.registerProperty(readOnlyInfo(DataModuleConsts::SynchronizationOptionsProp, CoreType::List, options));

    const auto info = PropertyInfoPtr::create(DataModuleConsts::SynchronizationProp, CoreType::List);
    const auto event = valueChangedEvent(info);
    dataModule.registerProperty(info);
    dataModule.setPropertyValue(DataModuleConsts::SynchronizationProp,
                                syncOptionValueToRtCore(state_.controller.synchronization));
    // Only now: what was just written is the controller's own option.
    state_.hooks.subscribe(event, [this](auto& sender, auto& args) { onSynchronizationChanged(sender, args); });

    const auto applied = PropertyInfoPtr::create(DataModuleConsts::AppliedSynchronizationProp, CoreType::List).hidden();
    const auto appliedEvent = valueChangedEvent(applied);
    dataModule.registerProperty(applied);
    showApplied();
    state_.hooks.subscribe(appliedEvent, [this](auto&, auto&) {
        if (state_.updating == 0) {
            showApplied();
        }
    });
    registerClockState();
}

namespace {

ListPtr toList(const ClockState& state) {
    ListPtr list = ListPtr::create();
    const auto add = [&list](const char* name, const BasePtr& value) {
        list.pushBack(asBase(ListPtr::create({toValue(name), value})));
    };
    add("Pulses", toValue(static_cast<int64_t>(state.pulses)));
    add("PulseTime", toValue(state.pulseTime));
    add("Steered", toValue(state.steered));
    add("Tracking", toValue(state.tracking));
    add("Error", toValue(state.error));
    add("PhaseErrorNs", toValue(state.phaseErrorNs));
    add("FrequencyErrorPpb", toValue(state.frequencyErrorPpb));
    add("ControlWord", toValue(state.controlWord));
    add("Equilibrium", toValue(state.equilibrium));
    add("PtpPort", toValue(state.ptpPort));
    add("PtpClock", toValue(state.ptpClock));
    add("PtpGrandmaster", toValue(state.ptpGrandmaster));
    return list;
}

}  // namespace

void HostSynchronization::registerClockState() {
    if (!state_.controller.daqTiming) {
        return;
    }
    const DataModulePtr& dataModule = state_.dataModule;
    dataModule.registerProperty(PropertyInfoPtr::create(DataModuleConsts::ClockStateProp, CoreType::Func).hidden());
    auto answer = [&controller = state_.controller](const BasePtr&, BasePtr& result) -> ErrCode {
        const auto timing = controller.timeSources().timing;
        result = asBase(timing ? toList(timing->getClockState()) : ListPtr::create());
        return Errors::Success;
    };
    dataModule.setPropertyValue(DataModuleConsts::ClockStateProp, makeFunc(state_.hooks.whileAlive(std::move(answer))));
}

void HostSynchronization::apply() {
    state_.controller.applySynchronization();
    showApplied();
}

// Nobody else may write it: a setup that is loaded brings what was in force when it was stored.
void HostSynchronization::showApplied() {
    const UpdatingScope scope(state_);
    state_.dataModule.setPropertyValue(DataModuleConsts::AppliedSynchronizationProp,
                                       syncOptionValueToRtCore(state_.controller.appliedSynchronization));
}

void HostSynchronization::onSynchronizationChanged(GenericPropertyObjectPtr& sender,
                                                   PropertyValueChangedEventArgsPtr& args) {
    state_.controller.setSynchronization(syncOptionValueFromRtCore(changedObject(sender, args)));
    state_.controller.invalidate();
}

ListPtr HostSynchronization::syncOptionValueToRtCore(const SynchronizationOption& option) {
    const ListPtr sources = ListPtr::create();
    for (const SynchronizationMode mode : option.second) {
        sources.pushBack(toValue(static_cast<int>(mode)));
    }
    return ListPtr::create({toValue(static_cast<int>(option.first)), asBase(sources)});
}

SynchronizationOption HostSynchronization::syncOptionValueFromRtCore(const ObjectPtr<IBaseObject>& value) {
    const auto listOf = [](const BasePtr& object) {
        auto list = object ? object.asPtrOrNull<IList>() : ObjectPtr<IList>();
        if (!list) {
            throw InvalidParameterException(
                "A synchronisation option is a list of a mode and the list of the modes that it sources.");
        }
        return ListPtr(list);
    };
    const auto modeOf = [](int64_t number) { return static_cast<SynchronizationMode>(toInt(number)); };

    const ListPtr items = listOf(value);
    const SynchronizationMode slaveMode = modeOf(fromValue<int64_t>(items.getItemAt(0)));
    const ListPtr sources = listOf(items.getItemAt(1));
    SynchronizationModes sourceModes;
    for (size_t i = 0, count = sources.getCount(); i < count; ++i) {
        const BasePtr item = sources.getItemAt(i);
        const auto number = item ? item.asPtrOrNull<IIntObject>() : ObjectPtr<IIntObject>();
        if (!number) {
            throw ConversionFailedException("A source mode of a synchronisation option is an int.");
        }
        int64_t mode = 0;
        checkErrorInfo(number->getValue(&mode));
        sourceModes.insert(modeOf(mode));
    }
    return Synchronization::CreateSyncOption(slaveMode, sourceModes);
}

}  // namespace Harvane::RT::Modules::Daq
