#include "tools/zornhost/ErrorLog.h"

#include <algorithm>
#include <cctype>

#include "tools/zornhost/Output.h"

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

constexpr int errorLevel = 4;
constexpr size_t mostKinds = 50;

std::string keyOf(const std::string& source, const std::string& text) {
    std::string key = source + ": ";
    for (const char c : text) {
        const bool digit = std::isdigit(static_cast<unsigned char>(c)) != 0;
        if (!digit || key.back() != '#') {
            key += digit ? '#' : c;
        }
    }
    return key;
}

}  // namespace

ErrorLog::ErrorLog() {
    addLogSink(this, errorLevel);
}

ErrorLog::~ErrorLog() {
    removeLogSink(this);
}

void ErrorLog::write(const LogRecord& record) {
    const std::string source = record.logger;
    // Where in the source it was said is of no use to who measures.
    std::string text = oneLine(record.message);
    if (text.starts_with('[') && text.find("] ") != std::string::npos) {
        text.erase(0, text.find("] ") + 2);
    }
    std::string key = keyOf(source, text);
    const std::lock_guard lock(mutex_);
    const auto found = std::find_if(kinds_.begin(), kinds_.end(), [&](const Kind& kind) { return kind.key == key; });
    int64_t count = 1;
    if (found != kinds_.end()) {
        count += found->error.count;
        kinds_.erase(found);
    }
    kinds_.push_front({std::move(key), {source, std::move(text), count, record.timeUs}});
    if (kinds_.size() > mostKinds) {
        kinds_.pop_back();
    }
}

std::vector<HealthFigures::Error> ErrorLog::errors() const {
    const std::lock_guard lock(mutex_);
    std::vector<HealthFigures::Error> errors;
    for (const Kind& kind : kinds_) {
        errors.push_back(kind.error);
    }
    return errors;
}

}  // namespace zornhost
