#pragma once

#include <algorithm>
#include <array>
#include <string_view>

// Which paths belong to the instrument, and what stands behind each. The one table that the interposed calls and
// `kestrix-sim doors` share: the first door that matches a path decides, a path without a door is not ours.
namespace kestrixsim {

enum class DoorKind {
    Ordinary,     // not the instrument's: passed on
    Memory,       // physical memory with the FPGA blocks
    I2c,          // bus 1
    Uart,         // amplifier port
    DmaRaw,       // stream of 16-bit samples, one node for each module
    DmaFiltered,  // stream of 32-bit samples, one node for each module
    Timing,       // records of the reference's pulses
    Absent,       // belongs to the instrument and is not there: ENOENT
    Files,        // plain files, rewritten into the process's root folder
    Socket,       // Unix sockets, likewise
};

enum class DoorMatch {
    Exact,
    Numbered,  // the text and a decimal number without leading zeros
    Prefix,    // the text and anything
    Tree,      // the text itself and everything below it
};

struct Door {
    std::string_view path;
    DoorMatch match;
    DoorKind kind;
    std::string_view purpose;
};

inline constexpr auto doors = std::to_array<Door>({
    {"/dev/mem", DoorMatch::Exact, DoorKind::Memory, "FPGA blocks: open, mmap, munmap, pread, pwrite"},
    {"/dev/i2c-1", DoorMatch::Exact, DoorKind::I2c, "EEPROM, sensors, multiplexer: read, write, I2C_SLAVE, I2C_RDWR"},
    {"/dev/ttyPS1", DoorMatch::Exact, DoorKind::Uart, "amplifier firmware: read, write, tc* calls, poll, select"},
    {"/dev/tolvn_dma_r", DoorMatch::Numbered, DoorKind::DmaRaw, "raw stream of a module: ioctl, read"},
    {"/dev/tolvn_dma_f", DoorMatch::Numbered, DoorKind::DmaFiltered, "filtered stream of a module: ioctl, read"},
    {"/dev/tolvn_timing", DoorMatch::Exact, DoorKind::Timing, "record of each reference pulse: read, poll, select"},
    {"/dev/tolvn_", DoorMatch::Prefix, DoorKind::Absent, "any other node of the instrument's drivers"},
    {"/sys/class/tolvn_korvel", DoorMatch::Tree, DoorKind::Files, "switches of the timing driver"},
    {"/sys/class/gpio", DoorMatch::Tree, DoorKind::Files, "GPIO lines"},
    {"/sys/class/leds", DoorMatch::Tree, DoorKind::Files, "LEDs"},
    {"/sys/class/hwmon", DoorMatch::Tree, DoorKind::Files, "temperatures"},
    {"/sys/class/net", DoorMatch::Tree, DoorKind::Files, "network addresses"},
    {"/sys/bus/iio", DoorMatch::Tree, DoorKind::Files, "temperatures"},
    {"/board", DoorMatch::Tree, DoorKind::Files, "LEDs of the board"},
    {"/var/run/ptp4l", DoorMatch::Exact, DoorKind::Socket, "PTP daemon: datagrams of its management interface"},
    {"/var/run/ptpapi.", DoorMatch::Prefix, DoorKind::Socket, "sockets of the daemon's clients"},
    {"/opt/harvane/scripts", DoorMatch::Tree, DoorKind::Files, "platform scripts (popen answers them itself)"},
});

struct DoorFound {
    DoorKind kind = DoorKind::Ordinary;
    int number = 0;  // of a numbered door
};

// `path` is absolute and without "//", "/./" and "/../".
constexpr DoorFound findDoor(std::string_view path) {
    for (const Door& door : doors) {
        if (!path.starts_with(door.path)) {
            continue;
        }
        const std::string_view rest = path.substr(door.path.size());
        switch (door.match) {
            case DoorMatch::Exact:
                if (rest.empty()) {
                    return {door.kind, 0};
                }
                break;
            case DoorMatch::Numbered: {
                const bool digits = std::all_of(rest.begin(), rest.end(), [](char c) { return c >= '0' && c <= '9'; });
                if (rest.empty() || rest.size() > 3 || !digits || (rest.size() > 1 && rest[0] == '0')) {
                    break;
                }
                int number = 0;
                for (char c : rest) {
                    number = number * 10 + (c - '0');
                }
                return {door.kind, number};
            }
            case DoorMatch::Prefix:
                return {door.kind, 0};
            case DoorMatch::Tree:
                if (rest.empty() || rest[0] == '/') {
                    return {door.kind, 0};
                }
                break;
        }
    }
    return {};
}

}  // namespace kestrixsim
