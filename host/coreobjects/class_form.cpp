#include "host/coreobjects/class_form.h"

#include <algorithm>
#include <string>
#include <string_view>

#include <zorn/objects/property_object_impl.h>

namespace Harvane::RT::Core {
namespace {

struct TypeName {
    CoreType type;
    const char* name;
};
constexpr TypeName typeNames[] = {
    {CoreType::Bool, "bool"},     {CoreType::Int, "int"},   {CoreType::Float, "float"},
    {CoreType::String, "string"}, {CoreType::List, "list"}, {CoreType::Ratio, "ratio"},
    {CoreType::Object, "object"}, {CoreType::Proc, "proc"}, {CoreType::Func, "func"},
    {CoreType::Enum, "enum"},     {CoreType::Dict, "dict"}, {CoreType::Reference, "reference"},
};

// What an attribute may hold. Each takes an eval value instead.
enum class AttributeKind { OfProperty, List, Text, Flag, EvalOnly };

struct AttributeForm {
    const char* key;
    AttributeKind kind;
    ErrCode (IPropertyInfo::*getter)(IBaseObject**);
    ErrCode (IPropertyInfo::*setter)(IBaseObject*);
};
constexpr AttributeForm attributeForms[] = {
    {"default", AttributeKind::OfProperty, &IPropertyInfo::getDefaultValue, &IPropertyInfo::setDefaultValue},
    {"values", AttributeKind::List, &IPropertyInfo::getValues, &IPropertyInfo::setValues},
    {"unit", AttributeKind::Text, &IPropertyInfo::getUnit, &IPropertyInfo::setUnit},
    {"min", AttributeKind::OfProperty, &IPropertyInfo::getMinValue, &IPropertyInfo::setMinValue},
    {"max", AttributeKind::OfProperty, &IPropertyInfo::getMaxValue, &IPropertyInfo::setMaxValue},
    {"readOnly", AttributeKind::Flag, &IPropertyInfo::getReadOnly, &IPropertyInfo::setReadOnly},
    {"readOnlyValue", AttributeKind::OfProperty, &IPropertyInfo::getReadOnlyValue, &IPropertyInfo::setReadOnlyValue},
    {"enabled", AttributeKind::Flag, &IPropertyInfo::getEnabled, &IPropertyInfo::setEnabled},
    {"visible", AttributeKind::Flag, &IPropertyInfo::getVisible, &IPropertyInfo::setVisible},
    {"reference", AttributeKind::EvalOnly, &IPropertyInfo::getReference, &IPropertyInfo::setReference},
};

bool has(ISerializedObject* object, const char* key) {
    unsigned char found = 0;
    checkErrorInfo(object->hasKey(key, &found));
    return found != 0;
}

std::string readText(ISerializedObject* object, const char* key) {
    IString* text = nullptr;
    checkErrorInfo(object->readString(key, &text));
    return StringPtr(ObjectPtr<IString>::take(text)).toStdString();
}

template <size_t N>
void refuseOtherKeys(ISerializedObject* object, const char* const (&known)[N], bool withAttributes) {
    IList* raw = nullptr;
    checkErrorInfo(object->getKeys(&raw));
    const ListPtr keys(ObjectPtr<IList>::take(raw));
    for (size_t i = 0, n = keys.getCount(); i < n; ++i) {
        const std::string key = fromValue<std::string>(keys.getItemAt(i));
        const bool isKnown =
            std::any_of(std::begin(known), std::end(known), [&](const char* name) { return key == name; }) ||
            (withAttributes && std::any_of(std::begin(attributeForms), std::end(attributeForms),
                                           [&](const AttributeForm& form) { return key == form.key; }));
        if (!isKnown) {
            throw DeserializeException("unknown key \"%s\"", key.c_str());
        }
    }
}

// Brings a plain attribute to the type that it must have.
BasePtr fitted(const AttributeForm& form, const BasePtr& value, const StringPtr& property, CoreType type) {
    if (borrow<IEvalValue>(value.get()) != nullptr) {
        return value;
    }
    auto refuse = [&](const char* wanted) -> BasePtr {
        throw DeserializeException("\"%s\" of property \"%s\" must be %s", form.key, property.toStdString().c_str(),
                                   wanted);
    };
    const CoreType actual = coreTypeOf(value);
    switch (form.kind) {
        case AttributeKind::List:
            return actual == CoreType::List ? value : refuse("a list");
        case AttributeKind::Text:
            return actual == CoreType::String ? value : refuse("a string");
        case AttributeKind::Flag:
            return actual == CoreType::Bool ? value : refuse("true or false");
        case AttributeKind::EvalOnly:
            return refuse("an expression");
        case AttributeKind::OfProperty:
            break;
    }
    if (type == CoreType::Enum) {
        type = CoreType::Int;
    }
    if (actual == type || type == CoreType::Object || type == CoreType::Reference) {
        return value;
    }
    // Numbers widen and ratios come as texts; everything else would be a slip of the pen.
    const bool widens = type == CoreType::Float && actual == CoreType::Int;
    const bool isRatio = type == CoreType::Ratio && (actual == CoreType::String || actual == CoreType::Int);
    IBaseObject* converted = nullptr;
    if (!(widens || isRatio) || failed(value.asPtr<IConvertible>()->convertTo(type, &converted))) {
        return refuse(("of type " + std::string(nameOfType(type))).c_str());
    }
    return BasePtr::take(converted);
}

PropertyInfoPtr readProperty(ISerializedObject* form) {
    static const char* const known[] = {"name", "type", "selection", "hidden", "configurationActions"};
    refuseOtherKeys(form, known, true);
    const StringPtr name(readText(form, "name"));
    if (name.view().empty()) {
        throw DeserializeException("a property needs a name");
    }
    const std::string typeName = readText(form, "type");
    const auto type = std::find_if(std::begin(typeNames), std::end(typeNames),
                                   [&](const TypeName& entry) { return typeName == entry.name; });
    if (type == std::end(typeNames)) {
        throw DeserializeException("unknown type \"%s\"", typeName.c_str());
    }
    PropertyInfoPtr info = PropertyInfoPtr::create(name, type->type);
    for (const AttributeForm& attribute : attributeForms) {
        if (!has(form, attribute.key)) {
            continue;
        }
        IBaseObject* value = nullptr;
        checkErrorInfo(form->readValue(attribute.key, &value));
        const BasePtr plain = fitted(attribute, BasePtr::take(value), name, type->type);
        checkErrorInfo((info.get()->*attribute.setter)(plain.get()));
    }
    auto flag = [&](const char* key, ErrCode (IPropertyInfo::*setter)(unsigned char)) {
        unsigned char value = 0;
        if (has(form, key)) {
            checkErrorInfo(form->readBool(key, &value));
            checkErrorInfo((info.get()->*setter)(value));
        }
    };
    flag("selection", &IPropertyInfo::setSelection);
    flag("hidden", &IPropertyInfo::setHidden);
    if (has(form, "configurationActions")) {
        IBaseObject* raw = nullptr;
        checkErrorInfo(form->readValue("configurationActions", &raw));
        const ListPtr rules = BasePtr::take(raw).asPtrOrNull<IList>();
        for (size_t i = 0, n = rules ? rules.getCount() : 0; i < n; ++i) {
            const ListPtr rule = rules.getItemAt(i).asPtrOrNull<IList>();
            if (!rule || rule.getCount() != 3) {
                throw DeserializeException("a configuration action is a list of mode, states and action");
            }
            const auto number = [&](size_t at) { return fromValue<int>(rule.getItemAt(at)); };
            info.configurationAction(number(0), number(1), static_cast<ConfigurationAction>(number(2)));
        }
        if (!rules) {
            throw DeserializeException("\"configurationActions\" must be a list");
        }
    }
    return info;
}

void writeProperty(ISerializer* serializer, const PropertyInfoPtr& info) {
    const char* type = nameOfType(info.getValueType());
    if (type == nullptr) {
        throw NotSerializableException("Property %s has no serializable type", info.getName().toStdString().c_str());
    }
    checkErrorInfo(serializer->startObject());
    checkErrorInfo(serializer->key("name"));
    checkErrorInfo(serializer->writeString(info.getName().toStdString().c_str()));
    checkErrorInfo(serializer->key("type"));
    checkErrorInfo(serializer->writeString(type));
    auto flag = [&](const char* key, bool value) {
        if (value) {
            checkErrorInfo(serializer->key(key));
            checkErrorInfo(serializer->writeBool(1));
        }
    };
    flag("selection", info.isSelection());
    for (const AttributeForm& attribute : attributeForms) {
        IBaseObject* value = nullptr;
        checkErrorInfo((info.get()->*attribute.getter)(&value));
        if (const BasePtr held = BasePtr::take(value)) {
            checkErrorInfo(serializer->key(attribute.key));
            serializeValue(serializer, held);
        }
    }
    flag("hidden", info.isHidden());
    // Only what differs from the rules that hold without any: those need no words.
    const PropertyInfoPtr plain = PropertyInfoPtr::create(info.getName(), info.getValueType());
    for (const AttributeForm& attribute : attributeForms) {
        IBaseObject* value = nullptr;
        checkErrorInfo((info.get()->*attribute.getter)(&value));
        checkErrorInfo((plain.get()->*attribute.setter)(BasePtr::take(value).get()));
    }
    bool started = false;
    for (const ConfigurationMode mode : {1, 2}) {
        for (const PropertyState state : {1, 2, 4}) {
            ConfigurationAction action{}, usual{};
            checkErrorInfo(info->getConfigurationAction(mode, state, &action));
            checkErrorInfo(plain->getConfigurationAction(mode, state, &usual));
            if (action == usual) {
                continue;
            }
            if (!std::exchange(started, true)) {
                checkErrorInfo(serializer->key("configurationActions"));
                checkErrorInfo(serializer->startList());
            }
            checkErrorInfo(serializer->startList());
            for (const int64_t number : {int64_t{mode}, int64_t{state}, static_cast<int64_t>(action)}) {
                checkErrorInfo(serializer->writeInt(number));
            }
            checkErrorInfo(serializer->endList());
        }
    }
    if (started) {
        checkErrorInfo(serializer->endList());
    }
    checkErrorInfo(serializer->endObject());
}

}  // namespace

const char* nameOfType(CoreType type) {
    for (const TypeName& entry : typeNames) {
        if (entry.type == type) {
            return entry.name;
        }
    }
    return nullptr;
}

void writeClassForm(ISerializer* serializer, const StringPtr& name, const StringPtr& parent,
                    const std::vector<PropertyInfoPtr>& infos) {
    auto text = [&](const char* key, const std::string& value) {
        checkErrorInfo(serializer->key(key));
        checkErrorInfo(serializer->writeString(value.c_str()));
    };
    checkErrorInfo(serializer->startObject());
    text("__type", ClassFormId);
    text("name", name.toStdString());
    if (!parent.view().empty()) {
        text("parent", parent.toStdString());
    }
    checkErrorInfo(serializer->key("properties"));
    checkErrorInfo(serializer->startList());
    for (const PropertyInfoPtr& info : infos) {
        writeProperty(serializer, info);
    }
    checkErrorInfo(serializer->endList());
    checkErrorInfo(serializer->endObject());
}

ErrCode deserializeClass(ISerializedObject* serialized, IBaseObject** object) {
    if (serialized == nullptr || object == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    *object = nullptr;
    return wrapHandler([&] {
        static const char* const known[] = {"__type", "name", "parent", "properties"};
        refuseOtherKeys(serialized, known, false);
        const std::string name = readText(serialized, "name");
        if (name.empty()) {
            throw DeserializeException("a property class needs a name");
        }
        const auto result = PropertyObjectClassPtr::create();
        result.setName(name);
        if (has(serialized, "parent")) {
            result.setParent(readText(serialized, "parent"));
        }
        ISerializedList* raw = nullptr;
        checkErrorInfo(serialized->readList("properties", &raw));
        const auto properties = ObjectPtr<ISerializedList>::take(raw);
        size_t count = 0;
        checkErrorInfo(properties->getCount(&count));
        for (size_t i = 0; i < count; ++i) {
            ISerializedObject* form = nullptr;
            checkErrorInfo(properties->readObject(i, &form));
            const auto holder = ObjectPtr<ISerializedObject>::take(form);
            try {
                result.registerProperty(readProperty(form));
            } catch (const ZornException& exception) {
                // A place that stands in the text already is deeper and better.
                if (exception.message.starts_with("/")) {
                    throw;
                }
                throw DeserializeException("/properties/%zu: %s", i, exception.what());
            }
        }
        *object = asBase(result).detach();
    });
}

ErrCode deserializeEval(ISerializedObject* serialized, IBaseObject** object) {
    if (serialized == nullptr || object == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    *object = nullptr;
    return wrapHandler([&] {
        static const char* const known[] = {"__type", "expr"};
        refuseOtherKeys(serialized, known, false);
        IEvalValue* value = nullptr;
        checkErrorInfo(createEvalValue(&value, readText(serialized, "expr").c_str()));
        *object = value;
    });
}

}  // namespace Harvane::RT::Core
