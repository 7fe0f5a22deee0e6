#pragma once

#include <algorithm>
#include <limits>
#include <utility>

#include <zorn/objects/property_object.h>
#include <zorn/structure/channel.h>

#include "modules/daq/objectmodel/Channel.h"

// Small helpers of the bridge between the host's values and plain ones. Failures are the host's exceptions.
namespace Harvane::RT::Modules::Daq {

// A rate or clock in Hz, as the host shows it.
inline Core::Ratio rateValue(int rate) {
    return Core::Ratio{rate, 1};
}

inline int toInt(int64_t value) {
    return static_cast<int>(
        std::clamp<int64_t>(value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

// Rates are 32 bits wide: a larger request means "as fast as possible".
inline int intOf(const Core::BasePtr& value) {
    return toInt(Core::fromValue<int64_t>(value));
}

inline std::pair<int, int> twoRates(const Core::BasePtr& arguments) {
    const Core::ListPtr list = arguments.asPtr<Core::IList>();
    return {intOf(list.getItemAt(0)), intOf(list.getItemAt(1))};
}

inline bool isSync(const Channel& channel) {
    return channel.sampleType == SampleType::Sync;
}

// After the property was cleared there is no new value: then what the object shows counts.
inline Core::BasePtr changedObject(const Core::GenericPropertyObjectPtr& sender,
                                   const Core::PropertyValueChangedEventArgsPtr& args) {
    int32_t changeType = 0;
    Core::checkErrorInfo(args->getChangeType(&changeType));
    const bool cleared = changeType == static_cast<int32_t>(Core::PropertyChangeType::Cleared);
    return cleared ? sender.getPropertyValue(args.getPropertyName()) : args.getValue();
}

template <class I>
bool isSameObject(const Core::BasePtr& sender, const Core::ObjectPtr<I>& object) {
    const Core::BasePtr other = Core::asBase(object);
    if (auto comparable = sender.asPtrOrNull<Core::IComparable>()) {
        int result = 0;
        if (Core::succeeded(comparable->compareTo(other.get(), &result))) {
            return result == 0;
        }
        Core::zornClearErrorInfo();
        return false;
    }
    return sender.equals(other);
}

template <class T>
Core::PropertyInfoPtr readOnlyInfo(const char* name, Core::CoreType type, const T& value) {
    return Core::PropertyInfoPtr::create(name, type).readOnly(value);
}

template <class I>
void registerFunction(const Core::PropertyObjectPtr<I>& object, const char* name,
                      const Core::ObjectPtr<Core::IFuncObject>& function) {
    object.registerProperty(Core::PropertyInfoPtr::create(name, Core::CoreType::Func));
    object.setPropertyValue(name, function);
}

inline Core::ObjectPtr<Core::IEvent> valueChangedEvent(const Core::PropertyInfoPtr& info) {
    Core::IEvent* event = nullptr;
    Core::checkErrorInfo(info->getOnValueChanged(&event));
    return Core::ObjectPtr<Core::IEvent>::take(event);
}

}  // namespace Harvane::RT::Modules::Daq
