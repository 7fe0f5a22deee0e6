#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zornhost {

// What is known of a path without opening it.
struct PathStatus {
    int error = 0;  // errno; the rest is known when it is 0
    mode_t mode = 0;
    uid_t owner = 0;
    gid_t group = 0;
    dev_t device = 0;  // of a device node
};

struct MachineUser {
    std::string name;
    uid_t id = 0;
    std::vector<gid_t> groups;      // this process has the rights of
    std::vector<gid_t> registered;  // the user belongs to from the next login on
};

// Tried, and not merely looked up.
struct MachineLimits {
    int priorityError = 0;       // errno of asking for real-time priority in a thread of its own
    int lockError = 0;           // errno of locking a page of memory
    uint64_t lockableBytes = 0;  // the most that may be locked; the largest number: any
};

struct MachineClock {
    int64_t secondsSince1970 = 0;
    bool synchronized = false;
    double largestErrorS = 0.0;  // as the system estimates it, while it is synchronized
};

struct DiskSpace {
    int error = 0;
    uint64_t freeBytes = 0;  // for this user
};

struct DiskSpeed {
    int error = 0;
    double bytesPerSecond = 0.0;
};

struct ModuleProbe {
    std::string failure{};  // empty: it can be loaded
    std::string version{};  // "daq 1.0.0"
};

// The machine that this program runs on, as far as a look at it goes: nothing is changed or left behind. Paths are
// absolute. Raises nothing.
class Machine {
public:
    // `root` stands in front of every path; empty for the machine itself.
    explicit Machine(std::string root = {}) : root_(std::move(root)) {}
    virtual ~Machine() = default;
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // ---- Files: errno or 0 where a number is the answer
    virtual PathStatus status(const std::string& path) const;
    virtual int access(const std::string& path, int mode) const;     // R_OK, W_OK, X_OK with the rights in force
    virtual int openDevice(const std::string& path) const;           // for reading and writing, and closed at once
    std::optional<std::string> read(const std::string& path) const;  // at most 64 KiB, without blanks at the end
    std::vector<std::string> list(const std::string& folder) const;  // names, sorted; empty when there is none
    std::string linkTarget(const std::string& path) const;           // last name of where a link leads; empty: no link

    // ---- The user
    virtual MachineUser user() const;
    virtual std::string userName(uid_t id) const;  // its number where it has none
    virtual std::string groupName(gid_t id) const;

    // ---- The rest
    virtual MachineLimits limits() const;
    virtual MachineClock clock() const;
    virtual int cores() const;
    virtual DiskSpace diskSpace(const std::string& folder) const;
    // Writes past the cache for a second, 1 GiB or a tenth of the free space at most. The file has no name or loses it
    // before the first byte.
    virtual DiskSpeed diskSpeed(const std::string& folder) const;
    // What a command prints, without blanks at the end; nothing when it can't be started or takes longer than 5 s.
    // `failure`: why.
    virtual std::optional<std::string> answer(const std::string& command, std::string& failure) const;
    virtual std::string program(const std::string& name) const;  // its path; empty when there is none
    virtual bool mayConfigureNetwork() const;                    // what this program runs with ip
    // Loads it in a process of its own, asks it for its version and forgets it.
    virtual ModuleProbe probeModule(const std::string& file) const;
    virtual bool lives(long process) const;

protected:
    std::string at(const std::string& path) const { return root_ + path; }

private:
    const std::string root_;
};

}  // namespace zornhost
