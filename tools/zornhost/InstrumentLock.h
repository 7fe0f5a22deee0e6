#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace zornhost {

// Another process has the instrument. The text says which, since when, and what can be done.
class InstrumentBusy : public std::runtime_error {
public:
    explicit InstrumentBusy(const std::string& text, std::string socket = {})
        : std::runtime_error(text), socket_(std::move(socket)) {}
    // Where that process tells how the instrument stands; empty when it tells nobody.
    const std::string& socket() const { return socket_; }

private:
    std::string socket_;
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

    // Others are told to ask there. A failure leaves them untold.
    void announce(const std::string& socket);

private:
    [[noreturn]] void fail(const std::string& reason) const;

    const std::string file_;
    std::string introduction_;
    int descriptor_ = -1;
};

}  // namespace zornhost
