#pragma once

#include <CLI/CLI.hpp>

namespace zornhost {

// A number of seconds that a clock can reach. (CLI11's own check lets "nan" pass and names a limit of 309 digits.)
const CLI::Validator& secondsAbove0();

}  // namespace zornhost
