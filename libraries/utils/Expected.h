#pragma once

#include <tl/expected.hpp>

// A value, or the reason why there is none. Asking for the value of a failure throws tl::bad_expected_access.
namespace utils {

using tl::expected;
using tl::make_unexpected;
using tl::unexpected;

}  // namespace utils
