#include "libraries/protocols/ptp/config.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <unordered_map>

namespace Harvane::Ptp {

namespace {

enum class Type { Int, String };

struct Item {
    const char* name;
    Type type;
    int number;  // the default, as far as it is a number
    int lowest;
    int highest;
    const char* text;  // the default, as far as it is a text
};

constexpr Item items[] = {
    {"verbose", Type::Int, 0, 0, 1, nullptr},
    {"use_syslog", Type::Int, 1, 0, 1, nullptr},
    {"logging_level", Type::Int, 6, 0, 7, nullptr},
    {"domainNumber", Type::Int, 0, 0, 127, nullptr},
    {"transportSpecific", Type::Int, 0, 0, 15, nullptr},
    {"uds_address", Type::String, 0, 0, 0, "/var/run/ptp4l"},
};

std::string keyOf(const char* section, const char* name) {
    return std::string(section != nullptr ? section : global_section) + "." + name;
}

}  // namespace

struct config {
    std::unordered_map<std::string, Item> values;  // by "section.name"
};

namespace {

[[noreturn]] void bug(const char* name, const char* what) {
    std::fprintf(stderr, "bug: config option %s %s!\n", name, what);
    std::abort();
}

const Item& find(const config& settings, const char* section, const char* name, Type type) {
    auto found = settings.values.find(keyOf(section, name));
    if (found == settings.values.end()) {
        found = settings.values.find(keyOf(nullptr, name));
    }
    if (found == settings.values.end()) {
        bug(name, "missing");
    }
    if (found->second.type != type) {
        bug(name, "type mismatch");
    }
    return found->second;
}

}  // namespace

config* config_create() {
    try {
        auto made = std::make_unique<config>();
        for (const Item& item : items) {
            made->values.emplace(keyOf(nullptr, item.name), item);
        }
        return made.release();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void config_destroy(config* settings) {
    delete settings;
}

int config_set_section_int(config* settings, const char* section, const char* name, int value) {
    Item item = find(*settings, section, name, Type::Int);
    if (value < item.lowest || value > item.highest) {
        return -1;
    }
    item.number = value;
    settings->values.insert_or_assign(keyOf(section, name), item);
    return 0;
}

int config_get_int(const config* settings, const char* section, const char* name) {
    return find(*settings, section, name, Type::Int).number;
}

const char* config_get_string(const config* settings, const char* section, const char* name) {
    return find(*settings, section, name, Type::String).text;
}

}  // namespace Harvane::Ptp
