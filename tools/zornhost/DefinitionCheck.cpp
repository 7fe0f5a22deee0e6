#include "tools/zornhost/DefinitionCheck.h"

#include <fmt/format.h>

#include <zorn/objects/property_object.h>
#include <zorn/structure/property_classes.h>
#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <system_error>

#include "modules/daq/amplifier/DaqAmplifiersFactory.h"
#include "modules/daq/amplifier/DefinitionTrial.h"
#include "tools/zornhost/HostTree.h"
#include "tools/zornhost/JsonPlaces.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;

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
constexpr std::array reservedNames{"SerialNumber",    "SoftwareRevision",      "HardwareRevision",   "CalibrationDate",
                                   "UpdateAmplifier", "NotifyEnterChSetup",    "NotifyLeaveChSetup", "AmplifierFailure",
                                   "SettingsInForce", "GetSensorBalanceResult"};
constexpr std::array tedsNames{"ReadTeds", "ResetTedsCustom", "WriteTedsCustom", "ReadTedsCustom"};
constexpr std::array balanceNames{"StartSensorBalance", "GetSensorBalanceStatus", "ResetSensorBalance"};

bool sameButForCase(const std::string& left, const std::string& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](unsigned char a, unsigned char b) {
        return (a < 128 ? std::tolower(a) : a) == (b < 128 ? std::tolower(b) : b);
    });
}

// One text with what the module has made of it.
class Check {
public:
    Check(const std::string& text, const DaqAmplifiersFactory& factory, const DaqAmplifiersFactory::File& file)
        : places_(text), own_(readDefinition(text)), factory_(factory), file_(file) {}

    DefinitionReport run() {
        report_.className = file_.definition.className;
        report_.identifier = file_.definition.identifier;
        try {
            if (file_.registered) {
                report_.outcome = DefinitionReport::Outcome::Registered;
                look();
            } else {
                refuse(file_.definition.reason);
            }
        } catch (const ZornException& failure) {
            say(true, std::string(), failure.what());
        }
        zornClearErrorInfo();
        std::stable_sort(report_.problems.begin(), report_.problems.end(), [](const auto& left, const auto& right) {
            return std::pair(left.line, left.column) < std::pair(right.line, right.column);
        });
        return std::move(report_);
    }

private:
    // What was seen of a property in a measurement. A mistake when the module can't use the property.
    struct Finding {
        std::string property;
        const char* part;
        std::string text;
    };

    void say(bool error, const std::string& path, const std::string& text) {
        const auto place = places_.find(path);
        report_.problems.push_back({error, place.line, place.column, text});
    }
    void say(bool error, const std::string& property, const char* part, const std::string& text) {
        const auto index = indices_.find(property);
        const std::string path = index == indices_.end() ? "/properties" : fmt::format("/properties/{}", index->second);
        say(error, part == nullptr ? path : path + "/" + part, text);
    }

    // The texts begin with a path, or hold line and column, or neither.
    void refuse(const std::string& message) {
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
        } else if (own_.objectClass) {
            const auto holder = std::filesystem::path(factory_.getDefinitionFile(own_.className)).filename().string();
            say(true, "/name", holder.empty() ? message : fmt::format("{} (from \"{}\")", message, holder));
        } else {
            say(true, std::string(), message);
        }
    }

    // The class as channels have it.
    void look() {
        IList* raw = nullptr;
        checkErrorInfo(own_.objectClass->enumProperties(PropertyOrder::Index, &raw));
        const ListPtr infos(ObjectPtr<IList>::take(raw));
        for (size_t i = 0, n = infos.getCount(); i < n; ++i) {
            const PropertyInfoPtr info(infos.getItemAt(i).asPtr<IPropertyInfo>());
            indices_.emplace(info.getName().toStdString(), i);
        }
        if (indices_.contains("ModuleName")) {
            const BasePtr name = own_.objectClass.getProperty("ModuleName").getReadOnlyValue();
            report_.moduleName = name ? valueText(name) : "";
        }
        if (!isAmplifierIdentifier(report_.identifier)) {
            say(true, "AmplifierID", "readOnlyValue",
                fmt::format("\"{}\" is no identifier of an amplifier: four numbers from 0 to 255 joined by dots, "
                            "without leading zeros",
                            report_.identifier));
        }
        if (factory_.getDefinitionFile(report_.className) != file_.path) {
            const auto holder =
                std::filesystem::path(factory_.getDefinitionFile(report_.className)).filename().string();
            say(true, "/name",
                fmt::format("the class \"{}\" for amplifier {} is there already from {}: nothing of this file counts",
                            report_.className, report_.identifier,
                            holder.empty() ? "the module itself" : fmt::format("\"{}\"", holder)));
            return;
        }
        checkNames(own_.objectClass);
        const auto failures = DefinitionTrial::run(
            report_.className, [] { return DefinitionTrial::plainChannel(); },
            [&](const ChannelPtr<IChannel>& channel, int64_t number) { lookAt(channel, number); });
        std::set<std::string> failed;
        for (const auto& failure : failures) {
            failed.insert(failure.property);
            const size_t property = failure.text.find("property \"");
            sayOnce(true, failure.property, nullptr,
                    failure.text.substr(property == std::string::npos ? 0 : property) +
                        (failure.name.empty() ? "" : fmt::format(", in the measurement \"{}\"", failure.name)));
            if (failure.measurement < 0) {
                report_.outcome = DefinitionReport::Outcome::Unusable;
            }
        }
        for (const auto& finding : findings_) {
            sayOnce(failed.contains(finding.property), finding.property, finding.part, finding.text);
        }
    }

    void lookAt(const ChannelPtr<IChannel>& channel, int64_t number) {
        DefinitionMeasurement measurement;
        for (const auto& known : knownProperties) {
            if (!indices_.contains(known.name)) {
                continue;
            }
            try {
                if (number >= 0 && measurement.name.empty() && indices_.contains("Measurement")) {
                    const ListPtr names = channel.getPropertyInfo("Measurement").getValuesAsList();
                    measurement.name = static_cast<size_t>(number) < names.getCount()
                                           ? valueText(names.getItemAt(static_cast<size_t>(number)))
                                           : "";
                }
                lookAt(channel, known, measurement);
            } catch (const ZornException& failure) {
                // The module says so too, of the first property that it can't read.
                zornClearErrorInfo();
                findings_.push_back({known.name, nullptr, fmt::format("\"{}\": {}", known.name, failure.what())});
            }
        }
        if (measurement.name == "Bridge" && indices_.contains("BridgeOffset")) {
            const BasePtr unit = channel.getPropertyInfo("BridgeOffset").getUnit();
            const std::string text = unit ? valueText(unit) : "";
            if (text != measurement.unit) {
                findings_.push_back({"BridgeOffset", unit ? "unit" : nullptr,
                                     fmt::format("\"BridgeOffset\" has the unit \"{}\", but the offset has that of "
                                                 "the ranges, \"{}\"",
                                                 text, measurement.unit)});
            }
        }
        report_.measurements.push_back(std::move(measurement));
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

    void lookAt(const ChannelPtr<IChannel>& object, const Known& known, DefinitionMeasurement& measurement) {
        const std::string name = known.name;
        const PropertyInfoPtr info = object.getPropertyInfo(known.name);
        const std::string where =
            measurement.name.empty() ? "" : fmt::format(" in the measurement \"{}\"", measurement.name);
        const CoreType type = info.getValueType();
        const auto mustBe = [&](bool fits, const char* what) {
            if (!fits) {
                findings_.push_back({name, "type", fmt::format("\"{}\" must be {}", name, what)});
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
            } catch (const ZornException& failure) {
                sayOnce(true, holder, part.c_str(), fmt::format("range {} of \"{}\": {}", i, holder, failure.what()));
            }
        }
    }

    JsonPlaces places_;
    AmplifierDefinition own_;
    const DaqAmplifiersFactory& factory_;
    const DaqAmplifiersFactory::File& file_;
    DefinitionReport report_;
    std::map<std::string, size_t> indices_;  // of the properties, by name
    std::vector<Finding> findings_;
};

}  // namespace

bool DefinitionReport::hasErrors() const {
    return std::any_of(problems.begin(), problems.end(),
                       [](const DefinitionProblem& problem) { return problem.error; });
}

DefinitionReport checkDefinition(const std::string& text) {
    DaqAmplifiersFactory factory;
    factory.initUnknownAmplifier();
    factory.initFromText(text, "the text");
    return Check(text, factory, factory.files().back()).run();
}

std::vector<DefinitionReport> checkDefinitions(const std::string& directory) {
    namespace fs = std::filesystem;
    std::error_code error;
    if (!fs::is_directory(directory, error)) {
        throw std::runtime_error(fmt::format("\"{}\" is no folder{}", directory, error ? ": " + error.message() : ""));
    }
    std::vector<DefinitionReport> reports;
    for (fs::directory_iterator entry(directory, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        const fs::path& path = entry->path();
        DefinitionReport report;
        report.file = path.filename().string();
        report.outcome = DefinitionReport::Outcome::NotRead;
        std::error_code ignored;
        if (fs::is_directory(path, ignored)) {
            report.reason = "a folder; only files directly in the folder are read";
        } else if (isDefinitionName(path.string())) {
            continue;
        } else if (sameButForCase(path.extension().string(), ".json")) {
            report.reason = fmt::format("the name must end in \".json\" in small letters, not in \"{}\"",
                                        path.extension().string());
            report.problems.push_back({true, 0, 0, report.reason});
        } else {
            report.reason = "the name doesn't end in \".json\"";
        }
        reports.push_back(std::move(report));
    }
    if (error) {
        throw std::runtime_error(fmt::format("\"{}\" can't be read: {}", directory, error.message()));
    }

    // In the module's order, which is the file system's.
    DaqAmplifiersFactory factory;
    factory.registerAmplifiers(directory);
    const auto nameOf = [](const std::string& path) { return fs::path(path).filename().string(); };
    for (const auto& file : factory.files()) {
        std::error_code ignored;
        if (fs::is_directory(file.path, ignored)) {
            continue;
        }
        std::string text;
        readDefinitionFile(file.path, &text);
        auto report = Check(text, factory, file).run();
        report.file = nameOf(file.path);
        const std::string counts = factory.getDefinitionFile(factory.getAmplifierClassName(report.identifier));
        for (const auto& other : factory.files()) {
            if (!file.registered || !other.registered || &other == &file ||
                other.definition.identifier != report.identifier ||
                factory.getDefinitionFile(report.className) != file.path) {
                continue;
            }
            report.problems.push_back(
                {true, 0, 0,
                 fmt::format("the identifier {} is also in \"{}\": \"{}\" counts, by the order in which the file "
                             "system gives them",
                             report.identifier, nameOf(other.path), nameOf(counts))});
        }
        reports.push_back(std::move(report));
    }
    std::sort(reports.begin(), reports.end(),
              [](const auto& left, const auto& right) { return left.file < right.file; });
    return reports;
}

}  // namespace zornhost
