#pragma once

#include <string_view>

#include <zorn/objects/serialization.h>

namespace Harvane::RT::Core {

// The newest factory of an identifier; null when there is none.
SerializerFactory findSerializerFactory(std::string_view id);

}  // namespace Harvane::RT::Core
