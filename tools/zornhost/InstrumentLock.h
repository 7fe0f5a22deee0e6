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

// How the lock of an instrument stands. Takes nothing from a program that holds it, and one that wants it meanwhile
// gets it: it tries for half a second. While this lives no program that begins to use the instrument has got it.
class InstrumentLook {
public:
    enum class State {
        NoFile,  // nobody has ever held it since the machine started
        Free,
        Held,
        Unusable  // the file is no lock file, or can't be opened: `reason` tells
    };

    explicit InstrumentLook(const std::string& file);
    ~InstrumentLook();
    InstrumentLook(const InstrumentLook&) = delete;
    InstrumentLook& operator=(const InstrumentLook&) = delete;

    State state = State::NoFile;
    std::string reason;
    // Of the holder, when it has said so.
    long pid = 0;
    std::string since;
    std::string command;

private:
    int descriptor_ = -1;
};

}  // namespace zornhost
