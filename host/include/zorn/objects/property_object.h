#pragma once

#include <string>
#include <vector>

#include <zorn/objects/serialization.h>
#include <zorn/types/callable.h>
#include <zorn/types/values.h>

// Properties: infos that describe them, objects that hold their values, classes that share infos, and the manager that
// knows the classes. No lock anywhere here: properties belong to the configuration thread.
namespace Harvane::RT::Core {

class IPropertyObject;
class IPropertyInfo;
class IPropertyObjectClass;

enum class PropertyOrder : int32_t { Map = 0, Index = 1, Name = 2 };
enum class PropertyChangeType : int32_t { Set = 0, Cleared = 1 };

// What a setup load or store does with a property. Modes are bits: 1 load, 2 store.
using ConfigurationMode = int32_t;
// Where the property has a value: bits 1 only in the object, 2 only in the setup, 4 in both.
using PropertyState = int32_t;
enum class ConfigurationAction : int32_t { Leave = 0, Clear = 1, SetIfUnset = 2, TakeOver = 3 };

// An expression in place of a value. Bound to an object it gives a result.
class IEvalValue : public IBaseObject {
    ZORN_INTERFACE(IEvalValue, IBaseObject)

    virtual ErrCode getExpression(IString** expression) = 0;
    virtual ErrCode bind(IPropertyObject* object, IEvalValue** bound) = 0;
    virtual ErrCode getResult(IBaseObject** result) = 0;  // InvalidState when unbound; null and 0 for "no result"
};

// Attributes take a plain value or an eval value; null means "not set". After freeze() setters answer Frozen.
class IPropertyInfo : public IBaseObject {
    ZORN_INTERFACE(IPropertyInfo, IBaseObject)

    virtual ErrCode getName(IString** name) = 0;
    virtual ErrCode setName(IString* name) = 0;
    virtual ErrCode getValueType(CoreType* type) = 0;
    virtual ErrCode setValueType(CoreType type) = 0;
    virtual ErrCode getDefaultValue(IBaseObject** value) = 0;
    virtual ErrCode setDefaultValue(IBaseObject* value) = 0;
    virtual ErrCode getValues(IBaseObject** values) = 0;  // a list, or an eval value that gives one
    virtual ErrCode setValues(IBaseObject* values) = 0;
    virtual ErrCode getUnit(IBaseObject** unit) = 0;
    virtual ErrCode setUnit(IBaseObject* unit) = 0;
    virtual ErrCode getMinValue(IBaseObject** value) = 0;
    virtual ErrCode setMinValue(IBaseObject* value) = 0;
    virtual ErrCode getMaxValue(IBaseObject** value) = 0;
    virtual ErrCode setMaxValue(IBaseObject* value) = 0;
    virtual ErrCode getReadOnly(IBaseObject** value) = 0;
    virtual ErrCode setReadOnly(IBaseObject* value) = 0;
    virtual ErrCode getReadOnlyValue(IBaseObject** value) = 0;
    virtual ErrCode setReadOnlyValue(IBaseObject* value) = 0;
    virtual ErrCode getEnabled(IBaseObject** value) = 0;
    virtual ErrCode setEnabled(IBaseObject* value) = 0;
    virtual ErrCode getVisible(IBaseObject** value) = 0;
    virtual ErrCode setVisible(IBaseObject* value) = 0;
    virtual ErrCode getHidden(unsigned char* hidden) = 0;
    virtual ErrCode setHidden(unsigned char hidden) = 0;
    virtual ErrCode getReference(IBaseObject** reference) = 0;  // an eval value or an IPropertyInfo
    virtual ErrCode setReference(IBaseObject* reference) = 0;
    // Set: the value is an index into `Values`. Not set: `Values` lists the values themselves.
    virtual ErrCode getSelection(unsigned char* selection) = 0;
    virtual ErrCode setSelection(unsigned char selection) = 0;
    virtual ErrCode getIndex(int32_t* index) = 0;  // -1 until registered
    virtual ErrCode setIndex(int32_t index) = 0;   // allowed on a frozen info only for the first time
    virtual ErrCode getOnReadValue(IFuncObject** function) = 0;
    virtual ErrCode setOnReadValue(IFuncObject* function) = 0;
    virtual ErrCode getOnWriteValue(IFuncObject** function) = 0;
    virtual ErrCode setOnWriteValue(IFuncObject* function) = 0;
    virtual ErrCode getOnValueChanged(IEvent** event) = 0;  // made at the first question
    virtual ErrCode setOnValueChanged(IEvent* event) = 0;   // shares another info's event (bound copies)
    virtual ErrCode setConfigurationAction(ConfigurationMode mode, PropertyState states,
                                           ConfigurationAction action) = 0;
    virtual ErrCode getConfigurationAction(ConfigurationMode mode, PropertyState state,
                                           ConfigurationAction* action) = 0;
    // All the configuration actions of another info.
    virtual ErrCode copyConfigurationActions(IPropertyInfo* other) = 0;
    virtual ErrCode freeze() = 0;
    virtual ErrCode isFrozen(unsigned char* frozen) = 0;
};

class IPropertyValueChangedEventArgs : public IEventArgs {
    ZORN_INTERFACE(IPropertyValueChangedEventArgs, IEventArgs)

    virtual ErrCode getPropertyName(IString** name) = 0;
    virtual ErrCode getProperty(IPropertyInfo** info) = 0;  // null for a name that was never registered
    virtual ErrCode getValue(IBaseObject** value) = 0;      // after a clear the value that was removed, or null
    virtual ErrCode getChangeType(int32_t* type) = 0;
};

class IOwnable : public IBaseObject {
    ZORN_INTERFACE(IOwnable, IBaseObject)

    virtual ErrCode setOwner(IPropertyObject* owner, IString* name) = 0;  // weak; null, null forgets
};

// Writing checks neither the limits nor "read-only" nor "enabled": who wants those checked uses
// zornCheckedSetProperty (below).
class IPropertyObject : public IBaseObject {
    ZORN_INTERFACE(IPropertyObject, IBaseObject)

    virtual ErrCode registerProperty(IPropertyInfo* info) = 0;
    virtual ErrCode hasProperty(IString* name, unsigned char* found) = 0;
    virtual ErrCode isPropertySet(IString* name, unsigned char* set) = 0;
    virtual ErrCode getPropertyInfo(IString* name, IPropertyInfo** info) = 0;
    virtual ErrCode enumProperties(PropertyOrder order, IList** infos) = 0;
    virtual ErrCode enumVisibleProperties(PropertyOrder order, IList** infos) = 0;
    virtual ErrCode setProperty(IString* name, IBaseObject* value) = 0;
    virtual ErrCode getProperty(IString* name, IBaseObject** value) = 0;
    virtual ErrCode getPropertyEnum(IString* name, IBaseObject** text) = 0;
    virtual ErrCode clearProperty(IString* name) = 0;
    virtual ErrCode setOwner(IPropertyObject* owner, IString* name) = 0;
    virtual ErrCode setPrototype(IPropertyObject* prototype) = 0;
    virtual ErrCode getPrototype(IPropertyObject** prototype) = 0;
    virtual ErrCode setClassName(IString* name) = 0;
    virtual ErrCode getClassName(IString** name) = 0;
    virtual ErrCode getOnPropertyValueChanged(IEvent** event) = 0;
    virtual ErrCode serialize(ISerializer* serializer) = 0;
    virtual ErrCode update(ConfigurationMode mode, ISerializedObject* serialized) = 0;
};

class IPropertyObjectClass : public IBaseObject {
    ZORN_INTERFACE(IPropertyObjectClass, IBaseObject)

    virtual ErrCode getName(IString** name) = 0;
    virtual ErrCode setName(IString* name) = 0;
    virtual ErrCode getParent(IString** name) = 0;  // null when there is none
    virtual ErrCode setParent(IString* name) = 0;
    virtual ErrCode registerProperty(IPropertyInfo* info) = 0;
    virtual ErrCode hasProperty(IString* name, unsigned char* found) = 0;
    virtual ErrCode getProperty(IString* name, IPropertyInfo** info) = 0;  // own ones only; NotFound
    virtual ErrCode enumProperties(PropertyOrder order, IList** infos) = 0;
};

// A handle on the one registry of the process. Class names are compared without regard to ASCII case.
class IPropertyObjectManager : public IBaseObject {
    ZORN_INTERFACE(IPropertyObjectManager, IBaseObject)

    virtual ErrCode addClass(IPropertyObjectClass* objectClass) = 0;                  // AlreadyExists
    virtual ErrCode removeClass(IString* name) = 0;                                   // NotFound
    virtual ErrCode getClass(IString* name, IPropertyObjectClass** objectClass) = 0;  // exactly NotFound when missing
    virtual ErrCode enumClasses(IList** classes) = 0;
};

ZORN_FUNCTION ErrCode createEvalValue(IEvalValue** object, const char* expression);  // ParseFailed with the place
ZORN_FUNCTION ErrCode createPropertyInfo(IPropertyInfo** object, IString* name, CoreType type);
// `manager` may be null (the process's); `className` may be null or empty. InvalidValue for an unknown class.
ZORN_FUNCTION ErrCode createPropertyObject(IPropertyObject** object, IPropertyObjectManager* manager,
                                           IString* className);
ZORN_FUNCTION ErrCode createPropertyObjectClass(IPropertyObjectClass** object);
ZORN_FUNCTION ErrCode createProperyObjectClassWithName(IPropertyObjectClass** object, IString* name);
ZORN_FUNCTION ErrCode createPropertyObjectManager(IPropertyObjectManager** object);
ZORN_FUNCTION ErrCode createPropertyValueChangedEventArgs(IPropertyValueChangedEventArgs** object, IString* name,
                                                          IPropertyInfo* info, IBaseObject* value,
                                                          PropertyChangeType type);
ZORN_FUNCTION void zornCoreObjectsGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch);
// Live objects made by this library, for finding leaks.
ZORN_FUNCTION size_t zornCoreObjectsGetObjectCount();

// ---- Wrappers ------------------------------------------------------------------------------------------------------

class PropertyInfoPtr : public ObjectPtr<IPropertyInfo> {
public:
    using ObjectPtr::ObjectPtr;
    PropertyInfoPtr(const ObjectPtr<IPropertyInfo>& other) : ObjectPtr(other) {}
    PropertyInfoPtr(ObjectPtr<IPropertyInfo>&& other) : ObjectPtr(std::move(other)) {}

    // Builder: PropertyInfoPtr::create("SampleRate", CoreType::Ratio).defaultValue(Ratio{1000}).min(...).
    static PropertyInfoPtr create(const StringPtr& name, CoreType type) {
        IPropertyInfo* info = nullptr;
        checkErrorInfo(createPropertyInfo(&info, name.get(), type));
        return ObjectPtr::take(info);
    }
    template <class T>
    const PropertyInfoPtr& defaultValue(const T& value) const {
        return set(&IPropertyInfo::setDefaultValue, value);
    }
    template <class T>
    const PropertyInfoPtr& values(const T& value) const {
        return set(&IPropertyInfo::setValues, value);
    }
    template <class T>
    const PropertyInfoPtr& unit(const T& value) const {
        return set(&IPropertyInfo::setUnit, value);
    }
    template <class T>
    const PropertyInfoPtr& min(const T& value) const {
        return set(&IPropertyInfo::setMinValue, value);
    }
    template <class T>
    const PropertyInfoPtr& max(const T& value) const {
        return set(&IPropertyInfo::setMaxValue, value);
    }
    template <class T>
    const PropertyInfoPtr& enabled(const T& value) const {
        return set(&IPropertyInfo::setEnabled, value);
    }
    template <class T>
    const PropertyInfoPtr& visible(const T& value) const {
        return set(&IPropertyInfo::setVisible, value);
    }
    template <class T>
    const PropertyInfoPtr& reference(const T& value) const {
        return set(&IPropertyInfo::setReference, value);
    }
    // Read-only with a fixed value.
    template <class T>
    const PropertyInfoPtr& readOnly(const T& value) const {
        set(&IPropertyInfo::setReadOnly, true);
        return set(&IPropertyInfo::setReadOnlyValue, value);
    }
    const PropertyInfoPtr& hidden(bool value = true) const {
        checkErrorInfo(checked()->setHidden(value ? 1 : 0));
        return *this;
    }
    const PropertyInfoPtr& selection(bool value = true) const {
        checkErrorInfo(checked()->setSelection(value ? 1 : 0));
        return *this;
    }
    const PropertyInfoPtr& configurationAction(ConfigurationMode mode, PropertyState states,
                                               ConfigurationAction action) const {
        checkErrorInfo(checked()->setConfigurationAction(mode, states, action));
        return *this;
    }
    // Adds a handler to the value-changed event.
    const PropertyInfoPtr& onValueChanged(const ObjectPtr<IEventHandler>& handler) const {
        auto event = fetch(&IPropertyInfo::getOnValueChanged);
        checkErrorInfo(event->addHandler(handler.get()));
        return *this;
    }

    StringPtr getName() const { return fetch(&IPropertyInfo::getName); }
    CoreType getValueType() const { return read(&IPropertyInfo::getValueType); }
    BasePtr getDefaultValue() const { return fetch(&IPropertyInfo::getDefaultValue); }
    BasePtr getValues() const { return fetch(&IPropertyInfo::getValues); }
    BasePtr getUnit() const { return fetch(&IPropertyInfo::getUnit); }
    BasePtr getMinValue() const { return fetch(&IPropertyInfo::getMinValue); }
    BasePtr getMaxValue() const { return fetch(&IPropertyInfo::getMaxValue); }
    BasePtr getReadOnly() const { return fetch(&IPropertyInfo::getReadOnly); }
    BasePtr getReadOnlyValue() const { return fetch(&IPropertyInfo::getReadOnlyValue); }
    BasePtr getEnabled() const { return fetch(&IPropertyInfo::getEnabled); }
    BasePtr getVisible() const { return fetch(&IPropertyInfo::getVisible); }
    BasePtr getReference() const { return fetch(&IPropertyInfo::getReference); }
    bool isHidden() const { return read(&IPropertyInfo::getHidden) != 0; }
    bool isSelection() const { return read(&IPropertyInfo::getSelection) != 0; }
    int32_t getIndex() const { return read(&IPropertyInfo::getIndex); }
    // The list of values; an empty list when there is none. For infos that an object has handed out (bound).
    ListPtr getValuesAsList() const {
        const BasePtr list = getValues();
        return list ? ListPtr(list.asPtr<IList>()) : ListPtr::create();
    }

private:
    template <class Setter, class T>
    const PropertyInfoPtr& set(Setter setter, const T& value) const {
        checkErrorInfo((checked()->*setter)(toValue(value).get()));
        return *this;
    }
};

// Any interface that extends IPropertyObject.
template <class I = IPropertyObject>
class PropertyObjectPtr : public ObjectPtr<I> {
public:
    using ObjectPtr<I>::ObjectPtr;
    PropertyObjectPtr(const ObjectPtr<I>& other) : ObjectPtr<I>(other) {}
    PropertyObjectPtr(ObjectPtr<I>&& other) : ObjectPtr<I>(std::move(other)) {}

    bool hasProperty(const StringPtr& name) const {
        unsigned char found = 0;
        checkErrorInfo(this->checked()->hasProperty(name.get(), &found));
        return found != 0;
    }
    bool isPropertySet(const StringPtr& name) const {
        unsigned char set = 0;
        checkErrorInfo(this->checked()->isPropertySet(name.get(), &set));
        return set != 0;
    }
    template <class T = BasePtr>
    T getPropertyValue(const StringPtr& name) const {
        return fromValue<T>(this->template fetch<IBaseObject>(
            [&](IBaseObject** value) { return this->checked()->getProperty(name.get(), value); }));
    }
    template <class T>
    void setPropertyValue(const StringPtr& name, const T& value) const {
        checkErrorInfo(this->checked()->setProperty(name.get(), toValue(value).get()));
    }
    void clearProperty(const StringPtr& name) const { checkErrorInfo(this->checked()->clearProperty(name.get())); }
    PropertyInfoPtr getPropertyInfo(const StringPtr& name) const {
        return this->template fetch<IPropertyInfo>(
            [&](IPropertyInfo** info) { return this->checked()->getPropertyInfo(name.get(), info); });
    }
    void registerProperty(const PropertyInfoPtr& info) const {
        checkErrorInfo(this->checked()->registerProperty(info.get()));
    }
    std::vector<PropertyInfoPtr> enumProperties(PropertyOrder order = PropertyOrder::Index,
                                                bool visibleOnly = false) const {
        const ListPtr list = this->template fetch<IList>([&](IList** result) {
            return visibleOnly ? this->checked()->enumVisibleProperties(order, result)
                               : this->checked()->enumProperties(order, result);
        });
        std::vector<PropertyInfoPtr> infos;
        for (size_t i = 0, n = list.getCount(); i < n; ++i) {
            infos.emplace_back(list.getItemAt(i).template asPtr<IPropertyInfo>());
        }
        return infos;
    }
    // The selected text of a selection property.
    BasePtr getPropertyEnum(const StringPtr& name) const {
        return this->template fetch<IBaseObject>(
            [&](IBaseObject** text) { return this->checked()->getPropertyEnum(name.get(), text); });
    }
    void setClassName(const StringPtr& name) const { checkErrorInfo(this->checked()->setClassName(name.get())); }
    StringPtr getClassName() const { return this->fetch(&IPropertyObject::getClassName); }
    ObjectPtr<IEvent> getOnPropertyValueChanged() const {
        return this->fetch(&IPropertyObject::getOnPropertyValueChanged);
    }
};

using GenericPropertyObjectPtr = PropertyObjectPtr<IPropertyObject>;

class PropertyValueChangedEventArgsPtr : public ObjectPtr<IPropertyValueChangedEventArgs> {
public:
    using ObjectPtr::ObjectPtr;
    PropertyValueChangedEventArgsPtr(ObjectPtr<IPropertyValueChangedEventArgs>&& other) : ObjectPtr(std::move(other)) {}
    StringPtr getPropertyName() const { return fetch(&IPropertyValueChangedEventArgs::getPropertyName); }
    BasePtr getValue() const { return fetch(&IPropertyValueChangedEventArgs::getValue); }
};

class PropertyObjectClassPtr : public ObjectPtr<IPropertyObjectClass> {
public:
    using ObjectPtr::ObjectPtr;
    PropertyObjectClassPtr(ObjectPtr<IPropertyObjectClass>&& other) : ObjectPtr(std::move(other)) {}
    static PropertyObjectClassPtr create() {
        return fetch<IPropertyObjectClass>(
            [](IPropertyObjectClass** result) { return createPropertyObjectClass(result); });
    }
    StringPtr getName() const { return fetch(&IPropertyObjectClass::getName); }
    void setName(const StringPtr& name) const { checkErrorInfo(checked()->setName(name.get())); }
    StringPtr getParent() const { return fetch(&IPropertyObjectClass::getParent); }
    void setParent(const StringPtr& name) const { checkErrorInfo(checked()->setParent(name.get())); }
    void registerProperty(const PropertyInfoPtr& info) const {
        checkErrorInfo(checked()->registerProperty(info.get()));
    }
    PropertyInfoPtr getProperty(const StringPtr& name) const {
        return fetch<IPropertyInfo>([&](IPropertyInfo** r) { return checked()->getProperty(name.get(), r); });
    }
};

class PropertyObjectManagerPtr : public ObjectPtr<IPropertyObjectManager> {
public:
    using ObjectPtr::ObjectPtr;
    PropertyObjectManagerPtr(ObjectPtr<IPropertyObjectManager>&& other) : ObjectPtr(std::move(other)) {}
    static PropertyObjectManagerPtr create() {
        return fetch<IPropertyObjectManager>(
            [](IPropertyObjectManager** result) { return createPropertyObjectManager(result); });
    }
    void addClass(const PropertyObjectClassPtr& objectClass) const {
        checkErrorInfo(checked()->addClass(objectClass.get()));
    }
    void removeClass(const StringPtr& name) const { checkErrorInfo(checked()->removeClass(name.get())); }
    // Empty pointer when there is no such class.
    PropertyObjectClassPtr findClass(const StringPtr& name) const {
        IPropertyObjectClass* result = nullptr;
        const ErrCode code = checked()->getClass(name.get(), &result);
        if (code == Errors::NotFound) {
            zornClearErrorInfo();
            return {};
        }
        checkErrorInfo(code);
        return ObjectPtr<IPropertyObjectClass>::take(result);
    }
};

// For users' edits (tools, not handlers): refuses unknown names (NotFound), read-only (InvalidOperation) and disabled
// (NotEnabled) properties, values out of the minimum and maximum (OutOfRange), selections beyond the list (OutOfRange)
// and values of a wrong type (InvalidParameter), each with a text that names the property, the value and what is
// allowed. Then setProperty.
ZORN_FUNCTION ErrCode zornCheckedSetProperty(IPropertyObject* object, IString* name, IBaseObject* value);

}  // namespace Harvane::RT::Core
