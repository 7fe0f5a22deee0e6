// Calls on descriptors. Each looks the descriptor up first; one that is not the instrument's goes on at once.

#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "simulator/preload/DescriptorTable.h"
#include "simulator/preload/Entry.h"
#include "simulator/preload/Mappings.h"
#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/Opening.h"
#include "simulator/preload/Runtime.h"
#include "simulator/preload/SensorFile.h"

using namespace kestrixsim;

namespace {

// After the C library made a descriptor of its own: it cannot be the instrument's any more.
int ordinary(int fd) {
    if (fd >= 0 && DescriptorTable::count() != 0) {
        DescriptorTable::forget(fd);
    }
    return fd;
}

// After `made` was duplicated from `file`, of which the caller holds a reference.
int duplicated(ServedFile& file, int made) {
    if (made < 0) {
        file.release();
    } else if (!DescriptorTable::put(made, file)) {
        file.release();
        next::close(made);
        errno = EMFILE;
        return -1;
    }
    return made;
}

// The file behind a descriptor with one more reference, or null.
ServedFile* retained(int fd) {
    ServedFile* file = DescriptorTable::find(fd);
    return file != nullptr && runtime::ownsProcess() && file->retain() ? file : nullptr;
}

bool needsMode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

// An attribute file takes each write whole, in place of what it held: a plain file has to be cut for that. Nobody makes
// files in the trees of a driver.
int attributeFlags(int flags) {
    const bool cut = (flags & O_ACCMODE) == O_WRONLY && (flags & (O_APPEND | O_DIRECTORY)) == 0;
    return cut ? flags | O_TRUNC : flags;
}

template <typename Pass>
int openPath(const char* path, int flags, Pass&& pass) {
    const Location location(path);
    if (location.ordinary()) {
        return ordinary(pass(path, flags));
    }
    if (location.files()) {
        if (needsMode(flags) && !location.exists()) {
            errno = EACCES;
            return -1;
        }
        if (const int error = (flags & O_ACCMODE) == O_RDONLY ? SensorFile::refresh(location) : 0; error != 0) {
            errno = -error;
            return -1;
        }
        return ordinary(pass(location.path(), attributeFlags(flags)));
    }
    return served([&] { return location.absent() ? -ENOENT : openDevice(location, flags); });
}

int openPath(const char* path, int flags, mode_t mode) {
    return openPath(path, flags, [mode](const char* at, int how) { return next::open(at, how, mode); });
}

int openPathAt(int folder, const char* path, int flags, mode_t mode) {
    return openPath(path, flags,
                    [folder, mode](const char* at, int how) { return next::openat(folder, at, how, mode); });
}

ssize_t readServed(ServedFile& file, void* buffer, size_t size) {
    return served([&]() -> ssize_t { return file.readable() ? file.read(buffer, size) : -EBADF; });
}

ssize_t writeServed(ServedFile& file, const void* buffer, size_t size) {
    return served([&]() -> ssize_t { return file.writable() ? file.write(buffer, size) : -EBADF; });
}

ssize_t readAtServed(ServedFile& file, void* buffer, size_t size, off_t offset) {
    return served([&]() -> ssize_t { return file.readable() ? file.readAt(buffer, size, offset) : -EBADF; });
}

int controlDescriptor(int fd, int command, void* argument) {
    ServedFile* file = DescriptorTable::find(fd);
    if (file == nullptr) {
        const int result = next::fcntl(fd, command, argument);
        return command == F_DUPFD || command == F_DUPFD_CLOEXEC ? ordinary(result) : result;
    }
    if (command == F_DUPFD || command == F_DUPFD_CLOEXEC) {
        ServedFile* shared = retained(fd);
        const int made = next::fcntl(fd, command, argument);
        return shared != nullptr ? duplicated(*shared, made) : made;
    }
    if (command == F_SETFL) {
        if (const int error = served([&] { return file->flagsFault(); }); error != 0) {
            return error;
        }
    }
    const int result = next::fcntl(fd, command, argument);
    if (command == F_SETFL && result == 0) {
        file->setNonBlocking((reinterpret_cast<uintptr_t>(argument) & O_NONBLOCK) != 0);
    }
    return result;
}

template <typename Duplicate>
int duplicateOnto(int fd, int onto, Duplicate&& duplicate) {
    ServedFile* file = fd != onto ? retained(fd) : nullptr;
    const int made = duplicate();
    if (file != nullptr) {
        return duplicated(*file, made);
    }
    return fd != onto ? ordinary(made) : made;
}

int describe(int fd, struct stat* status) {
    ServedFile* file = DescriptorTable::find(fd);
    const int result = next::fstat(fd, status);
    if (file != nullptr && result == 0) {
        status->st_mode = file->type();
        status->st_rdev = file->device();
        status->st_size = 0;
        status->st_blocks = 0;
    }
    return result;
}

void* mapDescriptor(void* address, size_t length, int protection, int flags, int fd, off_t offset) {
    ServedFile* file = (flags & MAP_ANONYMOUS) == 0 ? DescriptorTable::find(fd) : nullptr;
    if (file == nullptr) {
        return next::mmap(address, length, protection, flags, fd, offset);
    }
    Entry entry;
    int error = 0;
    void* memory = file->map(address, length, protection, flags, offset, error);
    if (memory == MAP_FAILED) {
        entry.fail(error);
    }
    return memory;
}

}  // namespace

// ---- Opening and closing -------------------------------------------------------------------------------------------

#define KESTRIX_MODE_AFTER(flags)                           \
    mode_t mode = 0;                                        \
    if (needsMode(flags)) {                                 \
        va_list arguments;                                  \
        va_start(arguments, flags);                         \
        mode = static_cast<mode_t>(va_arg(arguments, int)); \
        va_end(arguments);                                  \
    }

KESTRIX_HOOK(int, open, (const char* path, int flags, ...)) {
    KESTRIX_MODE_AFTER(flags)
    return openPath(path, flags, mode);
}

KESTRIX_HOOK(int, open64, (const char* path, int flags, ...)) {
    KESTRIX_MODE_AFTER(flags)
    return openPath(path, flags, mode);
}

KESTRIX_HOOK(int, __open_2, (const char* path, int flags)) {
    return openPath(path, flags, mode_t{0});
}

KESTRIX_HOOK(int, __open64_2, (const char* path, int flags)) {
    return openPath(path, flags, mode_t{0});
}

KESTRIX_HOOK(int, openat, (int folder, const char* path, int flags, ...)) {
    KESTRIX_MODE_AFTER(flags)
    return openPathAt(folder, path, flags, mode);
}

KESTRIX_HOOK(int, openat64, (int folder, const char* path, int flags, ...)) {
    KESTRIX_MODE_AFTER(flags)
    return openPathAt(folder, path, flags, mode);
}

KESTRIX_HOOK(int, __openat_2, (int folder, const char* path, int flags)) {
    return openPathAt(folder, path, flags, 0);
}

KESTRIX_HOOK(int, __openat64_2, (int folder, const char* path, int flags)) {
    return openPathAt(folder, path, flags, 0);
}

KESTRIX_HOOK(int, creat, (const char* path, mode_t mode)) {
    return openPath(path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}

KESTRIX_HOOK(int, creat64, (const char* path, mode_t mode)) {
    return openPath(path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}

KESTRIX_HOOK(int, close, (int fd)) {
    // First the table: as soon as the descriptor is closed, another thread may be given its number.
    DescriptorTable::forget(fd);
    return next::close(fd);
}

KESTRIX_HOOK(int, close_range, (unsigned first, unsigned last, int flags)) {
    constexpr int onlyCloexec = 4;  // CLOSE_RANGE_CLOEXEC: nothing is closed now
    if ((flags & onlyCloexec) == 0) {
        DescriptorTable::forgetRange(first, last);
    }
    return next::closeRange(first, last, flags);
}

KESTRIX_HOOK(void, closefrom, (int first)) {
    DescriptorTable::forgetRange(static_cast<unsigned>(std::max(first, 0)), ~0U);
    next::closefrom(first);
}

// ---- Duplicates ----------------------------------------------------------------------------------------------------

KESTRIX_HOOK(int, dup, (int fd)) {
    ServedFile* file = retained(fd);
    const int made = next::dup(fd);
    return file != nullptr ? duplicated(*file, made) : ordinary(made);
}

KESTRIX_HOOK(int, dup2, (int fd, int onto)) {
    return duplicateOnto(fd, onto, [&] { return next::dup2(fd, onto); });
}

KESTRIX_HOOK(int, dup3, (int fd, int onto, int flags)) {
    return duplicateOnto(fd, onto, [&] { return next::dup3(fd, onto, flags); });
}

#define KESTRIX_POINTER_AFTER(last)            \
    va_list arguments;                         \
    va_start(arguments, last);                 \
    void* argument = va_arg(arguments, void*); \
    va_end(arguments);

KESTRIX_HOOK(int, fcntl, (int fd, int command, ...)) {
    KESTRIX_POINTER_AFTER(command)
    return controlDescriptor(fd, command, argument);
}

KESTRIX_HOOK(int, fcntl64, (int fd, int command, ...)) {
    KESTRIX_POINTER_AFTER(command)
    return controlDescriptor(fd, command, argument);
}

// ---- Reading and writing -------------------------------------------------------------------------------------------

KESTRIX_HOOK(ssize_t, read, (int fd, void* buffer, size_t size)) {
    ServedFile* file = DescriptorTable::find(fd);
    return file == nullptr ? next::read(fd, buffer, size) : readServed(*file, buffer, size);
}

KESTRIX_HOOK(ssize_t, __read_chk, (int fd, void* buffer, size_t size, size_t room)) {
    if (size > room) {
        __builtin_trap();
    }
    ServedFile* file = DescriptorTable::find(fd);
    return file == nullptr ? next::read(fd, buffer, size) : readServed(*file, buffer, size);
}

KESTRIX_HOOK(ssize_t, pread, (int fd, void* buffer, size_t size, off_t offset)) {
    ServedFile* file = DescriptorTable::find(fd);
    return file == nullptr ? next::pread(fd, buffer, size, offset) : readAtServed(*file, buffer, size, offset);
}

KESTRIX_HOOK(ssize_t, pread64, (int fd, void* buffer, size_t size, off_t offset)) {
    ServedFile* file = DescriptorTable::find(fd);
    return file == nullptr ? next::pread(fd, buffer, size, offset) : readAtServed(*file, buffer, size, offset);
}

KESTRIX_HOOK(ssize_t, __pread_chk, (int fd, void* buffer, size_t size, off_t offset, size_t room)) {
    if (size > room) {
        __builtin_trap();
    }
    ServedFile* file = DescriptorTable::find(fd);
    return file == nullptr ? next::pread(fd, buffer, size, offset) : readAtServed(*file, buffer, size, offset);
}

KESTRIX_HOOK(ssize_t, __pread64_chk, (int fd, void* buffer, size_t size, off_t offset, size_t room)) {
    if (size > room) {
        __builtin_trap();
    }
    ServedFile* file = DescriptorTable::find(fd);
    return file == nullptr ? next::pread(fd, buffer, size, offset) : readAtServed(*file, buffer, size, offset);
}

KESTRIX_HOOK(ssize_t, write, (int fd, const void* buffer, size_t size)) {
    ServedFile* file = DescriptorTable::find(fd);
    return file == nullptr ? next::write(fd, buffer, size) : writeServed(*file, buffer, size);
}

namespace {

ssize_t writeAtDescriptor(int fd, const void* buffer, size_t size, off_t offset) {
    ServedFile* file = DescriptorTable::find(fd);
    if (file == nullptr) {
        return next::pwrite(fd, buffer, size, offset);
    }
    return served([&]() -> ssize_t { return file->writable() ? file->writeAt(buffer, size, offset) : -EBADF; });
}

}  // namespace

KESTRIX_HOOK(ssize_t, pwrite, (int fd, const void* buffer, size_t size, off_t offset)) {
    return writeAtDescriptor(fd, buffer, size, offset);
}

KESTRIX_HOOK(ssize_t, pwrite64, (int fd, const void* buffer, size_t size, off_t offset)) {
    return writeAtDescriptor(fd, buffer, size, offset);
}

// A short result is a correct one: the first part with room is filled.
KESTRIX_HOOK(ssize_t, readv, (int fd, const iovec* parts, int count)) {
    ServedFile* file = DescriptorTable::find(fd);
    if (file == nullptr) {
        return next::readv(fd, parts, count);
    }
    for (int i = 0; i < count; ++i) {
        if (parts[i].iov_len != 0) {
            return readServed(*file, parts[i].iov_base, parts[i].iov_len);
        }
    }
    return 0;
}

// The parts of one write belong together: on a bus they are one message.
KESTRIX_HOOK(ssize_t, writev, (int fd, const iovec* parts, int count)) {
    ServedFile* file = DescriptorTable::find(fd);
    if (file == nullptr) {
        return next::writev(fd, parts, count);
    }
    std::array<char, 8192> whole;
    size_t size = 0;
    for (int i = 0; i < count; ++i) {
        const size_t part = std::min(parts[i].iov_len, whole.size() - size);
        std::memcpy(whole.data() + size, parts[i].iov_base, part);
        size += part;
    }
    return writeServed(*file, whole.data(), size);
}

KESTRIX_HOOK(int, ioctl, (int fd, unsigned long request, ...)) {
    KESTRIX_POINTER_AFTER(request)
    ServedFile* file = DescriptorTable::find(fd);
    if (file == nullptr) {
        return next::ioctl(fd, request, argument);
    }
    // Callers that keep the number in an int extend its sign.
    const auto number = static_cast<uint32_t>(request & 0xFFFFFFFF);
    if (number == FIOCLEX || number == FIONCLEX) {
        return next::ioctl(fd, request, argument);
    }
    if (number == FIONBIO && argument != nullptr) {
        file->setNonBlocking(*static_cast<const int*>(argument) != 0);
        return next::ioctl(fd, request, argument);
    }
    return served([&] { return file->control(number, reinterpret_cast<uintptr_t>(argument)); });
}

KESTRIX_HOOK(int, fstat, (int fd, struct stat* status)) {
    return describe(fd, status);
}

KESTRIX_HOOK(int, fstat64, (int fd, struct stat* status)) {
    return describe(fd, status);
}

// The names of C libraries before 2.33; TSan's run time still goes this way. The first argument is the version of the
// structure, and only one exists on 64-bit targets.
KESTRIX_HOOK(int, __fxstat, (int, int fd, struct stat* status)) {
    return describe(fd, status);
}

KESTRIX_HOOK(int, __fxstat64, (int, int fd, struct stat* status)) {
    return describe(fd, status);
}

// ---- Memory --------------------------------------------------------------------------------------------------------

KESTRIX_HOOK(void*, mmap, (void* address, size_t length, int protection, int flags, int fd, off_t offset)) {
    return mapDescriptor(address, length, protection, flags, fd, offset);
}

KESTRIX_HOOK(void*, mmap64, (void* address, size_t length, int protection, int flags, int fd, off_t offset)) {
    return mapDescriptor(address, length, protection, flags, fd, offset);
}

KESTRIX_HOOK(int, munmap, (void* address, size_t length)) {
    if (!Entry::inside()) {
        Entry entry;
        int result = 0;
        if (Mappings::end(address, length, result)) {
            return entry.finish(result);
        }
    }
    return next::munmap(address, length);
}

// ---- Terminal ------------------------------------------------------------------------------------------------------

KESTRIX_HOOK(int, tcgetattr, (int fd, termios* settings)) {
    ServedFile* file = DescriptorTable::find(fd);
    return file == nullptr ? next::tcgetattr(fd, settings) : served([&] { return file->getAttributes(*settings); });
}

KESTRIX_HOOK(int, tcsetattr, (int fd, int when, const termios* settings)) {
    ServedFile* file = DescriptorTable::find(fd);
    if (file == nullptr) {
        return next::tcsetattr(fd, when, settings);
    }
    return served([&] {
        if (when != TCSANOW && when != TCSADRAIN && when != TCSAFLUSH) {
            return -EINVAL;
        }
        if (when == TCSAFLUSH) {
            file->flush(TCIFLUSH);
        }
        return file->setAttributes(*settings);
    });
}

KESTRIX_HOOK(int, tcflush, (int fd, int queue)) {
    ServedFile* file = DescriptorTable::find(fd);
    return file == nullptr ? next::tcflush(fd, queue) : served([&] { return file->flush(queue); });
}

KESTRIX_HOOK(int, tcdrain, (int fd)) {
    ServedFile* file = DescriptorTable::find(fd);
    return file == nullptr ? next::tcdrain(fd) : served([&] { return file->isTerminal() ? 0 : -ENOTTY; });
}

KESTRIX_HOOK(int, isatty, (int fd)) {
    ServedFile* file = DescriptorTable::find(fd);
    if (file == nullptr) {
        return next::isatty(fd);
    }
    if (!file->isTerminal()) {
        errno = ENOTTY;
        return 0;
    }
    return 1;
}
