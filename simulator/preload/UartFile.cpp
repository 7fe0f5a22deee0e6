#include "simulator/preload/UartFile.h"

#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace kestrixsim {

namespace {

// What a read or write must know of the attributes, in one word that it loads without a lock.
struct alignas(8) Behaviour {
    uint8_t minimum;
    uint8_t time;  // tenths of a second
    bool canonical;
    bool audible;   // the firmware's speed
    uint8_t input;  // of the bits below
    bool lineEnds;  // each line feed is written behind a carriage return
    uint8_t unused[2];
};
static_assert(std::atomic<Behaviour>::is_always_lock_free);

// What a port that is not raw does to the bytes that come in.
enum : uint8_t { stripped = 1, flowControlled = 2, returnsDropped = 4, returnsChanged = 8, feedsChanged = 16 };

uint8_t inputRules(tcflag_t flags) {
    return static_cast<uint8_t>(((flags & ISTRIP) != 0 ? stripped : 0) | ((flags & IXON) != 0 ? flowControlled : 0) |
                                ((flags & IGNCR) != 0 ? returnsDropped : 0) |
                                ((flags & ICRNL) != 0 ? returnsChanged : 0) |
                                ((flags & INLCR) != 0 ? feedsChanged : 0));
}

// In place; the number of bytes that are left.
size_t comeIn(uint8_t rules, uint8_t* bytes, size_t size) {
    if (rules == 0) {
        return size;
    }
    size_t kept = 0;
    for (size_t i = 0; i < size; ++i) {
        uint8_t byte = (rules & stripped) != 0 ? bytes[i] & 0x7F : bytes[i];
        const bool flow = (rules & flowControlled) != 0 && (byte == 0x11 || byte == 0x13);
        if (flow || (byte == '\r' && (rules & returnsDropped) != 0)) {
            continue;
        }
        if (byte == '\r' && (rules & returnsChanged) != 0) {
            byte = '\n';
        } else if (byte == '\n' && (rules & feedsChanged) != 0) {
            byte = '\r';
        }
        bytes[kept++] = byte;
    }
    return kept;
}

constinit std::atomic<Behaviour> behaviour{Behaviour{1, 0, true, false, flowControlled | returnsChanged, true, {}}};
constinit std::atomic<int> aheadByte{-1};  // taken from the wire by poll, not read yet

termios powerOnSettings() {
    termios settings{};
    settings.c_iflag = ICRNL | IXON;
    settings.c_oflag = OPOST | ONLCR;
    settings.c_cflag = CS8 | CREAD | HUPCL;
    settings.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHOCTL | ECHOKE | IEXTEN;
    settings.c_cc[VMIN] = 1;
    cfsetispeed(&settings, B9600);
    cfsetospeed(&settings, B9600);
    return settings;
}

// Under the runtime's lock.
termios& portSettings() {
    static termios settings = powerOnSettings();
    return settings;
}

void apply(const termios& settings) {
    portSettings() = settings;
    // Input speed 0 means: as the output.
    const bool audible = cfgetospeed(&settings) == B38400 &&
                         (cfgetispeed(&settings) == B38400 || cfgetispeed(&settings) == B0) &&
                         (settings.c_cflag & CSIZE) == CS8 && (settings.c_cflag & (PARENB | CSTOPB)) == 0;
    behaviour.store({settings.c_cc[VMIN],
                     settings.c_cc[VTIME],
                     (settings.c_lflag & ICANON) != 0,
                     audible,
                     inputRules(settings.c_iflag),
                     (settings.c_oflag & (OPOST | ONLCR)) == (OPOST | ONLCR),
                     {}});
}

// The kernel's own form of the attributes, which the ioctl of the same purpose takes.
struct KernelTermios {
    uint32_t inputFlags;
    uint32_t outputFlags;
    uint32_t controlFlags;
    uint32_t localFlags;
    uint8_t line;
    uint8_t characters[19];
};
static_assert(sizeof(KernelTermios) == 36);

}  // namespace

constinit FilePool<UartFile> UartFile::pool_;

int UartFile::open(int, ServedFile*& file) {
    const int result = runtime::get().uartOpen();
    if (result == 0) {
        file = &pool_.take();
    }
    return result;
}

ssize_t UartFile::read(void* buffer, size_t size) {
    if (size == 0) {
        return 0;
    }
    auto* bytes = static_cast<uint8_t*>(buffer);
    const Behaviour rules = behaviour.load();
    const size_t minimum = rules.canonical ? 1 : rules.minimum;
    const int pauseMs = rules.canonical ? 0 : rules.time * 100;
    Instrument& instrument = runtime::get();

    size_t got = 0;
    if (const int ahead = aheadByte.exchange(-1); ahead >= 0) {
        bytes[got++] = static_cast<uint8_t>(ahead);
    }
    if (minimum == 0) {
        const int timeoutMs = got != 0 || nonBlocking() ? 0 : pauseMs;
        ssize_t count = 0;
        do {
            count = got < size ? instrument.uartRead(bytes + got, size - got, timeoutMs) : 0;
            if (count < 0) {
                return count;
            }
            got += comeIn(rules.input, bytes + got, static_cast<size_t>(count));
        } while (count > 0 && got == 0);  // a byte that does not come in ends no wait
        return got == 0 && nonBlocking() && rules.time != 0 ? -EAGAIN : static_cast<ssize_t>(got);
    }
    // VMIN bytes, or what has come when VTIME passes between two of them. The first byte is waited for without end.
    while (got < std::min(minimum, size)) {
        const bool timed = got != 0 && pauseMs != 0;
        const int timeoutMs = nonBlocking() ? 0 : timed ? pauseMs : 100;
        const ssize_t count = instrument.uartRead(bytes + got, size - got, timeoutMs);
        if (count < 0) {
            return count;
        }
        if (count == 0 && (nonBlocking() || timed)) {
            break;
        }
        got += comeIn(rules.input, bytes + got, static_cast<size_t>(count));
    }
    return got == 0 ? -EAGAIN : static_cast<ssize_t>(got);
}

ssize_t UartFile::write(const void* buffer, size_t size) {
    const Behaviour rules = behaviour.load();
    if (!rules.audible) {
        return static_cast<ssize_t>(size);
    }
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    if (!rules.lineEnds || std::find(bytes, bytes + size, '\n') == bytes + size) {
        return runtime::get().uartWrite(bytes, size);
    }
    std::vector<uint8_t> sent;
    for (size_t i = 0; i < size; ++i) {
        if (bytes[i] == '\n') {
            sent.push_back('\r');
        }
        sent.push_back(bytes[i]);
    }
    const ssize_t result = runtime::get().uartWrite(sent.data(), sent.size());
    return result < 0 ? result : static_cast<ssize_t>(size);
}

int UartFile::control(uint32_t request, uintptr_t argument) {
    switch (request) {
        case TCFLSH:
            return flush(static_cast<int>(argument));
        case TCSBRK:
        case TCSBRKP:
            return 0;
        case TCGETS: {
            if (argument == 0) {
                return -EFAULT;
            }
            termios settings{};
            if (const int result = getAttributes(settings); result != 0) {
                return result;
            }
            auto& out = *reinterpret_cast<KernelTermios*>(argument);
            out = {settings.c_iflag, settings.c_oflag, settings.c_cflag, settings.c_lflag, settings.c_line, {}};
            std::memcpy(out.characters, settings.c_cc, sizeof out.characters);
            return 0;
        }
        case TCSETS:
        case TCSETSW:
        case TCSETSF: {
            if (argument == 0) {
                return -EFAULT;
            }
            const auto& in = *reinterpret_cast<const KernelTermios*>(argument);
            termios settings{};
            settings.c_iflag = in.inputFlags;
            settings.c_oflag = in.outputFlags;
            settings.c_cflag = in.controlFlags;
            settings.c_lflag = in.localFlags;
            settings.c_line = in.line;
            std::memcpy(settings.c_cc, in.characters, sizeof in.characters);
            cfsetospeed(&settings, in.controlFlags & CBAUD);
            cfsetispeed(&settings, in.controlFlags & CBAUD);
            return setAttributes(settings);
        }
        default:
            return -ENOTTY;
    }
}

short UartFile::ready() {
    if (aheadByte.load() < 0) {
        uint8_t byte = 0;
        if (runtime::get().uartRead(&byte, 1, 0) == 1 && comeIn(behaviour.load().input, &byte, 1) == 1) {
            aheadByte.store(byte);
        }
    }
    return static_cast<short>(POLLOUT | POLLWRNORM | (aheadByte.load() >= 0 ? POLLIN | POLLRDNORM : 0));
}

int UartFile::getAttributes(termios& settings) {
    if (const int result = runtime::get().uartConfigure(); result != 0) {
        return result;
    }
    const std::scoped_lock guard(runtime::lock());
    settings = portSettings();
    return 0;
}

int UartFile::setAttributes(const termios& settings) {
    if (const int result = runtime::get().uartConfigure(); result != 0) {
        return result;
    }
    const std::scoped_lock guard(runtime::lock());
    apply(settings);
    return 0;
}

int UartFile::flush(int queue) {
    if (queue == TCIFLUSH || queue == TCIOFLUSH) {
        aheadByte.store(-1);
        runtime::get().uartFlush();
        return 0;
    }
    return queue == TCOFLUSH ? 0 : -EINVAL;
}

void UartFile::restorePort() {
    aheadByte.store(-1);
    apply(powerOnSettings());
}

void UartFile::recycle() {
    pool_.giveBack(*this);
}

}  // namespace kestrixsim
