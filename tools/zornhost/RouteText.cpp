#include "tools/zornhost/RouteText.h"

#include <fmt/format.h>

#include <cctype>
#include <charconv>
#include <optional>
#include <stdexcept>

namespace zornhost {

namespace {

constexpr uint32_t greatestId = 0x1FFFFFFF;
constexpr std::string_view arrow = "->";

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())) != 0) {
        text.remove_prefix(1);
    }
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0) {
        text.remove_suffix(1);
    }
    return text;
}

std::optional<int64_t> numberOf(std::string_view text) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) {
        text.remove_prefix(2);
    }
    int64_t value = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value, hexadecimal ? 16 : 10);
    return failure == std::errc() && end == text.data() + text.size() && !text.empty() && value >= 0
               ? std::optional(value)
               : std::nullopt;
}

// Takes " WORD VALUE" off the end of the text.
std::optional<std::string_view> takeEnd(std::string_view& text, std::string_view word) {
    const size_t space = text.rfind(' ');
    if (space == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view value = text.substr(space + 1);
    const std::string_view before = trimmed(text.substr(0, space));
    if (!before.ends_with(word) || before.size() == word.size() || before[before.size() - word.size() - 1] != ' ') {
        return std::nullopt;
    }
    text = trimmed(before.substr(0, before.size() - word.size()));
    return value;
}

[[noreturn]] void refuse(std::string_view text, const std::string& why) {
    throw std::runtime_error(fmt::format(
        "\"{}\" is no route: {}; write it as \"AI 1/Raw input -> CAN Port 1 id 0x123 every 10\" or \"AI 1/Raw input -> "
        "AO 1 [from range]\"",
        text, why));
}

}  // namespace

Route routeFromText(std::string_view text) {
    const size_t at = text.find(arrow);
    if (at == std::string_view::npos) {
        refuse(text, "there is no ->");
    }
    Route route;
    route.source = trimmed(text.substr(0, at));
    std::string_view rest = trimmed(text.substr(at + arrow.size()));
    if (const auto every = takeEnd(rest, "every")) {
        const auto cycles = numberOf(*every);
        if (!cycles || *cycles < 1) {
            refuse(text, fmt::format("\"{}\" is no number of cycles", *every));
        }
        route.every = *cycles;
        route.can = true;
    }
    if (const auto id = takeEnd(rest, "id")) {
        const auto number = numberOf(*id);
        if (!number || *number > greatestId) {
            refuse(text, fmt::format("\"{}\" is no identifier up to 0x1FFFFFFF", *id));
        }
        route.id = static_cast<uint32_t>(*number);
        route.can = true;
    } else if (route.can) {
        refuse(text, "a message has an id");
    }
    constexpr std::string_view byRange = " from range";
    if (!route.can && rest.ends_with(byRange)) {
        route.byRange = true;
        rest = trimmed(rest.substr(0, rest.size() - byRange.size()));
    }
    route.target = rest;
    if (route.source.empty() || route.target.empty()) {
        refuse(text, "a channel is missing");
    }
    return route;
}

std::string routeText(const Route& route) {
    return route.can ? fmt::format("{} -> {} id 0x{:X} every {}", route.source, route.target, route.id, route.every)
                     : fmt::format("{} -> {}{}", route.source, route.target, route.byRange ? " from range" : "");
}

}  // namespace zornhost
