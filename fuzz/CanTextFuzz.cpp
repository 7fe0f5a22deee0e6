#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "tools/zornhost/CanFrame.h"
#include "tools/zornhost/RouteText.h"

using namespace zornhost;

namespace {

// Nothing when the text is refused, as most are.
template <typename Read>
auto taken(const Read& read) -> std::optional<decltype(read())> {
    try {
        return read();
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

void require(bool holds) {
    if (!holds) {
        __builtin_trap();
    }
}

}  // namespace

// What nobody would write as a route, a frame or a filter is refused with a reason; what is taken and written out again
// is taken for the same.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    if (text.ends_with('\n')) {
        text.pop_back();  // of a file to start from
    }
    if (const auto route = taken([&] { return routeFromText(text); })) {
        const Route again = routeFromText(routeText(*route));
        require(again.source == route->source && again.target == route->target && again.can == route->can &&
                again.id == route->id && again.every == route->every && again.byRange == route->byRange);
        require(route->id <= 0x1FFFFFFF && route->every >= 1);
    }
    if (const auto frame = taken([&] { return frameFromText(text); })) {
        const CanFrame again = frameFromText(frameText(*frame));
        require(again.id == frame->id && again.length == frame->length && again.data == frame->data);
        // From a standard frame without data to an extended one with a stuff bit wherever one fits.
        require(bitsOf(*frame) >= 47 && bitsOf(*frame) <= 160);
    }
    taken([&] { return CanFilter({text}).passes(0x123); });
    return 0;
}
