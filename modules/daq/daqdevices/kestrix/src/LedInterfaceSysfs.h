#pragma once

#include <cstdint>
#include <exception>
#include <string>

// LEDs of the board by name. The board's own folder is taken where its file is writable, the kernel's otherwise.
// A file that can't be opened, read or written throws std::system_error; a short count std::runtime_error.
class LedInterfaceSysfs {
public:
    void set(const std::string& name, uint8_t brightness);
    uint8_t get(const std::string& name);
    void blink(const std::string& name, bool on);

    static void logFailure(const char* name, const std::exception& failure) noexcept;
};
