#pragma once

namespace Harvane::Ptp {

// Settings of the client: a table of items, each with a type, a default and a range. An item has a value in the global
// section, and another one in each section in which it was set. To ask for an item that doesn't exist, or for one of
// another type, is a mistake of the program: it is named on standard error, and the process ends.
struct config;

inline constexpr const char* global_section = "global";

config* config_create();  // null without memory
void config_destroy(config* settings);

// A null section is the global one. 0, or -1 and nothing changed when the value is out of the item's range.
int config_set_section_int(config* settings, const char* section, const char* name, int value);

// Of the section; of the global one when it has no value there. Texts live as long as the process.
int config_get_int(const config* settings, const char* section, const char* name);
const char* config_get_string(const config* settings, const char* section, const char* name);

}  // namespace Harvane::Ptp
