#pragma once

#include <gtest/gtest.h>

#include <vector>

#include <zorn/objects/property_object.h>
#include <zorn/objects/serialization.h>
#include <zorn/types/callable.h>

#include "tests/host/Made.h"

// Short ways to make and ask host objects.
namespace Harvane::RT::Core::Testing {

inline GenericPropertyObjectPtr makeObject(const char* className = "") {
    return made<IPropertyObject>(createPropertyObject, nullptr, StringPtr(className).get());
}

inline PropertyInfoPtr property(const char* name, CoreType type = CoreType::Int) {
    return PropertyInfoPtr::create(name, type);
}

// An object with these properties, registered in their order.
inline GenericPropertyObjectPtr makeObject(std::initializer_list<PropertyInfoPtr> infos) {
    auto object = makeObject();
    for (const auto& info : infos) {
        object.registerProperty(info);
    }
    return object;
}

inline ObjectPtr<IEvalValue> makeEval(const char* expression) {
    return made<IEvalValue>(createEvalValue, expression);
}

inline ListPtr makeTexts(std::initializer_list<const char*> texts) {
    ListPtr list = ListPtr::create();
    for (const char* text : texts) {
        list.pushBack(toValue(text));
    }
    return list;
}

template <class I>
std::string get(const PropertyObjectPtr<I>& object, const char* name) {
    return outcome([&] {
        const BasePtr result = object.template getPropertyValue<>(name);
        return result ? textOf(result) : "(null)";
    });
}

// Writes down what a change event says.
inline ObjectPtr<IEventHandler> recorder(std::vector<std::string>& log, const std::string& who) {
    return makeHandler([&log, who](const BasePtr& sender, const ObjectPtr<IEventArgs>& raw) {
        const PropertyValueChangedEventArgsPtr arguments(raw.asPtr<IPropertyValueChangedEventArgs>());
        int32_t type = -1;
        checkErrorInfo(arguments->getChangeType(&type));
        EXPECT_TRUE(sender.asPtrOrNull<IPropertyObject>());
        log.push_back(who + " " + arguments.getPropertyName().toStdString() + "=" + textOf(arguments.getValue()) +
                      (type == 1 ? " cleared" : ""));
    });
}

template <class I>
void listen(const PropertyObjectPtr<I>& object, const ObjectPtr<IEventHandler>& handler) {
    checkErrorInfo(object.getOnPropertyValueChanged()->addHandler(handler.get()));
}

// The serialised form without line feeds and indentation.
inline std::string serialized(const BasePtr& object) {
    const auto serializer = made<ISerializer>(createJsonSerializer);
    checkErrorInfo(object.asPtr<ISerializable>()->serialize(serializer.get()));
    const StringPtr text = made<IString>([&](IString** output) { return serializer->getOutput(output); });
    std::string line;
    bool indented = false;
    for (const char c : text.toStdString()) {
        indented = c == '\n' || (indented && c == ' ');
        if (!indented) {
            line += c;
        }
    }
    return line;
}

inline BasePtr deserialized(const std::string& text) {
    return made<IBaseObject>([&](IBaseObject** object) {
        return made<IDeserializer>(createJsonDeserializer)->deserialize(StringPtr(text).get(), object);
    });
}

template <class I>
void update(const PropertyObjectPtr<I>& object, const std::string& text, ConfigurationMode mode = 1) {
    const auto setup = made<ISerializedObject>([&](ISerializedObject** parsed) {
        return made<IDeserializer>(createJsonDeserializer)->parse(StringPtr(text).get(), parsed);
    });
    checkErrorInfo(object->update(mode, setup.get()));
}

inline std::string propertyNames(const GenericPropertyObjectPtr& object, PropertyOrder order = PropertyOrder::Index,
                                 bool visibleOnly = false) {
    std::string result;
    for (const auto& info : object.enumProperties(order, visibleOnly)) {
        result += (result.empty() ? "" : " ") + info.getName().toStdString();
    }
    return result;
}

// A class that lives as long as this; the registry belongs to the process.
class TemporaryClass {
public:
    explicit TemporaryClass(const char* name, const char* parent = "") : name_(name) {
        objectClass.setName(name);
        if (*parent != 0) {
            objectClass.setParent(parent);
        }
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
