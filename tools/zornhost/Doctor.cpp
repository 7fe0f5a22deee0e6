#include "tools/zornhost/Doctor.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <functional>
#include <map>
#include <optional>

#include "shared/libraries/kestrix/src/paths/InstrumentPaths.h"
#include "tools/zornhost/DefinitionCheck.h"
#include "tools/zornhost/InstrumentLock.h"
#include "tools/zornhost/Output.h"

namespace zornhost {

namespace paths = Harvane::Shared::Kestrix::InstrumentPaths;

namespace {

constexpr int mostModules = 8;
constexpr std::array<int, 3> writtenGpioLines{paths::gpioBase + 8, paths::gpioBase + 9, paths::gpioBase + 10};
constexpr double failBelowS = 10.0;  // of recording that the disk has room for
constexpr double warnBelowS = 600.0;
constexpr double busyLoad = 0.7;  // waiting processes for each processor
constexpr int firstSaneYear = 2024;
constexpr int lastSaneYear = 2100;

// As a word of a command line.
std::string quoted(const std::string& word) {
    constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-:+,@%=";
    if (!word.empty() && word.find_first_not_of(plain) == std::string::npos) {
        return word;
    }
    std::string result = "'";
    for (const char c : word) {
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return result + "'";
}

std::string folderOf(const std::string& file) {
    const size_t slash = file.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : file.substr(0, slash);
}

std::string fileName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

bool has(const std::vector<gid_t>& groups, gid_t group) {
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

Finding ok(std::string check, std::string found) {
    return {std::move(check), CheckState::Ok, std::move(found), {}};
}

Finding warn(std::string check, std::string found, std::vector<std::string> fix) {
    return {std::move(check), CheckState::Warn, std::move(found), std::move(fix)};
}

Finding fail(std::string check, std::string found, std::vector<std::string> fix) {
    return {std::move(check), CheckState::Fail, std::move(found), std::move(fix)};
}

// "1 CPU", "2 CPUs".
std::string counted(size_t count, std::string_view what) {
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

std::string sizeText(double bytes) {
    return bytes >= 1e9 ? fmt::format("{:.1f} GB", bytes / 1e9) : fmt::format("{:.0f} MB", bytes / 1e6);
}

std::string rateText(double bytesPerSecond) {
    return fmt::format("{:.{}f} MB/s", bytesPerSecond / 1e6, bytesPerSecond < 10e6 ? 1 : 0);
}

std::string durationText(double seconds) {
    return seconds < 120.0    ? fmt::format("{:.0f} s", seconds)
           : seconds < 7200.0 ? fmt::format("{:.0f} min", seconds / 60.0)
                              : fmt::format("{:.0f} h", seconds / 3600.0);
}

class Examination {
public:
    Examination(const Machine& machine, const DoctorQuestions& questions)
        : machine_(machine), questions_(questions), user_(machine.user()) {}

    std::vector<Finding> run() {
        Finding loaded = module();  // takes too long to keep others off meanwhile
        if (!questions_.lockFile.empty()) {
            look_.emplace(questions_.lockFile);
        }
        add(&Examination::lock);
        findings_.push_back(std::move(loaded));
        device("memory device", paths::memoryDevice, {"sudo mknod -m 660 /dev/mem c 1 1 && sudo chgrp kmem /dev/mem"});
        device("I2C bus", paths::i2cDevice, {"sudo modprobe i2c-dev"});
        device("amplifier port", paths::uartDevice, {"sudo dmesg | grep -i tty"});
        add(&Examination::streams);
        add(&Examination::gpioLines);
        device("timing device", paths::timingDevice, driverFix("tolvn_timing"));
        // From here on nothing is opened that only one process may have.
        look_.reset();
        add(&Examination::timingSwitches);
        script("role script", paths::ptpScript, "status");
        script("oscillator script", paths::vcxoScript, nullptr);
        add(&Examination::definitions);
        add(&Examination::can);
        add(&Examination::diskSpace);
        add(&Examination::diskSpeed);
        add(&Examination::systemClock);
        add(&Examination::drivers);
        add(&Examination::governor);
        add(&Examination::load);
        add(&Examination::priority);
        add(&Examination::memoryLock);
        add(&Examination::socketFolder);
        add(&Examination::leds);
        add(&Examination::leftovers);
        return std::move(findings_);
    }

private:
    void add(Finding (Examination::*check)()) { findings_.push_back((this->*check)()); }

    // ---- Rights ----------------------------------------------------------------------------------------------------

    // "root:kmem 0640".
    std::string ownership(const PathStatus& status) const {
        return fmt::format("{}:{} {:04o}", machine_.userName(status.owner), machine_.groupName(status.group),
                           status.mode & 07777U);
    }

    // What is missing for `mode` (R_OK, W_OK) on a path that is there: the words, and the fix.
    struct Rights {
        std::string words;
        std::vector<std::string> fix;
    };
    Rights missingRights(const std::string& path, const PathStatus& status, int mode) const {
        const std::string group = machine_.groupName(status.group);
        const auto bits = static_cast<mode_t>(((mode & R_OK) != 0 ? S_IRGRP : 0) | ((mode & W_OK) != 0 ? S_IWGRP : 0));
        const char* const verb = mode == (R_OK | W_OK) ? "read and write" : mode == W_OK ? "write" : "read";
        Rights rights{fmt::format("{} may not {} {} ({})", user_.name, verb, path, ownership(status)), {}};
        if (user_.id == 0) {
            rights.fix = {fmt::format("ls -ld {} && lsattr -d {}", quoted(path), quoted(path))};
        } else if (status.group == 0) {
            // A user who is put into root's group gets far more than this.
            if (path.starts_with("/dev/")) {
                rights.fix = {
                    fmt::format("sudo groupadd -f kestrix && sudo usermod -aG kestrix {}", quoted(user_.name)),
                    fmt::format("printf 'KERNEL==\"{0}\", GROUP=\"kestrix\", MODE=\"0660\"\\n' | sudo tee "
                                "/etc/udev/rules.d/90-kestrix-{0}.rules",
                                fileName(path)),
                    "sudo udevadm control --reload && sudo udevadm trigger"};
                rights.words += "; log in again after the change";
            } else {
                rights.fix = {fmt::format("sudo chown {} {}", quoted(user_.name), quoted(path))};
            }
        } else if (!has(user_.registered, status.group) && !has(user_.groups, status.group)) {
            rights.fix = {fmt::format("sudo usermod -aG {} {}", quoted(group), quoted(user_.name))};
            rights.words += fmt::format("; it is for group {}: log in again after the change", group);
            if ((status.mode & bits) != bits) {
                rights.fix.push_back(fmt::format("sudo chmod g+{} {}",
                                                 mode == R_OK   ? "r"
                                                 : mode == W_OK ? "w"
                                                                : "rw",
                                                 quoted(path)));
            }
        } else if ((status.mode & bits) != bits) {
            rights.fix = {fmt::format("sudo chmod g+{} {}",
                                      mode == R_OK   ? "r"
                                      : mode == W_OK ? "w"
                                                     : "rw",
                                      quoted(path))};
        } else if (!has(user_.groups, status.group)) {
            rights.words +=
                fmt::format("; {} belongs to group {}, but not in this session: log in again", user_.name, group);
            rights.fix = {fmt::format("newgrp {}", quoted(group))};
        } else {
            rights.fix = {fmt::format("ls -l {} && id", quoted(path))};
        }
        return rights;
    }

    // This program with rights of root's that a user is lent. As an attribute of the file they would keep it from
    // finding its libraries, and ip gives those up.
    std::string withRights(const char* right) const {
        return fmt::format(
            "sudo setpriv --reuid {0} --regid $(id -g {0}) --init-groups --inh-caps +{1} --ambient-caps "
            "+{1} {2} doctor",
            quoted(user_.name), right, quoted(questions_.program));
    }

    // ---- Devices ---------------------------------------------------------------------------------------------------

    static std::vector<std::string> driverFix(const char* driver) {
        return {fmt::format("sudo modprobe {}", driver), "find /lib/modules/$(uname -r) -name '*tolvn*'"};
    }

    bool held() const { return held_; }

    // What is wrong with a node, if anything.
    std::optional<Finding> nodeProblem(const std::string& check, const std::string& path,
                                       const std::vector<std::string>& driver) const {
        const PathStatus status = machine_.status(path);
        if (status.error == ENOENT || status.error == ENOTDIR) {
            return fail(check,
                        fmt::format("{} is not there{}", path,
                                    driver.front().starts_with("sudo modprobe") ? ": its driver is not loaded" : ""),
                        driver);
        }
        if (status.error != 0) {
            return fail(check, fmt::format("{} can't be looked at: {}", path, std::strerror(status.error)),
                        {fmt::format("ls -ld {}", quoted(folderOf(path)))});
        }
        if (!S_ISCHR(status.mode)) {
            const char* const kind = S_ISREG(status.mode)   ? "a plain file"
                                     : S_ISDIR(status.mode) ? "a folder"
                                     : S_ISBLK(status.mode) ? "a block device"
                                                            : "something else";
            return fail(
                check, fmt::format("{} is {}, not a character device", path, kind),
                {fmt::format("sudo mv {0} /tmp/{1}.wrong && sudo udevadm trigger", quoted(path), fileName(path))});
        }
        if (machine_.access(path, R_OK | W_OK) != 0) {
            Rights rights = missingRights(path, status, R_OK | W_OK);
            return fail(check, rights.words, rights.fix);
        }
        const int error = held() ? 0 : machine_.openDevice(path);
        if (error == 0) {
            return std::nullopt;
        }
        std::string found =
            fmt::format("{} is there ({}), but can't be opened: {}", path, ownership(status), std::strerror(error));
        switch (error) {
            case EBUSY:
                return fail(check, found + ": another program has it", {fmt::format("sudo fuser -v {}", quoted(path))});
            case EPERM:
            case EACCES:
                if (path == paths::memoryDevice && user_.id != 0) {
                    return fail(check,
                                found + ": that takes the right of raw I/O; start a measurement in this way, too",
                                {withRights("sys_rawio")});
                }
                return fail(check, found, {"sudo dmesg | tail -n 20", fmt::format("ls -l {} && id", quoted(path))});
            default:
                return fail(check, found + ": no device answers there", driver);
        }
    }

    void device(const std::string& check, const std::string& path, const std::vector<std::string>& driver) {
        auto problem = nodeProblem(check, path, driver);
        findings_.push_back(problem ? std::move(*problem)
                                    : ok(check, fmt::format("{}, {}{}", path, ownership(machine_.status(path)),
                                                            held() ? "; not opened, the instrument is in use" : "")));
    }

    Finding streams() {
        const std::string check = "data streams";
        const std::vector<std::string> driver = driverFix("tolvn_dma");
        std::vector<std::string> there;
        int modules = 0;
        const auto node = [](bool raw, int module) {
            return fmt::format("{}{}", raw ? paths::rawStreamDevice : paths::filteredStreamDevice, module);
        };
        for (int module = 0; module < mostModules; ++module) {
            for (const bool raw : {true, false}) {
                if (machine_.status(node(raw, module)).error == 0) {
                    there.push_back(node(raw, module));
                    modules = module + 1;
                }
            }
        }
        if (modules == 0) {
            return fail(check,
                        fmt::format("there is no {} and no other one: the driver of the data streams is not loaded",
                                    node(true, 0)),
                        driver);
        }
        for (int module = 0; module < modules; ++module) {
            for (const bool raw : {true, false}) {
                if (auto problem = nodeProblem(check, node(raw, module), driver)) {
                    return *problem;
                }
            }
        }
        return ok(check,
                  fmt::format("raw and filtered streams of {}{}", counted(static_cast<size_t>(modules), "module"),
                              held() ? "; not opened, the instrument is in use" : ""));
    }

    // Files of the kernel that the module writes.
    std::optional<Finding> writableProblem(const std::string& check, const std::string& path,
                                           const std::vector<std::string>& driver) const {
        const PathStatus status = machine_.status(path);
        if (status.error != 0) {
            return fail(check, fmt::format("{}: {}", path, std::strerror(status.error)), driver);
        }
        if (machine_.access(path, W_OK) != 0) {
            Rights rights = missingRights(path, status, W_OK);
            return fail(check, rights.words, rights.fix);
        }
        return std::nullopt;
    }

    Finding gpioLines() {
        for (const int line : writtenGpioLines) {
            if (auto problem =
                    writableProblem("GPIO lines", fmt::format("{}{}/value", paths::gpioLine, line),
                                    {fmt::format("echo {} | sudo tee /sys/class/gpio/export", line),
                                     fmt::format("echo out | sudo tee {}{}/direction", paths::gpioLine, line)})) {
                return *problem;
            }
        }
        return ok("GPIO lines",
                  fmt::format("{} to {} can be switched", writtenGpioLines.front(), writtenGpioLines.back()));
    }

    Finding timingSwitches() {
        for (const char* path : {paths::irigInSwitch, paths::irigOutSwitch, paths::ptpCorrection}) {
            if (auto problem = writableProblem("timing switches", path, driverFix("tolvn_timing"))) {
                return *problem;
            }
        }
        return ok("timing switches", "IRIG input, IRIG output and PTP correction can be set");
    }

    Finding leds() {
        std::vector<std::string> dark;
        std::vector<std::string> fix;
        for (const char* led : {paths::statusLed, paths::alarmLed}) {
            for (const char* file : {"/brightness", "/trigger"}) {
                const std::string own = std::string(paths::boardLeds) + led + file;
                const std::string path =
                    machine_.access(own, W_OK) == 0 ? own : std::string(paths::kernelLeds) + led + file;
                if (auto problem = writableProblem("LEDs", path, {"ls -l /board/leds /sys/class/leds"})) {
                    dark.push_back(problem->found);
                    fix = problem->fix;
                }
            }
        }
        return dark.empty() ? ok("LEDs", "status and alarm can be switched")
                            : warn("LEDs", dark.front() + ": it stays as it is, measuring goes on", fix);
    }

    // ---- Programs --------------------------------------------------------------------------------------------------

    Finding lock() {
        const std::string check = "instrument";
        if (!look_) {
            return ok(check, "simulated, of this program alone");
        }
        const std::string& file = questions_.lockFile;
        held_ = look_->state == InstrumentLook::State::Held;
        switch (look_->state) {
            case InstrumentLook::State::Free:
                return ok(check, fmt::format("free ({})", file));
            case InstrumentLook::State::Held:
                if (look_->pid == 0) {
                    return warn(check, fmt::format("another process holds it ({} is locked)", file),
                                {fmt::format("sudo fuser -v {}", quoted(file))});
                }
                return warn(
                    check,
                    fmt::format("process {} holds it since {} (\"{}\"): a measurement can begin when that has ended",
                                look_->pid, look_->since, oneLine(look_->command)),
                    {fmt::format("tail --pid={} -f /dev/null  # waits until it has ended", look_->pid)});
            case InstrumentLook::State::Unusable:
                return fail(check, fmt::format("{}, by which programs keep others off it: {}", file, look_->reason),
                            {fmt::format("ls -l {0} && sudo mv {0} {1}.wrong", quoted(file),
                                         quoted("/tmp/" + fileName(file)))});
            case InstrumentLook::State::NoFile:
                break;
        }
        if (::euidaccess(folderOf(file).c_str(), W_OK | X_OK) != 0) {
            return fail(
                check,
                fmt::format("{}, by which programs keep others off it, can't be made: {}", file, std::strerror(errno)),
                {fmt::format("sudo install -m 666 /dev/null {}", quoted(file))});
        }
        return ok(check, fmt::format("free (no program has used it since the start: no {})", file));
    }

    Finding module() {
        const std::string& file = questions_.module;
        if (::access(file.c_str(), F_OK) != 0) {
            return fail("module", fmt::format("{}: {}", file, std::strerror(errno)),
                        {"find / -xdev -name 'libdaqmodule*.zmod' 2>/dev/null",
                         fmt::format("{} --module FILE doctor", quoted(questions_.program))});
        }
        const ModuleProbe probe = machine_.probeModule(file);
        if (probe.failure.empty()) {
            return ok("module", fmt::format("{} can be loaded ({})", probe.version, file));
        }
        return fail("module", fmt::format("{} can't be used: {}", file, probe.failure),
                    {fmt::format("ldd {} | grep -v '=> /'", quoted(file))});
    }

    // `question`: what the script can be asked without a change; null: nothing.
    void script(const std::string& check, const std::string& path, const char* question) {
        findings_.push_back(scriptFinding(check, path, question));
    }
    Finding scriptFinding(const std::string& check, const std::string& path, const char* question) const {
        const PathStatus status = machine_.status(path);
        if (status.error != 0) {
            return fail(check, fmt::format("{}: {}", path, std::strerror(status.error)),
                        {fmt::format("sudo find / -xdev -name {}", fileName(path)),
                         fmt::format("sudo install -D -m 755 {} {}", fileName(path), path)});
        }
        if (!S_ISREG(status.mode)) {
            return fail(check, fmt::format("{} is no file", path), {fmt::format("ls -ld {}", path)});
        }
        // root may do anything but run what nobody may.
        if (machine_.access(path, R_OK | X_OK) != 0) {
            return fail(check, fmt::format("{} may not run {} ({})", user_.name, path, ownership(status)),
                        {fmt::format("sudo chmod 755 {}", path)});
        }
        if (question == nullptr) {
            return ok(check, path);
        }
        std::string failure;
        const auto reply = machine_.answer(fmt::format("{} {}", path, question), failure);
        const std::string again = fmt::format("sh -x {} {}", path, question);
        if (!reply) {
            return fail(check, fmt::format("{} {}", path, failure), {again});
        }
        if (!reply->starts_with("OK:")) {
            return fail(check,
                        reply->empty() ? fmt::format("{} doesn't answer to \"{}\"", path, question)
                                       : fmt::format("{} answers \"{}\" to \"{}\"", path, oneLine(*reply), question),
                        {again});
        }
        return ok(check, fmt::format("{} answers \"{}\"", path, oneLine(*reply)));
    }

    Finding definitions() {
        const std::string check = "definitions";
        const std::string& folder = questions_.definitions;
        if (folder.empty()) {
            return fail(check,
                        "no folder of amplifier definitions, neither here nor with the program: every amplifier is "
                        "shown as unknown",
                        {fmt::format("{} --amplifiers FOLDER doctor", quoted(questions_.program))});
        }
        std::vector<DefinitionReport> reports;
        try {
            reports = checkDefinitions(folder);
        } catch (const std::exception& failure) {
            return fail(check, oneLine(failure.what()), {fmt::format("ls -ld {}", quoted(folder))});
        }
        size_t usable = 0;
        const DefinitionReport* wrong = nullptr;
        const DefinitionReport* doubtful = nullptr;
        size_t wrongs = 0;
        size_t doubts = 0;
        for (const auto& report : reports) {
            const bool bad = report.hasErrors() || (report.outcome != DefinitionReport::Outcome::Registered &&
                                                    report.outcome != DefinitionReport::Outcome::NotRead);
            if (bad) {
                wrong = wrong != nullptr ? wrong : &report;
                ++wrongs;
            } else if (report.outcome == DefinitionReport::Outcome::Registered) {
                ++usable;
                if (!report.problems.empty()) {
                    doubtful = doubtful != nullptr ? doubtful : &report;
                    ++doubts;
                }
            }
        }
        const std::vector<std::string> fix{
            fmt::format("{} check-amplifiers {}", quoted(questions_.program), quoted(folder))};
        const auto first = [](const DefinitionReport& report) {
            return report.problems.empty() ? report.file
                                           : fmt::format("{}: {}", report.file, oneLine(report.problems.front().text));
        };
        if (wrong != nullptr) {
            return fail(check, fmt::format("{} wrong of {} in {}: {}", wrongs, wrongs + usable, folder, first(*wrong)),
                        fix);
        }
        if (usable == 0) {
            return fail(check, fmt::format("{} holds none: every amplifier is shown as unknown", folder), fix);
        }
        if (doubtful != nullptr) {
            return warn(check, fmt::format("{} doubtful of {} in {}: {}", doubts, usable, folder, first(*doubtful)),
                        fix);
        }
        return ok(check, fmt::format("{} in {}", usable, folder));
    }

    // ---- CAN -------------------------------------------------------------------------------------------------------

    Finding can() {
        std::vector<std::string> ports;
        for (const auto& name : machine_.list(paths::networkInterfaces)) {
            if (name.find("can") != std::string::npos) {
                ports.push_back(name);
            }
        }
        if (ports.empty()) {
            return warn("CAN", "no CAN interface: if the instrument has CAN ports, their driver is not loaded",
                        {"sudo modprobe can_raw && ip -brief link show type can", "sudo dmesg | grep -i can"});
        }
        for (size_t i = 0; i < ports.size(); ++i) {
            const std::string name = fmt::format("can{}", i);
            if (std::find(ports.begin(), ports.end(), name) == ports.end()) {
                return warn("CAN",
                            fmt::format("{} called {}: port {} would be {}, which is not there",
                                        counted(ports.size(), "interface"), fmt::join(ports, ", "), i + 1, name),
                            {fmt::format("sudo ip link set {} down && sudo ip link set {} name {}", ports.back(),
                                         ports.back(), name)});
            }
        }
        const std::string found = fmt::format("{}", fmt::join(ports, ", "));
        if (questions_.simulated) {
            return ok("CAN", found + "; the simulated instrument does what ip does");
        }
        if (machine_.program("ip").empty()) {
            return fail("CAN", found + ": there is no program ip to set them up with",
                        {"sudo apt-get install iproute2"});
        }
        if (!machine_.mayConfigureNetwork()) {
            return fail(
                "CAN",
                fmt::format("{}: {} may not set them up; start a measurement in this way, too", found, user_.name),
                {withRights("net_admin")});
        }
        return ok("CAN", found);
    }

    // ---- Disk ------------------------------------------------------------------------------------------------------

    std::string needText() const {
        return questions_.bytesPerSecondNamed
                   ? fmt::format("{} asked for", rateText(questions_.bytesPerSecond))
                   : fmt::format("{} of all channels at the fastest rate", rateText(questions_.bytesPerSecond));
    }

    Finding diskSpace() {
        const std::string& folder = questions_.recordings;
        if (folder.empty()) {
            return ok("disk space", "nothing is to be written");
        }
        const std::string name = quoted(folder);
        const PathStatus status = machine_.status(folder);
        if (status.error == ENOENT) {
            return fail("disk space", fmt::format("the folder {} is not there", folder),
                        {fmt::format("mkdir -p {}", name)});
        }
        if (status.error != 0 || !S_ISDIR(status.mode)) {
            return fail("disk space",
                        fmt::format("{}: {}", folder, status.error != 0 ? std::strerror(status.error) : "is no folder"),
                        {fmt::format("ls -ld {}", name)});
        }
        const int denied = machine_.access(folder, W_OK | X_OK);
        if (denied == EROFS) {
            return fail("disk space", fmt::format("{} lies on a file system that can only be read", folder),
                        {fmt::format("sudo mount -o remount,rw \"$(df --output=target {} | tail -n 1)\"", name)});
        }
        if (denied != 0) {
            Rights rights = missingRights(folder, status, W_OK);
            return fail("disk space", rights.words, {fmt::format("sudo chown {} {}", quoted(user_.name), name)});
        }
        const DiskSpace space = machine_.diskSpace(folder);
        if (space.error != 0) {
            return fail("disk space", fmt::format("{}: {}", folder, std::strerror(space.error)),
                        {fmt::format("df -h {}", name)});
        }
        folderTakesFiles_ = true;
        const double seconds = static_cast<double>(space.freeBytes) / questions_.bytesPerSecond;
        const std::string found =
            fmt::format("{} free in {}: {} at the {}", sizeText(static_cast<double>(space.freeBytes)), folder,
                        durationText(seconds), needText());
        const std::vector<std::string> fix{
            fmt::format("df -h {0} && du -xah {0} | sort -rh | head -n 20", name),
            fmt::format("find {} -maxdepth 1 -name '*.h5' -mtime +7 -exec rm -i {{}} +", name)};
        return seconds < failBelowS   ? fail("disk space", found, fix)
               : seconds < warnBelowS ? warn("disk space", found, fix)
                                      : ok("disk space", found);
    }

    Finding diskSpeed() {
        const std::string& folder = questions_.recordings;
        const std::string name = quoted(folder);
        if (folder.empty()) {
            return ok("disk speed", "nothing is to be written");
        }
        const std::string again = fmt::format("{} doctor --folder {}", quoted(questions_.program), name);
        if (held()) {
            return warn("disk speed", "not measured: that would take the disk from the program that has the instrument",
                        {again});
        }
        if (!folderTakesFiles_) {
            return warn("disk speed", "not measured: see disk space", findings_.back().fix);
        }
        const DiskSpeed speed = machine_.diskSpeed(folder);
        if (speed.error != 0) {
            return fail("disk speed", fmt::format("writing to {} fails: {}", folder, std::strerror(speed.error)),
                        {fmt::format("df -h {0} && df -i {0} && sudo dmesg | tail -n 20", name)});
        }
        const std::string found = fmt::format("{} in {}, {}", rateText(speed.bytesPerSecond), folder, needText());
        if (speed.bytesPerSecond >= questions_.bytesPerSecond) {
            return ok("disk speed", found);
        }
        const std::string enough = fmt::format("{}: enough for {:.0f} % of that", found,
                                               100.0 * speed.bytesPerSecond / questions_.bytesPerSecond);
        const std::vector<std::string> fix{"lsblk -o NAME,SIZE,ROTA,MODEL,MOUNTPOINTS  # a faster disk",
                                           fmt::format("{} doctor --folder FOLDER", quoted(questions_.program))};
        return questions_.bytesPerSecondNamed ? fail("disk speed", enough, fix) : warn("disk speed", enough, fix);
    }

    // ---- The machine -----------------------------------------------------------------------------------------------

    Finding systemClock() {
        const MachineClock clock = machine_.clock();
        const auto time = static_cast<time_t>(clock.secondsSince1970);
        tm calendar{};
        ::gmtime_r(&time, &calendar);
        std::string found = fmt::format("{:%Y-%m-%d %H:%M:%S} UTC", calendar);
        const auto source = machine_.read("/sys/devices/system/clocksource/clocksource0/current_clocksource");
        const std::string counter = source ? ", counted by " + *source : "";
        const int year = calendar.tm_year + 1900;
        const std::vector<std::string> fix{"sudo timedatectl set-ntp true"};
        if (year < firstSaneYear || year > lastSaneYear) {
            return fail("system clock", found + counter + ": recordings get this time",
                        {fix[0], "sudo date -s 'YYYY-MM-DD HH:MM:SS'"});
        }
        if (!clock.synchronized) {
            return warn("system clock", found + counter + ", not synchronised: it may be off by any amount", fix);
        }
        return ok("system clock",
                  fmt::format("{}{}, synchronised within {:.3g} ms", found, counter, 1000.0 * clock.largestErrorS));
    }

    // "tolvn_dma 1.4", or why that isn't known.
    std::string driverVersion(const char* node, bool& known) const {
        const PathStatus status = machine_.status(node);
        if (status.error != 0 || !S_ISCHR(status.mode)) {
            known = false;
            return fmt::format("{} is not there", node);
        }
        std::string driver = machine_.linkTarget(
            fmt::format("/sys/dev/char/{}:{}/device/driver/module", major(status.device), minor(status.device)));
        if (driver.empty()) {
            driver = characterDriver(major(status.device));
        }
        if (driver.empty()) {
            known = false;
            return fmt::format("no driver known of {}", node);
        }
        const auto version = machine_.read(fmt::format("/sys/module/{}/version", driver));
        if (!version || version->empty()) {
            known = false;
            return driver + " doesn't tell its version";
        }
        return driver + " " + *version;
    }

    // The name under which a driver has taken a number of character devices; empty when there is none.
    std::string characterDriver(unsigned int number) const {
        const std::string list = machine_.read("/proc/devices").value_or("");
        const std::string_view devices = std::string_view(list).substr(0, list.find("Block devices"));
        for (size_t at = 0; at < devices.size();) {
            const size_t end = std::min(devices.find('\n', at), devices.size());
            std::string_view line = devices.substr(at, end - at);
            line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
            unsigned int found = 0;
            const auto [rest, error] = std::from_chars(line.data(), line.data() + line.size(), found);
            if (error == std::errc() && found == number && rest != line.data() + line.size()) {
                return {rest + 1, line.data() + line.size()};
            }
            at = end + 1;
        }
        return {};
    }

    Finding drivers() {
        const std::string kernel =
            "kernel " + machine_.read("/proc/sys/kernel/osrelease").value_or("of an unknown version");
        if (questions_.simulated) {
            return ok("drivers", "none, the instrument is simulated; " + kernel);
        }
        const std::string firstStream = std::string(paths::rawStreamDevice) + "0";
        bool known = true;
        const std::string timing = driverVersion(paths::timingDevice, known);
        const std::string stream = driverVersion(firstStream.c_str(), known);
        const std::string found = fmt::format("{}, {}, {}", stream, timing, kernel);
        return known ? ok("drivers", found)
                     : warn("drivers", found + ": not all versions can be known",
                            {"grep -H . /sys/module/tolvn*/version; modinfo tolvn_dma tolvn_timing"});
    }

    Finding governor() {
        std::map<std::string, size_t> count;
        const std::string folder = "/sys/devices/system/cpu";
        size_t processors = 0;
        for (const auto& name : machine_.list(folder)) {
            const bool processor = name.size() > 3 && name.starts_with("cpu") &&
                                   name.find_first_not_of("0123456789", 3) == std::string::npos;
            if (!processor) {
                continue;
            }
            if (const auto governor = machine_.read(fmt::format("{}/{}/cpufreq/scaling_governor", folder, name))) {
                ++count[*governor];
                ++processors;
            }
        }
        if (count.empty()) {
            return ok("CPU governor", "none: the clock of the CPUs can't be chosen on this machine");
        }
        const size_t fast = count["performance"];
        count.erase("performance");
        if (count.empty()) {
            return ok("CPU governor", fmt::format("performance on {}", counted(processors, "CPU")));
        }
        std::vector<std::string> others;
        for (const auto& [name, number] : count) {
            others.push_back(fmt::format("{} on {}", name, number));
        }
        return warn("CPU governor",
                    fmt::format("{} of {}, performance on {}: a CPU that has to speed up first delays a cycle",
                                fmt::join(others, ", "), counted(processors, "CPU"), fast),
                    {"sudo cpupower frequency-set -g performance",
                     "echo performance | sudo tee /sys/devices/system/cpu/cpu*/cpufreq/scaling_governor"});
    }

    Finding load() {
        const int cores = machine_.cores();
        const std::string text = machine_.read("/proc/loadavg").value_or("");
        double lastMinute = 0.0;
        if (std::from_chars(text.data(), text.data() + text.size(), lastMinute).ec != std::errc()) {
            return warn("CPU load", fmt::format("not known, {}", counted(static_cast<size_t>(cores), "core")),
                        {"uptime"});
        }
        const std::string found =
            fmt::format("{:.2f} on {} in the last minute", lastMinute, counted(static_cast<size_t>(cores), "core"));
        return lastMinute > busyLoad * cores
                   ? warn("CPU load", found + ": others take the time that a measurement needs",
                          {"ps -eo pcpu,pid,user,args --sort=-pcpu | head -n 10"})
                   : ok("CPU load", found);
    }

    std::string limitsLine(const char* limit) const {
        return fmt::format("printf '%s - {0}\\n' {1} | sudo tee /etc/security/limits.d/kestrix-{2}.conf", limit,
                           quoted(user_.name), std::string_view(limit).substr(0, std::string_view(limit).find(' ')));
    }

    Finding priority() {
        const int error = limits().priorityError;
        if (error == 0) {
            return ok("thread priority", "real-time priority can be had (a recording asks for none by itself)");
        }
        return warn("thread priority",
                    fmt::format("no real-time priority for {}: {}; a recording asks for none by itself, but can't be "
                                "given any with chrt. Log in again after the change",
                                user_.name, std::strerror(error)),
                    {limitsLine("rtprio 90")});
    }

    Finding memoryLock() {
        const MachineLimits& limit = limits();
        const std::string most =
            limit.lockableBytes == UINT64_MAX ? "any amount" : fmt::format("{} KB", limit.lockableBytes / 1024);
        if (limit.lockError == 0) {
            return ok("memory lock",
                      fmt::format("{} can be kept from being swapped out (a recording locks none)", most));
        }
        return warn(
            "memory lock",
            fmt::format("no memory can be kept from being swapped out (limit {}): {}; a recording locks none by "
                        "itself. Log in again after the change",
                        most, std::strerror(limit.lockError)),
            {limitsLine("memlock unlimited")});
    }

    Finding socketFolder() {
        if (questions_.socketFolder.empty()) {
            return warn("runtime folder",
                        "none that can be written: a recording runs, but \"zornhost clock\" can't ask it",
                        {fmt::format("sudo install -d -o {} /run/kestrix && export RUNTIME_DIRECTORY=/run/kestrix",
                                     quoted(user_.name))});
        }
        return ok("runtime folder", questions_.socketFolder);
    }

    Finding leftovers() {
        std::vector<std::string> dead;
        const auto collect = [&](const std::string& folder, std::string_view before, std::string_view behind) {
            if (folder.empty()) {
                return;
            }
            for (const auto& name : machine_.list(folder)) {
                long process = 0;
                if (!name.starts_with(before)) {
                    continue;
                }
                const char* const end = name.data() + name.size();
                const auto [rest, error] = std::from_chars(name.data() + before.size(), end, process);
                if (error == std::errc() &&
                    std::string_view(rest, static_cast<size_t>(end - rest)).starts_with(behind) &&
                    !machine_.lives(process)) {
                    dead.push_back(folder + "/" + name);
                }
            }
        };
        collect(questions_.socketFolder, "kestrix-", ".sock");
        collect(questions_.temporaryFolder, "kestrix-sim.", ".");
        if (dead.empty()) {
            return ok("leftovers", "none of programs that were killed");
        }
        std::string remove = "rm -r";
        for (const auto& path : dead) {
            remove += " " + quoted(path);
        }
        return warn("leftovers",
                    fmt::format("{} of programs that were killed, {} the first", dead.size(), dead.front()), {remove});
    }

    const MachineLimits& limits() {
        if (!limits_) {
            limits_ = machine_.limits();
        }
        return *limits_;
    }

    const Machine& machine_;
    const DoctorQuestions& questions_;
    const MachineUser user_;
    std::optional<InstrumentLook> look_;  // while devices are opened
    bool held_ = false;
    bool folderTakesFiles_ = false;  // that recordings are to go to
    std::optional<MachineLimits> limits_;
    std::vector<Finding> findings_;
};

}  // namespace

const char* nameOf(CheckState state) {
    return state == CheckState::Ok ? "OK" : state == CheckState::Warn ? "WARN" : "FAIL";
}

std::vector<Finding> examine(const Machine& machine, const DoctorQuestions& questions) {
    return Examination(machine, questions).run();
}

}  // namespace zornhost
