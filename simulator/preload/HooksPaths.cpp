// Calls on paths. A plain file of the instrument is reached under its name in the root folder, a device answers for
// itself, a path of the instrument behind which nothing stands is ENOENT.

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "simulator/preload/Commands.h"
#include "simulator/preload/DescriptorTable.h"
#include "simulator/preload/DmaFile.h"
#include "simulator/preload/Entry.h"
#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/Opening.h"
#include "simulator/preload/PtpSocket.h"
#include "simulator/preload/SensorFile.h"

using namespace kestrixsim;

namespace {

// Whether the node of a device is there at all, as 0 or a negative errno. A fault that lets open fail hides no node.
int nodePresent(const Location& location) {
    const bool dma = location.kind() == DoorKind::DmaRaw || location.kind() == DoorKind::DmaFiltered;
    return dma && !DmaFile::exists(location.number()) ? -ENOENT : 0;
}

// One call that asks something about a path: `pass` makes it for a path of the file system, `node` for a device.
template <typename Pass, typename Node>
int ask(const char* path, Pass&& pass, Node&& node, bool permission = false) {
    const Location location(path);
    if (const int error = SensorFile::check(location, permission); error != 0) {
        errno = -error;
        return -1;
    }
    if (location.ordinary() || location.files()) {
        return pass(location.path());
    }
    Entry entry;
    const int present = location.absent() ? -ENOENT : nodePresent(location);
    return entry.finish(present != 0 ? present : node(location));
}

int checkAccess(const Location&, int mode) {
    return (mode & X_OK) != 0 ? -EACCES : 0;
}

int fillStatus(dev_t device, struct stat* status) {
    std::memset(status, 0, sizeof *status);
    status->st_mode = S_IFCHR | 0660;
    status->st_nlink = 1;
    status->st_blksize = 4096;
    status->st_rdev = device;
    return 0;
}

int askStatus(const char* path, struct stat* status, Next<int(const char*, struct stat*)>& next) {
    return ask(
        path, [&](const char* at) { return next(at, status); },
        [&](const Location& location) { return fillStatus(nodeNumber(location), status); });
}

int askStatusAt(int folder, const char* path, struct stat* status, int flags) {
    if (path != nullptr && *path == '\0' && (flags & AT_EMPTY_PATH) != 0) {
        if (const ServedFile* file = DescriptorTable::find(folder)) {
            return fillStatus(file->device(), status);
        }
    }
    return ask(
        path, [&](const char* at) { return next::fstatat(folder, at, status, flags); },
        [&](const Location& location) { return fillStatus(nodeNumber(location), status); });
}

// Whether a stream would make a file where a driver's tree lets nobody make one.
bool makesNothing(const Location& location, const char* mode) {
    return location.files() && mode != nullptr && (mode[0] == 'w' || mode[0] == 'a') && !location.exists();
}

FILE* openStream(const char* path, const char* mode) {
    const Location location(path);
    if (makesNothing(location, mode)) {
        errno = EACCES;
        return nullptr;
    }
    if (const int error = SensorFile::refresh(location); error != 0) {
        errno = -error;
        return nullptr;
    }
    if (location.ordinary() || location.files()) {
        return next::fopen(location.path(), mode);
    }
    // A stream reads its descriptor behind the C library's edge, where the instrument cannot answer.
    errno = location.absent() ? ENOENT : ENOTSUP;
    return nullptr;
}

FILE* reopenStream(const char* path, const char* mode, FILE* stream) {
    const Location location(path);
    const bool forbidden = makesNothing(location, mode);
    if (!forbidden && (location.ordinary() || location.files())) {
        return next::freopen(location.path(), mode, stream);
    }
    next::fclose(stream);
    errno = forbidden ? EACCES : location.absent() ? ENOENT : ENOTSUP;
    return nullptr;
}

}  // namespace

KESTRIX_HOOK(int, access, (const char* path, int mode)) {
    return ask(
        path, [&](const char* at) { return next::access(at, mode); },
        [&](const Location& location) { return checkAccess(location, mode); }, (mode & R_OK) != 0);
}

KESTRIX_HOOK(int, euidaccess, (const char* path, int mode)) {
    return ask(
        path, [&](const char* at) { return next::euidaccess(at, mode); },
        [&](const Location& location) { return checkAccess(location, mode); }, (mode & R_OK) != 0);
}

KESTRIX_HOOK(int, eaccess, (const char* path, int mode)) {
    return ask(
        path, [&](const char* at) { return next::euidaccess(at, mode); },
        [&](const Location& location) { return checkAccess(location, mode); }, (mode & R_OK) != 0);
}

KESTRIX_HOOK(int, faccessat, (int folder, const char* path, int mode, int flags)) {
    return ask(
        path, [&](const char* at) { return next::faccessat(folder, at, mode, flags); },
        [&](const Location& location) { return checkAccess(location, mode); }, (mode & R_OK) != 0);
}

KESTRIX_HOOK(int, stat, (const char* path, struct stat* status)) {
    return askStatus(path, status, next::stat);
}

KESTRIX_HOOK(int, stat64, (const char* path, struct stat* status)) {
    return askStatus(path, status, next::stat);
}

KESTRIX_HOOK(int, lstat, (const char* path, struct stat* status)) {
    return askStatus(path, status, next::lstat);
}

KESTRIX_HOOK(int, lstat64, (const char* path, struct stat* status)) {
    return askStatus(path, status, next::lstat);
}

KESTRIX_HOOK(int, fstatat, (int folder, const char* path, struct stat* status, int flags)) {
    return askStatusAt(folder, path, status, flags);
}

KESTRIX_HOOK(int, fstatat64, (int folder, const char* path, struct stat* status, int flags)) {
    return askStatusAt(folder, path, status, flags);
}

// The names of C libraries before 2.33, with the version of the structure in front.
KESTRIX_HOOK(int, __xstat, (int, const char* path, struct stat* status)) {
    return askStatus(path, status, next::stat);
}

KESTRIX_HOOK(int, __xstat64, (int, const char* path, struct stat* status)) {
    return askStatus(path, status, next::stat);
}

KESTRIX_HOOK(int, __lxstat, (int, const char* path, struct stat* status)) {
    return askStatus(path, status, next::lstat);
}

KESTRIX_HOOK(int, __lxstat64, (int, const char* path, struct stat* status)) {
    return askStatus(path, status, next::lstat);
}

KESTRIX_HOOK(int, __fxstatat, (int, int folder, const char* path, struct stat* status, int flags)) {
    return askStatusAt(folder, path, status, flags);
}

KESTRIX_HOOK(int, __fxstatat64, (int, int folder, const char* path, struct stat* status, int flags)) {
    return askStatusAt(folder, path, status, flags);
}

KESTRIX_HOOK(int, statx, (int folder, const char* path, int flags, unsigned mask, struct statx* status)) {
    const auto fill = [&](dev_t device) {
        std::memset(status, 0, sizeof *status);
        status->stx_mask = STATX_TYPE | STATX_MODE | STATX_NLINK;
        status->stx_mode = S_IFCHR | 0660;
        status->stx_nlink = 1;
        status->stx_blksize = 4096;
        status->stx_rdev_major = major(device);
        status->stx_rdev_minor = minor(device);
        return 0;
    };
    if (path != nullptr && *path == '\0' && (flags & AT_EMPTY_PATH) != 0) {
        if (const ServedFile* file = DescriptorTable::find(folder)) {
            return fill(file->device());
        }
    }
    return ask(
        path, [&](const char* at) { return next::statx(folder, at, flags, mask, status); },
        [&](const Location& location) { return fill(nodeNumber(location)); });
}

KESTRIX_HOOK(DIR*, opendir, (const char* path)) {
    const Location location(path);
    if (location.ordinary() || location.files()) {
        return next::opendir(location.path());
    }
    errno = location.absent() ? ENOENT : ENOTDIR;
    return nullptr;
}

// ---- Streams -------------------------------------------------------------------------------------------------------

KESTRIX_HOOK(FILE*, fopen, (const char* path, const char* mode)) {
    return openStream(path, mode);
}

KESTRIX_HOOK(FILE*, fopen64, (const char* path, const char* mode)) {
    return openStream(path, mode);
}

KESTRIX_HOOK(FILE*, freopen, (const char* path, const char* mode, FILE* stream)) {
    return reopenStream(path, mode, stream);
}

KESTRIX_HOOK(FILE*, freopen64, (const char* path, const char* mode, FILE* stream)) {
    return reopenStream(path, mode, stream);
}

KESTRIX_HOOK(FILE*, fdopen, (int fd, const char* mode)) {
    if (DescriptorTable::find(fd) != nullptr) {
        errno = ENOTSUP;
        return nullptr;
    }
    return next::fdopen(fd, mode);
}

KESTRIX_HOOK(int, fclose, (FILE * stream)) {
    int ignored = 0;
    Commands::end(stream, ignored);
    return next::fclose(stream);
}

// ---- Commands ------------------------------------------------------------------------------------------------------

KESTRIX_HOOK(FILE*, popen, (const char* commandLine, const char* mode)) {
    FILE* stream = nullptr;
    bool ours = false;
    if (!Entry::inside()) {
        Entry entry;
        ours = Commands::owns(commandLine);
        if (ours) {
            int error = 0;
            stream = Commands::start(commandLine, mode, error);
            if (stream == nullptr) {
                entry.fail(error);
            }
        }
    }
    if (!ours) {
        return next::popen(commandLine, mode);
    }
    PtpSocket::turn();  // the daemon may be another one now
    return stream;
}

KESTRIX_HOOK(int, pclose, (FILE * stream)) {
    int status = 0;
    if (Commands::end(stream, status)) {
        return next::fclose(stream) == 0 ? status : -1;
    }
    return next::pclose(stream);
}

KESTRIX_HOOK(int, system, (const char* commandLine)) {
    if (!Entry::inside()) {
        Entry entry;
        if (Commands::owns(commandLine)) {
            return entry.finish(Commands::run(commandLine));
        }
    }
    return next::system(commandLine);
}
