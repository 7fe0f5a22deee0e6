#include "simulator/preload/Opening.h"

#include <sys/mman.h>
#include <sys/sysmacros.h>

#include "simulator/preload/DescriptorTable.h"
#include "simulator/preload/DmaFile.h"
#include "simulator/preload/I2cFile.h"
#include "simulator/preload/MemFile.h"
#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/TimingFile.h"
#include "simulator/preload/UartFile.h"

namespace kestrixsim {

namespace {

int makeFile(const Location& location, int flags, ServedFile*& file) {
    switch (location.kind()) {
        case DoorKind::Memory:
            return MemFile::open(flags, file);
        case DoorKind::I2c:
            return I2cFile::open(flags, file);
        case DoorKind::Uart:
            return UartFile::open(flags, file);
        case DoorKind::DmaRaw:
            return DmaFile::open(location.number(), Stream::Raw, flags, file);
        case DoorKind::DmaFiltered:
            return DmaFile::open(location.number(), Stream::Filtered, flags, file);
        case DoorKind::Timing:
            return TimingFile::open(flags, file);
        default:
            return -ENOENT;
    }
}

}  // namespace

int openDevice(const Location& location, int flags) {
    if ((flags & O_DIRECTORY) != 0) {
        return -ENOTDIR;
    }
    if ((flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL)) {
        return -EEXIST;
    }
    ServedFile* file = nullptr;
    if (const int result = makeFile(location, flags, file); result != 0) {
        return result;
    }
    file->setOpened(flags, nodeNumber(location));
    return giveDescriptor(*file, (flags & O_CLOEXEC) != 0);
}

int giveDescriptor(ServedFile& file, bool closeOnExec) {
    const int fd = memfd_create("kestrix-device", MFD_ALLOW_SEALING | (closeOnExec ? MFD_CLOEXEC : 0));
    if (fd < 0) {
        const int error = errno;
        file.release();
        return -error;
    }
    // A write that is not interposed fails instead of vanishing.
    next::fcntl(fd, F_ADD_SEALS, F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE);
    if (file.nonBlocking()) {
        next::fcntl(fd, F_SETFL, O_NONBLOCK);
    }
    if (!DescriptorTable::put(fd, file)) {
        next::close(fd);
        file.release();
        return -EMFILE;
    }
    return fd;
}

dev_t nodeNumber(const Location& location) {
    switch (location.kind()) {
        case DoorKind::Memory:
            return makedev(1, 1);
        case DoorKind::I2c:
            return makedev(89, 1);
        case DoorKind::Uart:
            return makedev(245, 1);
        case DoorKind::Timing:
            return makedev(241, 0);
        default:
            return makedev(
                240, static_cast<unsigned>(location.number()) * 2 + (location.kind() == DoorKind::DmaFiltered ? 1 : 0));
    }
}

}  // namespace kestrixsim
