#include "tools/zornhost/Machine.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <linux/capability.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#include <zorn/structure/module.h>

#include "tools/zornhost/Elapsed.h"
#include "tools/zornhost/Output.h"

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t longestText = 64 << 10;
constexpr int answerTimeMs = 5000;
constexpr int probeTimeMs = 20000;
constexpr double diskTimeS = 1.0;
constexpr size_t diskPiece = 4 << 20;   // bytes of one write
constexpr size_t diskAlignment = 4096;  // that writes past the cache need
constexpr uint64_t mostPieces = 256;
constexpr uint64_t shareOfSpace = 10;  // the part of the free space that a test may use

class Descriptor {
public:
    explicit Descriptor(int value) : value_(value) {}
    ~Descriptor() {
        if (value_ >= 0) {
            ::close(value_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return value_; }

private:
    const int value_;
};

std::string trimmed(std::string text) {
    text.resize(text.find_last_not_of(std::string_view(" \t\r\n\0", 5)) + 1);
    return text;
}

// A file without a name. Where the file system knows none, one whose name is gone at once.
int openNameless(const std::string& folder) {
    constexpr mode_t mode = 0600;
    const int file = ::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, mode);
    if (file >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) {
        return file;
    }
    std::string name = folder + "/zornhost-doctor-XXXXXX";
    const int named = ::mkostemp(name.data(), O_CLOEXEC);
    if (named >= 0) {
        ::unlink(name.c_str());
    }
    return named;
}

// Runs in the child: prints "daq 1.0.0", or what is wrong behind "!".
std::string probe(const std::string& file) {
    void* const library = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* const reason = ::dlerror();
        return std::string("!") + (reason != nullptr ? reason : "no reason was given");
    }
    const auto find = [library](const char* name) { return ::dlsym(library, name); };
    auto* const check = reinterpret_cast<ErrCode (*)(IString**)>(find("zornCheckDependencies"));
    auto* create = reinterpret_cast<ErrCode (*)(IModuleDriver**)>(find("createModuleDriver"));
    if (create == nullptr) {
        create = reinterpret_cast<ErrCode (*)(IModuleDriver**)>(find("createDaqModuleDriver"));
    }
    if (check == nullptr || create == nullptr) {
        return "!it is no module library: its entry points are missing";
    }
    IString* message = nullptr;
    if (failed(check(&message))) {
        const StringPtr text = ObjectPtr<IString>::take(message);
        return "!" + (text ? text.toStdString() : std::string("its version check failed"));
    }
    IModuleDriver* driver = nullptr;
    IString* name = nullptr;
    IVersionInfo* version = nullptr;
    std::array<unsigned int, 3> number{};
    if (failed(create(&driver)) || driver == nullptr || failed(driver->getName(&name)) || name == nullptr ||
        failed(driver->getVersionInfo(&version)) || version == nullptr || failed(version->getMajor(&number[0])) ||
        failed(version->getMinor(&number[1])) || failed(version->getPatch(&number[2]))) {
        return "!it doesn't tell its version";
    }
    return fmt::format("{} {}.{}.{}", StringPtr(ObjectPtr<IString>::take(name)).toStdString(), number[0], number[1],
                       number[2]);
}

// What comes from a descriptor until its other end is closed; nothing when that takes too long.
std::optional<std::string> readToEnd(int descriptor, int timeMs) {
    const auto until = Clock::now() + std::chrono::milliseconds(timeMs);
    std::string text;
    while (text.size() < longestText) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
        pollfd wait{descriptor, POLLIN, 0};
        const int ready = left > 0 ? ::poll(&wait, 1, static_cast<int>(left)) : 0;
        if (ready == 0) {
            return std::nullopt;
        }
        std::array<char, 512> piece;
        const ssize_t count = ready > 0 ? ::read(descriptor, piece.data(), piece.size()) : -1;
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        text.append(piece.data(), static_cast<size_t>(count));
    }
    return text;
}

}  // namespace

PathStatus Machine::status(const std::string& path) const {
    struct stat found {};
    if (::stat(at(path).c_str(), &found) != 0) {
        return {.error = errno};
    }
    return {.error = 0, .mode = found.st_mode, .owner = found.st_uid, .group = found.st_gid, .device = found.st_rdev};
}

int Machine::access(const std::string& path, int mode) const {
    return ::euidaccess(at(path).c_str(), mode) == 0 ? 0 : errno;
}

int Machine::openDevice(const std::string& path) const {
    const Descriptor device(::open(at(path).c_str(), O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return device.get() >= 0 ? 0 : errno;
}

std::optional<std::string> Machine::read(const std::string& path) const {
    const Descriptor file(::open(at(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (file.get() < 0) {
        return std::nullopt;
    }
    std::string text;
    std::array<char, 4096> piece;
    ssize_t count = 0;
    while (text.size() < longestText && (count = ::read(file.get(), piece.data(), piece.size())) > 0) {
        text.append(piece.data(), static_cast<size_t>(count));
    }
    return count < 0 ? std::nullopt : std::optional(trimmed(std::move(text)));
}

std::vector<std::string> Machine::list(const std::string& folder) const {
    std::vector<std::string> names;
    DIR* const stream = ::opendir(at(folder).c_str());
    if (stream == nullptr) {
        return names;
    }
    while (const dirent* entry = ::readdir(stream)) {  // NOLINT(concurrency-mt-unsafe): a stream of its own
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    ::closedir(stream);
    std::sort(names.begin(), names.end());
    return names;
}

std::string Machine::linkTarget(const std::string& path) const {
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlink(at(path).c_str(), target.data(), target.size());
    const std::string text(target.data(), length > 0 ? static_cast<size_t>(length) : 0);
    return text.substr(text.rfind('/') + 1);
}

MachineUser Machine::user() const {
    MachineUser user;
    user.id = ::geteuid();
    user.name = userName(user.id);
    const int count = std::max(0, ::getgroups(0, nullptr));
    user.groups.resize(static_cast<size_t>(count));
    user.groups.resize(static_cast<size_t>(std::max(0, ::getgroups(count, user.groups.data()))));
    user.groups.push_back(::getegid());
    int registered = 256;
    user.registered.resize(static_cast<size_t>(registered));
    if (::getgrouplist(user.name.c_str(), ::getegid(), user.registered.data(), &registered) < 0) {
        registered = 0;
    }
    user.registered.resize(static_cast<size_t>(registered));
    return user;
}

std::string Machine::userName(uid_t id) const {
    const passwd* entry = ::getpwuid(id);  // NOLINT(concurrency-mt-unsafe): before any thread
    return entry != nullptr ? entry->pw_name : fmt::format("{}", id);
}

std::string Machine::groupName(gid_t id) const {
    const group* entry = ::getgrgid(id);  // NOLINT(concurrency-mt-unsafe): before any thread
    return entry != nullptr ? entry->gr_name : fmt::format("{}", id);
}

MachineLimits Machine::limits() const {
    MachineLimits limits;
    std::thread([&limits] {
        const sched_param lowest{::sched_get_priority_min(SCHED_FIFO)};
        limits.priorityError = ::pthread_setschedparam(::pthread_self(), SCHED_FIFO, &lowest);
        const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
        void* const memory = ::mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            limits.lockError = errno;
        } else {
            limits.lockError = ::mlock(memory, page) == 0 ? 0 : errno;
            ::munmap(memory, page);
        }
    }).join();
    rlimit lockable{};
    ::getrlimit(RLIMIT_MEMLOCK, &lockable);
    limits.lockableBytes = lockable.rlim_cur == RLIM_INFINITY ? UINT64_MAX : lockable.rlim_cur;
    return limits;
}

MachineClock Machine::clock() const {
    timex state{};
    const int answer = ::adjtimex(&state);
    MachineClock clock;
    clock.secondsSince1970 = std::time(nullptr);
    clock.synchronized = answer >= 0 && answer != TIME_ERROR && (state.status & STA_UNSYNC) == 0;
    clock.largestErrorS = static_cast<double>(state.maxerror) / 1e6;
    return clock;
}

int Machine::cores() const {
    return static_cast<int>(std::max(1L, ::sysconf(_SC_NPROCESSORS_ONLN)));
}

DiskSpace Machine::diskSpace(const std::string& folder) const {
    struct statvfs space {};
    if (::statvfs(at(folder).c_str(), &space) != 0) {
        return {.error = errno};
    }
    return {.error = 0, .freeBytes = static_cast<uint64_t>(space.f_bavail) * space.f_frsize};
}

DiskSpeed Machine::diskSpeed(const std::string& folder) const {
    const Descriptor file(openNameless(at(folder)));
    if (file.get() < 0) {
        return {.error = errno};
    }
    // Where the file system has no way past the cache, fdatasync after each write comes nearest.
    const bool direct = ::fcntl(file.get(), F_SETFL, O_DIRECT) == 0;
    const uint64_t most = std::clamp<uint64_t>(diskSpace(folder).freeBytes / shareOfSpace / diskPiece, 1, mostPieces);
    char* const memory = static_cast<char*>(std::aligned_alloc(diskAlignment, diskPiece));
    if (memory == nullptr) {
        return {.error = ENOMEM};
    }
    // No disk makes less of it than it is.
    uint64_t noise = 0x9E3779B97F4A7C15;
    for (size_t i = 0; i + sizeof noise <= diskPiece; i += sizeof noise) {
        noise ^= noise << 13;
        noise ^= noise >> 7;
        noise ^= noise << 17;
        std::memcpy(memory + i, &noise, sizeof noise);
    }
    DiskSpeed result;
    const auto begin = Clock::now();
    uint64_t written = 0;
    for (uint64_t piece = 0; piece < most && secondsSince(begin) < diskTimeS; ++piece) {
        ssize_t count = ::write(file.get(), memory, diskPiece);
        if (count < 0 && errno == EINVAL && direct && piece == 0) {
            ::fcntl(file.get(), F_SETFL, 0);
            count = ::write(file.get(), memory, diskPiece);
        }
        if (count <= 0 || ::fdatasync(file.get()) != 0) {
            result.error = count == 0 ? ENOSPC : errno;
            break;
        }
        written += static_cast<uint64_t>(count);
    }
    std::free(memory);
    result.bytesPerSecond = static_cast<double>(written) / std::max(1e-6, secondsSince(begin));
    return result;
}

std::optional<std::string> Machine::answer(const std::string& command, std::string& failure) const {
    FILE* const pipe = ::popen(command.c_str(), "re");  // NOLINT(cert-env33-c): a script of the instrument
    if (pipe == nullptr) {
        failure = fmt::format("can't be started: {}", std::strerror(errno));
        return std::nullopt;
    }
    const auto text = readToEnd(::fileno(pipe), answerTimeMs);
    if (!text) {
        // Not waited for: that would take as long as the script does.
        failure = fmt::format("has not ended after {} s", answerTimeMs / 1000);
        return std::nullopt;
    }
    ::pclose(pipe);
    return trimmed(*text);
}

std::string Machine::program(const std::string& name) const {
    const char* const found = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe)
    std::string path = std::string(found != nullptr ? found : "/usr/bin:/bin") + ":";
    while (!path.empty()) {
        const std::string file = path.substr(0, path.find(':')) + "/" + name;
        path.erase(0, path.find(':') + 1);
        if (file.front() == '/' && access(file, X_OK) == 0) {
            return file;
        }
    }
    return {};
}

bool Machine::mayConfigureNetwork() const {
    // ip gives up all rights that it isn't lent by the program that starts it.
    return ::geteuid() == 0 || ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_IS_SET, CAP_NET_ADMIN, 0, 0) == 1;
}

ModuleProbe Machine::probeModule(const std::string& file) const {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return {.failure = std::strerror(errno)};
    }
    const pid_t child = ::fork();
    if (child == 0) {
        const std::string text = probe(file);
        [[maybe_unused]] const ssize_t told = ::write(ends[1], text.data(), text.size());
        ::_exit(0);  // no handlers of this process, and none of the module's
    }
    ::close(ends[1]);
    const Descriptor from(ends[0]);
    if (child < 0) {
        return {.failure = std::strerror(errno)};
    }
    const auto text = readToEnd(from.get(), probeTimeMs);
    if (!text) {
        ::kill(child, SIGKILL);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!text) {
        return {.failure = fmt::format("loading it has not ended after {} s", probeTimeMs / 1000)};
    }
    if (WIFSIGNALED(status)) {
        return {.failure = fmt::format("the process that loads it dies: {}", ::strsignal(WTERMSIG(status)))};
    }
    if (text->empty() || text->front() == '!') {
        return {.failure = text->empty() ? "the process that loads it ends" : oneLine(text->substr(1))};
    }
    return {.version = *text};
}

bool Machine::lives(long process) const {
    return process > 0 && (::kill(static_cast<pid_t>(process), 0) == 0 || errno != ESRCH);
}

}  // namespace zornhost
