#pragma once

#include <exception>
#include <ostream>

// plog writes wchar_t texts into a narrow stream, which C++20 deletes. This overload is found first, as it stands in
// plog's own namespace, and writes the characters as far as they are ASCII. Include this header and never plog/Log.h.
namespace plog {

inline std::ostream& operator<<(std::ostream& stream, const wchar_t* text) {
    for (; text && *text; ++text) {
        stream.put(*text > 0 && *text < 128 ? static_cast<char>(*text) : '?');
    }
    return stream;
}

}  // namespace plog

#include <plog/Log.h>

namespace Harvane::RT::Modules::Daq {

// What an exception says, for a log message. Never null.
inline const char* textOf(const std::exception& exception) {
    const char* text = exception.what();
    return text == nullptr ? "(null)" : text;
}

}  // namespace Harvane::RT::Modules::Daq
