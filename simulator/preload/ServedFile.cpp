#include "simulator/preload/ServedFile.h"

#include <poll.h>
#include <sys/mman.h>

#include <cerrno>

namespace kestrixsim {

ssize_t ServedFile::read(void*, size_t) {
    return -EINVAL;
}

ssize_t ServedFile::write(const void*, size_t) {
    return -EINVAL;
}

ssize_t ServedFile::readAt(void*, size_t, off_t) {
    return -ESPIPE;
}

ssize_t ServedFile::writeAt(const void*, size_t, off_t) {
    return -ESPIPE;
}

int ServedFile::control(uint32_t, uintptr_t) {
    return -ENOTTY;
}

void* ServedFile::map(void*, size_t, int, int, off_t, int& error) {
    error = ENODEV;
    return MAP_FAILED;
}

short ServedFile::ready() {
    return POLLIN | POLLRDNORM | POLLOUT | POLLWRNORM;
}

int ServedFile::getAttributes(termios&) {
    return -ENOTTY;
}

int ServedFile::setAttributes(const termios&) {
    return -ENOTTY;
}

int ServedFile::flush(int) {
    return -ENOTTY;
}

int ServedFile::bind(const sockaddr*, socklen_t) {
    return -ENOTSOCK;
}

int ServedFile::setOption(int, int, const void*, socklen_t) {
    return -ENOTSOCK;
}

int ServedFile::getOption(int, int, void*, socklen_t*) {
    return -ENOTSOCK;
}

void ServedFile::setNonBlocking(bool on) {
    if (on) {
        flags_.fetch_or(O_NONBLOCK, std::memory_order_relaxed);
    } else {
        flags_.fetch_and(~O_NONBLOCK, std::memory_order_relaxed);
    }
}

bool ServedFile::retain() {
    int count = references_.load(std::memory_order_relaxed);
    while (count > 0) {
        if (references_.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel)) {
            return true;
        }
    }
    return false;
}

void ServedFile::release() {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        recycle();
    }
}

}  // namespace kestrixsim
