#pragma once

#include <algorithm>
#include <cctype>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <zorn/objects/property_object.h>
#include <zorn/objects/serialization.h>
#include <zorn/types/object_impl.h>

// The property object engine. Host objects, channels and modules derive from the one template at the end of this file;
// each shared library has its own instance, so that no exception crosses a library's edge.
namespace Harvane::RT::Core {

// Gives the info as it was registered: attributes unresolved, references not followed. Searches the object, its
// prototype, its class and the parents of that. Null and 0 when there is none.
class IPropertyInfoLookup : public IBaseObject {
    ZORN_INTERFACE(IPropertyInfoLookup, IBaseObject)

    virtual ErrCode findPropertyInfo(IString* name, IPropertyInfo** info) = 0;
};

// Counts up with every change of any class; who keeps a chain of classes compares it.
ZORN_FUNCTION uint64_t zornGetClassGeneration();

// The characters of a host string, valid as long as that.
inline std::string_view viewOf(IString* text) {
    const char* characters = nullptr;
    size_t length = 0;
    checkErrorInfo(text->getCharPtr(&characters));
    checkErrorInfo(text->getLength(&length));
    return {characters, length};
}

// A name with its hash, computed once for several maps.
struct HashedName {
    explicit HashedName(std::string_view name) : text(name), hash(std::hash<std::string_view>()(name)) {}
    HashedName(std::string_view name, IString* string) : HashedName(name) { object = string; }

    StringPtr toString() const { return object != nullptr ? StringPtr(object) : StringPtr(text); }

    std::string_view text;
    size_t hash;
    IString* object = nullptr;  // the same name as a host string, where there is one
};

struct PropertyNameHash {
    using is_transparent = void;
    size_t operator()(const HashedName& name) const { return name.hash; }
    size_t operator()(const StringPtr& name) const { return std::hash<std::string_view>()(name.view()); }
};
struct PropertyNameEqual {
    using is_transparent = void;
    bool operator()(const StringPtr& left, const StringPtr& right) const { return left.view() == right.view(); }
    bool operator()(const HashedName& left, const StringPtr& right) const { return left.text == right.view(); }
    bool operator()(const StringPtr& left, const HashedName& right) const { return left.view() == right.text; }
};
template <class T>
using PropertyNameMap = std::unordered_map<StringPtr, T, PropertyNameHash, PropertyNameEqual>;

// An interface of an object, without a reference; null when it has none.
template <class I, class From>
I* borrow(From* object) {
    void* result = nullptr;
    return object != nullptr && succeeded(object->borrowInterface(I::Id, &result)) ? static_cast<I*>(result) : nullptr;
}

// The index in "[12]...". Digits only.
inline size_t parseIndex(const char* text) {
    const std::string_view rest(text);
    const size_t end = rest.find(']');
    if (end == std::string_view::npos) {
        throw InvalidParameterException("No matching ] found.");
    }
    size_t index = 0;
    bool valid = end > 1 && end < 20;
    for (size_t i = 1; i < end && valid; ++i) {
        valid = rest[i] >= '0' && rest[i] <= '9';
        index = index * 10 + static_cast<size_t>(rest[i] - '0');
    }
    if (!valid) {
        throw InvalidParameterException("Could not parse the property index.");
    }
    return index;
}

// Splits "parent.child" at the first "."; false without one.
inline bool isChildProperty(std::string_view name, std::string_view& parent, std::string_view& child) {
    const size_t dot = name.find('.');
    if (dot == std::string_view::npos) {
        return false;
    }
    parent = name.substr(0, dot);
    child = name.substr(dot + 1);
    return true;
}

// What every registration does with an info: it serves one, under the index that it gets here. Gives the name.
inline StringPtr enrol(const PropertyInfoPtr& info, size_t index) {
    StringPtr name = info.getName();
    if (name.view().empty()) {
        throw InvalidParameterException("A property without a name can't be registered");
    }
    unsigned char frozen = 0;
    checkErrorInfo(info->isFrozen(&frozen));
    if (frozen != 0) {
        throw FrozenException("Property %s is registered already", name.toStdString().c_str());
    }
    if (info.getIndex() != -1) {
        throw InvalidValueException("Property %s has an index already", name.toStdString().c_str());
    }
    checkErrorInfo(info->setIndex(static_cast<int32_t>(index)));
    checkErrorInfo(info->freeze());
    return name;
}

// Writes one value in its serialised form. NotSerializable for kinds that have none.
inline void serializeValue(ISerializer* serializer, const BasePtr& value) {
    switch (coreTypeOf(value)) {
        case CoreType::Bool:
            return checkErrorInfo(serializer->writeBool(fromValue<bool>(value) ? 1 : 0));
        case CoreType::Int:
            return checkErrorInfo(serializer->writeInt(fromValue<int64_t>(value)));
        case CoreType::Float:
            return checkErrorInfo(serializer->writeFloat(fromValue<double>(value)));
        case CoreType::String:
            return checkErrorInfo(serializer->writeString(fromValue<std::string>(value).c_str()));
        case CoreType::Ratio: {
            const auto ratio = fromValue<Ratio>(value);
            const std::string text = std::to_string(ratio.numerator) + "/" + std::to_string(ratio.denominator);
            return checkErrorInfo(serializer->writeString(text.c_str()));
        }
        case CoreType::List: {
            const ListPtr list = value.asPtr<IList>();
            checkErrorInfo(serializer->startList());
            for (size_t i = 0, n = list.getCount(); i < n; ++i) {
                serializeValue(serializer, list.getItemAt(i));
            }
            return checkErrorInfo(serializer->endList());
        }
        default:
            if (auto* serializable = borrow<ISerializable>(value.get())) {
                return checkErrorInfo(serializable->serialize(serializer));
            }
            throw NotSerializableException();
    }
}

// The part of the engine that does not depend on the interfaces of an object.
class PropertyObjectEngine {
public:
    PropertyObjectEngine(const PropertyObjectEngine&) = delete;
    PropertyObjectEngine& operator=(const PropertyObjectEngine&) = delete;

protected:
    static constexpr int MaxReferences = 16;     // hops from reference to reference
    static constexpr size_t MaxClassDepth = 32;  // parents of a class

    PropertyObjectEngine() {
        IEvent* event = nullptr;
        checkErrorInfo(createEvent(&event));
        onChanged = ObjectPtr<IEvent>::take(event);
    }
    ~PropertyObjectEngine() = default;

    // ---- What an object may change ----

    // Writes the key and the value.
    virtual void serializeProperty(const StringPtr& name, const BasePtr& value, ISerializer* serializer) {
        checkErrorInfo(serializer->key(name.toStdString().c_str()));
        serializeValue(serializer, value);
    }
    // Further keys behind "propValues".
    virtual void serializeCustomValues(ISerializer*) {}
    // A class that the chain of this object's class must lead to; empty for any.
    virtual std::string_view requiredBaseClass() const { return {}; }

    virtual IPropertyObject* propertyObject() = 0;
    virtual IBaseObject* identity() = 0;

    // ---- Fields ----

    ObjectPtr<IWeakRef> owner;      // the object that contains this one
    ObjectPtr<IWeakRef> prototype;  // where values and infos are looked up next
    StringPtr className;            // may be empty
    StringPtr ownerPropertyName;    // the name under which the owner holds this object
    ObjectPtr<IEvent> onChanged;
    PropertyNameMap<PropertyInfoPtr> localProperties;
    PropertyNameMap<BasePtr> propValues;

    // ---- Attributes ----

    using AttributeGetter = ErrCode (IPropertyInfo::*)(IBaseObject**);

    static BasePtr attribute(const PropertyInfoPtr& info, AttributeGetter getter) {
        IBaseObject* value = nullptr;
        checkErrorInfo((info.get()->*getter)(&value));
        return BasePtr::take(value);
    }

    // An expression's result for this object; anything else stands for itself.
    BasePtr bindAndGet(const BasePtr& value) {
        auto* expression = borrow<IEvalValue>(value.get());
        if (expression == nullptr) {
            return value;
        }
        IEvalValue* bound = nullptr;
        checkErrorInfo(expression->bind(propertyObject(), &bound));
        const auto holder = ObjectPtr<IEvalValue>::take(bound);
        IBaseObject* result = nullptr;
        checkErrorInfo(bound->getResult(&result));
        return BasePtr::take(result);
    }

    bool flagAttribute(const PropertyInfoPtr& info, AttributeGetter getter, bool missing) {
        const BasePtr value = bindAndGet(attribute(info, getter));
        return value ? fromValue<bool>(value) : missing;
    }

    PropertyInfoPtr bindPropertyInfo(const PropertyInfoPtr& info) {
        PropertyInfoPtr bound = PropertyInfoPtr::create(info.getName(), info.getValueType());
        IPropertyInfo* to = bound.get();
        IPropertyInfo* from = info.get();
        auto copy = [&](AttributeGetter getter, ErrCode (IPropertyInfo::*setter)(IBaseObject*)) {
            if (const BasePtr value = bindAndGet(attribute(info, getter))) {
                checkErrorInfo((to->*setter)(value.get()));
            }
        };
        copy(&IPropertyInfo::getDefaultValue, &IPropertyInfo::setDefaultValue);
        copy(&IPropertyInfo::getValues, &IPropertyInfo::setValues);
        copy(&IPropertyInfo::getUnit, &IPropertyInfo::setUnit);
        copy(&IPropertyInfo::getMinValue, &IPropertyInfo::setMinValue);
        copy(&IPropertyInfo::getMaxValue, &IPropertyInfo::setMaxValue);
        copy(&IPropertyInfo::getReadOnly, &IPropertyInfo::setReadOnly);
        copy(&IPropertyInfo::getReadOnlyValue, &IPropertyInfo::setReadOnlyValue);
        copy(&IPropertyInfo::getEnabled, &IPropertyInfo::setEnabled);
        copy(&IPropertyInfo::getVisible, &IPropertyInfo::setVisible);
        copy(&IPropertyInfo::getReference, &IPropertyInfo::setReference);
        checkErrorInfo(to->setHidden(info.isHidden() ? 1 : 0));
        checkErrorInfo(to->setSelection(info.isSelection() ? 1 : 0));
        checkErrorInfo(to->setIndex(info.getIndex()));
        IFuncObject* function = nullptr;
        checkErrorInfo(from->getOnReadValue(&function));
        checkErrorInfo(to->setOnReadValue(ObjectPtr<IFuncObject>::take(function).get()));
        function = nullptr;
        checkErrorInfo(from->getOnWriteValue(&function));
        checkErrorInfo(to->setOnWriteValue(ObjectPtr<IFuncObject>::take(function).get()));
        IEvent* event = nullptr;
        checkErrorInfo(from->getOnValueChanged(&event));
        checkErrorInfo(to->setOnValueChanged(ObjectPtr<IEvent>::take(event).get()));
        checkErrorInfo(to->copyConfigurationActions(from));
        return bound;
    }

    // ---- Infos and classes ----

    static ObjectPtr<IPropertyObject> lock(const ObjectPtr<IWeakRef>& reference) {
        IBaseObject* object = nullptr;
        if (!reference || failed(reference->getRef(&object))) {
            return {};
        }
        return BasePtr::take(object).asPtrOrNull<IPropertyObject>();
    }

    static ObjectPtr<IWeakRef> weakRefTo(IPropertyObject* object) {
        IWeakRef* reference = nullptr;
        if (object != nullptr) {
            auto* supports = borrow<ISupportsWeakRef>(object);
            if (supports == nullptr) {
                throw NoInterfaceException();
            }
            checkErrorInfo(supports->getWeakRef(&reference));
        }
        return ObjectPtr<IWeakRef>::take(reference);
    }

    static PropertyObjectClassPtr getObjectClassByName(const StringPtr& name) {
        auto found = PropertyObjectManagerPtr::create().findClass(name);
        if (!found) {
            throw InvalidParameterException("Property class not \"%s\" is not registered!", name.toStdString().c_str());
        }
        return found;
    }

    // The object's class and its parents, as far as they are registered now.
    const std::vector<PropertyObjectClassPtr>& classChain() {
        if (!className) {
            return classChain_;
        }
        const uint64_t generation = zornGetClassGeneration();
        if (generation != classGeneration_) {
            classChain_.clear();
            classInfos_.clear();
            const auto manager = PropertyObjectManagerPtr::create();
            for (StringPtr name = className; !name.view().empty() && classChain_.size() < MaxClassDepth;) {
                auto found = manager.findClass(name);
                if (!found) {
                    break;
                }
                name = found.getParent();
                classChain_.push_back(std::move(found));
            }
            classGeneration_ = generation;
        }
        return classChain_;
    }

    // The names of the class and its parents.
    std::vector<StringPtr> getClassNames() {
        std::vector<StringPtr> names;
        for (StringPtr name = className; !name.view().empty() && names.size() < MaxClassDepth;) {
            names.push_back(name);
            name = getObjectClassByName(name).getParent();
        }
        return names;
    }

    static bool sameClassName(std::string_view left, std::string_view right) {
        return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](unsigned char a, unsigned char b) {
            return (a >= 'A' && a <= 'Z' ? a + 32 : a) == (b >= 'A' && b <= 'Z' ? b + 32 : b);
        });
    }

    void applyClassName(const StringPtr& name) {
        if (name.view() == className.view()) {
            return;
        }
        const auto manager = PropertyObjectManagerPtr::create();
        const std::string_view required = requiredBaseClass();
        bool requiredFound = required.empty();
        size_t depth = 0;
        StringPtr level = name;
        do {
            const auto found = manager.findClass(level);
            if (!found) {
                throw InvalidValueException("Property class \"%s\" (of \"%s\") is not registered",
                                            level.toStdString().c_str(), name.toStdString().c_str());
            }
            if (++depth > MaxClassDepth) {
                throw InvalidValueException("The parents of property class \"%s\" form a circle",
                                            name.toStdString().c_str());
            }
            requiredFound = requiredFound || sameClassName(level.view(), required);
            level = found.getParent();
        } while (!level.view().empty());
        if (!requiredFound) {
            throw InvalidTypeException("Property class \"%s\" is no \"%s\"", name.toStdString().c_str(),
                                       std::string(required).c_str());
        }
        className = name;
        classGeneration_ = ~uint64_t{0};
    }

    PropertyInfoPtr findInfo(const HashedName& name) {
        if (const auto found = localProperties.find(name); found != localProperties.end()) {
            return found->second;
        }
        if (!prototype && !className) {
            return {};
        }
        if (const auto source = lock(prototype)) {
            IPropertyInfo* info = nullptr;
            if (auto* lookup = borrow<IPropertyInfoLookup>(source.get())) {
                checkErrorInfo(lookup->findPropertyInfo(name.toString().get(), &info));
            }
            if (info != nullptr) {
                return ObjectPtr<IPropertyInfo>::take(info);
            }
        }
        const auto& classes = classChain();
        if (const auto found = classInfos_.find(name); found != classInfos_.end()) {
            return found->second;
        }
        const StringPtr string = name.toString();
        for (const auto& objectClass : classes) {
            unsigned char has = 0;
            checkErrorInfo(objectClass->hasProperty(string.get(), &has));
            if (has != 0) {
                return classInfos_.emplace(string, objectClass.getProperty(string)).first->second;
            }
        }
        return {};
    }

    // Follows references from `info`. True (and `name` is the target's) when there was one.
    bool followReference(PropertyInfoPtr& info, StringPtr& name) {
        bool followed = false;
        for (int hops = 0; info; ++hops) {
            const BasePtr reference = attribute(info, &IPropertyInfo::getReference);
            if (!reference) {
                break;
            }
            PropertyInfoPtr target;
            if (const BasePtr result = bindAndGet(reference)) {
                target = result.asPtrOrNull<IPropertyInfo>();
            }
            if (!target || hops >= MaxReferences) {
                throw std::invalid_argument("Invalid reference to property");
            }
            info = std::move(target);
            name = info.getName();
            followed = true;
        }
        return followed;
    }

    // ---- Values ----

    static void checkPropertyTypeAndConvert(const PropertyInfoPtr& info, BasePtr& value) {
        if (!info || !value) {
            return;
        }
        CoreType wanted = info.getValueType();
        if (wanted == CoreType::Enum) {
            wanted = CoreType::Int;
        }
        CoreType type = CoreType::Undefined;
        if (auto* typed = borrow<ICoreType>(value.get())) {
            typed->getCoreType(&type);
        }
        if (type == wanted || wanted == CoreType::Object || wanted == CoreType::Reference ||
            wanted == CoreType::Undefined || borrow<IEvalValue>(value.get()) != nullptr ||
            (wanted == CoreType::Proc && borrow<IProcObject>(value.get()) != nullptr) ||
            (wanted == CoreType::Func && borrow<IFuncObject>(value.get()) != nullptr)) {
            return;
        }
        IBaseObject* converted = nullptr;
        auto* convertible = borrow<IConvertible>(value.get());
        if (convertible == nullptr || failed(convertible->convertTo(wanted, &converted)) || converted == nullptr) {
            throw InvalidParameterException("Value type is different than property type and conversion failed");
        }
        value = BasePtr::take(converted);
    }

    static void passThrough(IFuncObject* function, BasePtr& value) {
        if (const auto holder = ObjectPtr<IFuncObject>::take(function)) {
            value = executeFunc(holder, value);
        }
    }
    static void validatePropertyWrite(const PropertyInfoPtr& info, BasePtr& value) {
        IFuncObject* function = nullptr;
        if (info && value) {
            checkErrorInfo(info.get()->getOnWriteValue(&function));
            passThrough(function, value);
        }
    }
    static void validatePropertyRead(const PropertyInfoPtr& info, BasePtr& value) {
        IFuncObject* function = nullptr;
        if (info) {
            checkErrorInfo(info.get()->getOnReadValue(&function));
            passThrough(function, value);
        }
    }

    void setOwnerToPropertyValue(const StringPtr& name, const BasePtr& value) {
        if (auto* ownable = borrow<IOwnable>(value.get())) {
            if (failed(ownable->setOwner(propertyObject(), name.get()))) {
                throw InvalidParameterException("Failed to set owner to property value");
            }
        }
    }

    void fire(IEvent* event, const StringPtr& name, const PropertyInfoPtr& info, const BasePtr& value,
              PropertyChangeType type) {
        size_t handlers = 0;
        checkErrorInfo(event->getHandlerCount(&handlers));
        if (handlers == 0) {
            return;
        }
        IPropertyValueChangedEventArgs* raw = nullptr;
        checkErrorInfo(createPropertyValueChangedEventArgs(&raw, name.get(), info.get(), value.get(), type));
        const auto arguments = ObjectPtr<IPropertyValueChangedEventArgs>::take(raw);
        checkErrorInfo(event->trigger(identity(), arguments.get()));
    }

    // First the listeners of the object, then those of the property. The first failure ends it and is the writer's.
    void callPropertyChanged(const StringPtr& name, const PropertyInfoPtr& info, const BasePtr& value,
                             PropertyChangeType type) {
        fire(onChanged.get(), name, info, value, type);
        if (info) {
            IEvent* raw = nullptr;
            checkErrorInfo(info->getOnValueChanged(&raw));
            const auto infoEvent = ObjectPtr<IEvent>::take(raw);
            if (infoEvent) {
                fire(infoEvent.get(), name, info, value, type);
            }
        }
    }

    // One element of a list, resolved. `text` starts at the "[".
    ErrCode readElement(const BasePtr& value, std::string_view text, BasePtr& element) {
        const size_t index = parseIndex(std::string(text).c_str());
        const ListPtr list = value ? ListPtr(value.asPtrOrNull<IList>()) : ListPtr();
        if (!list) {
            return makeError(Errors::InvalidParameter, "Could not access the index as the value is not a list.");
        }
        if (index >= list.getCount()) {
            return makeError(Errors::OutOfRange, "The index parameter is out of bounds of the list.");
        }
        element = bindAndGet(list.getItemAt(index));
        return Errors::Success;
    }

    // A value set on this very object.
    ErrCode readLocalValueEx(const HashedName& name, BasePtr& value) {
        const size_t bracket = name.text.find('[');
        const bool indexed = bracket != std::string_view::npos;
        const auto found = propValues.find(indexed ? HashedName(name.text.substr(0, bracket)) : name);
        if (found == propValues.end()) {
            return Errors::NotFound;
        }
        const BasePtr held = found->second;
        if (indexed) {
            return readElement(held, name.text.substr(bracket), value);
        }
        value = held;
        return Errors::Success;
    }

    BasePtr readLocalValueWithExtendedErrorInfo(const HashedName& name) {
        BasePtr value;
        const ErrCode code = readLocalValueEx(name, value);
        if (code == Errors::NotFound) {
            throw NotFoundException("Property %s value not found", std::string(name.text).c_str());
        }
        checkErrorInfo(code);
        return value;
    }

    // Asks another object for "Class:name" of each class of this one, then for `last`.
    ErrCode getSpecificClassProperty(IPropertyObject* source, std::string_view name, const std::string& last,
                                     BasePtr& value) {
        auto ask = [&](const std::string& question) {
            IBaseObject* answer = nullptr;
            const ErrCode code = source->getProperty(StringPtr(question).get(), &answer);
            if (failed(code)) {
                zornClearErrorInfo();
                return false;
            }
            value = BasePtr::take(answer);
            return true;
        };
        for (const auto& objectClass : getClassNames()) {
            if (ask(objectClass.toStdString().append(":").append(name))) {
                return Errors::Success;
            }
        }
        return ask(last) ? Errors::Success : Errors::NotFound;
    }

    ErrCode getPropertyFromOwner(std::string_view name, BasePtr& value) {
        const auto source = lock(owner);
        if (!source || name.find(':') != std::string_view::npos) {
            return Errors::NotFound;
        }
        return getSpecificClassProperty(source.get(), name, std::string(":").append(name), value);
    }

    ErrCode readProperty(const HashedName& name, BasePtr& value) {
        ErrCode code = readLocalValueEx(name, value);
        if (code == Errors::NotFound && prototype) {
            if (const auto source = lock(prototype)) {
                code = getSpecificClassProperty(source.get(), name.text, std::string(name.text), value);
            }
        }
        if (code == Errors::NotFound && owner) {
            code = getPropertyFromOwner(name.text, value);
        }
        if (code == Errors::NotFound) {
            zornClearErrorInfo();
        }
        return code;
    }

    // `info` becomes that of the property which gave the value; empty for an unregistered name.
    ErrCode getPropertyInternal(const HashedName& name, BasePtr& value, PropertyInfoPtr& info) {
        const size_t bracket = name.text.find('[');
        const bool indexed = bracket != std::string_view::npos;
        info = findInfo(indexed ? HashedName(name.text.substr(0, bracket)) : name);
        if (!info) {
            return readProperty(name, value);
        }
        StringPtr targetName;
        const bool followed = followReference(info, targetName);
        if (!flagAttribute(info, &IPropertyInfo::getEnabled, true)) {
            throw NotEnabledException("Property %s is not enabled", std::string(name.text).c_str());
        }
        if (flagAttribute(info, &IPropertyInfo::getReadOnly, false)) {
            value = bindAndGet(attribute(info, &IPropertyInfo::getReadOnlyValue));
            if (!value) {
                throw InvalidParameterException("Property %s set as readonly, but readonly value not assigned",
                                                std::string(name.text).c_str());
            }
            return Errors::Success;
        }
        ErrCode code;
        if (followed) {
            const std::string target = targetName.toStdString().append(indexed ? name.text.substr(bracket) : "");
            code = readProperty(HashedName(target), value);
        } else {
            code = readProperty(name, value);
        }
        if (code == Errors::NotFound) {
            value = attribute(info, &IPropertyInfo::getDefaultValue);
            if (!value) {
                return plainError(Errors::NotAssigned);
            }
            value = bindAndGet(value);
            code = Errors::Success;
            if (indexed) {
                const BasePtr list = value;
                code = readElement(list, name.text.substr(bracket), value);
            }
        }
        if (succeeded(code)) {
            validatePropertyRead(info, value);
        }
        return code;
    }

    // The object that the first part of "parent.child" holds.
    PropertyObjectPtr<> childObject(std::string_view parent) {
        const size_t bracket = parent.find('[');
        const bool indexed = bracket != std::string_view::npos;
        PropertyInfoPtr info = findInfo(HashedName(parent.substr(0, bracket)));
        StringPtr targetName;
        std::string name(parent);
        if (info && followReference(info, targetName)) {
            name = targetName.toStdString().append(indexed ? parent.substr(bracket) : "");
        }
        return readLocalValueWithExtendedErrorInfo(HashedName(name)).asPtr<IPropertyObject>();
    }

    ErrCode readAny(IString* nameObject, BasePtr& value) {
        const HashedName name(viewOf(nameObject), nameObject);
        std::string_view parent, child;
        if (isChildProperty(name.text, parent, child)) {
            const auto object = childObject(parent);
            IBaseObject* result = nullptr;
            const ErrCode code = object->getProperty(StringPtr(child).get(), &result);
            value = BasePtr::take(result);
            return code;
        }
        PropertyInfoPtr info;
        return getPropertyInternal(name, value, info);
    }

    ErrCode writeAny(IString* nameObject, BasePtr value) {
        const HashedName name(viewOf(nameObject), nameObject);
        std::string_view parent, child;
        if (isChildProperty(name.text, parent, child)) {
            return childObject(parent)->setProperty(StringPtr(child).get(), value.get());
        }
        StringPtr target(nameObject);
        PropertyInfoPtr info = findInfo(name);
        followReference(info, target);
        checkPropertyTypeAndConvert(info, value);
        validatePropertyWrite(info, value);
        store(target, value);
        setOwnerToPropertyValue(target, value);
        callPropertyChanged(target, info, value, PropertyChangeType::Set);
        return Errors::Success;
    }

    void store(const StringPtr& name, const BasePtr& value) {
        BasePtr& slot = propValues[name];
        const BasePtr replaced = std::exchange(slot, value);  // dies when the map is consistent again
    }

    ErrCode clearAny(IString* nameObject) {
        const HashedName name(viewOf(nameObject), nameObject);
        std::string_view parent, child;
        if (isChildProperty(name.text, parent, child)) {
            return childObject(parent)->clearProperty(StringPtr(child).get());
        }
        StringPtr target(nameObject);
        PropertyInfoPtr info = findInfo(name);
        followReference(info, target);
        BasePtr value;
        if (const auto found = propValues.find(target); found != propValues.end()) {
            value = found->second;
            if (auto* ownable = borrow<IOwnable>(value.get())) {
                checkErrorInfo(ownable->setOwner(nullptr, nullptr));
            }
            propValues.erase(target);
        }
        callPropertyChanged(target, info, value, PropertyChangeType::Cleared);
        return Errors::Success;
    }

    BasePtr readEnum(IString* nameObject) {
        const HashedName name(viewOf(nameObject), nameObject);
        const std::string text(name.text);
        BasePtr value;
        PropertyInfoPtr info;
        const ErrCode code = getPropertyInternal(name, value, info);
        if (!info) {
            throw InvalidParameterException("Enum property %s must be registered", text.c_str());
        }
        checkErrorInfo(code);
        if (info.getValueType() != CoreType::Enum && !info.isSelection()) {
            throw InvalidParameterException("Property %s is not an enum", text.c_str());
        }
        const BasePtr values = bindAndGet(attribute(info, &IPropertyInfo::getValues));
        if (!values) {
            throw InvalidParameterException("Enum property %s has no value list assigned", text.c_str());
        }
        const ListPtr list = values.asPtrOrNull<IList>();
        if (!list) {
            throw InvalidParameterException("Enum property %s values is not a list", text.c_str());
        }
        return list.getItemAt(static_cast<size_t>(getValueFromConvertible(value)));
    }

    static int64_t getValueFromConvertible(const BasePtr& value) { return fromValue<int64_t>(value); }

    void registerInfo(IPropertyInfo* raw) {
        if (raw == nullptr) {
            throw InvalidParameterException();
        }
        const PropertyInfoPtr info(raw);
        const StringPtr name = enrol(info, localProperties.size());
        if (!localProperties.emplace(name, info).second) {
            throw AlreadyExistsException("Property %s already exists", name.toStdString().c_str());
        }
    }

    bool knowsProperty(IString* nameObject) {
        const HashedName name(viewOf(nameObject), nameObject);
        if (localProperties.contains(name) || propValues.contains(name)) {
            return true;
        }
        if (const auto source = lock(prototype)) {
            unsigned char found = 0;
            checkErrorInfo(source->hasProperty(nameObject, &found));
            if (found != 0) {
                return true;
            }
        }
        for (const auto& objectClass : classChain()) {
            unsigned char found = 0;
            checkErrorInfo(objectClass->hasProperty(nameObject, &found));
            if (found != 0) {
                return true;
            }
        }
        return false;
    }

    PropertyInfoPtr boundInfo(IString* nameObject) {
        const HashedName name(viewOf(nameObject), nameObject);
        std::string_view parent, child;
        if (isChildProperty(name.text, parent, child)) {
            return childObject(parent).getPropertyInfo(StringPtr(child));
        }
        PropertyInfoPtr info = findInfo(name);
        if (!info) {
            throw NotFoundException("Property %s not found", std::string(name.text).c_str());
        }
        StringPtr target;
        followReference(info, target);
        return bindPropertyInfo(info);
    }

    static void sortProperties(std::vector<PropertyInfoPtr>& infos, PropertyOrder order) {
        if (order == PropertyOrder::Index) {
            std::stable_sort(infos.begin(), infos.end(),
                             [](const auto& left, const auto& right) { return left.getIndex() < right.getIndex(); });
        } else if (order == PropertyOrder::Name) {
            std::stable_sort(infos.begin(), infos.end(),
                             [](const auto& left, const auto& right) { return left.getName() < right.getName(); });
        }
    }

    // Properties of the root class first, then down to the object's own; a covered one is left out.
    ListPtr enumerate(PropertyOrder order, bool visibleOnly) {
        std::vector<PropertyInfoPtr> infos;
        std::vector<PropertyInfoPtr> level;
        PropertyNameMap<bool> listed;
        auto takeLevel = [&] {
            sortProperties(level, order);
            std::erase_if(level, [&](const auto& info) { return !listed.emplace(info.getName(), true).second; });
            infos.insert(infos.begin(), level.begin(), level.end());
            level.clear();
        };
        for (const auto& [name, info] : localProperties) {
            level.push_back(info);
        }
        takeLevel();
        for (const auto& objectClass : classChain()) {
            IList* raw = nullptr;
            checkErrorInfo(objectClass->enumProperties(PropertyOrder::Index, &raw));
            const ListPtr list(ObjectPtr<IList>::take(raw));
            for (size_t i = 0, n = list.getCount(); i < n; ++i) {
                level.emplace_back(list.getItemAt(i).asPtr<IPropertyInfo>());
            }
            takeLevel();
        }
        if (order == PropertyOrder::Name) {
            sortProperties(infos, order);
        }
        ListPtr result = ListPtr::create();
        for (const auto& info : infos) {
            if (visibleOnly && (info.isHidden() || !isVisible(info))) {
                continue;
            }
            result.pushBack(asBase(boundOrRaw(info)));
        }
        return result;
    }

    // An attribute that can't be computed now must hide neither its property nor all the others of a list.
    bool isVisible(const PropertyInfoPtr& info) {
        try {
            return flagAttribute(info, &IPropertyInfo::getVisible, true);
        } catch (const ZornException&) {
            zornClearErrorInfo();
            return true;
        }
    }
    PropertyInfoPtr boundOrRaw(const PropertyInfoPtr& info) {
        try {
            return bindPropertyInfo(info);
        } catch (const ZornException&) {
            zornClearErrorInfo();
            return info;
        }
    }

    void assignPrototype(IPropertyObject* object) {
        ObjectPtr<IPropertyObject> level(object);
        for (int depth = 0; level; ++depth) {
            if (borrow<IBaseObject>(level.get()) == identity() || depth > 64) {
                throw InvalidParameterException("The prototypes form a circle");
            }
            IPropertyObject* next = nullptr;
            checkErrorInfo(level->getPrototype(&next));
            level = ObjectPtr<IPropertyObject>::take(next);
        }
        prototype = weakRefTo(object);
    }

    // ---- Serialised form ----

    void serializeObject(ISerializer* serializer) {
        if (serializing_) {
            throw NotSerializableException("A property object that contains itself can't be serialized");
        }
        struct Guard {
            bool& flag;
            explicit Guard(bool& value) : flag(value) { flag = true; }
            ~Guard() { flag = false; }
        } guard(serializing_);
        checkErrorInfo(serializer->startObject());
        if (!className.view().empty()) {
            checkErrorInfo(serializer->key("className"));
            checkErrorInfo(serializer->writeString(className.toStdString().c_str()));
        }
        serializeProperties(serializer);
        serializeCustomValues(serializer);
        checkErrorInfo(serializer->endObject());
    }

    void serializeProperties(ISerializer* serializer) {
        checkErrorInfo(serializer->key("propValues"));
        checkErrorInfo(serializer->startObject());
        std::map<BasePtr, BasePtr, bool (*)(const BasePtr&, const BasePtr&)> sorted(&compareObjectPtr);
        for (const auto& [name, value] : propValues) {
            sorted.emplace(asBase(name), value);
        }
        for (const auto& [key, value] : sorted) {
            const StringPtr name = key.asPtr<IString>();
            try {
                serializeProperty(name, value, serializer);
            } catch (const NotSerializableException& exception) {
                if (!exception.defaultMessage) {
                    throw;
                }
                throw NotSerializableException("Property %s holds a value that can't be serialized",
                                               name.toStdString().c_str());
            }
        }
        checkErrorInfo(serializer->endObject());
    }

    // ---- Update from a setup ----

    void updateObjectProperties(ConfigurationMode mode, ISerializedObject* serialized) {
        unsigned char has = 0;
        checkErrorInfo(serialized->hasKey("propValues", &has));
        ObjectPtr<ISerializedObject> values;
        ListPtr keys = ListPtr::create();
        if (has != 0) {
            ISerializedObject* raw = nullptr;
            checkErrorInfo(serialized->readObject("propValues", &raw));
            values = ObjectPtr<ISerializedObject>::take(raw);
            IList* list = nullptr;
            checkErrorInfo(values->getKeys(&list));
            keys = ListPtr(ObjectPtr<IList>::take(list));
        }
        PropertyNameMap<bool> inSetup;
        for (size_t i = 0, n = keys.getCount(); i < n; ++i) {
            const StringPtr name = keys.getItemAt(i).asPtr<IString>();
            inSetup.emplace(name, true);
            const PropertyState state = propValues.contains(name) ? 4 : 2;
            updatePropertyWithAction(name, mode, actionFor(name, mode, state), values.get());
        }
        std::vector<StringPtr> onlyHere;
        for (const auto& [name, value] : propValues) {
            if (!inSetup.contains(name)) {
                onlyHere.push_back(name);
            }
        }
        std::sort(onlyHere.begin(), onlyHere.end());
        for (const auto& name : onlyHere) {
            updatePropertyWithAction(name, mode, actionFor(name, mode, 1), nullptr);
        }
    }

    ConfigurationAction actionFor(const StringPtr& name, ConfigurationMode mode, PropertyState state) {
        ConfigurationAction action = state == 1 ? ConfigurationAction::Leave : ConfigurationAction::TakeOver;
        if (const PropertyInfoPtr info = findInfo(HashedName(name.view(), name.get()))) {
            checkErrorInfo(info->getConfigurationAction(mode, state, &action));
        }
        return action;
    }

    // `values` is null for a property that the setup doesn't name.
    void updatePropertyWithAction(const StringPtr& name, ConfigurationMode mode, ConfigurationAction action,
                                  ISerializedObject* values) {
        const bool isSet = propValues.contains(name);
        switch (action) {
            case ConfigurationAction::Leave:
                return;
            case ConfigurationAction::Clear:
                if (isSet) {
                    checkErrorInfo(propertyObject()->clearProperty(name.get()));
                }
                return;
            case ConfigurationAction::SetIfUnset:
                if (!isSet && values != nullptr) {
                    setPropertyFromSerialized(name, values);
                }
                return;
            case ConfigurationAction::TakeOver:
                break;
        }
        if (values == nullptr) {
            if (isSet) {
                checkErrorInfo(propertyObject()->clearProperty(name.get()));
            }
            return;
        }
        const std::string key = name.toStdString();
        SerializedType type{};
        checkErrorInfo(values->getType(key.c_str(), &type));
        if (type == SerializedType::Object) {
            updatePropertyObject(name, mode, values);
        } else if (type == SerializedType::List) {
            updatePropertyList(name, mode, values);
        } else {
            setPropertyFromSerialized(name, values);
        }
    }

    void setPropertyFromSerialized(const StringPtr& name, ISerializedObject* values) {
        IBaseObject* raw = nullptr;
        checkErrorInfo(values->readValue(name.toStdString().c_str(), &raw));
        const auto value = BasePtr::take(raw);
        checkErrorInfo(propertyObject()->setProperty(name.get(), value.get()));
    }

    // Whether what is there can take over a serialised object: a property object of the same class.
    static bool updateInPlace(const BasePtr& present, ConfigurationMode mode, ISerializedObject* serialized) {
        auto* object = borrow<IPropertyObject>(present.get());
        unsigned char tagged = 0;
        checkErrorInfo(serialized->hasKey("__type", &tagged));
        if (object == nullptr || tagged != 0) {
            return false;
        }
        StringPtr wanted;
        unsigned char has = 0;
        checkErrorInfo(serialized->hasKey("className", &has));
        if (has != 0) {
            IString* text = nullptr;
            checkErrorInfo(serialized->readString("className", &text));
            wanted = ObjectPtr<IString>::take(text);
        }
        IString* text = nullptr;
        checkErrorInfo(object->getClassName(&text));
        if (!sameClassName(StringPtr(ObjectPtr<IString>::take(text)).view(), wanted.view())) {
            return false;
        }
        checkErrorInfo(object->update(mode, serialized));
        return true;
    }

    BasePtr localValue(const StringPtr& name) const {
        const auto found = propValues.find(name);
        return found == propValues.end() ? BasePtr() : found->second;
    }

    void updatePropertyObject(const StringPtr& name, ConfigurationMode mode, ISerializedObject* values) {
        ISerializedObject* raw = nullptr;
        checkErrorInfo(values->readObject(name.toStdString().c_str(), &raw));
        const auto serialized = ObjectPtr<ISerializedObject>::take(raw);
        if (!updateInPlace(localValue(name), mode, serialized.get())) {
            setPropertyFromSerialized(name, values);
        }
    }

    // Elements that are objects of the same class are kept and updated; the list itself is written anew, so that its
    // listeners hear of it.
    void updatePropertyList(const StringPtr& name, ConfigurationMode mode, ISerializedObject* values) {
        ISerializedList* raw = nullptr;
        checkErrorInfo(values->readList(name.toStdString().c_str(), &raw));
        const auto serialized = ObjectPtr<ISerializedList>::take(raw);
        size_t count = 0;
        checkErrorInfo(serialized->getCount(&count));
        const BasePtr value = localValue(name);
        const ListPtr present = value ? ListPtr(value.asPtrOrNull<IList>()) : ListPtr();
        const size_t presentCount = present ? present.getCount() : 0;
        ListPtr result = ListPtr::create();
        for (size_t i = 0; i < count; ++i) {
            const BasePtr old = i < presentCount ? present.getItemAt(i) : BasePtr();
            SerializedType type{};
            checkErrorInfo(serialized->getType(i, &type));
            if (old && type == SerializedType::Object) {
                ISerializedObject* element = nullptr;
                checkErrorInfo(serialized->readObject(i, &element));
                const auto holder = ObjectPtr<ISerializedObject>::take(element);
                if (updateInPlace(old, mode, element)) {
                    result.pushBack(old);
                    continue;
                }
            }
            IBaseObject* item = nullptr;
            checkErrorInfo(serialized->readValue(i, &item));
            result.pushBack(BasePtr::take(item));
        }
        checkErrorInfo(propertyObject()->setProperty(name.get(), result.get()));
    }

    void disposeValues() {
        auto values = std::exchange(propValues, {});
        for (auto& [name, value] : values) {
            if (auto* ownable = borrow<IOwnable>(value.get())) {
                ownable->setOwner(nullptr, nullptr);
            }
        }
        localProperties.clear();
        owner.release();
        prototype.release();
    }

private:
    // What the classes say, as of one generation of theirs.
    std::vector<PropertyObjectClassPtr> classChain_;
    PropertyNameMap<PropertyInfoPtr> classInfos_;
    uint64_t classGeneration_ = ~uint64_t{0};
    bool serializing_ = false;
};

// A property object under any interfaces. One of them is IPropertyObject or extends it; further ones may stand beside.
// All operations return codes and never throw.
template <class... Interfaces>
class GenericPropertyObjectImpl
    : public ObjectImpl<Interfaces..., IOwnable, ISerializable, ISupportsWeakRef, ICoreType, IPropertyInfoLookup>,
      protected PropertyObjectEngine {
public:
    // Raises InvalidValueException for a class that is unknown or incomplete.
    explicit GenericPropertyObjectImpl(const StringPtr& name = {}) {
        if (!name.view().empty()) {
            applyClassName(name);
        }
    }

    ErrCode registerProperty(IPropertyInfo* info) override {
        return guarded([&] { registerInfo(info); });
    }
    ErrCode hasProperty(IString* name, unsigned char* found) override {
        if (name == nullptr || found == nullptr) {
            return argumentNull();
        }
        return guarded([&] { *found = knowsProperty(name) ? 1 : 0; });
    }
    ErrCode isPropertySet(IString* name, unsigned char* set) override {
        if (name == nullptr || set == nullptr) {
            return argumentNull();
        }
        return guarded([&] { *set = propValues.contains(HashedName(viewOf(name))) ? 1 : 0; });
    }
    ErrCode getPropertyInfo(IString* name, IPropertyInfo** info) override {
        if (name == nullptr || info == nullptr) {
            return argumentNull();
        }
        *info = nullptr;
        return guarded([&] { *info = boundInfo(name).detach(); });
    }
    ErrCode enumProperties(PropertyOrder order, IList** infos) override {
        if (infos == nullptr) {
            return argumentNull();
        }
        *infos = nullptr;
        return guarded([&] { *infos = enumerate(order, false).detach(); });
    }
    ErrCode enumVisibleProperties(PropertyOrder order, IList** infos) override {
        if (infos == nullptr) {
            return argumentNull();
        }
        *infos = nullptr;
        return guarded([&] { *infos = enumerate(order, true).detach(); });
    }
    ErrCode setProperty(IString* name, IBaseObject* value) override {
        if (name == nullptr) {
            return argumentNull();
        }
        return guarded([&]() -> ErrCode { return writeAny(name, BasePtr(value)); });
    }
    ErrCode getProperty(IString* name, IBaseObject** value) override {
        if (name == nullptr || value == nullptr) {
            return argumentNull();
        }
        *value = nullptr;
        return guarded([&]() -> ErrCode {
            BasePtr result;
            const ErrCode code = readAny(name, result);
            if (succeeded(code)) {
                *value = result.detach();
            }
            return code;
        });
    }
    ErrCode getPropertyEnum(IString* name, IBaseObject** text) override {
        if (name == nullptr || text == nullptr) {
            return argumentNull();
        }
        *text = nullptr;
        return guarded([&] { *text = readEnum(name).detach(); });
    }
    ErrCode clearProperty(IString* name) override {
        if (name == nullptr) {
            return argumentNull();
        }
        return guarded([&]() -> ErrCode { return clearAny(name); });
    }
    ErrCode setOwner(IPropertyObject* object, IString* name) override {
        return guarded([&] {
            owner = weakRefTo(object);
            ownerPropertyName = StringPtr(name);
        });
    }
    ErrCode setPrototype(IPropertyObject* object) override {
        return guarded([&] { assignPrototype(object); });
    }
    ErrCode getPrototype(IPropertyObject** object) override {
        if (object == nullptr) {
            return argumentNull();
        }
        *object = nullptr;
        return guarded([&] { *object = lock(prototype).detach(); });
    }
    ErrCode setClassName(IString* name) override {
        if (name == nullptr) {
            return argumentNull();
        }
        return guarded([&] { applyClassName(StringPtr(name)); });
    }
    // The empty string for an object without a class.
    ErrCode getClassName(IString** name) override {
        if (name == nullptr) {
            return argumentNull();
        }
        *name = nullptr;
        return guarded([&] { *name = (className ? className : StringPtr("")).detach(); });
    }
    ErrCode getOnPropertyValueChanged(IEvent** event) override { return handOut(onChanged, event); }
    ErrCode serialize(ISerializer* serializer) override {
        if (serializer == nullptr) {
            return argumentNull();
        }
        return guarded([&] { serializeObject(serializer); });
    }
    ErrCode update(ConfigurationMode mode, ISerializedObject* serialized) override {
        if (serialized == nullptr) {
            return argumentNull();
        }
        return guarded([&] { updateObjectProperties(mode, serialized); });
    }

    ErrCode getSerializeId(const char** id) override { return handOut("PropertyObject", id); }
    ErrCode getWeakRef(IWeakRef** reference) override {
        if (reference == nullptr) {
            return argumentNull();
        }
        return guarded([&] { *reference = new WeakRefImpl(this->shareControl(), this->self()); });
    }
    ErrCode getCoreType(CoreType* type) override { return handOut(CoreType::Object, type); }
    ErrCode findPropertyInfo(IString* name, IPropertyInfo** info) override {
        if (name == nullptr || info == nullptr) {
            return argumentNull();
        }
        *info = nullptr;
        return guarded([&] { *info = findInfo(HashedName(viewOf(name), name)).detach(); });
    }
    ErrCode toString(char** text) override {
        return text == nullptr ? argumentNull() : zornDuplicateCharPtr(text, "PropertyObject");
    }
    // Drops values, local properties, owner and prototype.
    ErrCode dispose() override {
        return guarded([&] { disposeValues(); });
    }

protected:
    IPropertyObject* propertyObject() final { return this; }
    IBaseObject* identity() final { return this->self(); }

    static ErrCode argumentNull() { return plainError(Errors::ArgumentNull); }
    // Runs an operation's body, with this object as the source of its failure.
    template <class Body>
    ErrCode guarded(Body&& body) {
        return wrapHandler(std::forward<Body>(body), this->self());
    }
};

// Makes a property object of its serialised form: for zornRegisterSerializerFactory under "PropertyObject".
inline ErrCode deserialize(ISerializedObject* serialized, IBaseObject** object) {
    if (serialized == nullptr || object == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    *object = nullptr;
    return wrapHandler([&] {
        IList* list = nullptr;
        checkErrorInfo(serialized->getKeys(&list));
        const ListPtr present(ObjectPtr<IList>::take(list));
        for (size_t i = 0, n = present.getCount(); i < n; ++i) {
            const StringPtr key = present.getItemAt(i).asPtr<IString>();
            if (key != "__type" && key != "className" && key != "propValues") {
                throw DeserializeException("unknown key \"%s\"", key.toStdString().c_str());
            }
        }
        IString* text = nullptr;
        unsigned char has = 0;
        checkErrorInfo(serialized->hasKey("className", &has));
        if (has != 0) {
            checkErrorInfo(serialized->readString("className", &text));
        }
        const StringPtr className(ObjectPtr<IString>::take(text));
        IPropertyObject* raw = nullptr;
        checkErrorInfo(createPropertyObject(&raw, nullptr, className.get()));
        const auto result = ObjectPtr<IPropertyObject>::take(raw);
        checkErrorInfo(serialized->hasKey("propValues", &has));
        if (has != 0) {
            ISerializedObject* values = nullptr;
            checkErrorInfo(serialized->readObject("propValues", &values));
            const auto holder = ObjectPtr<ISerializedObject>::take(values);
            list = nullptr;
            checkErrorInfo(values->getKeys(&list));
            const ListPtr keys(ObjectPtr<IList>::take(list));
            for (size_t i = 0, n = keys.getCount(); i < n; ++i) {
                const StringPtr name = keys.getItemAt(i).asPtr<IString>();
                IBaseObject* value = nullptr;
                checkErrorInfo(values->readValue(name.toStdString().c_str(), &value));
                checkErrorInfo(result->setProperty(name.get(), BasePtr::take(value).get()));
            }
        }
        *object = asBase(result).detach();
    });
}

// Tells the host of `deserialize` once per shared library and takes it back when that library goes.
class SerializerRegistration {
public:
    static const SerializerRegistration& instance() {
        static const SerializerRegistration registration;
        return registration;
    }
    ErrCode code;  // of the registration

    SerializerRegistration(const SerializerRegistration&) = delete;
    SerializerRegistration& operator=(const SerializerRegistration&) = delete;

private:
    SerializerRegistration() : code(zornRegisterSerializerFactory("PropertyObject", &deserialize)) {}
    ~SerializerRegistration() { zornDropSerializerFactories(reinterpret_cast<const void*>(&deserialize)); }
};

namespace {
[[maybe_unused]] const ErrCode serializerFactoryRegistered = SerializerRegistration::instance().code;
}

}  // namespace Harvane::RT::Core
