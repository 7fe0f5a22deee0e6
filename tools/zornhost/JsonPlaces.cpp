#include "tools/zornhost/JsonPlaces.h"

#include <algorithm>
#include <set>

namespace zornhost {

namespace {

constexpr int deepest = 64;  // the host's reader goes no deeper either

}  // namespace

JsonPlaces::JsonPlaces(std::string_view text) : text_(text) {
    space();
    offsets_[""] = at_;
    value("", 0);
}

JsonPlaces::Place JsonPlaces::find(std::string path) const {
    while (true) {
        if (const auto found = offsets_.find(path); found != offsets_.end()) {
            return placeOf(found->second);
        }
        const size_t slash = path.rfind('/');
        if (slash == std::string::npos) {
            return placeOf(0);
        }
        path.resize(slash);
    }
}

std::optional<JsonPlaces::Place> JsonPlaces::repeatedKey() const {
    if (!repeated_) {
        return std::nullopt;
    }
    return placeOf(*repeated_);
}

JsonPlaces::Place JsonPlaces::placeOf(size_t offset) const {
    const std::string_view before = text_.substr(0, offset);
    const auto lines = static_cast<size_t>(std::count(before.begin(), before.end(), '\n'));
    const size_t lineStart = before.rfind('\n');
    return {lines + 1, offset - (lineStart == std::string_view::npos ? 0 : lineStart + 1) + 1};
}

void JsonPlaces::space() {
    while (at_ < text_.size() &&
           (text_[at_] == ' ' || text_[at_] == '\t' || text_[at_] == '\n' || text_[at_] == '\r')) {
        ++at_;
    }
}

bool JsonPlaces::take(char character) {
    space();
    if (failed_ || at_ >= text_.size() || text_[at_] != character) {
        return false;
    }
    ++at_;
    return true;
}

// A key with escapes keeps them: no message names one in any other way.
std::string JsonPlaces::string() {
    if (!take('"')) {
        failed_ = true;
        return {};
    }
    const size_t begin = at_;
    while (at_ < text_.size() && text_[at_] != '"') {
        at_ += text_[at_] == '\\' ? 2 : 1;
    }
    if (at_ >= text_.size()) {
        failed_ = true;
        return {};
    }
    return std::string(text_.substr(begin, at_++ - begin));
}

void JsonPlaces::value(const std::string& path, int depth) {
    space();
    if (failed_ || at_ >= text_.size() || depth > deepest) {
        failed_ = true;
        return;
    }
    switch (text_[at_]) {
        case '{':
            object(path, depth);
            break;
        case '[':
            list(path, depth);
            break;
        case '"':
            string();
            break;
        default:
            at_ = std::min(text_.find_first_of(",]} \t\r\n", at_), text_.size());
            break;
    }
}

void JsonPlaces::object(const std::string& path, int depth) {
    take('{');
    if (take('}')) {
        return;
    }
    std::set<std::string> keys;
    do {
        space();
        const size_t begin = at_;
        const std::string key = string();
        if (!take(':')) {
            failed_ = true;
            return;
        }
        if (!keys.insert(key).second && !repeated_) {
            repeated_ = begin;
        }
        const std::string member = path + "/" + key;
        offsets_.emplace(member, begin);
        value(member, depth + 1);
    } while (take(','));
    if (!take('}')) {
        failed_ = true;
    }
}

void JsonPlaces::list(const std::string& path, int depth) {
    take('[');
    if (take(']')) {
        return;
    }
    size_t index = 0;
    do {
        space();
        const std::string item = path + "/" + std::to_string(index++);
        offsets_.emplace(item, at_);
        value(item, depth + 1);
    } while (take(','));
    if (!take(']')) {
        failed_ = true;
    }
}

}  // namespace zornhost
