#include "tools/zornhost/HostTree.h"

#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>
#include <functional>
#include <map>

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

std::string joined(const std::string& parent, const std::string& name) {
    return parent.empty() ? name : parent + "/" + name;
}

std::string quotedList(const std::vector<std::string>& names) {
    std::string text;
    for (const auto& name : names) {
        text += (text.empty() ? "\"" : ", \"") + name + "\"";
    }
    return text.empty() ? "nothing" : text;
}

void walk(const ChannelFolderPtr& folder, const std::string& path,
          const std::function<void(const ChannelNodePtr<>&, const std::string&)>& visit) {
    for (const auto& child : folder.getChildren()) {
        const std::string childPath = joined(path, child.getName().toStdString());
        visit(child, childPath);
        if (auto below = child.asPtrOrNull<IChannelFolder>()) {
            walk(ChannelFolderPtr(below), childPath, visit);
        }
    }
}

// The ends of a path that begin at an element, the longest first.
std::vector<std::string> endsOf(const std::string& path) {
    std::vector<std::string> ends{path};
    for (size_t at = path.find('/'); at != std::string::npos; at = path.find('/', at + 1)) {
        ends.push_back(path.substr(at + 1));
    }
    return ends;
}

// Gives each channel the shortest end of its path that is unique, of at least two elements.
void label(std::vector<ChannelEntry>& channels) {
    std::map<std::string, int> seen;
    for (const auto& entry : channels) {
        for (const auto& end : endsOf(entry.path)) {
            ++seen[end];
        }
    }
    for (auto& entry : channels) {
        entry.label = entry.path;
        for (const auto& end : endsOf(entry.path)) {
            if (seen[end] == 1 && end.find('/') != std::string::npos) {
                entry.label = end;
            }
        }
    }
}

}  // namespace

bool hasHardware(const ChannelPtr<>& channel) {
    return !channel.hasProperty("Enabled") || channel.getPropertyValue<bool>("Enabled");
}

std::vector<ChannelEntry> HostTree::channels() const {
    std::vector<ChannelEntry> found;
    walk(dataModule_.getRootFolder(), "", [&](const ChannelNodePtr<>& node, const std::string& path) {
        if (auto channel = node.asPtrOrNull<IChannel>()) {
            found.push_back({ChannelPtr<>(channel), path, {}});
        }
    });
    label(found);
    return found;
}

std::vector<ChannelEntry> HostTree::channels(const std::vector<std::string>& patterns) const {
    auto all = channels();
    if (patterns.empty()) {
        return all;
    }
    std::vector<bool> wanted(all.size(), false);
    for (const auto& pattern : patterns) {
        bool fits = false;
        for (size_t i = 0; i < all.size(); ++i) {
            const auto ends = endsOf(all[i].path);
            if (std::any_of(ends.begin(), ends.end(),
                            [&](const std::string& end) { return ::fnmatch(pattern.c_str(), end.c_str(), 0) == 0; })) {
                fits = wanted[i] = true;
            }
        }
        if (!fits) {
            std::vector<std::string> labels;
            for (const auto& entry : all) {
                labels.push_back(entry.label);
            }
            throw UnknownName(fmt::format("no channel fits \"{}\"; there are {}", pattern, quotedList(labels)));
        }
    }
    std::vector<ChannelEntry> chosen;
    for (size_t i = 0; i < all.size(); ++i) {
        if (wanted[i]) {
            chosen.push_back(all[i]);
        }
    }
    return chosen;
}

NodeEntry HostTree::node(std::string_view path) const {
    while (!path.empty() && path.back() == '/') {
        path.remove_suffix(1);
    }
    if (path.empty()) {
        return {dataModule_.asPtr<IPropertyObject>(), ""};
    }

    ChannelFolderPtr folder = dataModule_.getRootFolder();
    std::string walked;
    std::string_view rest = path;
    while (true) {
        const size_t slash = rest.find('/');
        const std::string_view name = rest.substr(0, slash);
        ChannelNodePtr<> next;
        std::vector<std::string> names;
        for (const auto& child : folder.getChildren()) {
            const auto childName = child.getName();
            names.push_back(childName.toStdString());
            if (!next && childName == name) {
                next = child;
            }
        }
        if (!next) {
            throw UnknownName(fmt::format("there is no \"{}\" below \"{}\"; there is {}", name,
                                          walked.empty() ? "/" : walked, quotedList(names)));
        }
        walked = joined(walked, std::string(name));
        if (slash == std::string_view::npos) {
            return {next.asPtr<IPropertyObject>(), walked};
        }
        rest = rest.substr(slash + 1);
        auto below = next.asPtrOrNull<IChannelFolder>();
        if (!below) {
            throw UnknownName(fmt::format("\"{}\" is a channel: there is nothing below it but its properties", walked));
        }
        folder = ChannelFolderPtr(below);
    }
}

PropertyEntry HostTree::property(std::string_view path) const {
    const size_t slash = path.rfind('/');
    const std::string name(slash == std::string_view::npos ? path : path.substr(slash + 1));
    PropertyEntry entry{node(slash == std::string_view::npos ? std::string_view() : path.substr(0, slash)), name};
    // "child.property" and "list[2]" are names too: what counts is the part in front.
    const std::string base = name.substr(0, name.find_first_of(".["));
    if (base.empty() || !entry.owner.node.hasProperty(StringPtr(base))) {
        std::vector<std::string> names;
        for (const auto& info : entry.owner.node.enumProperties(PropertyOrder::Index, true)) {
            names.push_back(info.getName().toStdString());
        }
        throw UnknownName(fmt::format("{} has no property \"{}\"; it has {}",
                                      entry.owner.path.empty() ? "the data module" : "\"" + entry.owner.path + "\"",
                                      base, quotedList(names)));
    }
    return entry;
}

GenericPropertyObjectPtr HostTree::deviceFolder() const {
    GenericPropertyObjectPtr found;
    walk(dataModule_.getRootFolder(), "", [&](const ChannelNodePtr<>& node, const std::string&) {
        if (!found && node.hasProperty("SerialNumber")) {
            found = node.asPtr<IPropertyObject>();
        }
    });
    return found;
}

std::string valueText(const BasePtr& value) {
    if (!value) {
        return "-";
    }
    if (auto list = value.asPtrOrNull<IList>()) {
        const ListPtr items(list);
        std::string text = "[";
        for (size_t i = 0, n = items.getCount(); i < n; ++i) {
            text += (i == 0 ? "" : ", ") + valueText(items.getItemAt(i));
        }
        return text + "]";
    }
    switch (coreTypeOf(value)) {
        case CoreType::Bool:
            return fromValue<bool>(value) ? "true" : "false";
        case CoreType::Float:
            return fmt::format("{}", fromValue<double>(value));
        case CoreType::Ratio: {
            const auto ratio = fromValue<Ratio>(value);
            return ratio.denominator == 1 ? fmt::format("{}", ratio.numerator)
                                          : fmt::format("{}/{}", ratio.numerator, ratio.denominator);
        }
        case CoreType::Proc:
            return "(procedure)";
        case CoreType::Func:
            return "(function)";
        default:
            break;
    }
    if (auto object = value.asPtrOrNull<IPropertyObject>()) {
        const GenericPropertyObjectPtr properties(object);
        if (properties.hasProperty("DisplayName")) {
            return properties.getPropertyValue<std::string>("DisplayName");
        }
        return "(object)";
    }
    return value.asPtrOrNull<IConvertible>() ? fromValue<std::string>(value) : "(object)";
}

}  // namespace zornhost
