#include "tools/zornhost/AmplifierCommands.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>

#include "tools/zornhost/AmplifierState.h"
#include "tools/zornhost/DefinitionCheck.h"
#include "tools/zornhost/Interrupt.h"
#include "tools/zornhost/PropertyText.h"

using namespace Harvane::RT::Core;
using Json = nlohmann::ordered_json;

namespace zornhost {

namespace {

constexpr const char* updateName = "UpdateAmplifier";
constexpr int samplesBeforeBalance = 200;  // the filters of both streams have settled
constexpr double sampleTimeoutS = 5.0;
constexpr double balanceTimeoutS = 15.0;  // three range switches with a wait of 1 s each, and room

std::string textProperty(const ChannelPtr<>& channel, const char* name) {
    return channel.hasProperty(name) ? valueText(readProperty(channel.asPtr<IPropertyObject>(), name)) : "-";
}

bool endsWithPath(const std::string& path, const std::string& end) {
    return path == end || path.ends_with("/" + end);
}

// A function or procedure that the module has filled; empty when the definition only declares it or doesn't know it.
template <class I>
ObjectPtr<I> slot(const ChannelPtr<>& channel, const char* name) {
    if (!channel.hasProperty(name)) {
        return {};
    }
    const BasePtr value = readProperty(channel.asPtr<IPropertyObject>(), name);
    zornClearErrorInfo();
    return value ? value.asPtrOrNull<I>() : ObjectPtr<I>();
}

std::string choicesText(const PropertyInfoPtr& info) {
    const ListPtr choices = info.getValuesAsList();
    std::string text;
    for (size_t i = 0, n = choices.getCount(); i < n; ++i) {
        text += (i == 0 ? "" : ", ") + valueText(choices.getItemAt(i));
    }
    const BasePtr low = info.getMinValue();
    const BasePtr high = info.getMaxValue();
    if (low || high) {
        text += fmt::format("{}{} to {}", text.empty() ? "" : "; ", valueText(low), valueText(high));
    }
    return text;
}

std::vector<ChannelEntry> channelsOfModule(const HostTree& tree, const ChannelEntry& amplifier) {
    std::vector<ChannelEntry> channels;
    for (const auto& entry : tree.channels()) {
        if (parentOf(entry.path) == parentOf(amplifier.path)) {
            channels.push_back(entry);
        }
    }
    return channels;
}

// Runs the acquisition of these channels alone while it lives.
class Acquisition {
public:
    Acquisition(Session& session, const std::vector<ChannelEntry>& channels) : session_(session) {
        for (const auto& entry : session.tree().channels()) {
            entry.channel.setUsed(std::any_of(channels.begin(), channels.end(), [&](const ChannelEntry& wanted) {
                return wanted.path == entry.path && hasHardware(wanted.channel);
            }));
        }
        session.prepare();
        session.start();
    }
    ~Acquisition() {
        if (running_) {
            try {
                session_.stop();
            } catch (const std::exception& failure) {
                writeError(fmt::format("zornhost: {}\n", oneLine(failure.what())));
            }
        }
    }
    Acquisition(const Acquisition&) = delete;
    Acquisition& operator=(const Acquisition&) = delete;

    void stop() {
        running_ = false;
        session_.stop();
    }

private:
    Session& session_;
    bool running_ = true;
};

template <class Condition>
bool waitFor(double timeoutS, Condition&& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutS);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end || Interrupt::sleepMs(10)) {
            return condition();
        }
    }
    return true;
}

std::string hexText(const std::vector<int>& bytes) {
    std::string text;
    for (const int byte : bytes) {
        text += fmt::format("{}{:02X}", text.empty() ? "" : " ", byte);
    }
    return text;
}

// The answer of a function that gives a list: a result, and bytes behind it unless it is negative.
std::pair<int64_t, std::vector<int>> answerOf(const BasePtr& answer) {
    const ListPtr list(answer.asPtr<IList>());
    const size_t count = list.getCount();
    if (count == 0) {
        throw std::runtime_error("the module answered nothing");
    }
    std::vector<int> bytes;
    for (size_t i = 1; i < count; ++i) {
        bytes.push_back(static_cast<int>(fromValue<int64_t>(list.getItemAt(i))));
    }
    return {fromValue<int64_t>(list.getItemAt(0)), bytes};
}

// Check byte of a sensor's identification: x^8 + x^5 + x^4 + 1, the lowest bit first (1-Wire ROM code).
bool romIsSound(const std::vector<int>& rom) {
    int check = 0;
    for (int byte : rom) {
        for (int bit = 0; bit < 8; ++bit, byte >>= 1) {
            check = (check >> 1) ^ (((check ^ byte) & 1) != 0 ? 0x8C : 0);
        }
    }
    return check == 0;
}

[[noreturn]] void refuseFunction(const ChannelEntry& entry, const char* what) {
    throw std::runtime_error(fmt::format("\"{}\": the amplifier ({}) has no {}", entry.label,
                                         textProperty(entry.channel, "ModuleName"), what));
}

void printAnswer(Output& output, bool json, const Json& report, const std::vector<std::vector<std::string>>& rows) {
    if (json) {
        output.line(report.dump(2));
    } else {
        output.data(formatTable(rows));
    }
}

Json settingJson(const Setting& setting, const BasePtr& value) {
    Json item{{"name", setting.name}, {"value", toJson(value)}, {"text", settingText(setting.info, value)}};
    if (const ListPtr choices = setting.info.getValuesAsList(); choices.getCount() > 0) {
        item["choices"] = toJson(asBase(choices));
    }
    if (const std::string unit = unitText(setting.info); !unit.empty()) {
        item["unit"] = unit;
    }
    if (const BasePtr low = setting.info.getMinValue()) {
        item["min"] = toJson(low);
    }
    if (const BasePtr high = setting.info.getMaxValue()) {
        item["max"] = toJson(high);
    }
    item["readOnly"] = setting.readOnly;
    return item;
}

}  // namespace

ChannelEntry amplifierChannel(const HostTree& tree, const std::string& path) {
    std::string wanted = path;
    while (!wanted.empty() && wanted.back() == '/') {
        wanted.pop_back();
    }
    const auto channels = tree.channels();
    std::vector<std::string> modules;  // folders that fit
    std::string all;
    for (const auto& entry : channels) {
        const std::string folder = parentOf(entry.path);
        const bool fits = endsWithPath(entry.path, wanted) || endsWithPath(folder, wanted);
        if (fits && std::find(modules.begin(), modules.end(), folder) == modules.end()) {
            modules.push_back(folder);
        }
        const std::string name = "\"" + folder.substr(folder.rfind('/') + 1) + "\"";
        if (entry.channel.hasProperty(updateName) && all.find(name) == std::string::npos) {
            all += (all.empty() ? "" : ", ") + name;
        }
    }
    if (modules.empty()) {
        throw UnknownName(
            fmt::format("there is no channel or module \"{}\"; modules are {}", path, all.empty() ? "none" : all));
    }
    if (modules.size() > 1) {
        throw UnknownName(fmt::format("\"{}\" is not clear: it may be \"{}\" or \"{}\"", path, modules[0], modules[1]));
    }
    // Of the channels that share an amplifier the first one shows it.
    for (const auto& entry : channels) {
        if (parentOf(entry.path) != modules[0] || !entry.channel.hasProperty(updateName)) {
            continue;
        }
        if (!hasHardware(entry.channel)) {
            throw std::runtime_error(fmt::format("\"{}\" has no amplifier", modules[0]));
        }
        return entry;
    }
    throw std::runtime_error(fmt::format("the channels of \"{}\" have no amplifier", modules[0]));
}

int showAmplifier(Session& session, Output& output, bool json, const std::string& path) {
    const auto entry = amplifierChannel(session.tree(), path);
    const auto& channel = entry.channel;
    const auto moduleChannels = channelsOfModule(session.tree(), entry);
    // Scale and range are those of an acquisition that starts now.
    Acquisition(session, moduleChannels).stop();

    constexpr std::pair<const char*, const char*> identity[] = {{"ModuleName", "Module"},
                                                                {"AmplifierID", "Identifier"},
                                                                {"SerialNumber", "Serial number"},
                                                                {"HardwareRevision", "Hardware revision"},
                                                                {"SoftwareRevision", "Software revision"},
                                                                {"CalibrationDate", "Calibrated"}};
    Json report{{"channel", entry.path}};
    std::vector<std::vector<std::string>> rows{{"Channel", entry.path}};
    for (const auto& [name, label] : identity) {
        rows.push_back({label, textProperty(channel, name)});
        report[name] = textProperty(channel, name);
    }
    report["definition"] = channel.getClassName().toStdString();
    rows.push_back({"Definition", channel.getClassName().toStdString()});

    std::vector<std::vector<std::string>> settingRows{{"Setting", "Value", "Choices"}};
    report["settings"] = Json::array();
    for (const auto& setting : settingsOf(channel)) {
        const BasePtr value = readProperty(channel.asPtr<IPropertyObject>(), setting.name);
        settingRows.push_back({setting.name + (setting.readOnly ? " (read-only)" : ""),
                               settingText(setting.info, value), choicesText(setting.info)});
        report["settings"].push_back(settingJson(setting, value));
    }

    std::vector<std::vector<std::string>> scaleRows{{"Channel", ">Scale", ">Offset", ">From", ">To", "Unit"}};
    report["channels"] = Json::array();
    for (const auto& other : moduleChannels) {
        const std::string unit = other.channel.getUnit().toStdString();
        scaleRows.push_back({other.label, formatNumber(other.channel.getScale(), 9),
                             formatNumber(other.channel.getOffset(), 9), formatNumber(other.channel.getMinValue()),
                             formatNumber(other.channel.getMaxValue()), unit});
        report["channels"].push_back(Json{{"channel", other.label},
                                          {"scale", other.channel.getScale()},
                                          {"offset", other.channel.getOffset()},
                                          {"rangeMin", other.channel.getMinValue()},
                                          {"rangeMax", other.channel.getMaxValue()},
                                          {"unit", unit}});
    }
    if (channel.hasProperty("DeviceRanges")) {
        const auto info = channel.getPropertyInfo("DeviceRanges");
        const BasePtr value = readProperty(channel.asPtr<IPropertyObject>(), "DeviceRanges");
        rows.push_back({"Hardware range", fmt::format("{} of {}", settingText(info, value), choicesText(info))});
        report["hardwareRange"] = toJson(value);
        report["hardwareRanges"] = toJson(asBase(info.getValuesAsList()));
    }
    const auto state = amplifierState(channel);
    report["settingsInForce"] = state.settings;
    report["failure"] = state.failure;
    if (!state.settings.empty()) {
        rows.push_back({"In force", state.settings});
    }
    if (json) {
        output.line(report.dump(2));
    } else {
        output.data(formatTable(rows));
        output.line("");
        output.data(formatTable(settingRows));
        output.line("");
        output.data(formatTable(scaleRows));
    }
    if (!state.failure.empty()) {
        output.message(fmt::format("zornhost: the amplifier has not taken all settings: {}", state.failure));
    }
    return state.failure.empty() ? 0 : 1;
}

int setAmplifier(Session& session, Output& output, bool json, const std::string& path,
                 const std::vector<std::string>& settings) {
    const auto entry = amplifierChannel(session.tree(), path);
    const auto node = entry.channel.asPtr<IPropertyObject>();
    const GenericPropertyObjectPtr object(node);
    if (settings.empty() || settings.size() % 2 != 0) {
        throw std::runtime_error("write NAME VALUE, as often as there is something to set");
    }

    struct Wish {
        std::string name;
        std::string text;    // as the user wrote it
        BasePtr value;       // as it was set
        std::string wanted;  // as it is shown
    };
    std::vector<Wish> wishes;
    bool measurement = false;
    bool highPass = false;
    for (size_t i = 0; i < settings.size(); i += 2) {
        const auto& name = settings[i];
        const auto offered = settingsOf(entry.channel);
        const auto found =
            std::find_if(offered.begin(), offered.end(), [&](const Setting& setting) { return setting.name == name; });
        if (found == offered.end()) {
            std::string names;
            for (const auto& setting : offered) {
                names += (names.empty() ? "" : ", ") + setting.name;
            }
            throw UnknownName(
                object.hasProperty(name) && object.getPropertyInfo(name).isHidden() == false &&
                        !callable(object.getPropertyInfo(name)) && !visible(object.getPropertyInfo(name))
                    ? fmt::format("\"{}\" is not offered with the present settings; there is {}", name, names)
                    : fmt::format("the amplifier has no setting \"{}\"; it has {}", name, names));
        }
        const BasePtr value = session.set({{node, entry.path}, name}, settings[i + 1]);
        wishes.push_back({name, settings[i + 1], value, settingText(object.getPropertyInfo(name), value)});
        measurement = measurement || name == "Measurement";
        highPass = highPass || name == "HPFilter";
    }
    // Another measurement may have other couplings: the number of the old one then means something else.
    updateAmplifier(entry.channel, measurement && !highPass);
    const auto state = amplifierState(entry.channel);

    bool taken = state.failure.empty();
    std::vector<std::string> lines;
    Json report{{"channel", entry.path}, {"settings", Json::array()}};
    for (const auto& wish : wishes) {
        const PropertyInfoPtr info = object.getPropertyInfo(wish.name);
        const BasePtr now = readProperty(object, wish.name);
        const std::string text = settingText(info, now);
        const bool same = now && now.equals(wish.value);
        taken = taken && same;
        lines.push_back(same ? fmt::format("{}: {}", wish.name, text)
                             : fmt::format("{}: {} requested, {} set", wish.name, wish.wanted, text));
        report["settings"].push_back(
            Json{{"name", wish.name}, {"requested", wish.text}, {"value", toJson(now)}, {"text", text}});
    }
    report["taken"] = taken;
    report["settingsInForce"] = state.settings;
    report["failure"] = state.failure;
    if (json) {
        output.line(report.dump(2));
    } else {
        for (const auto& line : lines) {
            output.line(line);
        }
    }
    if (!state.failure.empty()) {
        output.message(fmt::format("zornhost: the amplifier has not taken all settings: {}", state.failure));
    }
    return taken ? 0 : 1;
}

int balanceAmplifier(Session& session, Output& output, bool json, const std::string& path, bool reset) {
    const auto entry = amplifierChannel(session.tree(), path);
    const auto& channel = entry.channel;
    const auto start = slot<IProcObject>(channel, "StartSensorBalance");
    const auto running = slot<IFuncObject>(channel, "GetSensorBalanceStatus");
    const auto forget = slot<IProcObject>(channel, "ResetSensorBalance");
    if (!start || !running || !forget) {
        refuseFunction(entry, "balance");
    }
    if (!visible(channel.getPropertyInfo("StartSensorBalance"))) {
        throw std::runtime_error(fmt::format(
            "\"{}\": there is nothing to balance in the measurement {}", entry.label,
            settingText(channel.getPropertyInfo("Measurement"), channel.getPropertyValue<BasePtr>("Measurement"))));
    }
    const auto offset = [&] {
        return channel.hasProperty("BridgeOffset") ? channel.getPropertyValue<double>("BridgeOffset") : 0.0;
    };
    const double before = offset();
    // The newest sample, as a start now would show it.
    const auto waitForValue = [&] {
        if (!waitFor(sampleTimeoutS, [&] { return channel.getSamplesAcquired() >= samplesBeforeBalance; })) {
            throw std::runtime_error(fmt::format("\"{}\": no samples within {} s", entry.label, sampleTimeoutS));
        }
        return channel.getSampleAtRelativePos(-1);
    };
    const auto moduleChannels = channelsOfModule(session.tree(), entry);
    double seconds = 0.0;
    double valueBefore = 0.0;
    double valueAfter = 0.0;
    std::string failure;
    if (reset) {
        checkErrorInfo(forget->dispatch(nullptr));
        updateAmplifier(channel, false);
    } else {
        bool ended = false;
        {
            Acquisition acquisition(session, moduleChannels);
            valueBefore = waitForValue();
            const auto begin = std::chrono::steady_clock::now();
            checkErrorInfo(start->dispatch(nullptr));
            ended = waitFor(balanceTimeoutS, [&] { return !fromValue<bool>(executeFunc(running, {})); });
            seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
            acquisition.stop();
        }
        if (!ended) {
            failure = fmt::format("the balancing has not ended within {} s", balanceTimeoutS);
        } else if (const auto result = slot<IFuncObject>(channel, "GetSensorBalanceResult")) {
            const auto text = fromValue<std::string>(executeFunc(result, {}));
            failure = text == "balanced" ? "" : text;
        }
        if (failure.empty()) {
            // What has been found acts from the next start on.
            updateAmplifier(channel, false);
            Acquisition acquisition(session, moduleChannels);
            valueAfter = waitForValue();
            acquisition.stop();
        }
    }
    if (failure.empty()) {
        failure = amplifierState(channel).failure;
    }
    const double after = offset();
    // The offset is one of the channel's values.
    const std::string unit = channel.getUnit().toStdString();
    Json report{{"channel", entry.path},
                {"balanced", failure.empty()},
                {"offsetBefore", before},
                {"offset", after},
                {"unit", unit}};
    if (!reset) {
        report["valueBefore"] = valueBefore;
        report["valueAfter"] = valueAfter;
        report["seconds"] = seconds;
    }
    report["failure"] = failure;
    const std::string offsetText =
        fmt::format("bridge offset {} -> {}", formatNumber(before, 6), withUnit(formatNumber(after, 6), unit));
    if (json) {
        output.line(report.dump(2));
    } else if (failure.empty()) {
        output.line(reset ? fmt::format("{}: {}", entry.label, offsetText)
                          : fmt::format("{}: balanced in {:.1f} s: {} -> {}; {}", entry.label, seconds,
                                        formatNumber(valueBefore, 6), withUnit(formatNumber(valueAfter, 6), unit),
                                        offsetText));
    }
    if (!failure.empty()) {
        output.message(fmt::format("zornhost: \"{}\": {}", entry.label, failure));
    }
    return failure.empty() ? 0 : 1;
}

int readAmplifierTeds(Session& session, Output& output, bool json, const std::string& path, bool custom) {
    const auto entry = amplifierChannel(session.tree(), path);
    const auto function = slot<IFuncObject>(entry.channel, custom ? "ReadTedsCustom" : "ReadTeds");
    if (!function) {
        refuseFunction(entry, "TEDS");
    }
    constexpr int customBytes = 32;
    const auto [result, bytes] = answerOf(executeFunc(function, custom ? toValue(customBytes) : BasePtr()));
    Json report{{"channel", entry.path}, {"result", result}, {"bytes", bytes}};
    if (result < 0) {
        if (json) {
            output.line(report.dump(2));
        }
        output.message(
            fmt::format("zornhost: \"{}\": {}", entry.label,
                        custom ? "no custom TEDS area could be read: the amplifier has none or doesn't answer"
                               : "no TEDS could be read: the sensor has no chip or the amplifier doesn't answer"));
        return 1;
    }
    if (custom) {
        const bool empty = std::all_of(bytes.begin(), bytes.end(), [](int byte) { return byte == 0xFF; });
        report["empty"] = empty;
        std::vector<std::vector<std::string>> rows;
        for (size_t i = 0; i < bytes.size(); i += 16) {
            rows.push_back({fmt::format("{:02X}", i),
                            hexText({bytes.begin() + static_cast<std::ptrdiff_t>(i),
                                     bytes.begin() + static_cast<std::ptrdiff_t>(std::min(i + 16, bytes.size()))})});
        }
        if (empty) {
            rows.push_back({"", "(erased)"});
        }
        printAnswer(output, json, report, rows);
        return 0;
    }
    const bool sound = romIsSound(bytes);
    std::string serial;
    for (size_t i = bytes.size() > 1 ? bytes.size() - 1 : 0; i-- > 1;) {
        serial += fmt::format("{:02X}", bytes[i]);
    }
    report["family"] = bytes.empty() ? 0 : bytes[0];
    report["serialNumber"] = serial;
    report["checkIsRight"] = sound;
    printAnswer(output, json, report,
                {{"Chip", hexText(bytes)},
                 {"Family", bytes.empty() ? "-" : fmt::format("{:02X}", bytes[0])},
                 {"Serial number", serial},
                 {"Check byte", sound ? "right" : "wrong"}});
    return sound ? 0 : 1;
}

int showSensorStatus(Session& session, Output& output, bool json, const std::string& path) {
    const auto entry = amplifierChannel(session.tree(), path);
    const auto function = slot<IFuncObject>(entry.channel, "GetSensorStatus");
    if (!function) {
        refuseFunction(entry, "sensor status");
    }
    const auto status = fromValue<int64_t>(executeFunc(function, {}));
    std::string text = fmt::format("status {}", status);
    switch (status) {
        case -1:
            text = "no answer";
            break;
        case 0:
            text = "not watched";
            break;
        case 1:
            text = "ok";
            break;
        case 2:
            text = "open";
            break;
        case 3:
            text = "shorted";
            break;
        default:
            break;
    }
    if (json) {
        output.line(Json{{"channel", entry.path}, {"status", status}, {"text", text}}.dump(2));
    } else {
        output.line(fmt::format("{}: {}", entry.label, text));
    }
    return status < 0 ? 1 : 0;
}

int checkAmplifiers(Output& output, bool json, const std::string& directory) {
    const auto reports = checkDefinitions(directory);
    using Outcome = DefinitionReport::Outcome;
    const auto outcomeText = [](Outcome outcome) {
        return outcome == Outcome::Registered ? "registered"
               : outcome == Outcome::Unusable ? "shown as unknown"
               : outcome == Outcome::Wrong    ? "not registered"
                                              : "not read";
    };
    Json files = Json::array();
    size_t registered = 0;
    size_t mistaken = 0;
    for (const auto& report : reports) {
        registered += report.outcome == Outcome::Registered ? 1 : 0;
        mistaken += report.hasErrors() ? 1 : 0;
        Json problems = Json::array();
        for (const auto& problem : report.problems) {
            Json item{{"kind", problem.error ? "mistake" : "warning"}, {"text", problem.text}};
            if (problem.line > 0) {
                item["line"] = problem.line;
                item["column"] = problem.column;
            }
            problems.push_back(item);
        }
        Json file{{"file", report.file}, {"outcome", outcomeText(report.outcome)}};
        if (!report.reason.empty()) {
            file["reason"] = report.reason;
        }
        const bool read = report.outcome == Outcome::Registered || report.outcome == Outcome::Unusable;
        if (read) {
            file["identifier"] = report.identifier;
            file["class"] = report.className;
            file["moduleName"] = report.moduleName;
            for (const auto& measurement : report.measurements) {
                file["measurements"].push_back(
                    Json{{"name", measurement.name}, {"ranges", measurement.ranges}, {"unit", measurement.unit}});
            }
        }
        file["problems"] = problems;
        files.push_back(file);
        if (json) {
            continue;
        }
        if (read) {
            output.line(fmt::format("{}: {} for amplifier {}{}{}", report.file, report.className, report.identifier,
                                    report.moduleName.empty() ? "" : fmt::format(" ({})", report.moduleName),
                                    report.outcome == Outcome::Unusable ? ", shown as unknown" : ""));
            for (const auto& measurement : report.measurements) {
                if (!measurement.name.empty() || !measurement.ranges.empty()) {
                    output.line(fmt::format("    {}: {} {}",
                                            measurement.name.empty() ? "one measurement" : measurement.name,
                                            fmt::join(measurement.ranges, ", "), measurement.unit));
                }
            }
        } else {
            output.line(fmt::format("{}: {}{}", report.file, outcomeText(report.outcome),
                                    report.reason.empty() ? "" : ": " + report.reason));
        }
        for (const auto& problem : report.problems) {
            if (problem.text != report.reason) {
                output.line(fmt::format(
                    "    {}{}{}",
                    problem.line > 0 ? fmt::format("{}:{}:{}: ", report.file, problem.line, problem.column) : "",
                    problem.error ? "" : "warning: ", problem.text));
            }
        }
    }
    if (json) {
        output.line(
            Json{{"directory", directory}, {"registered", registered}, {"mistaken", mistaken}, {"files", files}}.dump(
                2));
    } else {
        output.line(fmt::format("{} entries: {} registered, {} with mistakes", reports.size(), registered, mistaken));
    }
    return mistaken == 0 ? 0 : 1;
}

AmplifierCommandLine::AmplifierCommandLine(CLI::App& app) {
    amplifier_ = app.add_subcommand(
        "amplifier", "One amplifier: identity, settings with choices, scale and range; or one of its commands");
    amplifier_
        ->add_option("path", path_, "Its channel or the folder of its module; the end of the name is enough: \"AI 1\"")
        ->required();
    amplifier_->require_subcommand(0, 1);
    set_ = amplifier_->add_subcommand("set", "Change settings, and show what the amplifier took");
    set_->add_option(
            "settings", settings_,
            "NAME VALUE ...; values by their text (\"10 V\", \"10\", \"Bridge\") or their place in the list (1, #1)")
        ->required()
        ->expected(2, 1000);
    balance_ = amplifier_->add_subcommand("balance", "Balance the bridge, with an acquisition that runs meanwhile");
    balance_->add_flag("--reset", reset_, "Only forget the offset");
    teds_ = amplifier_->add_subcommand("teds", "Read the sensor's identification");
    teds_->add_flag("--custom", custom_, "Read the custom area instead");
    status_ = amplifier_->add_subcommand("sensor-status", "Ask whether the sensor is there");
    check_ =
        app.add_subcommand("check-amplifiers",
                           "Read a folder of amplifier definitions: what each file registers or what is wrong with it");
    check_->add_option("directory", directory_, "The folder")->required();
}

bool AmplifierCommandLine::checks() const {
    return check_->parsed();
}
bool AmplifierCommandLine::parsed() const {
    return amplifier_->parsed();
}
int AmplifierCommandLine::runCheck(Output& output, bool json) const {
    return checkAmplifiers(output, json, directory_);
}

int AmplifierCommandLine::run(Session& session, Output& output, bool json) const {
    if (set_->parsed()) {
        return setAmplifier(session, output, json, path_, settings_);
    }
    if (balance_->parsed()) {
        return balanceAmplifier(session, output, json, path_, reset_);
    }
    if (teds_->parsed()) {
        return readAmplifierTeds(session, output, json, path_, custom_);
    }
    if (status_->parsed()) {
        return showSensorStatus(session, output, json, path_);
    }
    return showAmplifier(session, output, json, path_);
}

}  // namespace zornhost
