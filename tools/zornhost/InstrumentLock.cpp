#include "tools/zornhost/InstrumentLock.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <sstream>
#include <thread>

#include "tools/zornhost/Output.h"

namespace zornhost {

namespace {

// "pid 4711\nsince 2024-05-01 12:00:00 +0200\ncommand zornhost record ...\nsocket /run/kestrix-4711.sock\n"; the
// last line when there is one.
constexpr std::string_view pidMark = "pid ";
constexpr std::string_view sinceMark = "since ";
constexpr std::string_view commandMark = "command ";
constexpr std::string_view socketMark = "socket ";
constexpr std::string_view socketName = "/kestrix-";  // how the name of a socket begins
constexpr size_t commandLength = 600;
constexpr auto introductionTime = std::chrono::milliseconds(500);  // from holding a lock to having written who it is

struct Holder {
    long pid = 0;  // 0: nothing is known
    std::string since;
    std::string command;
    std::string socket;
};

std::string readAll(int descriptor) {
    char text[1024];
    const ssize_t length = ::pread(descriptor, text, sizeof text, 0);
    return length > 0 ? std::string(text, static_cast<size_t>(length)) : std::string();
}

Holder holderOf(const std::string& text) {
    Holder holder;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(pidMark)) {
            holder.pid = std::strtol(line.c_str() + pidMark.size(), nullptr, 10);
        } else if (line.starts_with(sinceMark)) {
            holder.since = line.substr(sinceMark.size());
        } else if (line.starts_with(commandMark)) {
            holder.command = line.substr(commandMark.size());
        } else if (line.starts_with(socketMark)) {
            holder.socket = line.substr(socketMark.size());
        }
    }
    return holder;
}

bool lives(long pid) {
    return pid > 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH);
}

// Between taking the lock and saying so there is a moment in which the file names nobody, or one that has died. So it
// is with a program that merely looks: the lock is to be had as soon as it has. Nothing when it was taken meanwhile.
std::optional<Holder> introducedHolder(int descriptor) {
    const auto until = std::chrono::steady_clock::now() + introductionTime;
    while (true) {
        Holder holder = holderOf(readAll(descriptor));
        if (lives(holder.pid)) {
            return holder;
        }
        if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0) {
            return std::nullopt;
        }
        if (std::chrono::steady_clock::now() >= until) {
            return Holder();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::string shortened(const std::string& text) {
    return text.size() > commandLength ? text.substr(0, commandLength) + " ..." : text;
}

std::string introductionOf(const std::string& command) {
    const auto now = fmt::localtime(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()));
    return fmt::format("{}{}\n{}{:%Y-%m-%d %H:%M:%S %z}\n{}{}\n", pidMark, ::getpid(), sinceMark, now, commandMark,
                       shortened(oneLine(command)));
}

// What a holder that was killed has left behind: nobody listens there any more.
void removeSocketOf(const Holder& dead) {
    const size_t slash = dead.socket.rfind('/');
    struct stat status {};
    if (slash != std::string::npos && std::string_view(dead.socket).substr(slash).starts_with(socketName) &&
        ::lstat(dead.socket.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
        ::unlink(dead.socket.c_str());
    }
}

// Who holds the lock. Where there is no room for it, others are told that somebody does.
void introduce(int descriptor, const std::string& text) {
    if (::ftruncate(descriptor, 0) != 0 ||
        ::pwrite(descriptor, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        [[maybe_unused]] const int emptied = ::ftruncate(descriptor, 0);
    }
}

}  // namespace

void InstrumentLock::fail(const std::string& reason) const {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
    }
    throw std::runtime_error(fmt::format(
        "the instrument can't be locked: {}: {}; name another file with --lock or KESTRIX_LOCK, the same for all "
        "programs that use this instrument",
        file_, reason));
}

InstrumentLock::InstrumentLock(const std::string& file, const std::string& command) : file_(file) {
    // The kernel refuses O_CREAT for another user's file in a folder that all may write to, so that it comes second.
    constexpr int flags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    descriptor_ = ::open(file.c_str(), flags);
    if (descriptor_ < 0 && errno == ENOENT) {
        descriptor_ = ::open(file.c_str(), flags | O_CREAT | O_EXCL, 0666);
        if (descriptor_ >= 0) {
            ::fchmod(descriptor_, 0666);  // whatever the mask: the next program may be another user's
        } else if (errno == EEXIST) {
            descriptor_ = ::open(file.c_str(), flags);  // another program was quicker
        }
    }
    if (descriptor_ < 0) {
        fail(std::strerror(errno));
    }
    struct stat status {};
    const std::string present = readAll(descriptor_);
    if (::fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode) ||
        (!present.empty() && !present.starts_with(pidMark))) {
        fail("is no lock file");
    }
    std::optional<Holder> found;
    if (::flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            fail(std::strerror(errno));
        }
        found = introducedHolder(descriptor_);
    }
    if (!found) {
        removeSocketOf(holderOf(present));
        introduction_ = introductionOf(command);
        introduce(descriptor_, introduction_);
        return;
    }
    const Holder& holder = *found;
    ::close(descriptor_);
    if (holder.pid == 0) {
        throw InstrumentBusy(
            fmt::format("another process holds the instrument ({} is locked): wait until it has ended", file));
    }
    throw InstrumentBusy(
        fmt::format("the instrument is held by process {0} since {1} (\"{2}\"): wait until it has ended, or end it "
                    "with \"kill {0}\"",
                    holder.pid, holder.since, holder.command),
        holder.socket);
}

void InstrumentLock::announce(const std::string& socket) {
    introduce(descriptor_, fmt::format("{}{}{}\n", introduction_, socketMark, socket));
}

InstrumentLock::~InstrumentLock() {
    // Never removed: two programs could then hold the lock of two files of that name.
    [[maybe_unused]] const int emptied = ::ftruncate(descriptor_, 0);
    ::close(descriptor_);
}

InstrumentLook::InstrumentLook(const std::string& file) {
    const auto unusable = [this](const std::string& why) {
        state = State::Unusable;
        reason = why;
    };
    // As a program that wants the lock opens it; a file that can only be read is of no use to that.
    descriptor_ = ::open(file.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (descriptor_ < 0) {
        if (errno != ENOENT) {
            unusable(std::strerror(errno));
        }
        return;
    }
    struct stat status {};
    const std::string present = readAll(descriptor_);
    if (::fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode) ||
        (!present.empty() && !present.starts_with(pidMark))) {
        unusable("is no lock file");
    } else if (::flock(descriptor_, LOCK_SH | LOCK_NB) == 0) {
        state = State::Free;
    } else if (errno != EWOULDBLOCK) {
        unusable(std::strerror(errno));
    } else {
        const Holder holder = holderOf(present);
        state = State::Held;
        if (lives(holder.pid)) {
            pid = holder.pid;
            since = holder.since;
            command = holder.command;
        }
    }
}

InstrumentLook::~InstrumentLook() {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
    }
}

}  // namespace zornhost
