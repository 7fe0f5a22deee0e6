#include "tools/zornhost/DefinitionCheck.h"

#include <fmt/format.h>

#include <zorn/objects/property_object.h>
#include <zorn/objects/serialization.h>
#include <zorn/structure/property_classes.h>
#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>

#include "tools/zornhost/HostTree.h"
#include "tools/zornhost/JsonPlaces.h"

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

enum class Use { Texts, Ranges, Numbers, Whole, Number, Flag, Text, Function, Procedure };

struct Known {
    const char* name;
    Use use;
};

// What the module looks for, and the form in which it can use it.
constexpr Known knownProperties[] = {
    {"ModuleName", Use::Text},
    {"AmplifierID", Use::Text},
    {"Measurement", Use::Texts},
    {"Range", Use::Ranges},
    {"LPFilter", Use::Texts},
    {"HPFilter", Use::Texts},
    {"InputType", Use::Texts},
    {"ConnectionType", Use::Texts},
    {"Excitation", Use::Numbers},
    {"ExcitationType", Use::Texts},
    {"ExcitationUnit", Use::Texts},
    {"BridgeType", Use::Texts},
    {"BridgeShunt", Use::Texts},
    {"BridgeLeg", Use::Whole},
    {"BridgeShuntValue", Use::Number},
    {"BridgeResistance", Use::Numbers},
    {"BridgeOffset", Use::Number},
    {"BridgeWires", Use::Whole},
    {"DeviceRanges", Use::Numbers},
    {"Short", Use::Flag},
    {"Shunt", Use::Flag},
    {"ExternalShunt", Use::Whole},
    {"ExternalShuntResistance", Use::Number},
    {"ExternalShuntPower", Use::Number},
    {"AltExcPolarity", Use::Flag},
    {"SupportsLed1Control", Use::Flag},
    {"ReadTeds", Use::Function},
    {"ResetTedsCustom", Use::Function},
    {"WriteTedsCustom", Use::Function},
    {"ReadTedsCustom", Use::Function},
    {"FinalizeTedsCustom", Use::Function},
    {"GetSensorStatus", Use::Function},
    {"StartSensorBalance", Use::Procedure},
    {"ResetSensorBalance", Use::Procedure},
    {"GetSensorBalanceStatus", Use::Function},
};

// The module registers these on the channel itself.
constexpr std::array reservedNames{"SerialNumber",    "SoftwareRevision",   "HardwareRevision",  "CalibrationDate",
                                   "UpdateAmplifier", "NotifyEnterChSetup", "NotifyLeaveChSetup"};
constexpr std::array tedsNames{"ReadTeds", "ResetTedsCustom", "WriteTedsCustom", "ReadTedsCustom"};
constexpr std::array balanceNames{"StartSensorBalance", "GetSensorBalanceStatus", "ResetSensorBalance"};
constexpr size_t mostMeasurements = 256;  // the amplifier gets the number as a byte

bool sameButForCase(const std::string& left, const std::string& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](unsigned char a, unsigned char b) {
        return (a < 128 ? std::tolower(a) : a) == (b < 128 ? std::tolower(b) : b);
    });
}

std::string identifierText(const BasePtr& value) {
    if (const auto text = value.asPtrOrNull<IString>()) {
        return StringPtr(text).toStdString();
    }
    return value.asPtrOrNull<IConvertible>() ? fromValue<std::string>(value) : "Unknown";
}

// One text with what is known of it so far.
class Check {
public:
    explicit Check(const std::string& text) : text_(text), places_(text) {}

    DefinitionReport run() {
        try {
            const auto objectClass = read();
            takeIdentity(objectClass);
            add(objectClass);
            look(objectClass);
        } catch (const Stop&) {
        } catch (const ZornException& failure) {
            say(true, std::string(), failure.what());
        }
        zornClearErrorInfo();
        if (added_) {
            try {
                PropertyObjectManagerPtr::create().removeClass(StringPtr(report_.className));
            } catch (const ZornException&) {
                // Somebody else has removed it: gone is what it must be.
            }
        }
        report_.outcome = registered_ ? DefinitionReport::Outcome::Registered : DefinitionReport::Outcome::Wrong;
        std::stable_sort(report_.problems.begin(), report_.problems.end(), [](const auto& left, const auto& right) {
            return std::pair(left.line, left.column) < std::pair(right.line, right.column);
        });
        return std::move(report_);
    }

private:
    struct Stop {};

    void say(bool error, const std::string& path, const std::string& text) {
        const auto place = places_.find(path);
        report_.problems.push_back({error, place.line, place.column, text});
    }
    void say(bool error, const std::string& property, const char* part, const std::string& text) {
        const auto index = indices_.find(property);
        const std::string path = index == indices_.end() ? "/properties" : fmt::format("/properties/{}", index->second);
        say(error, part == nullptr ? path : path + "/" + part, text);
    }

    // The host's texts begin with a path, or hold line and column, or neither.
    [[noreturn]] void refuse(const std::string& message) {
        if (message.starts_with("Bad JSON: ")) {
            size_t line = 0;
            size_t column = 0;
            if (const size_t at = message.find("at line "); at != std::string::npos) {
                std::sscanf(message.c_str() + at, "at line %zu, column %zu", &line, &column);
            }
            report_.problems.push_back({true, line, column, message});
        } else if (message.starts_with("/")) {
            const size_t colon = message.find(": ");
            std::string path = message.substr(0, colon);
            if (path == "/") {
                path.clear();
            }
            constexpr std::string_view unknownKey = "unknown key \"";
            if (const size_t key = message.find(unknownKey); key != std::string::npos) {
                const size_t begin = key + unknownKey.size();
                path += "/" + message.substr(begin, message.find('"', begin) - begin);
            }
            say(true, path, message);
        } else if (const auto place = places_.repeatedKey();
                   place && message.find("stands twice") != std::string::npos) {
            report_.problems.push_back({true, place->line, place->column, message});
        } else {
            say(true, std::string(), message);
        }
        throw Stop();
    }

    PropertyObjectClassPtr read() {
        try {
            IDeserializer* raw = nullptr;
            checkErrorInfo(createJsonDeserializer(&raw));
            const auto deserializer = ObjectPtr<IDeserializer>::take(raw);
            IBaseObject* object = nullptr;
            checkErrorInfo(deserializer->deserialize(StringPtr(text_).get(), &object));
            const BasePtr result = BasePtr::take(object);
            const auto objectClass =
                result ? result.asPtrOrNull<IPropertyObjectClass>() : ObjectPtr<IPropertyObjectClass>();
            zornClearErrorInfo();
            if (!objectClass) {
                refuse("/: is no class: \"__type\" must be \"PropertyObjectClass\"");
            }
            return PropertyObjectClassPtr(ObjectPtr<IPropertyObjectClass>(objectClass));
        } catch (const ZornException& failure) {
            refuse(failure.what());
        }
    }

    void takeIdentity(const PropertyObjectClassPtr& objectClass) {
        report_.className = objectClass.getName().toStdString();
        IList* raw = nullptr;
        checkErrorInfo(objectClass->enumProperties(PropertyOrder::Index, &raw));
        const ListPtr infos(ObjectPtr<IList>::take(raw));
        for (size_t i = 0, n = infos.getCount(); i < n; ++i) {
            const PropertyInfoPtr info(infos.getItemAt(i).asPtr<IPropertyInfo>());
            indices_.emplace(info.getName().toStdString(), i);
        }
        if (!indices_.contains("AmplifierID")) {
            say(true, "/properties", "there is no property \"AmplifierID\": no amplifier leads to this class");
            throw Stop();
        }
        const BasePtr value = objectClass.getProperty("AmplifierID").getReadOnlyValue();
        if (!value || value.asPtrOrNull<IEvalValue>()) {
            zornClearErrorInfo();
            say(true, "AmplifierID", nullptr, "\"AmplifierID\" needs the identifier as its \"readOnlyValue\"");
            throw Stop();
        }
        report_.identifier = identifierText(value);
        int parts[4];
        char rest = 0;
        if (std::sscanf(report_.identifier.c_str(), "%d.%d.%d.%d%c", &parts[0], &parts[1], &parts[2], &parts[3],
                        &rest) != 4) {
            say(false, "AmplifierID", "readOnlyValue",
                fmt::format("\"{}\" is no identifier of an amplifier: four numbers joined by dots",
                            report_.identifier));
        }
        if (indices_.contains("ModuleName")) {
            const BasePtr name = objectClass.getProperty("ModuleName").getReadOnlyValue();
            report_.moduleName = name ? valueText(name) : "";
        }
    }

    void add(const PropertyObjectClassPtr& objectClass) {
        try {
            objectClass.setParent(ChannelPropertyClass::ClassName);
            PropertyObjectManagerPtr::create().addClass(objectClass);
            added_ = registered_ = true;
        } catch (const ZornException& failure) {
            say(true, "/name", failure.what());
            throw Stop();
        }
    }

    // The class as a channel has it, in each of its measurements.
    void look(const PropertyObjectClassPtr& objectClass) {
        checkNames(objectClass);
        GenericPropertyObjectPtr object;
        try {
            IPropertyObject* raw = nullptr;
            checkErrorInfo(createPropertyObject(&raw, nullptr, objectClass.getName().get()));
            object = GenericPropertyObjectPtr(ObjectPtr<IPropertyObject>::take(raw));
        } catch (const ZornException& failure) {
            say(true, std::string(), failure.what());
            throw Stop();
        }
        size_t count = 1;
        const bool selects = indices_.contains("Measurement");
        if (selects) {
            count = tried("Measurement", [&] {
                return std::min(object.getPropertyInfo("Measurement").getValuesAsList().getCount(), mostMeasurements);
            });
        }
        for (size_t i = 0; i < count; ++i) {
            DefinitionMeasurement measurement;
            if (selects) {
                tried("Measurement", [&] {
                    object.setPropertyValue("Measurement", static_cast<int64_t>(i));
                    measurement.name = valueText(object.getPropertyInfo("Measurement").getValuesAsList().getItemAt(i));
                    return size_t{0};
                });
            }
            for (const auto& known : knownProperties) {
                if (indices_.contains(known.name)) {
                    tried(known.name, [&] {
                        lookAt(object, known, measurement);
                        return size_t{0};
                    });
                }
            }
            report_.measurements.push_back(std::move(measurement));
        }
    }

    template <class Body>
    size_t tried(const std::string& property, Body&& body) {
        try {
            return body();
        } catch (const ZornException& failure) {
            zornClearErrorInfo();
            sayOnce(true, property, nullptr, fmt::format("\"{}\": {}", property, failure.what()));
        }
        return 0;
    }

    // The same mistake shows in each measurement.
    void sayOnce(bool error, const std::string& property, const char* part, const std::string& text) {
        const auto same = [&](const DefinitionProblem& problem) { return problem.text == text; };
        if (std::none_of(report_.problems.begin(), report_.problems.end(), same)) {
            say(error, property, part, text);
        }
    }

    void checkNames(const PropertyObjectClassPtr& objectClass) {
        for (const auto& [name, index] : indices_) {
            for (const auto& known : knownProperties) {
                if (name != known.name && sameButForCase(name, known.name)) {
                    say(false, name, "name",
                        fmt::format("\"{}\" is no property that the module knows; \"{}\" is", name, known.name));
                }
            }
            if (std::find(reservedNames.begin(), reservedNames.end(), name) != reservedNames.end()) {
                say(true, name, "name",
                    fmt::format("\"{}\" is registered by the module; a definition can't have it", name));
            }
            const auto info = objectClass.getProperty(name);
            if (info.getEnabled()) {
                say(false, name, "enabled",
                    fmt::format("\"{}\": \"enabled\" is not for amplifiers: the module reads all that is there", name));
            }
        }
        complete(tedsNames);
        complete(balanceNames);
        if (!indices_.contains("ModuleName")) {
            say(false, "/properties", "there is no \"ModuleName\": users see no name of the amplifier");
        }
        if (indices_.contains("StartSensorBalance") && !indices_.contains("DeviceRanges")) {
            say(false, "StartSensorBalance", nullptr, "without \"DeviceRanges\" balancing stays in range 0");
        }
        if (indices_.contains("FinalizeTedsCustom") && !indices_.contains("ReadTeds")) {
            say(false, "FinalizeTedsCustom", nullptr,
                "\"FinalizeTedsCustom\" works only beside the four TEDS functions");
        }
    }

    template <size_t N>
    void complete(const std::array<const char*, N>& names) {
        std::string missing;
        const char* present = nullptr;
        for (const char* name : names) {
            if (indices_.contains(name)) {
                present = name;
            } else {
                missing += std::string(missing.empty() ? "" : ", ") + "\"" + name + "\"";
            }
        }
        if (present != nullptr && !missing.empty()) {
            say(false, present, nullptr, fmt::format("without {} none of the others works", missing));
        }
    }

    void lookAt(const GenericPropertyObjectPtr& object, const Known& known, DefinitionMeasurement& measurement) {
        const std::string name = known.name;
        const PropertyInfoPtr info = object.getPropertyInfo(known.name);
        const std::string where =
            measurement.name.empty() ? "" : fmt::format(" in the measurement \"{}\"", measurement.name);
        const CoreType type = info.getValueType();
        const auto mustBe = [&](bool fits, const char* what) {
            if (!fits) {
                sayOnce(true, name, "type", fmt::format("\"{}\" must be {}", name, what));
            }
            return fits;
        };
        switch (known.use) {
            case Use::Function:
                mustBe(type == CoreType::Func, "of type \"func\"");
                return;
            case Use::Procedure:
                mustBe(type == CoreType::Proc, "of type \"proc\"");
                return;
            default:
                break;
        }
        const BasePtr value = object.getPropertyValue<BasePtr>(known.name);
        const ListPtr choices = info.getValuesAsList();
        const size_t count = choices.getCount();
        switch (known.use) {
            case Use::Texts:
            case Use::Ranges:
                if (!mustBe(info.isSelection() && type == CoreType::Int,
                            "a selection: type \"int\" with \"selection\": true")) {
                    return;
                }
                break;
            case Use::Numbers:
                if (!mustBe(type == CoreType::Float || type == CoreType::Int, "a number or a selection of numbers")) {
                    return;
                }
                for (size_t i = 0; i < count; ++i) {
                    (void)fromValue<double>(choices.getItemAt(i));
                }
                if (name == "Excitation" && count == 0) {
                    sayOnce(false, name, nullptr, "\"Excitation\" without \"values\" is never sent to the amplifier");
                }
                break;
            case Use::Whole:
                mustBe(type == CoreType::Int, "of type \"int\"");
                return;
            case Use::Number:
                mustBe(type == CoreType::Float || type == CoreType::Int, "a number");
                return;
            case Use::Flag:
                mustBe(type == CoreType::Bool, "of type \"bool\"");
                return;
            default:
                return;
        }
        if (info.isSelection()) {
            if (count == 0) {
                sayOnce(known.use == Use::Ranges, name, "values",
                        fmt::format("\"{}\" has no choices{}: it is never sent", name, where));
            } else if (const auto index = fromValue<int64_t>(value); index < 0 || static_cast<size_t>(index) >= count) {
                sayOnce(false, name, "default",
                        fmt::format("\"{}\" has {} choices{}; {} is none of them", name, count, where, index));
            }
        }
        if (known.use == Use::Ranges) {
            lookAtRanges(info, choices, where, measurement);
        } else if (known.use == Use::Texts) {
            for (size_t i = 0; i < count; ++i) {
                (void)fromValue<std::string>(choices.getItemAt(i));
            }
        }
    }

    void lookAtRanges(const PropertyInfoPtr& info, const ListPtr& choices, const std::string& where,
                      DefinitionMeasurement& measurement) {
        // Behind a reference stands a property of its own.
        const std::string holder = info.getName().toStdString();
        const BasePtr unit = info.getUnit();
        measurement.unit = unit ? fromValue<std::string>(unit) : "";
        if (measurement.unit.empty()) {
            sayOnce(false, holder, nullptr, fmt::format("\"{}\" has no \"unit\"{}", holder, where));
        }
        for (size_t i = 0, n = choices.getCount(); i < n; ++i) {
            const std::string part = fmt::format("values/{}", i);
            const BasePtr item = choices.getItemAt(i);
            const auto raw = item ? item.asPtrOrNull<IPropertyObject>() : ObjectPtr<IPropertyObject>();
            zornClearErrorInfo();
            if (!raw) {
                sayOnce(true, holder, part.c_str(),
                        fmt::format("range {} of \"{}\" must be an object of the class \"RangeItem\"", i, holder));
                continue;
            }
            const GenericPropertyObjectPtr range(raw);
            try {
                const auto name = range.getPropertyValue<std::string>(RangeItemPropertyClass::DisplayNameProp);
                const auto low = range.getPropertyValue<double>(RangeItemPropertyClass::MinProp);
                const auto high = range.getPropertyValue<double>(RangeItemPropertyClass::MaxProp);
                measurement.ranges.push_back(name);
                if (!(low < high)) {
                    sayOnce(true, holder, part.c_str(),
                            fmt::format("range \"{}\" of \"{}\" is empty: {} to {}", name, holder, low, high));
                } else if (low != -high) {
                    sayOnce(false, holder, part.c_str(),
                            fmt::format("range \"{}\" of \"{}\" is not symmetric: {} to {} reads shifted by {}", name,
                                        holder, low, high, (low + high) / 2));
                }
                if (indices_.contains("StartSensorBalance") && measurement.name == "Bridge" &&
                    !beginsWithNumber(name)) {
                    sayOnce(true, holder, part.c_str(),
                            fmt::format("range \"{}\" of \"{}\" must begin with a number: balancing reads it", name,
                                        holder));
                }
            } catch (const ZornException& failure) {
                sayOnce(true, holder, part.c_str(), fmt::format("range {} of \"{}\": {}", i, holder, failure.what()));
            }
        }
    }

    static bool beginsWithNumber(const std::string& text) {
        char* end = nullptr;
        std::strtod(text.c_str(), &end);
        return end != text.c_str();
    }

    const std::string& text_;
    JsonPlaces places_;
    DefinitionReport report_;
    std::map<std::string, size_t> indices_;  // of the properties, by name
    bool added_ = false;
    bool registered_ = false;
};

}  // namespace

bool DefinitionReport::hasErrors() const {
    return std::any_of(problems.begin(), problems.end(),
                       [](const DefinitionProblem& problem) { return problem.error; });
}

DefinitionReport checkDefinition(const std::string& text) {
    return Check(text).run();
}

std::vector<DefinitionReport> checkDefinitions(const std::string& directory) {
    namespace fs = std::filesystem;
    std::error_code error;
    if (!fs::is_directory(directory, error)) {
        throw std::runtime_error(fmt::format("\"{}\" is no folder{}", directory, error ? ": " + error.message() : ""));
    }
    std::vector<fs::path> entries;
    for (fs::directory_iterator entry(directory, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        entries.push_back(entry->path());
    }
    if (error) {
        throw std::runtime_error(fmt::format("\"{}\" can't be read: {}", directory, error.message()));
    }
    std::sort(entries.begin(), entries.end());

    std::vector<DefinitionReport> reports;
    for (const auto& path : entries) {
        DefinitionReport report;
        const auto skip = [&](const std::string& reason, bool mistake = false) {
            report.outcome = DefinitionReport::Outcome::NotRead;
            report.reason = reason;
            if (mistake) {
                report.problems.push_back({true, 0, 0, reason});
            }
        };
        const std::string extension = path.extension().string();
        if (fs::is_directory(path, error)) {
            skip("a folder; only files directly in the folder are read");
        } else if (extension != ".json") {
            const bool almost = sameButForCase(extension, ".json");
            skip(almost ? fmt::format("the name must end in \".json\" in small letters, not in \"{}\"", extension)
                        : "the name doesn't end in \".json\"",
                 almost);
        } else if (!fs::is_regular_file(path, error)) {
            report.problems.push_back({true, 0, 0, error ? "can't be opened: " + error.message() : "is no plain file"});
        } else {
            errno = 0;
            std::ifstream file(path, std::ios::binary);
            if (!file) {
                report.problems.push_back({true, 0, 0, fmt::format("can't be opened: {}", std::strerror(errno))});
            } else {
                const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
                report = checkDefinition(text);
            }
        }
        report.file = path.filename().string();
        reports.push_back(std::move(report));
    }

    // Of two files with one class name or one identifier only one counts, and the file system says which.
    for (size_t i = 0; i < reports.size(); ++i) {
        for (size_t k = 0; k < reports.size(); ++k) {
            auto& report = reports[i];
            const auto& other = reports[k];
            if (i == k || report.outcome != DefinitionReport::Outcome::Registered ||
                other.outcome != DefinitionReport::Outcome::Registered) {
                continue;
            }
            if (report.identifier == other.identifier) {
                report.problems.push_back(
                    {true, 0, 0,
                     fmt::format("the identifier {} is also in \"{}\": the file that the file system gives last counts",
                                 report.identifier, other.file)});
            } else if (sameButForCase(report.className, other.className)) {
                report.problems.push_back({true, 0, 0,
                                           fmt::format("the class name \"{}\" is also in \"{}\": only the file that "
                                                       "the file system gives first is registered",
                                                       report.className, other.file)});
            }
        }
    }
    return reports;
}

}  // namespace zornhost
