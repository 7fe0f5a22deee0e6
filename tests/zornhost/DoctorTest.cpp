#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <thread>

#include "shared/libraries/kestrix/src/paths/InstrumentPaths.h"
#include "tools/zornhost/Doctor.h"
#include "tools/zornhost/InstrumentLock.h"

using namespace zornhost;
namespace fs = std::filesystem;
namespace paths = Harvane::Shared::Kestrix::InstrumentPaths;

namespace {

constexpr gid_t instrumentGroup = 44;
constexpr gid_t otherGroup = 45;
constexpr gid_t ownGroup = 1000;

class Folder {
public:
    Folder() {
        std::string name = (fs::temp_directory_path() / "kestrix-doctor-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no temporary folder");
        }
        path = name;
    }
    ~Folder() { fs::remove_all(path); }
    void write(const std::string& file, const std::string& text) const {
        fs::create_directories(fs::path(path + file).parent_path());
        std::ofstream(path + file) << text;
    }
    std::string path;
};

// A machine whose files are those of a folder and whose rights are worked out here, so that it doesn't matter who runs
// the test. It lacks nothing until a case takes it away.
class TestMachine : public Machine {
public:
    explicit TestMachine(const std::string& root) : Machine(root) {}

    PathStatus status(const std::string& path) const override {
        PathStatus status = Machine::status(path);
        if (status.error != 0) {
            return status;
        }
        const auto special = statuses.find(path);
        if (special != statuses.end()) {
            return special->second;
        }
        status.owner = 0;
        status.group = instrumentGroup;
        if (S_ISREG(status.mode)) {
            status.mode = S_IFREG | (path.ends_with(".sh") ? 0775U : 0664U);
        }
        return status;
    }
    int access(const std::string& path, int mode) const override {
        const PathStatus found = status(path);
        if (found.error != 0) {
            return found.error;
        }
        const bool member =
            std::find(someone.groups.begin(), someone.groups.end(), found.group) != someone.groups.end();
        const unsigned int bits = (found.owner == someone.id ? found.mode >> 6
                                   : member                  ? found.mode >> 3
                                                             : found.mode) &
                                  7U;
        return (static_cast<unsigned int>(mode) & ~bits) == 0 ? 0
               : (mode == (W_OK | X_OK) && readOnly)          ? EROFS
                                                              : EACCES;
    }
    int openDevice(const std::string& path) const override {
        opened.insert(path);
        const auto failure = openFailures.find(path);
        return failure != openFailures.end() ? failure->second : 0;
    }
    MachineUser user() const override { return someone; }
    std::string userName(uid_t id) const override { return id == someone.id ? someone.name : "root"; }
    std::string groupName(gid_t id) const override {
        return id == 0 ? "root" : id == instrumentGroup ? "meters" : id == otherGroup ? "serial" : "anna";
    }
    MachineLimits limits() const override { return limit; }
    MachineClock clock() const override { return time; }
    int cores() const override { return 4; }
    DiskSpace diskSpace(const std::string&) const override { return space; }
    DiskSpeed diskSpeed(const std::string&) const override { return speed; }
    std::optional<std::string> answer(const std::string& command, std::string& failure) const override {
        failure = "has not ended after 5 s";
        asked = command;
        return reply;
    }
    std::string program(const std::string& name) const override { return hasIp ? "/sbin/" + name : ""; }
    bool mayConfigureNetwork() const override { return network; }
    ModuleProbe probeModule(const std::string&) const override { return loaded; }
    bool lives(long process) const override { return process == 77; }

    std::map<std::string, PathStatus> statuses;
    std::map<std::string, int> openFailures;
    mutable std::set<std::string> opened;
    mutable std::string asked;
    MachineUser someone{"anna", 1000, {ownGroup, instrumentGroup}, {ownGroup, instrumentGroup}};
    MachineLimits limit{0, 0, 8 << 20};
    MachineClock time{1'760'000'000, true, 0.002};
    DiskSpace space{0, 1'000'000'000'000};
    DiskSpeed speed{0, 400e6};
    std::optional<std::string> reply = "OK:mode=slave;pps_mode=none";
    ModuleProbe loaded{"", "daq 1.0.0"};
    bool hasIp = true;
    bool network = true;
    bool readOnly = false;
};

struct Bench {
    Bench() : machine(folder.path) {
        unsigned int number = 0;
        const auto device = [&](const std::string& path) {
            folder.write(path, "");
            machine.statuses[path] = {0, S_IFCHR | 0660, 0, instrumentGroup, makedev(240, number++)};
        };
        device(paths::timingDevice);  // 240:0
        for (int module = 0; module < 8; ++module) {
            device(paths::rawStreamDevice + std::to_string(module));  // the first one is 240:1
            device(paths::filteredStreamDevice + std::to_string(module));
        }
        for (const char* path : {paths::memoryDevice, paths::i2cDevice, paths::uartDevice}) {
            device(path);
        }
        for (const char* line : {"504", "505", "506"}) {
            folder.write(std::string(paths::gpioLine) + line + "/value", "0\n");
        }
        for (const char* path :
             {paths::irigInSwitch, paths::irigOutSwitch, paths::ptpCorrection, paths::ptpScript, paths::vcxoScript}) {
            folder.write(path, "0\n");
        }
        for (const char* led : {paths::statusLed, paths::alarmLed}) {
            folder.write(std::string(paths::kernelLeds) + led + "/brightness", "0\n");
            folder.write(std::string(paths::kernelLeds) + led + "/trigger", "none\n");
        }
        for (const char* port : {"can0", "can1", "eth0"}) {
            folder.write(std::string(paths::networkInterfaces) + "/" + port + "/mtu", "16\n");
        }
        folder.write("/proc/sys/kernel/osrelease", "6.1.0-rt\n");
        folder.write("/proc/devices", "Character devices:\n  1 mem\n240 tolvn_timing\n\nBlock devices:\n241 sd\n");
        folder.write("/sys/module/tolvn_timing/version", "1.4\n");
        folder.write("/sys/module/tolvn_dma/version", "2.1\n");
        fs::create_directories(folder.path + "/sys/dev/char/240:1/device/driver");
        fs::create_symlink("../../../../module/tolvn_dma", folder.path + "/sys/dev/char/240:1/device/driver/module");
        for (const char* cpu : {"cpu0", "cpu1"}) {
            folder.write(std::string("/sys/devices/system/cpu/") + cpu + "/cpufreq/scaling_governor", "performance\n");
        }
        fs::create_directories(folder.path + "/sys/devices/system/cpu/cpufreq");
        folder.write("/proc/loadavg", "0.31 0.2 0.1 1/200 4711\n");
        folder.write("/run/kestrix-77.sock", "");  // of a process that lives
        fs::create_directories(folder.path + "/data");
        fs::create_directories(folder.path + "/tmp/kestrix-sim.77.abcdef");
        machine.statuses["/data"] = {0, S_IFDIR | 0755, 1000, ownGroup, 0};
        folder.write("/module.zmod", "");
        questions.module = folder.path + "/module.zmod";
        questions.definitions = KESTRIX_AMPLIFIERS;
        questions.lockFile = folder.path + "/kestrix.lock";
        questions.socketFolder = "/run";
        questions.temporaryFolder = "/tmp";
        questions.recordings = "/data";
        questions.bytesPerSecond = fastestBytesPerSecond;
        questions.program = "/usr/bin/zornhost";
    }
    void remove(const std::string& path) const { fs::remove_all(folder.path + path); }

    Folder folder;
    TestMachine machine;
    DoctorQuestions questions;
};

struct Broken {
    const char* name;
    std::function<void(Bench&)> how;
    const char* check;
    CheckState state;
    const char* found;             // part of what is said
    const char* fix;               // part of its command lines
    std::set<std::string> also{};  // other checks that are not OK then
};

constexpr CheckState warning = CheckState::Warn;
constexpr CheckState failure = CheckState::Fail;

void setMode(Bench& bench, const std::string& path, mode_t mode, gid_t group) {
    PathStatus status = bench.machine.status(path);
    status.mode = (status.mode & S_IFMT) | mode;
    status.group = group;
    bench.machine.statuses[path] = status;
}

void hold(Bench& bench) {
    static std::optional<InstrumentLock> lock;
    lock.reset();
    lock.emplace(bench.questions.lockFile, "zornhost record -o night.h5");
}

const std::vector<Broken>& situations() {
    static const std::string irigIn = paths::irigInSwitch;
    static const std::vector<Broken> table{
        // Devices: there, of the right kind, with the rights, and answering.
        {"no memory device", [](Bench& b) { b.remove("/dev/mem"); }, "memory device", failure, "/dev/mem is not there",
         "sudo mknod -m 660 /dev/mem c 1 1"},
        {"no I2C driver", [](Bench& b) { b.remove("/dev/i2c-1"); }, "I2C bus", failure, "its driver is not loaded",
         "sudo modprobe i2c-dev"},
        {"a file in place of a device", [](Bench& b) { b.machine.statuses["/dev/ttyPS1"].mode = S_IFREG | 0666; },
         "amplifier port", failure, "is a plain file", "sudo mv /dev/ttyPS1 /tmp/ttyPS1.wrong"},
        {"in another group", [](Bench& b) { setMode(b, "/dev/ttyPS1", 0660, otherGroup); }, "amplifier port", failure,
         "anna may not read and write /dev/ttyPS1 (root:serial 0660); it is for group serial",
         "sudo usermod -aG serial anna"},
        {"no new login since",
         [](Bench& b) {
             setMode(b, "/dev/i2c-1", 0660, otherGroup);
             b.machine.someone.registered.push_back(otherGroup);
         },
         "I2C bus", failure, "anna belongs to group serial, but not in this session: log in again", "newgrp serial"},
        {"a group that may only read", [](Bench& b) { setMode(b, "/dev/i2c-1", 0640, instrumentGroup); }, "I2C bus",
         failure, "anna may not read and write /dev/i2c-1 (root:meters 0640)", "sudo chmod g+rw /dev/i2c-1"},
        {"root's alone", [](Bench& b) { setMode(b, "/dev/mem", 0660, 0); }, "memory device", failure,
         "(root:root 0660); log in again", "KERNEL==\"mem\", GROUP=\"kestrix\", MODE=\"0660\""},
        {"no right of raw I/O", [](Bench& b) { b.machine.openFailures["/dev/mem"] = EPERM; }, "memory device", failure,
         "is there (root:meters 0660), but can't be opened: Operation not permitted",
         "sudo setpriv --reuid anna --regid $(id -g anna) --init-groups --inh-caps +sys_rawio"},
        {"a port in use", [](Bench& b) { b.machine.openFailures["/dev/ttyPS1"] = EBUSY; }, "amplifier port", failure,
         "another program has it", "sudo fuser -v /dev/ttyPS1"},
        {"a node of a driver that is gone", [](Bench& b) { b.machine.openFailures["/dev/tolvn_timing"] = ENXIO; },
         "timing device", failure, "no device answers there", "sudo modprobe tolvn_timing"},
        {"no streams",
         [](Bench& b) {
             for (int module = 0; module < 8; ++module) {
                 b.remove(paths::rawStreamDevice + std::to_string(module));
                 b.remove(paths::filteredStreamDevice + std::to_string(module));
             }
         },
         "data streams",
         failure,
         "there is no /dev/tolvn_dma_r0",
         "sudo modprobe tolvn_dma",
         {"drivers"}},
        {"a stream without its fellow", [](Bench& b) { b.remove("/dev/tolvn_dma_f7"); }, "data streams", failure,
         "/dev/tolvn_dma_f7 is not there", "sudo modprobe tolvn_dma"},
        {"a gap between streams",
         [](Bench& b) {
             b.remove("/dev/tolvn_dma_r3");
             b.remove("/dev/tolvn_dma_f3");
         },
         "data streams", failure, "/dev/tolvn_dma_r3 is not there", ""},
        {"a stream that can't be opened", [](Bench& b) { b.machine.openFailures["/dev/tolvn_dma_f5"] = EIO; },
         "data streams", failure, "/dev/tolvn_dma_f5 is there", ""},
        // Files of the kernel.
        {"a line that is not exported", [](Bench& b) { b.remove("/sys/class/gpio/gpio505"); }, "GPIO lines", failure,
         "gpio505/value: No such file", "echo 505 | sudo tee /sys/class/gpio/export"},
        {"a switch that is root's", [](Bench& b) { setMode(b, irigIn, 0644, 0); }, "timing switches", failure,
         "anna may not write /sys/class/tolvn_korvel", "sudo chown anna /sys/class/tolvn_korvel"},
        {"no alarm lamp", [](Bench& b) { b.remove("/sys/class/leds/alarm"); }, "LEDs", warning,
         "alarm/brightness: No such file", "ls -l /board/leds"},
        // Scripts.
        {"no script", [](Bench& b) { b.remove(paths::vcxoScript); }, "oscillator script", failure, "No such file",
         "sudo install -D -m 755 vcxo_control.sh"},
        {"a script that can't be run", [](Bench& b) { setMode(b, paths::ptpScript, 0664, instrumentGroup); },
         "role script", failure, "anna may not run", "sudo chmod 755 /opt/harvane/scripts/ptp_control.sh"},
        {"a script that refuses", [](Bench& b) { b.machine.reply = "ERR:daemon"; }, "role script", failure,
         "answers \"ERR:daemon\" to \"status\"", "sh -x /opt/harvane/scripts/ptp_control.sh status"},
        {"a script that is silent", [](Bench& b) { b.machine.reply = ""; }, "role script", failure,
         "doesn't answer to \"status\"", ""},
        {"a script that hangs", [](Bench& b) { b.machine.reply.reset(); }, "role script", failure,
         "has not ended after 5 s", ""},
        // Module and definitions.
        {"no module", [](Bench& b) { b.remove("/module.zmod"); }, "module", failure, "No such file",
         "/usr/bin/zornhost --module FILE doctor"},
        {"a module that can't be loaded",
         [](Bench& b) {
             b.machine.loaded = {"libx.so.1: cannot open", ""};
         },
         "module", failure, "can't be used: libx.so.1", "ldd "},
        {"no definitions", [](Bench& b) { b.questions.definitions.clear(); }, "definitions", failure,
         "every amplifier is shown as unknown", "zornhost --amplifiers FOLDER doctor"},
        {"a folder of definitions that isn't there", [](Bench& b) { b.questions.definitions = "/no/such"; },
         "definitions", failure, "\"/no/such\" is no folder", ""},
        {"a definition with a mistake",
         [](Bench& b) {
             b.folder.write("/own/mine.json", "{ \"className\": ");
             b.questions.definitions = b.folder.path + "/own";
         },
         "definitions", failure, "1 wrong of 1", "zornhost check-amplifiers "},
        {"an empty folder of definitions",
         [](Bench& b) {
             b.folder.write("/own/README", "");
             b.questions.definitions = b.folder.path + "/own";
         },
         "definitions", failure, "holds none", ""},
        // CAN.
        {"no CAN ports",
         [](Bench& b) {
             b.remove("/sys/class/net/can0");
             b.remove("/sys/class/net/can1");
         },
         "CAN", warning, "no CAN interface", "sudo modprobe can_raw"},
        {"a CAN port with another number",
         [](Bench& b) { fs::rename(b.folder.path + "/sys/class/net/can1", b.folder.path + "/sys/class/net/can4"); },
         "CAN", warning, "port 2 would be can1", "sudo ip link set can4 name can1"},
        {"no ip", [](Bench& b) { b.machine.hasIp = false; }, "CAN", failure, "no program ip",
         "apt-get install iproute2"},
        {"no right on the network", [](Bench& b) { b.machine.network = false; }, "CAN", failure,
         "anna may not set them up", "--ambient-caps +net_admin /usr/bin/zornhost doctor"},
        // The lock.
        {"another process has the instrument",
         hold,
         "instrument",
         warning,
         "(\"zornhost record -o night.h5\")",
         "tail --pid=",
         {"disk speed"}},
        {"a lock file that is none", [](Bench& b) { b.folder.write("/kestrix.lock", "notes"); }, "instrument", failure,
         "is no lock file", "sudo mv "},
        {"no folder for the lock", [](Bench& b) { b.questions.lockFile = b.folder.path + "/none/kestrix.lock"; },
         "instrument", failure, "can't be made: No such file", "sudo install -m 666 /dev/null"},
        // Disk.
        {"hardly any room", [](Bench& b) { b.machine.space.freeBytes = 2'900'000'000; }, "disk space", failure,
         "2.9 GB free in /data: 10 s at the 300 MB/s of all", "find /data -maxdepth 1"},
        {"little room", [](Bench& b) { b.machine.space.freeBytes = 179'000'000'000; }, "disk space", warning, "10 min",
         "df -h /data"},
        {"no folder",
         [](Bench& b) { b.questions.recordings = "/my data"; },
         "disk space",
         failure,
         "/my data is not there",
         "mkdir -p '/my data'",
         {"disk speed"}},
        {"a folder of another's",
         [](Bench& b) { b.machine.statuses["/data"].owner = 0; },
         "disk space",
         failure,
         "anna may not write /data",
         "sudo chown anna /data",
         {"disk speed"}},
        {"a disk that can only be read",
         [](Bench& b) {
             b.machine.statuses["/data"].mode = S_IFDIR | 0555;
             b.machine.readOnly = true;
         },
         "disk space",
         failure,
         "can only be read",
         "sudo mount -o remount,rw",
         {"disk speed"}},
        {"a slow disk", [](Bench& b) { b.machine.speed.bytesPerSecond = 75e6; }, "disk speed", warning,
         "75 MB/s in /data, 300 MB/s of all channels at the fastest rate: enough for 25 %", "lsblk"},
        {"a disk too slow for what was asked",
         [](Bench& b) {
             b.questions.bytesPerSecond = 401e6;
             b.questions.bytesPerSecondNamed = true;
         },
         "disk speed", failure, "401 MB/s asked for", "zornhost doctor --folder"},
        {"a disk that fails",
         [](Bench& b) {
             b.machine.speed = {EIO, 0.0};
         },
         "disk speed", failure, "Input/output error", "df -i /data"},
        // The machine.
        {"a clock at its beginning", [](Bench& b) { b.machine.time.secondsSince1970 = 1000; }, "system clock", failure,
         "1970-01-01 00:16:40 UTC", "sudo timedatectl set-ntp true"},
        {"a clock beyond all measure", [](Bench& b) { b.machine.time.secondsSince1970 = 5'000'000'000; },
         "system clock", failure, "2128-", "sudo date -s"},
        {"a clock that runs free", [](Bench& b) { b.machine.time.synchronized = false; }, "system clock", warning,
         "not synchronised", "sudo timedatectl set-ntp true"},
        {"a driver without a version", [](Bench& b) { b.remove("/sys/module/tolvn_dma"); }, "drivers", warning,
         "tolvn_dma doesn't tell its version, tolvn_timing 1.4, kernel 6.1.0-rt", "modinfo"},
        {"a driver that nobody knows",
         [](Bench& b) { b.folder.write("/proc/devices", "Character devices:\n  1 mem\n\nBlock devices:\n240 sd\n"); },
         "drivers", warning, "tolvn_dma 2.1, no driver known of /dev/tolvn_timing", ""},
        {"a CPU that saves power",
         [](Bench& b) { b.folder.write("/sys/devices/system/cpu/cpu1/cpufreq/scaling_governor", "powersave\n"); },
         "CPU governor", warning, "powersave on 1 of 2 CPUs, performance on 1",
         "sudo cpupower frequency-set -g performance"},
        {"a machine at work", [](Bench& b) { b.folder.write("/proc/loadavg", "2.81 1.0 1.0 3/200 4711\n"); },
         "CPU load", warning, "2.81 on 4 cores", "ps -eo pcpu"},
        {"a load that isn't told", [](Bench& b) { b.remove("/proc/loadavg"); }, "CPU load", warning, "not known", ""},
        {"no priority", [](Bench& b) { b.machine.limit.priorityError = EPERM; }, "thread priority", warning,
         "no real-time priority for anna: Operation not permitted",
         "printf '%s - rtprio 90\\n' anna | sudo tee /etc/security/limits.d/kestrix-rtprio.conf"},
        {"no memory to lock",
         [](Bench& b) {
             b.machine.limit = {0, ENOMEM, 1024};
         },
         "memory lock", warning, "(limit 1 KB): Cannot allocate memory",
         "printf '%s - memlock unlimited\\n' anna | sudo tee"},
        {"no runtime folder", [](Bench& b) { b.questions.socketFolder.clear(); }, "runtime folder", warning,
         "can't ask it", "export RUNTIME_DIRECTORY="},
        {"what killed programs left",
         [](Bench& b) {
             b.folder.write("/run/kestrix-78.sock", "");
             b.folder.write("/run/kestrix-x.sock", "");  // none of ours
             fs::create_directories(b.folder.path + "/tmp/kestrix-sim.79.abcdef");
         },
         "leftovers", warning, "2 of programs that were killed",
         "rm -r /run/kestrix-78.sock /tmp/kestrix-sim.79.abcdef"},
    };
    return table;
}

std::string fixesOf(const Finding& finding) {
    std::string text;
    for (const auto& line : finding.fix) {
        text += line + "\n";
    }
    return text;
}

class DoctorSituation : public testing::TestWithParam<Broken> {};

}  // namespace

// Each is found by the check that is for it, told with a way out, and by no other one.
TEST_P(DoctorSituation, IsFound) {
    Bench bench;
    GetParam().how(bench);
    bool looked = false;
    for (const auto& finding : examine(bench.machine, bench.questions)) {
        EXPECT_EQ(finding.fix.empty(), finding.state == CheckState::Ok) << finding.check;
        if (finding.check == GetParam().check) {
            looked = true;
            EXPECT_EQ(finding.state, GetParam().state) << finding.found;
            EXPECT_THAT(finding.found, testing::HasSubstr(GetParam().found));
            EXPECT_THAT(fixesOf(finding), testing::HasSubstr(GetParam().fix));
        } else {
            EXPECT_EQ(finding.state == CheckState::Ok, GetParam().also.count(finding.check) == 0)
                << finding.check << ": " << finding.found;
        }
    }
    EXPECT_TRUE(looked);
}

INSTANTIATE_TEST_SUITE_P(Table, DoctorSituation, testing::ValuesIn(situations()), [](const auto& info) {
    std::string name = info.param.name;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return std::isalnum(static_cast<unsigned char>(c)) == 0; }, '_');
    return name;
});

TEST(Doctor, AMachineThatLacksNothingIsFine) {
    const std::pair<const char*, std::function<void(Bench&)>> variants[] = {
        {"the whole instrument", [](Bench&) {}},
        {"two modules",
         [](Bench& b) {
             for (int module = 2; module < 8; ++module) {
                 b.remove(paths::rawStreamDevice + std::to_string(module));
                 b.remove(paths::filteredStreamDevice + std::to_string(module));
             }
         }},
        {"its own lamps, none of the kernel's",
         [](Bench& b) {
             fs::create_directories(b.folder.path + "/board");
             fs::rename(b.folder.path + "/sys/class/leds", b.folder.path + "/board/leds");
         }},
        {"no choice of governor", [](Bench& b) { b.remove("/sys/devices/system/cpu"); }},
        {"a driver that is known by its number alone",
         [](Bench& b) {
             b.remove("/sys/dev");
             b.folder.write("/proc/devices", "Character devices:\n240 tolvn_timing\n\nBlock devices:\n240 sd\n");
         }},
        {"nothing to keep",
         [](Bench& b) {
             b.questions.recordings.clear();
             b.machine.speed.bytesPerSecond = 0.0;
         }},
        {"just fast enough", [](Bench& b) { b.machine.speed.bytesPerSecond = fastestBytesPerSecond; }},
        {"simulated, and held by nobody else",
         [](Bench& b) {
             b.questions.simulated = true;
             b.questions.lockFile.clear();
             b.machine.hasIp = false;
             b.remove("/proc/devices");
         }},
    };
    for (const auto& [name, change] : variants) {
        Bench bench;
        change(bench);
        for (const auto& finding : examine(bench.machine, bench.questions)) {
            EXPECT_EQ(finding.state, CheckState::Ok) << name << ": " << finding.check << ": " << finding.found;
        }
        EXPECT_EQ(bench.machine.opened.size(), name == std::string("two modules") ? 8u : 20u);
        EXPECT_EQ(bench.machine.asked, "/opt/harvane/scripts/ptp_control.sh status");
    }
}

TEST(Doctor, LeavesAnInstrumentAloneThatAnotherHolds) {
    Bench bench;
    const InstrumentLock lock(bench.questions.lockFile, "zornhost record");
    bench.machine.openFailures["/dev/mem"] = EBUSY;
    bench.machine.speed = {EIO, 0.0};
    const auto findings = examine(bench.machine, bench.questions);
    EXPECT_TRUE(bench.machine.opened.empty());
    EXPECT_TRUE(std::none_of(findings.begin(), findings.end(),
                             [](const Finding& finding) { return finding.state == CheckState::Fail; }));
}

// What a program that only looks does to one that wants the instrument.
TEST(InstrumentLookTest, KeepsNobodyOff) {
    const Folder folder;
    const std::string file = folder.path + "/kestrix.lock";
    EXPECT_EQ(InstrumentLook(file).state, InstrumentLook::State::NoFile);
    EXPECT_FALSE(fs::exists(file));
    {
        const InstrumentLock lock(file, "zornhost record\n-x");
        const InstrumentLook look(file);
        EXPECT_EQ(look.state, InstrumentLook::State::Held);
        EXPECT_EQ(look.pid, ::getpid());
        EXPECT_EQ(look.command, "zornhost record -x");
    }
    auto look = std::make_unique<InstrumentLook>(file);
    EXPECT_EQ(look->state, InstrumentLook::State::Free);
    const auto users = [&file] {
        size_t count = 0;
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            count += fs::read_symlink(entry.path(), gone) == file ? 1 : 0;
        }
        return count;
    };
    std::string failed;
    std::atomic<bool> ended{false};
    std::thread other([&] {
        try {
            const InstrumentLock lock(file, "zornhost record");
        } catch (const std::exception& error) {
            failed = error.what();
        }
        ended = true;
    });
    while (users() < 2 && !ended) {
        std::this_thread::yield();
    }
    look.reset();
    other.join();
    EXPECT_EQ(failed, "");
    EXPECT_EQ(InstrumentLook(file).state, InstrumentLook::State::Free);
}

// The machine itself, as far as any machine is alike.
TEST(MachineTest, LooksAndLeavesNothing) {
    const Machine machine;
    const Folder folder;
    const DiskSpeed speed = machine.diskSpeed(folder.path);
    EXPECT_EQ(speed.error, 0);
    EXPECT_GT(speed.bytesPerSecond, 0.0);
    EXPECT_TRUE(fs::is_empty(folder.path));
    EXPECT_EQ(machine.diskSpeed(folder.path + "/none").error, ENOENT);

    folder.write("/module.zmod", "no library");
    EXPECT_THAT(machine.probeModule(folder.path + "/module.zmod").failure, testing::HasSubstr("module.zmod"));
    EXPECT_THAT(machine.probeModule("libc.so.6").failure, testing::HasSubstr("it is no module library"));

    std::string failure;
    EXPECT_EQ(machine.answer("printf 'OK:a\\n\\n'", failure), "OK:a");
    EXPECT_EQ(machine.linkTarget("/proc/self/exe"), fs::read_symlink("/proc/self/exe").filename());
    EXPECT_EQ(machine.status("/dev/null").device, makedev(1, 3));
    EXPECT_EQ(machine.openDevice("/dev/null"), 0);
    EXPECT_TRUE(machine.program("sh").ends_with("/sh"));
    EXPECT_EQ(machine.program("no-such-program"), "");
    EXPECT_TRUE(machine.lives(::getpid()));
}
