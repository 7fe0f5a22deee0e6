#include "simulator/model/CanCommands.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <limits>
#include <optional>
#include <system_error>

namespace kestrixsim {

namespace {

constexpr std::string_view countLine = R"(ls -A /sys/class/net | grep "can" | wc -l)";

// Exit statuses of the tool.
constexpr int noDevice = 1;
constexpr int refused = 2;  // by the kernel
constexpr int wrongArgument = 255;

enum class Setting { Up, Down, Bitrate, ListenOnly, QueueLength, Restart };

// "@" stands for the interface, "#" for the value.
struct Form {
    Setting setting;
    std::array<std::string_view, 8> words;
};
constexpr auto forms = std::to_array<Form>({
    {Setting::Up, {"ip", "link", "set", "up", "@"}},
    {Setting::Down, {"ip", "link", "set", "down", "@"}},
    {Setting::Bitrate, {"ip", "link", "set", "@", "type", "can", "bitrate", "#"}},
    {Setting::ListenOnly, {"ip", "link", "set", "@", "type", "can", "listen-only", "#"}},
    {Setting::QueueLength, {"ip", "link", "set", "@", "txqueuelen", "#"}},
    {Setting::Restart, {"ip", "link", "set", "@", "type", "can", "restart-ms", "#"}},
});

// Empty if the line has anything that a shell would not take as it stands.
std::vector<std::string> wordsOf(const std::string& line) {
    std::vector<std::string> words;
    bool inside = false;
    for (const char c : line) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                           c == '.' || c == '_' || c == '+' || c == ':';
        if (!plain && c != ' ' && c != '\t') {
            return {};
        }
        if (plain && !inside) {
            words.emplace_back();
        }
        inside = plain;
        if (plain) {
            words.back() += c;
        }
    }
    return words;
}

struct Match {
    Setting setting;
    std::string name;
    std::string value;
};

std::optional<Match> match(const std::vector<std::string>& words) {
    for (const Form& form : forms) {
        Match found{form.setting, {}, {}};
        bool fits = true;
        for (size_t i = 0; i < form.words.size() && fits; ++i) {
            const std::string word = i < words.size() ? words[i] : std::string();
            if (form.words[i] == "@" || form.words[i] == "#") {
                (form.words[i] == "@" ? found.name : found.value) = word;
                fits = !word.empty();
            } else {
                fits = word == form.words[i];
            }
        }
        if (fits && words.size() <= form.words.size()) {
            return found;
        }
    }
    return std::nullopt;
}

// As the tool reads numbers: decimal, 0x hexadecimal, 0 octal.
std::optional<uint32_t> numberOf(std::string_view text, uint32_t highest) {
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    } else if (text.size() > 1 && text.front() == '0') {
        base = 8;
    }
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    const bool whole = !text.empty() && error == std::errc() && end == text.data() + text.size();
    return whole && value <= highest ? std::optional(value) : std::nullopt;
}

CommandResult wrongNumber(const std::string& value, std::string_view what) {
    return {{}, "Error: argument \"" + value + "\" is wrong: " + std::string(what) + "\n\n", wrongArgument};
}

CommandResult answer(int result, const std::string& name) {
    if (result == 0) {
        return {};
    }
    if (result == -ENODEV) {
        return {{}, "Cannot find device \"" + name + "\"\n", noDevice};
    }
    return {{}, "RTNETLINK answers: " + std::generic_category().message(-result) + "\n", refused};
}

}  // namespace

bool CanCommands::owns(const std::string& commandLine) const {
    if (commandLine == countLine) {
        return bus_.served();
    }
    if (!commandLine.starts_with("ip")) {
        return false;
    }
    const auto found = match(wordsOf(commandLine));
    return found && bus_.ownsName(found->name);
}

CommandResult CanCommands::run(const std::string& commandLine) {
    if (commandLine == countLine) {
        const bool silent = faults_.hit(FaultKind::CanCommandSilent).has_value();
        return {silent ? std::string() : std::to_string(bus_.interfaces()) + "\n", {}, 0};
    }
    if (const auto fault = faults_.hit(FaultKind::CanCommandStatus)) {
        return {{}, {}, fault->code != 0 ? fault->code : refused};
    }
    return link(wordsOf(commandLine));
}

CommandResult CanCommands::link(const Words& words) {
    const auto found = match(words);
    if (!found) {
        return {};
    }
    const auto& [setting, name, value] = *found;
    constexpr uint32_t any = std::numeric_limits<uint32_t>::max();
    switch (setting) {
        case Setting::Up:
            return answer(bus_.setUp(name, true), name);
        case Setting::Down:
            return answer(bus_.setUp(name, false), name);
        case Setting::Bitrate: {
            const auto number = numberOf(value, any);
            return number ? answer(bus_.setBitrate(name, *number), name)
                          : wrongNumber(value, "invalid \"bitrate\" value");
        }
        case Setting::Restart: {
            const auto number = numberOf(value, any);
            return number ? answer(bus_.setRestart(name, *number), name)
                          : wrongNumber(value, "invalid \"restart-ms\" value");
        }
        case Setting::QueueLength: {
            const auto number = numberOf(value, std::numeric_limits<int32_t>::max());
            return number ? answer(bus_.setQueueLength(name, *number), name)
                          : wrongNumber(value, "Invalid \"txqueuelen\" value");
        }
        case Setting::ListenOnly:
            if (value != "on" && value != "off") {
                return {{},
                        "Error: argument of \"listen-only\" must be \"on\" or \"off\", not \"" + value + "\"\n",
                        wrongArgument};
            }
            return answer(bus_.setListenOnly(name, value == "on"), name);
    }
    return {};
}

}  // namespace kestrixsim
