#pragma once

#include <gtest/gtest.h>

#include <string>

#include <zorn/objects/property_object.h>
#include <zorn/objects/serialization.h>

// Short ways to make and ask host objects.
namespace Harvane::RT::Core::Testing {

inline GenericPropertyObjectPtr makeObject(const char* className = "") {
    IPropertyObject* object = nullptr;
    checkErrorInfo(createPropertyObject(&object, nullptr, StringPtr(className).get()));
    return ObjectPtr<IPropertyObject>::take(object);
}

inline ObjectPtr<IEvalValue> makeEval(const char* expression) {
    IEvalValue* value = nullptr;
    checkErrorInfo(createEvalValue(&value, expression));
    return ObjectPtr<IEvalValue>::take(value);
}

inline ListPtr makeTexts(std::initializer_list<const char*> texts) {
    ListPtr list = ListPtr::create();
    for (const char* text : texts)
        list.pushBack(toValue(text));
    return list;
}

// What a call leaves: "" for success, else code and text as in "80000006 Not found".
template <class Call>
std::string failure(Call&& call) {
    zornClearErrorInfo();
    try {
        call();
        return "";
    } catch (const ZornException& exception) {
        char code[16];
        std::snprintf(code, sizeof code, "%08X ", exception.errorCode);
        return code + exception.message;
    }
}

inline std::string get(const GenericPropertyObjectPtr& object, const char* name) {
    std::string value;
    const std::string error = failure([&] {
        const BasePtr result = object.getPropertyValue<>(name);
        value = result ? textOf(result) : "(null)";
    });
    return error.empty() ? value : error;
}

inline std::string serialized(const BasePtr& object) {
    ISerializer* raw = nullptr;
    checkErrorInfo(createJsonSerializer(&raw));
    const auto serializer = ObjectPtr<ISerializer>::take(raw);
    checkErrorInfo(object.asPtr<ISerializable>()->serialize(serializer.get()));
    IString* text = nullptr;
    checkErrorInfo(serializer->getOutput(&text));
    return StringPtr(ObjectPtr<IString>::take(text)).toStdString();
}

inline ObjectPtr<IDeserializer> makeDeserializer() {
    IDeserializer* raw = nullptr;
    checkErrorInfo(createJsonDeserializer(&raw));
    return ObjectPtr<IDeserializer>::take(raw);
}

inline BasePtr deserialized(const std::string& text) {
    IBaseObject* object = nullptr;
    checkErrorInfo(makeDeserializer()->deserialize(StringPtr(text).get(), &object));
    return BasePtr::take(object);
}

inline void update(const GenericPropertyObjectPtr& object, const std::string& text, ConfigurationMode mode = 1) {
    ISerializedObject* setup = nullptr;
    checkErrorInfo(makeDeserializer()->parse(StringPtr(text).get(), &setup));
    checkErrorInfo(object->update(mode, ObjectPtr<ISerializedObject>::take(setup).get()));
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
        if (!name_.empty())
            PropertyObjectManagerPtr::create()->removeClass(StringPtr(name_).get());
        name_.clear();
        zornClearErrorInfo();
    }
    TemporaryClass(const TemporaryClass&) = delete;
    TemporaryClass& operator=(const TemporaryClass&) = delete;

    PropertyObjectClassPtr objectClass = PropertyObjectClassPtr::create();

private:
    std::string name_;
};

}  // namespace Harvane::RT::Core::Testing
