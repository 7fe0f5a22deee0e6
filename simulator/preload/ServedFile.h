#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <termios.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kestrixsim {

// One open file of the instrument, shared by all descriptors that were duplicated from it. Results are a count or 0,
// or a negative errno. Objects are recycled and never freed, so that a read that races with the close of its own
// descriptor finds a file, even if not its own any more.
class ServedFile {
public:
    ServedFile() = default;
    virtual ~ServedFile() = default;
    ServedFile(const ServedFile&) = delete;
    ServedFile& operator=(const ServedFile&) = delete;

    virtual ssize_t read(void* buffer, size_t size);
    virtual ssize_t write(const void* buffer, size_t size);
    virtual ssize_t readAt(void* buffer, size_t size, off_t offset);
    virtual ssize_t writeAt(const void* buffer, size_t size, off_t offset);
    virtual int control(uint32_t request, uintptr_t argument);

    // Puts the device's memory where mmap was asked to; on failure the result is MAP_FAILED and `error` says why.
    virtual void* map(void* address, size_t length, int protection, int flags, off_t offset, int& error);

    // Events of poll(2) that hold now.
    virtual short ready();

    // What fstat(2) says that it is.
    virtual mode_t type() const { return S_IFCHR | 0660; }

    // Whether a wait for it, or F_SETFL, fails: 0 or a negative errno.
    virtual int waitFault() { return 0; }
    virtual int flagsFault() { return 0; }

    // Of sockets.
    virtual int bind(const sockaddr* address, socklen_t length);
    virtual int setOption(int level, int name, const void* value, socklen_t length);
    virtual int getOption(int level, int name, void* value, socklen_t* length);

    virtual bool isTerminal() const { return false; }
    virtual int getAttributes(termios& settings);
    virtual int setAttributes(const termios& settings);
    virtual int flush(int queue);

    // For the opener: flags of open(2), and the number of the node.
    void setOpened(int flags, dev_t device) {
        flags_.store(flags, std::memory_order_relaxed);
        device_.store(device, std::memory_order_relaxed);
    }

    dev_t device() const { return device_.load(std::memory_order_relaxed); }
    bool nonBlocking() const { return (flags_.load(std::memory_order_relaxed) & O_NONBLOCK) != 0; }
    void setNonBlocking(bool on);
    bool readable() const { return (flags_.load(std::memory_order_relaxed) & O_ACCMODE) != O_WRONLY; }
    bool writable() const { return (flags_.load(std::memory_order_relaxed) & O_ACCMODE) != O_RDONLY; }

    // One reference for each descriptor. retain() is false when the last one has just gone.
    bool retain();
    void release();

protected:
    virtual void recycle() = 0;

    template <typename F>
    friend class FilePool;

    std::atomic<int> flags_{0};
    std::atomic<dev_t> device_{0};
    std::atomic<int> references_{0};
    ServedFile* nextFree_ = nullptr;
};

}  // namespace kestrixsim
