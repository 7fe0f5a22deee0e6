#include "modules/daq/amplifier/DaqAmplifiersFactory.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <new>

#include <boost/filesystem.hpp>

#include <zorn/structure/property_classes.h>

#include "modules/daq/amplifier/DaqAmplifierConsts.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

constexpr const char* amplifierIdProp = "AmplifierID";
constexpr const char* moduleNameProp = "ModuleName";

// How many factories of this library hold a class. The host compares class names without regard to ASCII case.
struct SharedClasses {
    std::mutex mutex;
    std::map<std::string, int> users;
};

SharedClasses& sharedClasses() {
    static SharedClasses classes;
    return classes;
}

std::string keyOf(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return c < 128 ? static_cast<char>(std::tolower(c)) : static_cast<char>(c); });
    return name;
}

std::string identifierOf(const PropertyObjectClassPtr& objectClass) {
    const BasePtr value = objectClass.getProperty(amplifierIdProp).getReadOnlyValue();
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

BasePtr rangeItem(const char* displayName, double min, double max) {
    IPropertyObject* raw = nullptr;
    checkErrorInfo(createPropertyObject(&raw, nullptr, StringPtr(RangeItemPropertyClass::ClassName).get()));
    const GenericPropertyObjectPtr item(ObjectPtr<IPropertyObject>::take(raw));
    item.setPropertyValue(RangeItemPropertyClass::DisplayNameProp, displayName);
    item.setPropertyValue(RangeItemPropertyClass::MinProp, min);
    item.setPropertyValue(RangeItemPropertyClass::MaxProp, max);
    return BasePtr(item.get());
}

}  // namespace

DaqAmplifiersFactory::~DaqAmplifiersFactory() {
    DaqAmplifiersFactory::unregisterAmplifiers();
}

void DaqAmplifiersFactory::registerAmplifiers(const std::string& directory) {
    namespace fs = boost::filesystem;
    initUnknownAmplifier();
    boost::system::error_code error;
    fs::directory_iterator entry;
    if (fs::is_directory(fs::path(directory), error)) {
        entry = fs::directory_iterator(fs::path(directory), error);
    } else if (!error) {
        error = boost::system::errc::make_error_code(boost::system::errc::not_a_directory);
    }
    if (error) {
        std::printf("ERROR: Unknown Amplifier directory: %s \n", directory.c_str());
        std::fflush(stdout);
        return;
    }
    while (!error && entry != fs::directory_iterator()) {
        if (entry->path().extension() == ".json") {
            initFromFile(entry->path().string());
        }
        entry.increment(error);
    }
}

void DaqAmplifiersFactory::unregisterAmplifiers() {
    if (!used_.empty()) {
        const auto manager = PropertyObjectManagerPtr::create();
        SharedClasses& shared = sharedClasses();
        const std::lock_guard lock(shared.mutex);
        for (const auto& key : used_) {
            const auto entry = shared.users.find(key);
            if (entry == shared.users.end() || --entry->second > 0) {
                continue;
            }
            shared.users.erase(entry);
            if (failed(manager->removeClass(StringPtr(key).get()))) {
                zornClearErrorInfo();
            }
        }
    }
    used_.clear();
    classes_.clear();
    files_.clear();
}

std::string DaqAmplifiersFactory::getAmplifierClassName(const std::string& id) const {
    const auto entry = classes_.find(id);
    return entry == classes_.end() ? unknownAmplifierClass : entry->second;
}

std::string DaqAmplifiersFactory::getDefinitionFile(const std::string& className) const {
    const auto entry = files_.find(className);
    return entry == files_.end() ? std::string() : entry->second;
}

bool DaqAmplifiersFactory::initFromFile(const std::string& path) {
    try {
        const auto objectClass = deserializeAmplDefinition(path);
        if (!objectClass || !tryRegisterAmplDefinition(objectClass)) {
            return false;
        }
        // Of two files with one class the host has the first one's.
        files_.try_emplace(objectClass.getName().toStdString(), path);
        return true;
    } catch (...) {
        return false;
    }
}

PropertyObjectClassPtr DaqAmplifiersFactory::deserializeAmplDefinition(const std::string& path) {
    boost::system::error_code error;
    // Opening a pipe would wait for whoever writes into it.
    if (!boost::filesystem::is_regular_file(path, error)) {
        return {};
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return {};
    }
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    file.close();

    IDeserializer* raw = nullptr;
    checkErrorInfo(createJsonDeserializer(&raw));
    const auto deserializer = ObjectPtr<IDeserializer>::take(raw);
    IBaseObject* object = nullptr;
    checkErrorInfo(deserializer->deserialize(StringPtr(text).get(), &object));
    return BasePtr::take(object).asPtr<IPropertyObjectClass>();
}

bool DaqAmplifiersFactory::tryRegisterAmplDefinition(PropertyObjectClassPtr objectClass) {
    try {
        // Without an identifier nothing leads to the class.
        objectClass.getProperty(amplifierIdProp);
        objectClass.setParent(ChannelPropertyClass::ClassName);
        addClass(objectClass);
        const std::string id = identifierOf(objectClass);
        classes_[id] = objectClass.getName().toStdString();
        return true;
    } catch (...) {
        return false;
    }
}

void DaqAmplifiersFactory::addClass(const PropertyObjectClassPtr& objectClass) {
    const std::string key = keyOf(objectClass.getName().toStdString());
    const auto manager = PropertyObjectManagerPtr::create();
    SharedClasses& shared = sharedClasses();
    const std::lock_guard lock(shared.mutex);
    const ErrCode code = manager->addClass(objectClass.get());
    if (code == Errors::AlreadyExists) {
        const std::string text = takeErrorMessage();
        const auto present = manager.findClass(objectClass.getName());
        if (!present || identifierOf(present) != identifierOf(objectClass)) {
            throw AlreadyExistsException("%s", text.c_str());
        }
        // One that the host has from elsewhere is used and left alone.
        if (const auto entry = shared.users.find(key); entry != shared.users.end() && used_.insert(key).second) {
            ++entry->second;
        }
        return;
    }
    checkErrorInfo(code);
    shared.users[key] = 1;
    used_.insert(key);
}

void DaqAmplifiersFactory::initUnknownAmplifier() {
    IEvalValue* raw = nullptr;
    checkErrorInfo(createEvalValue(&raw, "switch($Measurement, 0, %VoltageRange)"));
    const auto rangeOfMeasurement = ObjectPtr<IEvalValue>::take(raw);

    const auto objectClass = PropertyObjectClassPtr::create();
    objectClass.setName(unknownAmplifierClass);
    objectClass.registerProperty(
        PropertyInfoPtr::create(moduleNameProp, CoreType::String).defaultValue("").readOnly("Unknown"));
    objectClass.registerProperty(
        PropertyInfoPtr::create(amplifierIdProp, CoreType::String).defaultValue("").readOnly("0.0.0.0"));
    objectClass.registerProperty(PropertyInfoPtr::create(DaqAmplifierConsts::Measurement, CoreType::Int)
                                     .defaultValue(0)
                                     .values(ListPtr::create({toValue("Voltage")}))
                                     .selection());
    objectClass.registerProperty(
        PropertyInfoPtr::create(DaqAmplifierConsts::Range, CoreType::Reference).reference(rangeOfMeasurement));
    objectClass.registerProperty(PropertyInfoPtr::create("VoltageRange", CoreType::Int)
                                     .defaultValue(0)
                                     .unit("V")
                                     .values(ListPtr::create({rangeItem("10", -10.0, 10.0)}))
                                     .selection()
                                     .enabled(true)
                                     .visible(true)
                                     .hidden());
    tryRegisterAmplDefinition(objectClass);
}

}  // namespace Harvane::RT::Modules::Daq

using namespace Harvane::RT::Modules::Daq;

IDaqAmplifiersFactory* createDaqAmplifiersFactory() {
    return new (std::nothrow) DaqAmplifiersFactory();
}

void releaseDaqAmplifiersFactory(IDaqAmplifiersFactory* factory) {
    delete factory;
}
