#pragma once

#include <stdexcept>
#include <string>

namespace zornhost {

// Another process has the instrument. The text says which, since when, and what can be done.
class InstrumentBusy : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One process holds the instrument: loading a module switches converters off, leaving it the supply, so that a second
// program would end the first one's recording. The lock is the kernel's, on a file that stays: it goes with the
// process, however that ends. The file tells others who holds it.
class InstrumentLock {
public:
    // Where the lock of this machine's instrument lies.
    static constexpr const char* defaultFile = "/run/lock/kestrix.lock";

    // Raises InstrumentBusy, or std::runtime_error when the file can't be made or is none of this kind. `command` is
    // what others are told.
    InstrumentLock(const std::string& file, const std::string& command);
    ~InstrumentLock();
    InstrumentLock(const InstrumentLock&) = delete;
    InstrumentLock& operator=(const InstrumentLock&) = delete;

private:
    [[noreturn]] void fail(const std::string& reason) const;

    const std::string file_;
    int descriptor_ = -1;
};

}  // namespace zornhost
