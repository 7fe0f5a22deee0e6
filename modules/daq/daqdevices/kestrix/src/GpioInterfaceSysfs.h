#pragma once

#include <string>

// GPIO lines by the base of their chip and the pin on it. The lines have to be exported already.
// A file that can't be opened, read or written throws std::system_error; a count other than 1 std::runtime_error.
class GpioInterfaceSysfs {
public:
    void set(int base, int pin, bool value);
    bool get(int base, int pin);
    // For the cycle: allocates nothing. 0, or why it can't be read as an errno; EIO where there is nothing to read.
    static int tryGet(int base, int pin, bool& value) noexcept;
    static std::string path(int base, int pin);
};
