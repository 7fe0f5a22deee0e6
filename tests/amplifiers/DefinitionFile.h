#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>

#include <zorn/objects/property_object.h>
#include <zorn/objects/serialization.h>
#include <zorn/structure/property_classes.h>

// A definition file as the host reads it: its class, known to the host, and an object of it. Raises the host's
// exceptions.
struct DefinitionFile {
    explicit DefinitionFile(const std::filesystem::path& file) : objectClass(load(file)) {
        using namespace Harvane::RT::Core;
        objectClass.setParent(ChannelPropertyClass::ClassName);
        PropertyObjectManagerPtr::create().addClass(objectClass);
        IPropertyObject* object = nullptr;
        checkErrorInfo(createPropertyObject(&object, nullptr, objectClass.getName().get()));
        channel = ObjectPtr<IPropertyObject>::take(object);
    }
    ~DefinitionFile() {
        channel = {};
        Harvane::RT::Core::PropertyObjectManagerPtr::create()->removeClass(objectClass.getName().get());
    }
    DefinitionFile(const DefinitionFile&) = delete;
    DefinitionFile& operator=(const DefinitionFile&) = delete;

    static Harvane::RT::Core::PropertyObjectClassPtr load(const std::filesystem::path& file) {
        using namespace Harvane::RT::Core;
        std::ifstream stream(file, std::ios::binary);
        std::ostringstream text;
        text << stream.rdbuf();
        IDeserializer* raw = nullptr;
        checkErrorInfo(createJsonDeserializer(&raw));
        IBaseObject* object = nullptr;
        checkErrorInfo(ObjectPtr<IDeserializer>::take(raw)->deserialize(StringPtr(text.str()).get(), &object));
        return BasePtr::take(object).asPtr<IPropertyObjectClass>();
    }

    Harvane::RT::Core::PropertyObjectClassPtr objectClass;
    Harvane::RT::Core::GenericPropertyObjectPtr channel;
};
