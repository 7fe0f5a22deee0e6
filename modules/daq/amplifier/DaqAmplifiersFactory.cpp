#include "modules/daq/amplifier/DaqAmplifiersFactory.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <mutex>
#include <new>
#include <utility>

#include <boost/filesystem.hpp>

#include <zorn/structure/property_classes.h>

#include "modules/daq/amplifier/DaqAmplifierConsts.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

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
        if (isDefinitionName(entry->path().string())) {
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
    origins_.clear();
    files_.clear();
}

std::string DaqAmplifiersFactory::getAmplifierClassName(const std::string& id) const {
    const auto entry = classes_.find(id);
    return entry == classes_.end() ? unknownAmplifierClass : entry->second;
}

std::string DaqAmplifiersFactory::getDefinitionFile(const std::string& className) const {
    const auto entry = origins_.find(className);
    return entry == origins_.end() ? std::string() : entry->second;
}

bool DaqAmplifiersFactory::initFromFile(const std::string& path) {
    return init(readDefinitionFile(path), path);
}

bool DaqAmplifiersFactory::initFromText(const std::string& text, const std::string& path) {
    return init(readDefinition(text), path);
}

bool DaqAmplifiersFactory::init(AmplifierDefinition definition, const std::string& path) {
    if (definition.objectClass) {
        try {
            registerDefinition(definition);
            // Of two files with one class the host has the first one's.
            if (definition.className != unknownAmplifierClass) {
                origins_.try_emplace(definition.className, path);
            }
        } catch (const ZornException& failure) {
            definition.reason = failure.what();
        }
        definition.objectClass = {};
    }
    const bool registered = definition.reason.empty();
    files_.push_back({path, std::move(definition), registered});
    return registered;
}

PropertyObjectClassPtr DaqAmplifiersFactory::deserializeAmplDefinition(const std::string& path) {
    std::string text;
    const AmplifierDefinition definition = readDefinitionFile(path, &text);
    if (!definition.objectClass && !text.empty()) {
        throw DeserializeException("%s", definition.reason.c_str());
    }
    return definition.objectClass;
}

bool DaqAmplifiersFactory::tryRegisterAmplDefinition(PropertyObjectClassPtr objectClass) {
    try {
        const auto definition = describeDefinition(objectClass);
        if (definition.objectClass) {
            registerDefinition(definition);
            return true;
        }
    } catch (const ZornException&) {
        zornClearErrorInfo();
    }
    return false;
}

void DaqAmplifiersFactory::registerDefinition(const AmplifierDefinition& definition) {
    definition.objectClass.setParent(ChannelPropertyClass::ClassName);
    addClass(definition);
    classes_[definition.identifier] = definition.className;
}

void DaqAmplifiersFactory::addClass(const AmplifierDefinition& definition) {
    const std::string key = keyOf(definition.className);
    const auto manager = PropertyObjectManagerPtr::create();
    SharedClasses& shared = sharedClasses();
    const std::lock_guard lock(shared.mutex);
    const ErrCode code = manager->addClass(definition.objectClass.get());
    if (code == Errors::AlreadyExists) {
        const std::string text = takeErrorMessage();
        const auto present = manager.findClass(definition.className);
        if (!present || describeDefinition(present).identifier != definition.identifier) {
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
    objectClass.registerProperty(PropertyInfoPtr::create(DaqAmplifierConsts::AmplifierID, CoreType::String)
                                     .defaultValue("")
                                     .readOnly("0.0.0.0"));
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
