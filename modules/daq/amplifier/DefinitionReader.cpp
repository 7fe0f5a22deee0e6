#include "modules/daq/amplifier/DefinitionReader.h"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>

#include <boost/filesystem.hpp>

#include <zorn/objects/serialization.h>

#include "modules/daq/amplifier/DaqAmplifierConsts.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

PropertyObjectClassPtr classOf(const std::string& text) {
    IDeserializer* raw = nullptr;
    checkErrorInfo(createJsonDeserializer(&raw));
    const auto deserializer = ObjectPtr<IDeserializer>::take(raw);
    IBaseObject* object = nullptr;
    checkErrorInfo(deserializer->deserialize(StringPtr(text).get(), &object));
    const BasePtr result = BasePtr::take(object);
    auto objectClass = result ? result.asPtrOrNull<IPropertyObjectClass>() : ObjectPtr<IPropertyObjectClass>();
    zornClearErrorInfo();
    if (!objectClass) {
        throw InvalidTypeException("/: is no class: \"__type\" must be \"PropertyObjectClass\"");
    }
    return objectClass;
}

std::string identifierOf(const BasePtr& value) {
    if (const auto text = value.asPtrOrNull<IString>()) {
        return StringPtr(text).toStdString();
    }
    char* text = nullptr;
    if (failed(value->toString(&text)) || text == nullptr) {
        zornClearErrorInfo();
        return "Unknown";
    }
    std::string result = text;
    zornFreeMemory(text);
    return result;
}

bool hasProperty(const PropertyObjectClassPtr& objectClass, const char* name) {
    IPropertyInfo* raw = nullptr;
    if (failed(objectClass->getProperty(StringPtr(name).get(), &raw))) {
        zornClearErrorInfo();
        return false;
    }
    return static_cast<bool>(ObjectPtr<IPropertyInfo>::take(raw));
}

}  // namespace

bool isDefinitionName(const std::string& path) {
    return boost::filesystem::path(path).extension() == ".json";
}

AmplifierDefinition describeDefinition(const PropertyObjectClassPtr& objectClass) {
    AmplifierDefinition definition;
    definition.className = objectClass.getName().toStdString();
    if (!hasProperty(objectClass, DaqAmplifierConsts::AmplifierID)) {
        definition.reason = "/properties: there is no property \"AmplifierID\": no amplifier leads to this class";
        return definition;
    }
    const BasePtr value = objectClass.getProperty(DaqAmplifierConsts::AmplifierID).getReadOnlyValue();
    if (!value) {
        definition.reason = "/properties: \"AmplifierID\" needs the identifier as its \"readOnlyValue\"";
        return definition;
    }
    definition.identifier = identifierOf(value);
    definition.objectClass = objectClass;
    return definition;
}

AmplifierDefinition readDefinition(const std::string& text) {
    AmplifierDefinition definition;
    try {
        definition = describeDefinition(classOf(text));
    } catch (const ZornException& failure) {
        definition.reason = failure.what();
    }
    zornClearErrorInfo();
    return definition;
}

AmplifierDefinition readDefinitionFile(const std::string& path, std::string* text) {
    AmplifierDefinition definition;
    boost::system::error_code error;
    // Opening a pipe would wait for whoever writes into it.
    if (!boost::filesystem::is_regular_file(path, error)) {
        definition.reason = error ? "can't be opened: " + error.message() : "is no plain file";
        return definition;
    }
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        definition.reason = std::string("can't be opened: ") + std::strerror(errno);
        return definition;
    }
    const std::string content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (text != nullptr) {
        *text = content;
    }
    return readDefinition(content);
}

bool isAmplifierIdentifier(const std::string& identifier) {
    const char* at = identifier.data();
    const char* const end = at + identifier.size();
    for (int part = 0; part < 4; ++part) {
        std::uint8_t number = 0;
        const auto result = std::from_chars(at, end, number);
        if (result.ec != std::errc() || (*at == '0' && result.ptr != at + 1)) {
            return false;
        }
        at = result.ptr;
        if (part < 3 && (at == end || *at++ != '.')) {
            return false;
        }
    }
    return at == end;
}

}  // namespace Harvane::RT::Modules::Daq
