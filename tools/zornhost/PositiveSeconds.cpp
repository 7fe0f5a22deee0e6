#include "tools/zornhost/PositiveSeconds.h"

#include <fmt/format.h>

#include <cmath>
#include <string>

namespace zornhost {

const CLI::Validator& secondsAbove0() {
    static const CLI::Validator validator(
        [](const std::string& text) {
            double seconds = 0.0;
            const bool number = CLI::detail::lexical_cast(text, seconds);
            return number && std::isfinite(seconds) && seconds > 0.0
                       ? std::string()
                       : fmt::format("\"{}\" is no number of seconds above 0", text);
        },
        "SECONDS");
    return validator;
}

}  // namespace zornhost
