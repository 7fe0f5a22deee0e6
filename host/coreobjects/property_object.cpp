#include <zorn/objects/property_object_impl.h>

#include <cmath>
#include <string>

#include "host/coreobjects/class_form.h"

namespace Harvane::RT::Core {
namespace {

class PropertyObjectImpl final : public GenericPropertyObjectImpl<IPropertyObject> {
public:
    using GenericPropertyObjectImpl::GenericPropertyObjectImpl;
};

class PropertyValueChangedEventArgsImpl final : public ObjectImpl<IPropertyValueChangedEventArgs> {
public:
    PropertyValueChangedEventArgsImpl(IString* name, IPropertyInfo* info, IBaseObject* value, PropertyChangeType type)
        : name_(name), info_(info), value_(value), type_(type) {}

    ErrCode getEventName(IString** name) override {
        if (name == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *name = nullptr;
        return wrapHandler([&] { *name = StringPtr("PropertyValueChanged").detach(); });
    }
    ErrCode getPropertyName(IString** name) override { return handOut(name_, name); }
    ErrCode getProperty(IPropertyInfo** info) override { return handOut(info_, info); }
    ErrCode getValue(IBaseObject** value) override { return handOut(value_, value); }
    ErrCode getChangeType(int32_t* type) override { return handOut(static_cast<int32_t>(type_), type); }

private:
    StringPtr name_;
    PropertyInfoPtr info_;
    BasePtr value_;
    PropertyChangeType type_;
};

// ---- The checked way to set a property ----

std::string printed(const BasePtr& value) {
    return coreTypeOf(value) == CoreType::String ? "\"" + textOf(value) + "\"" : textOf(value);
}

bool isNumber(CoreType type) {
    return type == CoreType::Int || type == CoreType::Float || type == CoreType::Ratio;
}

std::string printedRange(const BasePtr& min, const BasePtr& max) {
    if (min && max) {
        return textOf(min) + " to " + textOf(max);
    }
    return min ? textOf(min) + " or more" : textOf(max) + " or less";
}

void checkLimits(const std::string& name, const PropertyInfoPtr& info, const BasePtr& value) {
    const BasePtr min = info.getMinValue();
    const BasePtr max = info.getMaxValue();
    const auto number = fromValue<double>(value);
    // A NaN lies within no limits.
    if ((min && !(number >= fromValue<double>(min))) || (max && !(number <= fromValue<double>(max)))) {
        throw OutOfRangeException("Property %s takes %s, not %s", name.c_str(), printedRange(min, max).c_str(),
                                  textOf(value).c_str());
    }
}

void checkSelection(const std::string& name, const PropertyInfoPtr& info, const BasePtr& value) {
    const BasePtr values = info.getValues();
    if (!values) {
        return;
    }
    const ListPtr list = values.asPtr<IList>();
    const size_t count = list.getCount();
    const auto index = fromValue<int64_t>(value);
    if (index >= 0 && static_cast<size_t>(index) < count) {
        return;
    }
    std::string choices;
    for (size_t i = 0; i < count && i < 20; ++i) {
        BasePtr item = list.getItemAt(i);
        const PropertyObjectPtr<> object = item ? item.asPtrOrNull<IPropertyObject>() : ObjectPtr<IPropertyObject>();
        if (object && object.hasProperty("DisplayName")) {
            item = object.getPropertyValue<>("DisplayName");
        }
        choices += (i == 0 ? "" : ", ") + std::to_string(i) + ": " + textOf(item);
    }
    throw OutOfRangeException("Property %s has the choices %s; there is no %lld", name.c_str(),
                              choices.empty() ? "(none)" : choices.c_str(), static_cast<long long>(index));
}

void checkedSet(const PropertyObjectPtr<>& object, const StringPtr& name, BasePtr value) {
    const std::string text = name.toStdString();
    std::string_view parent, child;
    if (isChildProperty(text, parent, child)) {
        const BasePtr held = object.getPropertyValue<>(StringPtr(parent));
        const PropertyObjectPtr<> holder = held ? held.asPtrOrNull<IPropertyObject>() : ObjectPtr<IPropertyObject>();
        if (!holder) {
            throw NotFoundException("Property %s not found: %s holds no properties", text.c_str(),
                                    std::string(parent).c_str());
        }
        return checkedSet(holder, StringPtr(child), std::move(value));
    }
    IPropertyInfo* raw = nullptr;
    const ErrCode code = object->getPropertyInfo(name.get(), &raw);
    const PropertyInfoPtr info(ObjectPtr<IPropertyInfo>::take(raw));
    if (code == Errors::NotFound) {
        // A value may stand in an object without having been registered; there is nothing to check it by.
        zornClearErrorInfo();
        if (!object.hasProperty(name)) {
            throw NotFoundException("Property %s not found", text.c_str());
        }
    } else {
        checkErrorInfo(code);
        const BasePtr enabled = info.getEnabled();
        const BasePtr readOnly = info.getReadOnly();
        if (enabled && !fromValue<bool>(enabled)) {
            throw NotEnabledException("Property %s is not enabled", text.c_str());
        }
        if (readOnly && fromValue<bool>(readOnly)) {
            throw InvalidOperationException("Property %s is read-only", text.c_str());
        }
        const CoreType type = info.getValueType() == CoreType::Enum ? CoreType::Int : info.getValueType();
        const CoreType given = coreTypeOf(value);
        // Objects and references take anything.
        if (given != type && type != CoreType::Object && type != CoreType::Reference && type != CoreType::Undefined &&
            borrow<IEvalValue>(value.get()) == nullptr) {
            IBaseObject* converted = nullptr;
            auto* convertible = borrow<IConvertible>(value.get());
            // A number that loses its fraction on the way is a wrong value and no conversion.
            const bool cut = type == CoreType::Int && isNumber(given) &&
                             fromValue<double>(value) != std::trunc(fromValue<double>(value));
            if (cut || convertible == nullptr || failed(convertible->convertTo(type, &converted))) {
                const char* wanted = nameOfType(type);
                throw InvalidParameterException("Property %s takes a value of type %s, not %s", text.c_str(),
                                                wanted != nullptr ? wanted : "unknown", printed(value).c_str());
            }
            value = BasePtr::take(converted);
        }
        if (borrow<IEvalValue>(value.get()) == nullptr) {
            if (info.getValueType() == CoreType::Enum || info.isSelection()) {
                checkSelection(text, info, value);
            }
            if (isNumber(type)) {
                checkLimits(text, info, value);
            }
        }
    }
    checkErrorInfo(object->setProperty(name.get(), value.get()));
}

}  // namespace

ErrCode createPropertyObject(IPropertyObject** object, IPropertyObjectManager*, IString* className) {
    // All managers are handles on the same classes.
    return createObject<PropertyObjectImpl>(object, StringPtr(className));
}

ErrCode createPropertyValueChangedEventArgs(IPropertyValueChangedEventArgs** object, IString* name, IPropertyInfo* info,
                                            IBaseObject* value, PropertyChangeType type) {
    return createObject<PropertyValueChangedEventArgsImpl>(object, name, info, value, type);
}

ErrCode zornCheckedSetProperty(IPropertyObject* object, IString* name, IBaseObject* value) {
    if (object == nullptr || name == nullptr || value == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    return wrapHandler([&] { checkedSet(PropertyObjectPtr<>(object), StringPtr(name), BasePtr(value)); });
}

void zornCoreObjectsGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    if (major != nullptr) {
        *major = 1;
    }
    if (minor != nullptr) {
        *minor = 0;
    }
    if (patch != nullptr) {
        *patch = 0;
    }
}

size_t zornCoreObjectsGetObjectCount() {
    return zornSharedLibObjectCount.load();
}

}  // namespace Harvane::RT::Core
