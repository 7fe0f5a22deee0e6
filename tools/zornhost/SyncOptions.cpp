#include "tools/zornhost/SyncOptions.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "tools/zornhost/PropertyText.h"

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* chosenName = "Synchronization";
constexpr const char* appliedName = "AppliedSynchronization";
constexpr int standalone = 1;

std::string modeName(int mode) {
    constexpr std::array<std::pair<int, std::string_view>, 5> names{
        {{1, "Standalone"}, {2, "Soft sync"}, {6, "IRIG"}, {12, "PPS"}, {14, "PTP"}}};
    const auto found =
        std::find_if(names.begin(), names.end(), [mode](const auto& each) { return each.first == mode; });
    return found != names.end() ? std::string(found->second) : fmt::format("mode {}", mode);
}

SyncOption optionOf(const BasePtr& value) {
    const ListPtr pair(value.asPtr<IList>());
    SyncOption option;
    option.follows = fromValue<int>(pair.getItemAt(0));
    const ListPtr sources(pair.getItemAt(1).asPtr<IList>());
    for (size_t i = 0, n = sources.getCount(); i < n; ++i) {
        option.sources.push_back(fromValue<int>(sources.getItemAt(i)));
    }
    return option;
}

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

}  // namespace

std::string SyncOption::name() const {
    if (sources.empty()) {
        return modeName(follows);
    }
    std::vector<std::string> parts;
    if (follows != standalone) {
        parts.push_back(modeName(follows) + " in");
    }
    for (const int source : sources) {
        parts.push_back(modeName(source) + " out");
    }
    return fmt::format("{}", fmt::join(parts, ", "));
}

std::string SyncOption::value() const {
    return fmt::format("[{}, [{}]]", follows, fmt::join(sources, ", "));
}

bool SyncOption::isStandalone() const {
    return follows == standalone;
}

SyncOption appliedOption(Session& session) {
    return optionOf(session.tree().dataModule().getPropertyValue<BasePtr>(appliedName));
}

std::vector<SyncOption> offeredOptions(Session& session) {
    std::vector<SyncOption> options;
    const ListPtr list(session.tree().dataModule().getPropertyValue<BasePtr>("SynchronizationOptions").asPtr<IList>());
    for (size_t i = 0, n = list.getCount(); i < n; ++i) {
        options.push_back(optionOf(list.getItemAt(i)));
    }
    return options;
}

SyncOption chooseOption(const std::vector<SyncOption>& offered, const std::string& text) {
    for (size_t i = 0; i < offered.size(); ++i) {
        if (text == std::to_string(i + 1) || lowered(text) == lowered(offered[i].name())) {
            return offered[i];
        }
    }
    std::vector<std::string> names;
    for (size_t i = 0; i < offered.size(); ++i) {
        names.push_back(fmt::format("{} \"{}\"", i + 1, offered[i].name()));
    }
    throw std::runtime_error(
        fmt::format("the instrument has no synchronization \"{}\"; it has {}", text, fmt::join(names, ", ")));
}

void applyOption(Session& session, const std::string& text) {
    const SyncOption option = chooseOption(offeredOptions(session), text);
    session.set(session.tree().property(chosenName), option.value());
}

int listOptions(Session& session, Output& output, bool json) {
    const auto module = session.tree().dataModule();
    const SyncOption chosen = optionOf(module.getPropertyValue<BasePtr>(chosenName));
    const SyncOption applied = appliedOption(session);
    const auto offered = offeredOptions(session);
    Json report = Json::array();
    std::vector<std::vector<std::string>> rows{{">No.", "Name", "Value", "State"}};
    for (size_t i = 0; i < offered.size(); ++i) {
        const bool isChosen = offered[i] == chosen;
        const bool inForce = offered[i] == applied;
        report.push_back(Json{{"number", i + 1},
                              {"name", offered[i].name()},
                              {"follows", offered[i].follows},
                              {"sources", offered[i].sources},
                              {"chosen", isChosen},
                              {"inForce", inForce}});
        rows.push_back({std::to_string(i + 1), offered[i].name(), offered[i].value(),
                        inForce    ? "in force"
                        : isChosen ? "from the next start on"
                                   : ""});
    }
    if (json) {
        output.line(report.dump(2));
    } else {
        output.data(formatTable(rows));
    }
    return 0;
}

}  // namespace zornhost
