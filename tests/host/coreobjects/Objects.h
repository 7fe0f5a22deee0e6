#pragma once

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include <zorn/objects/property_object.h>
#include <zorn/objects/serialization.h>

#include "tests/host/Made.h"

// Short ways to make and ask host objects.
namespace Harvane::RT::Core::Testing {

inline GenericPropertyObjectPtr makeObject(const char* className = "") {
    return made<IPropertyObject>(createPropertyObject, nullptr, StringPtr(className).get());
}

inline ObjectPtr<IEvalValue> makeEval(const char* expression) {
    return made<IEvalValue>(createEvalValue, expression);
}

inline ListPtr makeTexts(std::initializer_list<const char*> texts) {
    ListPtr list = ListPtr::create();
    for (const char* text : texts)
        list.pushBack(toValue(text));
    return list;
}

inline std::string get(const GenericPropertyObjectPtr& object, const char* name) {
    std::string value;
    const std::string error = failure([&] {
        const BasePtr result = object.getPropertyValue<>(name);
        value = result ? textOf(result) : "(null)";
    });
    return error.empty() ? value : error;
}

// The serialised form without line feeds and indentation.
inline std::string serialized(const BasePtr& object) {
    const auto serializer = made<ISerializer>(createJsonSerializer);
    checkErrorInfo(object.asPtr<ISerializable>()->serialize(serializer.get()));
    const StringPtr text = made<IString>([&](IString** output) { return serializer->getOutput(output); });
    return std::regex_replace(text.toStdString(), std::regex("\n *"), "");
}

inline BasePtr deserialized(const std::string& text) {
    return made<IBaseObject>([&](IBaseObject** object) {
        return made<IDeserializer>(createJsonDeserializer)->deserialize(StringPtr(text).get(), object);
    });
}

inline void update(const GenericPropertyObjectPtr& object, const std::string& text, ConfigurationMode mode = 1) {
    const auto setup = made<ISerializedObject>([&](ISerializedObject** parsed) {
        return made<IDeserializer>(createJsonDeserializer)->parse(StringPtr(text).get(), parsed);
    });
    checkErrorInfo(object->update(mode, setup.get()));
}

inline std::string propertyNames(const GenericPropertyObjectPtr& object, PropertyOrder order = PropertyOrder::Index,
                                 bool visibleOnly = false) {
    std::string result;
    for (const auto& info : object.enumProperties(order, visibleOnly))
        result += (result.empty() ? "" : " ") + info.getName().toStdString();
    return result;
}

// A class that lives as long as this; the registry belongs to the process.
class TemporaryClass {
public:
    explicit TemporaryClass(const char* name, const char* parent = "") : name_(name) {
        objectClass.setName(name);
        if (*parent != 0)
            objectClass.setParent(parent);
        PropertyObjectManagerPtr::create().addClass(objectClass);
    }
    ~TemporaryClass() { remove(); }
    void remove() {
        PropertyObjectManagerPtr::create()->removeClass(StringPtr(name_).get());
        zornClearErrorInfo();
    }
    TemporaryClass(const TemporaryClass&) = delete;
    TemporaryClass& operator=(const TemporaryClass&) = delete;

    PropertyObjectClassPtr objectClass = PropertyObjectClassPtr::create();

private:
    std::string name_;
};

}  // namespace Harvane::RT::Core::Testing
