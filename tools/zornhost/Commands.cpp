#include "tools/zornhost/Commands.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>

#include "tools/zornhost/AmplifierCommands.h"
#include "tools/zornhost/AmplifierState.h"
#include "tools/zornhost/CanCommands.h"
#include "tools/zornhost/ClockCommand.h"
#include "tools/zornhost/DoctorCommand.h"
#include "tools/zornhost/Elapsed.h"
#include "tools/zornhost/InstrumentLock.h"
#include "tools/zornhost/InstrumentService.h"
#include "tools/zornhost/Interrupt.h"
#include "tools/zornhost/LockedStart.h"
#include "tools/zornhost/PositiveSeconds.h"
#include "tools/zornhost/PropertyText.h"
#include "tools/zornhost/RateMath.h"
#include "tools/zornhost/Rates.h"
#include "tools/zornhost/Recorder.h"
#include "tools/zornhost/Routes.h"
#include "tools/zornhost/StatusCommand.h"
#include "tools/zornhost/SyncOptions.h"

using namespace Harvane::RT::Core;
using Json = nlohmann::ordered_json;

namespace zornhost {

namespace {

constexpr const char* programVersion = "1.0.0";
constexpr int instrumentBusy = 3;  // exit code: another process holds it

// Names of files and settings may be bytes that are no text.
std::string jsonText(const Json& json, int indent = -1) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

void printJson(Output& output, const Json& json) {
    output.line(jsonText(json, 2));
}

// Sets the data module's rate before an acquisition and says what became of it.
void applyRate(Session& session, Output& output, const std::optional<int64_t>& rate) {
    if (!rate) {
        return;
    }
    const auto tree = session.tree();
    const auto set = session.set(tree.property("SampleRate"), fmt::format("{}", *rate));
    if (fromValue<Ratio>(set).numerator != *rate) {
        output.message(fmt::format("zornhost: {} S/s asked for, {} set", *rate, valueText(set)));
    }
}

// Only the chosen channels are used. Channels without hardware are left out, and said so when they were named; outputs
// are used where they are named.
std::vector<ChannelEntry> chooseChannels(Session& session, Output& output, const std::vector<std::string>& patterns) {
    const auto tree = session.tree();
    const auto chosen = tree.channels(patterns);
    std::vector<ChannelEntry> usable;
    for (const auto& entry : tree.channels()) {
        const bool wanted = std::any_of(chosen.begin(), chosen.end(),
                                        [&](const ChannelEntry& other) { return other.path == entry.path; });
        const bool enabled = hasHardware(entry.channel) && !(patterns.empty() && isCanOutput(entry.channel));
        if (wanted && !enabled && !patterns.empty()) {
            output.message(fmt::format("zornhost: \"{}\" has no amplifier and is left out", entry.label));
        }
        entry.channel.setUsed(wanted && enabled);
        if (wanted && enabled) {
            usable.push_back(entry);
        }
    }
    return usable;
}

int64_t nowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

Json channelJson(const ChannelReport& channel) {
    return Json{{"channel", channel.label},
                {"path", channel.path},
                {"sampleRate", toHz(channel.sampleRate)},
                {"sampleRateNumerator", channel.sampleRate.numerator},
                {"sampleRateDenominator", channel.sampleRate.denominator},
                {"samples", channel.samples},
                {"silent", channel.silent},
                {"lost", channel.lost},
                {"gaps", channel.gaps},
                {"worstFill", channel.worstFill}};
}

Json refusalsJson(const std::vector<AmplifierRefusal>& refusals) {
    Json list = Json::array();
    for (const auto& refusal : refusals) {
        list.push_back(Json{{"amplifier", refusal.module}, {"asked", refusal.asked}, {"reason", refusal.reason}});
    }
    return list;
}

// Says what amplifiers have not taken, each once.
void tellRefusals(Output& output, const std::vector<AmplifierRefusal>& refusals, std::set<std::string>& told) {
    for (const auto& refusal : refusals) {
        if (told.insert(refusal.module).second) {
            output.message(fmt::format("zornhost: {}: the amplifier has not taken all settings: {}", refusal.module,
                                       refusal.text()));
        }
    }
}

Json reportJson(const RecordingReport& report) {
    Json json{{"file", report.file},
              {"written", report.keeps},
              {"durationS", report.durationS},
              {"samples", report.samples()},
              {"bytes", report.bytes},
              {"lost", report.lost()},
              {"moduleReports", report.moduleReports},
              {"worstFill", report.worstFill()},
              {"longestWriterStallS", report.longestWriterStallS},
              {"interrupted", report.interrupted},
              {"good", report.good()}};
    if (!report.error.empty()) {
        json["error"] = report.error;
    }
    if (!report.stopFailure.empty()) {
        json["stopFailure"] = report.stopFailure;
    }
    for (const auto& channel : report.channels) {
        json["channels"].push_back(channelJson(channel));
    }
    json["refusedSettings"] = refusalsJson(report.refusals);
    json["asyncChannels"] = Json::array();
    for (const auto& channel : report.asyncChannels) {
        Json item{{"channel", channel.label}, {"path", channel.path}, {"lost", channel.lost}};
        if (channel.can) {
            item["frames"] = channel.frames;
            item["notSent"] = channel.unsent;
            item["counts"] = Json::object();
            for (const auto& count : channel.counts) {
                item["counts"][count.property] = count.value;
            }
        } else {
            item["samples"] = channel.frames;
        }
        if (!channel.failure.empty()) {
            item["lost"] = nullptr;
            item["failure"] = channel.failure;
        }
        json["asyncChannels"].push_back(item);
    }
    json["gaps"] = Json::array();
    for (const auto& gap : report.gapTable) {
        json["gaps"].push_back(Json{{"channel", gap.channel},
                                    {"firstIndex", gap.firstIndex},
                                    {"length", gap.length},
                                    {"timeS", gap.timeS},
                                    {"cause", gap.cause},
                                    {"estimated", gap.estimated}});
    }
    json["verdict"] = report.verdict();
    return json;
}

}  // namespace

int showInfo(Session& session, Output& output, bool json) {
    const auto& host = session.host();
    const auto device = session.tree().deviceFolder();
    constexpr std::array identity{"Manufacturer", "Model", "SerialNumber", "HardwareRevision", "SoftwareRevision"};
    if (json) {
        Json report{
            {"program", programVersion},
            {"module", {{"file", host.file()}, {"driver", host.driverName()}, {"version", host.moduleVersion()}}}};
        for (const auto& library : ModuleHost::hostVersions()) {
            report["host"][library.name] = library.version;
        }
        if (device) {
            for (const char* name : identity) {
                report["instrument"][name] = device.getPropertyValue<std::string>(name);
            }
        }
        printJson(output, report);
        return 0;
    }
    std::vector<std::vector<std::string>> rows{{"zornhost", programVersion}};
    for (const auto& library : ModuleHost::hostVersions()) {
        rows.push_back({library.name, library.version});
    }
    rows.push_back({"module", fmt::format("{} {}", host.driverName(), host.moduleVersion())});
    rows.push_back({"module file", host.file()});
    if (device) {
        for (const char* name : identity) {
            rows.push_back({name, device.getPropertyValue<std::string>(name)});
        }
    } else {
        rows.push_back({"instrument", "none found"});
    }
    output.data(formatTable(rows));
    return 0;
}

namespace {

// A clock change that failed both ways leaves none.
template <class Node>
bool hasClockInForce(const Node& device) {
    return device.template getPropertyValue<int>("BaseClock") >= 0;
}

void treeLines(const ChannelFolderPtr& folder, int depth, std::vector<std::vector<std::string>>& rows) {
    for (const auto& child : folder.getChildren()) {
        const std::string name = std::string(static_cast<size_t>(2 * depth), ' ') + child.getName().toStdString();
        if (auto raw = child.asPtrOrNull<IChannel>()) {
            const ChannelPtr<> channel(raw);
            const bool enabled = hasHardware(channel);
            rows.push_back(
                {name, formatNumber(toHz(channel.getSampleRate())),
                 fmt::format("{} .. {}", formatNumber(channel.getMinValue()), formatNumber(channel.getMaxValue())),
                 channel.getUnit().toStdString(), channel.getUsed() ? "yes" : "no", enabled ? "yes" : "no"});
        } else {
            std::string note;
            if (child.hasProperty("SampleRate")) {
                note = valueText(child.getPropertyValue<BasePtr>("SampleRate"));
            }
            std::string clock;
            if (child.hasProperty("BaseClock")) {
                clock = hasClockInForce(child)
                            ? fmt::format("base clock {} Hz", valueText(child.getPropertyEnum("BaseClock")))
                            : "base clock unknown";
            }
            rows.push_back({name, note, clock, "", "", ""});
            if (auto below = child.asPtrOrNull<IChannelFolder>()) {
                treeLines(ChannelFolderPtr(below), depth + 1, rows);
            }
        }
    }
}

Json treeJson(const ChannelFolderPtr& folder) {
    Json children = Json::array();
    for (const auto& child : folder.getChildren()) {
        Json entry{{"name", child.getName().toStdString()}, {"nodeId", child.getNodeId().toStdString()}};
        if (auto raw = child.asPtrOrNull<IChannel>()) {
            const ChannelPtr<> channel(raw);
            entry["kind"] = "channel";
            entry["sampleRate"] = toHz(channel.getSampleRate());
            entry["rangeMin"] = channel.getMinValue();
            entry["rangeMax"] = channel.getMaxValue();
            entry["unit"] = channel.getUnit().toStdString();
            entry["used"] = channel.getUsed();
            entry["enabled"] = hasHardware(channel);
        } else {
            entry["kind"] = "folder";
            if (child.hasProperty("SampleRate")) {
                entry["sampleRate"] = toJson(child.getPropertyValue<BasePtr>("SampleRate"));
            }
            if (child.hasProperty("BaseClock")) {
                entry["baseClock"] = hasClockInForce(child) ? toJson(child.getPropertyEnum("BaseClock")) : Json();
            }
            if (auto below = child.asPtrOrNull<IChannelFolder>()) {
                entry["children"] = treeJson(ChannelFolderPtr(below));
            }
        }
        children.push_back(entry);
    }
    return children;
}

}  // namespace

int showTree(Session& session, Output& output, bool json) {
    const auto module = session.tree().dataModule();
    const auto root = module.getRootFolder();
    constexpr const char* synchronization = "Synchronization";
    const PendingOption pending = pendingOption(module.asPtr<IPropertyObject>(), synchronization);
    if (json) {
        Json report{{"name", root.getName().toStdString()},
                    {"sampleRate", toJson(module.getPropertyValue<BasePtr>("SampleRate"))}};
        if (pending.inForce) {
            report["synchronization"] = Json{{"chosen", toJson(module.getPropertyValue<BasePtr>(synchronization))},
                                             {"inForce", toJson(pending.inForce)}};
        }
        report["children"] = treeJson(root);
        printJson(output, report);
        return 0;
    }
    std::vector<std::vector<std::string>> rows{{"Name", ">Rate S/s", ">Range", "Unit", "Used", "Enabled"}};
    rows.push_back(
        {root.getName().toStdString(), valueText(module.getPropertyValue<BasePtr>("SampleRate")), "", "", "", ""});
    treeLines(root, 1, rows);
    output.data(formatTable(rows));
    if (pending.inForce) {
        output.line(fmt::format("{}: {}{}", synchronization,
                                valueText(module.getPropertyValue<BasePtr>(synchronization)), pending.note));
    }
    return 0;
}

namespace {

Json ratesJson(const RateReport& report) {
    Json json{{"request", report.request}, {"baseClock", report.clockInForce}, {"levels", Json::array()}};
    for (const auto& level : report.levels) {
        Json rates = Json::array();
        for (const auto& row : level.rates) {
            Json entry{{"rate", row.rate}};
            if (row.rawDivider) {
                entry["raw"] =
                    Json{{"divider", *row.rawDivider}, {"inForce", row.rawInForce}, {"requestBecomes", row.rawAnswer}};
            }
            if (row.filtered) {
                entry["filtered"] = Json{{"halfBands", row.filtered->halfBands},
                                         {"ratio", row.filtered->ratio()},
                                         {"ratioBits", row.filtered->ratioBits},
                                         {"inForce", row.filteredInForce},
                                         {"requestBecomes", row.filteredAnswer}};
            }
            rates.push_back(entry);
        }
        json["levels"].push_back(Json{{"level", level.level},
                                      {"name", level.name},
                                      {"baseClock", level.clock},
                                      {"clockInForce", level.clockInForce},
                                      {"of", level.of},
                                      {"rates", rates}});
    }
    return json;
}

// "in force; 48000 becomes this", with the stream's name where only one of the two is meant.
std::string rateNote(const LegalRate& row, int64_t request) {
    std::string note;
    const auto add = [&](bool raw, bool filtered, const std::string& text) {
        if (!raw && !filtered) {
            return;
        }
        const bool both = (raw || !row.rawDivider) && (filtered || !row.filtered);
        note += (note.empty() ? "" : "; ") + std::string(both ? "" : raw ? "raw: " : "filtered: ") + text;
    };
    add(row.rawInForce && row.rawDivider, row.filteredInForce && row.filtered, "in force");
    add(row.rawAnswer && row.rawDivider, row.filteredAnswer && row.filtered, fmt::format("{} becomes this", request));
    return note;
}

}  // namespace

int showRates(Session& session, Output& output, bool json, std::optional<int64_t> near, size_t count) {
    const RateReport report = legalRates(session.tree(), near, count);
    if (json) {
        printJson(output, ratesJson(report));
        return 0;
    }
    bool first = true;
    for (const auto& level : report.levels) {
        if (!first) {
            output.line("");
        }
        first = false;
        output.line(fmt::format("{} ({}), base clock {} Hz{}, whole fractions of {} S/s", level.name, level.level,
                                level.clock, level.clockInForce ? ", in force" : "", level.of));
        std::vector<std::vector<std::string>> rows{
            {">Rate S/s", ">Raw: divider", ">Filtered: half-bands", ">Ratio", "Note"}};
        for (const auto& row : level.rates) {
            rows.push_back({fmt::format("{}", row.rate), row.rawDivider ? fmt::format("{}", *row.rawDivider) : "-",
                            row.filtered ? fmt::format("{}", row.filtered->halfBands) : "-",
                            row.filtered ? fmt::format("{:.10g}", row.filtered->ratio()) : "-",
                            rateNote(row, report.request)});
        }
        output.data(formatTable(rows));
    }
    return 0;
}

int listProperties(Session& session, Output& output, bool json, const std::string& path) {
    const auto entry = session.tree().node(path);
    Json report = Json::array();
    std::vector<std::vector<std::string>> rows{{"Property", "Type", "Value", "Default", "Limits", "Choices", "Unit"}};
    for (const auto& info : entry.node.enumProperties(PropertyOrder::Index, true)) {
        const StringPtr name = info.getName();
        if (callable(info)) {
            rows.push_back({name.toStdString(), typeName(info), "", "", "", "", ""});
            report.push_back(Json{{"name", name.toStdString()}, {"type", typeName(info)}});
            continue;
        }
        const BasePtr value = readProperty(entry.node, name);
        const BasePtr minimum = info.getMinValue();
        const BasePtr maximum = info.getMaxValue();
        const ListPtr choices = info.getValuesAsList();
        const bool readOnly = info.getReadOnly() && fromValue<bool>(info.getReadOnly());
        std::string choiceText;
        for (size_t i = 0, n = choices.getCount(); i < n; ++i) {
            choiceText += (i == 0 ? "" : ", ") + (info.isSelection() ? fmt::format("{}: ", i) : std::string()) +
                          valueText(choices.getItemAt(i));
        }
        const PendingOption pending = pendingOption(entry.node, name.view());
        rows.push_back({name.toStdString(), typeName(info) + (readOnly ? ", read-only" : ""),
                        shownValue(info, value) + pending.note, readOnly ? "" : valueText(info.getDefaultValue()),
                        minimum || maximum ? fmt::format("{} .. {}", valueText(minimum), valueText(maximum)) : "",
                        choiceText, info.getUnit() ? valueText(info.getUnit()) : ""});
        Json item{
            {"name", name.toStdString()}, {"type", typeName(info)}, {"readOnly", readOnly}, {"value", toJson(value)}};
        if (pending.inForce) {
            item["inForce"] = toJson(pending.inForce);
        }
        if (info.getDefaultValue()) {
            item["default"] = toJson(info.getDefaultValue());
        }
        if (minimum) {
            item["min"] = toJson(minimum);
        }
        if (maximum) {
            item["max"] = toJson(maximum);
        }
        if (choices.getCount() > 0) {
            item["choices"] = toJson(asBase(choices));
        }
        if (info.getUnit()) {
            item["unit"] = toJson(info.getUnit());
        }
        report.push_back(item);
    }
    if (json) {
        printJson(output, Json{{"path", entry.path}, {"properties", report}});
    } else {
        output.data(formatTable(rows));
    }
    return 0;
}

int getProperty(Session& session, Output& output, bool json, const std::string& path) {
    const auto entry = session.tree().property(path);
    std::string reason;
    const BasePtr value = readProperty(entry.owner.node, entry.name, &reason);
    if (!reason.empty()) {
        throw std::runtime_error(fmt::format("{}: {}", path, reason));
    }
    if (json) {
        printJson(output, Json{{"path", path}, {"value", toJson(value)}});
    } else {
        output.line(valueText(value));
    }
    return 0;
}

int setProperty(Session& session, Output& output, bool json, const std::string& path, const std::string& value) {
    const auto property = session.tree().property(path);
    const BasePtr set = session.set(property, value);
    const PendingOption pending = pendingOption(property.owner.node, property.name);
    if (json) {
        Json report{{"path", path}, {"requested", value}, {"set", toJson(set)}};
        if (pending.inForce) {
            report["inForce"] = toJson(pending.inForce);
        }
        printJson(output, report);
    } else {
        output.line(fmt::format("{}: {} requested, {} set{}", path, value, valueText(set), pending.note));
    }
    return 0;
}

int record(Session& session, Output& output, bool json, const RecordOptions& options) {
    applyRate(session, output, options.rate);
    auto channels = chooseChannels(session, output, options.channels);
    const std::string routes = applyRoutes(session, options.routes, channels);
    std::set<std::string> told;
    const auto checkAmplifiers = [&](const std::vector<AmplifierRefusal>& refusals) {
        tellRefusals(output, refusals, told);
        if (options.strict && !refusals.empty()) {
            throw std::runtime_error(fmt::format(
                "{}: not recorded: --strict, and {} not taken {} settings", options.file,
                refusals.size() == 1 ? "an amplifier has" : "amplifiers have", refusals.size() == 1 ? "its" : "their"));
        }
    };
    // Before a file of this name is touched.
    const auto refusals = updateAmplifiers(session.tree(), channels);
    checkAmplifiers(refusals);
    session.prepare();
    InstrumentService service(session, options.lock, output, fmt::format("record -o {}", options.file));
    LockedStart start(session, service.clock(), output, options.lockTimeoutS);
    start.awaitReference();
    const auto checkInterrupt = [&options] {
        if (Interrupt::requested()) {
            throw std::runtime_error(fmt::format("{}: ended by the user before the recording began", options.file));
        }
    };
    checkInterrupt();

    Recorder recorder({.file = options.file, .refusals = refusals, .clock = service.clock()}, channels,
                      session.host().scheduler());
    auto& sink = recorder.sink();
    if (const auto device = session.tree().deviceFolder()) {
        for (const auto& [attribute, property] :
             {std::pair{"manufacturer", "Manufacturer"}, std::pair{"model", "Model"},
              std::pair{"serial_number", "SerialNumber"}, std::pair{"hardware_revision", "HardwareRevision"}}) {
            sink.setAttribute(attribute, device.getPropertyValue<std::string>(property));
        }
    }
    sink.setAttribute("software", fmt::format("zornhost {}, {} {}", programVersion, session.host().driverName(),
                                              session.host().moduleVersion()));
    if (!routes.empty()) {
        sink.setAttribute("routes", routes);
    }

    start.start();
    checkInterrupt();
    service.health().lookAtAmplifiers();
    checkAmplifiers(amplifierRefusals(channels, refusals));
    if (const ClockWatch* clock = service.clock(); clock != nullptr && options.strict) {
        const ClockReport state = clock->report();
        if (state.lock == Lock::NotLocked || state.lock == Lock::Holding) {
            throw std::runtime_error(fmt::format("{}: not recorded: --strict, and the clock is not locked to {}: {}",
                                                 options.file, state.mode, state.obstacle()));
        }
    }
    long startUs = -1;
    if (const auto absTime = session.host().absTimeProvider()) {
        absTime->getStartAbsTime(&startUs);
    }
    recorder.start(startUs > 0 ? startUs : nowUs());
    const HealthWatch::LossSource losses(service.health(),
                                         [&recorder] { return static_cast<int64_t>(recorder.samplesLost()); });

    uint64_t reported = 0;
    double nextProgressS = 1.0;
    while (recorder.running() && !Interrupt::requested() && recorder.elapsedS() < options.durationS) {
        Interrupt::sleepMs(
            std::max(1, static_cast<int>(std::min(50.0, 1000.0 * (options.durationS - recorder.elapsedS())))));
        for (; reported < session.lostReports(); ++reported) {
            recorder.reportLostByModule();
        }
        if (recorder.elapsedS() >= nextProgressS) {
            output.progress(fmt::format("recording: {:.0f} of {:.0f} s, {} samples, {} lost", recorder.elapsedS(),
                                        options.durationS, recorder.samplesWritten(), recorder.samplesLost()));
            nextProgressS += output.progressIsTerminal() ? 0.5 : 10.0;
        }
    }
    // Whatever goes wrong now, the samples that are there come into the file.
    const bool interrupted = Interrupt::requested();
    std::string stopFailure;
    try {
        session.stop();
    } catch (const std::exception& failure) {
        stopFailure = oneLine(failure.what());
    }
    for (; reported < session.lostReports(); ++reported) {
        recorder.reportLostByModule();
    }
    const RecordingReport report = recorder.finish(interrupted, stopFailure);
    output.endProgress();

    if (json) {
        printJson(output, reportJson(report));
    } else {
        std::vector<std::vector<std::string>> rows{{"Channel", ">Rate S/s", ">Samples", ">Lost", ">Ring %"}};
        for (const auto& channel : report.channels) {
            rows.push_back({channel.label, formatNumber(toHz(channel.sampleRate)), fmt::format("{}", channel.samples),
                            fmt::format("{}", channel.lost), fmt::format("{:.0f}", 100.0 * channel.worstFill)});
        }
        for (const auto& channel : report.asyncChannels) {
            rows.push_back({channel.label, "-", fmt::format("{}", channel.frames),
                            channel.failure.empty() ? fmt::format("{}", channel.lost) : "?", "-"});
        }
        output.data(formatTable(rows));
        output.line(report.verdict());
        if (report.keeps) {
            output.line(
                fmt::format("File: {} ({:.1f} MB of samples)", report.file, static_cast<double>(report.bytes) / 1e6));
        }
    }
    return report.good() ? 0 : 1;
}

namespace {

constexpr double longestRestS = 0.05;  // between two looks of the monitor into the rings

// What the monitor knows of one channel.
struct Watched {
    ChannelEntry entry;
    RingReader reader;
    std::vector<unsigned char> piece;
    double scale;
    double offset;
    double newest = std::numeric_limits<double>::quiet_NaN();
    double minimum = std::numeric_limits<double>::quiet_NaN();
    double maximum = std::numeric_limits<double>::quiet_NaN();
    uint64_t samples = 0;  // in the present interval
    uint64_t lost = 0;
    double fill = 0.0;
};

template <class T>
void take(Watched& watched, size_t count) {
    const T* samples = reinterpret_cast<const T*>(watched.piece.data());
    const auto [low, high] = std::minmax_element(samples, samples + count);
    const auto physical = [&](T raw) { return static_cast<double>(raw) * watched.scale + watched.offset; };
    watched.minimum = std::fmin(watched.minimum, std::min(physical(*low), physical(*high)));
    watched.maximum = std::fmax(watched.maximum, std::max(physical(*low), physical(*high)));
    watched.newest = physical(samples[count - 1]);
}

void beginInterval(Watched& watched) {
    watched.fill = 0.0;
    watched.minimum = watched.maximum = std::numeric_limits<double>::quiet_NaN();
    watched.samples = 0;
}

void drain(Watched& watched) {
    watched.fill = std::max(watched.fill, watched.reader.fill());
    while (true) {
        const auto piece =
            watched.reader.read(watched.piece.data(), watched.piece.size() / watched.reader.sampleSize());
        watched.lost += piece.lost;
        if (piece.samples == 0) {
            return;
        }
        watched.samples += piece.samples;
        switch (watched.entry.channel.getSampleDataType()) {
            case SampleDataType::Int16:
                take<int16_t>(watched, piece.samples);
                break;
            case SampleDataType::Int32:
                take<int32_t>(watched, piece.samples);
                break;
            case SampleDataType::Int8:
                take<int8_t>(watched, piece.samples);
                break;
            case SampleDataType::Float32:
                take<float>(watched, piece.samples);
                break;
            case SampleDataType::Float64:
                take<double>(watched, piece.samples);
                break;
            default:  // of frames there is only the number
                break;
        }
    }
}

}  // namespace

int monitor(Session& session, Output& output, bool json, const MonitorOptions& options) {
    applyRate(session, output, options.rate);
    auto channels = chooseChannels(session, output, options.channels);
    applyRoutes(session, options.routes, channels);
    std::set<std::string> told;
    const auto refusals = updateAmplifiers(session.tree(), channels);
    session.prepare();
    InstrumentService service(session, options.lock, output, "monitor");
    LockedStart lockedStart(session, service.clock(), output, options.lockTimeoutS);
    lockedStart.awaitReference();
    lockedStart.start();
    tellRefusals(output, amplifierRefusals(channels, refusals), told);
    std::vector<Watched> watched;
    for (const auto& entry : channels) {
        RingReader reader(entry.channel, session.host().scheduler());
        if (reader.capacity() == 0) {
            continue;
        }
        std::vector<unsigned char> piece(reader.sampleSize() * 65536);
        watched.push_back({entry, reader, std::move(piece), entry.channel.getScale(), entry.channel.getOffset()});
    }
    if (watched.empty()) {
        throw std::runtime_error("no channel is in use, there is nothing to watch");
    }

    const auto start = std::chrono::steady_clock::now();
    auto last = start;
    uint64_t lost = 0;
    // A ring holds two seconds, that of a status channel two hundred cycles.
    const auto interrupted = [&] {
        bool ended = false;
        for (double leftS = options.intervalS; !ended && leftS > 0.0; leftS = options.intervalS - secondsSince(last)) {
            ended = Interrupt::sleepMs(static_cast<int>(std::ceil(1000.0 * std::min(leftS, longestRestS))));
            std::for_each(watched.begin(), watched.end(), drain);
        }
        return ended;
    };
    while (!interrupted()) {
        const auto now = std::chrono::steady_clock::now();
        const double intervalS = std::chrono::duration<double>(now - last).count();
        const double elapsedS = std::chrono::duration<double>(now - start).count();
        last = now;
        lost = 0;
        Json report{{"timeS", elapsedS}, {"channels", Json::array()}};
        std::vector<std::vector<std::string>> rows{
            {"Channel", ">Rate S/s", ">Newest", ">Minimum", ">Maximum", "Unit", ">Ring %", ">Lost"}};
        for (auto& channel : watched) {
            lost += channel.lost;
            const double rate = static_cast<double>(channel.samples) / intervalS;
            const std::string unit = channel.entry.channel.getUnit().toStdString();
            rows.push_back({channel.entry.label, formatNumber(rate, 5), formatNumber(channel.newest, 6),
                            formatNumber(channel.minimum, 6), formatNumber(channel.maximum, 6), unit,
                            fmt::format("{:.0f}", 100.0 * channel.fill), fmt::format("{}", channel.lost)});
            const auto number = [](double value) { return std::isnan(value) ? Json(nullptr) : Json(value); };
            report["channels"].push_back(Json{{"channel", channel.entry.label},
                                              {"rate", rate},
                                              {"newest", number(channel.newest)},
                                              {"minimum", number(channel.minimum)},
                                              {"maximum", number(channel.maximum)},
                                              {"unit", unit},
                                              {"fill", channel.fill},
                                              {"lost", channel.lost}});
            beginInterval(channel);
        }
        const auto standing = amplifierRefusals(channels, refusals);
        tellRefusals(output, standing, told);
        if (json) {
            report["refusedSettings"] = refusalsJson(standing);
            output.line(jsonText(report));
        } else {
            output.data((output.dataIsTerminal() ? "\x1b[H\x1b[J" : "") + fmt::format("{:.1f} s\n", elapsedS) +
                        formatTable(rows));
        }
        if (!output.good() || (options.durationS > 0.0 && elapsedS >= options.durationS)) {
            break;
        }
    }
    session.stop();
    const uint64_t reports = session.lostReports();
    if (reports > 0) {
        output.message(fmt::format("zornhost: the module reported lost data {} times", reports));
    }
    std::vector<std::string> silent;
    for (const auto& channel : watched) {
        // An asynchronous channel says nothing as long as nothing happens.
        if (channel.reader.acquired() == 0 && channel.entry.channel.getType() == 0) {
            silent.push_back(channel.entry.label);
        }
    }
    if (!silent.empty()) {
        output.message(fmt::format("zornhost: nothing came of {}", fmt::join(silent, ", ")));
    }
    return lost == 0 && reports == 0 && told.empty() && silent.empty() ? 0 : 1;
}

namespace {

std::string commandLine(int argc, char** argv) {
    return fmt::format("zornhost {}", fmt::join(argv + 1, argv + argc, " "));
}

// A standard descriptor that is closed would be given to the next file that is opened, and reports would go into that.
// This one takes no data, so that what can't be written is noticed.
void occupyStandardDescriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) < 0) {
            ::open("/dev/null", O_RDONLY);
        }
    }
}

// The exit code, unless what was to be read got lost.
int checkOutput(Output& output, int result) {
    if (!output.good()) {
        output.message("zornhost: the standard output can't be written");
        return 1;
    }
    return result;
}

}  // namespace

int run(int argc, char** argv) {
    CLI::App app{
        "Measures with a data acquisition module: shows the instrument, changes its settings, records its channels."};
    app.require_subcommand(1);
    app.set_version_flag("--version", programVersion);
    app.fallthrough();
    app.failure_message(CLI::FailureMessage::simple);

    SessionOptions session;
    std::string scenario;
    app.add_option("--module", session.module, "Module library (default: the one beside the program)")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    auto* simulate =
        app.add_option("--simulate", scenario, "Run on the simulated instrument, with a scenario file if one is named")
            ->expected(0, 1);
    auto* log = app.add_option("--log", session.logLevel,
                               "Lowest level of log messages on the standard error, where what the module prints then "
                               "stands too: verbose, debug, info, warning, error, fatal, off")
                    ->capture_default_str();
    app.add_option("--log-file", session.logFile,
                   "Also write log messages (info and above, or --log if lower) into this file");
    app.add_option("--set", session.settings, "PATH=VALUE: set a property before the command runs (may be repeated)")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--sync", session.synchronization,
                   "What the instrument follows and sources, by name or number of \"zornhost sync list\"")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_option(
           "--amplifiers", session.amplifiers,
           "Folder of amplifier definitions (default: amplifiers in the working directory, else the program's own)")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_option("--cycle", session.cycleTimeMs, "Cycle time of the host in ms")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    std::string lockFile = InstrumentLock::defaultFile;
    auto* lockOption =
        app.add_option(
               "--lock", lockFile,
               "File whose lock says that a process holds the instrument; the same for all programs that use it. "
               "A simulated instrument belongs to its process and is locked only where a file is named")
            ->envname("KESTRIX_LOCK")
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
            ->capture_default_str();
    app.add_flag("--json", session.json, "Reports as JSON");

    std::string path;
    std::string value;
    RecordOptions recording;
    MonitorOptions monitoring;
    auto* info = app.add_subcommand("info", "Versions, module and instrument");
    auto* tree = app.add_subcommand("tree", "Devices, folders and channels");
    std::optional<int64_t> near;
    size_t rateCount = 4;
    auto* rates = app.add_subcommand("rates", "Rates that each level can run at near a request, for every base clock");
    rates->add_option("--near", near, "The request, S/s (default: the system's rate)")
        ->check(CLI::Range(int64_t{1}, int64_t{2147483647}));
    rates->add_option("--count", rateCount, "Rates at or below the request, and as many above it")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    auto* list = app.add_subcommand("list", "Properties of a node: value, default, limits, choices, unit");
    list->add_option("path", path, "Names joined by /, below the root; empty for the data module");
    auto* get = app.add_subcommand("get", "Value of a property");
    get->add_option("path", path, "Node and property, joined by /")->required();
    auto* set = app.add_subcommand("set", "Set a property and print what it became");
    set->add_option("path", path, "Node and property, joined by /")->required();
    set->add_option("value", value, "New value; for selections the index or the text of the choice")->required();
    auto* sync = app.add_subcommand("sync", "Synchronization of the instrument");
    auto* syncList = sync->add_subcommand("list", "What it can follow and source");
    sync->require_subcommand(1);
    auto* rec = app.add_subcommand("record", "Record channels into an HDF5 file");
    rec->add_option("-o,--output", recording.file,
                    "File to write; one that is there is replaced. /dev/null: take the samples and write nothing")
        ->required();
    rec->add_option("-d,--duration", recording.durationS, "Seconds")->required()->check(secondsAbove0());
    rec->add_option("--rate", recording.rate, "Sample rate of the system, S/s");
    rec->add_option("--channel", recording.channels,
                    "Pattern (* and ?) of channels to record, e.g. \"AI 1/*\" (may be repeated)")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    rec->add_flag("--strict", recording.strict,
                  "Don't record with an amplifier that has not taken its settings, or a clock that is not locked");
    auto* mon = app.add_subcommand("monitor", "Live table of the channels");
    mon->add_option("-d,--duration", monitoring.durationS, "Seconds; until Ctrl-C when not given")
        ->check(secondsAbove0());
    mon->add_option("--interval", monitoring.intervalS, "Seconds between two tables")
        ->check(CLI::Range(0.05, 60.0))
        ->capture_default_str();
    mon->add_option("--rate", monitoring.rate, "Sample rate of the system, S/s");
    mon->add_option("--channel", monitoring.channels, "Pattern of channels to watch (may be repeated)")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);

    for (auto [command, routes] : {std::pair(rec, &recording.routes), std::pair(mon, &monitoring.routes)}) {
        command
            ->add_option(
                "--route", *routes,
                "\"AI 1/Raw input -> CAN Port 1 id 0x123 every 10\": the newest sample goes out on every tenth "
                "cycle, scaled, in the source's unit, as a 32 bit float in a message that always has the extended "
                "format. \"AI 1/Raw input -> AO 1 [from range]\": as the value of an analog output. May be "
                "repeated")
            ->expected(1)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    }
    for (auto [command, timeout] :
         {std::pair(rec, &recording.lockTimeoutS), std::pair(mon, &monitoring.lockTimeoutS)}) {
        command
            ->add_option("--lock-timeout", *timeout,
                         "Seconds to wait before the start for a clock that follows a reference to lock; 0: none")
            ->check(CLI::Range(0.0, 1e6))
            ->capture_default_str();
    }
    const ClockCommandLine clock(app);
    const StatusCommandLine status(app);
    const DoctorCommandLine doctor(app);
    const CanCommandLine can(app);
    const AmplifierCommandLine amplifier(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& failure) {
        const auto unknown = app.remaining();
        if (!app.get_subcommands().empty() || unknown.empty()) {
            return app.exit(failure) == 0 ? 0 : 2;
        }
        std::vector<std::string> names;
        for (const auto* command : app.get_subcommands({})) {
            names.push_back(command->get_name());
        }
        writeError(
            fmt::format("zornhost: there is no command \"{}\"; there is {}\n", unknown[0], fmt::join(names, ", ")));
        return 2;
    }
    if (simulate->count() > 0) {
        session.simulate = scenario;
    }

    Interrupt::install();
    occupyStandardDescriptors();
    try {
        if (amplifier.checks()) {
            Output output(false);
            return amplifier.runCheck(output, session.json);
        }
        if (can.exports()) {
            Output output(false);
            return checkOutput(output, can.runExport(output));
        }
        ensureSimulation(session, argv);
        // Before anything of the instrument is touched, and until all of it has been given back.
        std::optional<InstrumentLock> lock;
        Output output(log->count() > 0);
        const bool locks = lockOption->count() > 0 || !runsOnSimulation();
        if (doctor.parsed()) {
            return checkOutput(output, doctor.run(session, locks ? lockFile : std::string(), output));
        }
        if (locks) {
            try {
                lock.emplace(lockFile, commandLine(argc, argv));
            } catch (const InstrumentBusy& busy) {
                if ((!clock.parsed() && !status.parsed()) || busy.socket().empty()) {
                    throw;
                }
                if (!session.synchronization.empty() || !session.settings.empty()) {
                    throw std::runtime_error(
                        fmt::format("--sync and --set are for a process that holds the instrument: {}", busy.what()));
                }
                return checkOutput(output, status.parsed() ? status.runOn(busy.socket(), output, session.json)
                                                           : clock.runOn(busy.socket(), output, session.json));
            }
            recording.lock = monitoring.lock = &*lock;
        }
        Session live(session);
        live.open();
        int result = 0;
        if (info->parsed()) {
            result = showInfo(live, output, session.json);
        } else if (tree->parsed()) {
            result = showTree(live, output, session.json);
        } else if (rates->parsed()) {
            result = showRates(live, output, session.json, near, rateCount);
        } else if (list->parsed()) {
            result = listProperties(live, output, session.json, path);
        } else if (get->parsed()) {
            result = getProperty(live, output, session.json, path);
        } else if (set->parsed()) {
            result = setProperty(live, output, session.json, path, value);
        } else if (syncList->parsed()) {
            result = listOptions(live, output, session.json);
        } else if (rec->parsed()) {
            result = record(live, output, session.json, recording);
        } else if (amplifier.parsed()) {
            result = amplifier.run(live, output, session.json);
        } else if (can.parsed()) {
            result = can.run(live, output, session.json);
        } else if (clock.parsed()) {
            result = clock.run(live, lock ? &*lock : nullptr, output, session.json);
        } else if (status.parsed()) {
            result = status.run(live, lock ? &*lock : nullptr, output, session.json);
        } else if (mon->parsed()) {
            result = monitor(live, output, session.json, monitoring);
        }
        live.close();
        return checkOutput(output, result);
    } catch (const InstrumentBusy& busy) {
        writeError(fmt::format("zornhost: {}\n", busy.what()));
        return instrumentBusy;
    } catch (const std::exception& failure) {
        writeError(fmt::format("zornhost: {}\n", oneLine(failure.what())));
        return 1;
    }
}

}  // namespace zornhost
