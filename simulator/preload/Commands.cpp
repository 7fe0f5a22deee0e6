#include "simulator/preload/Commands.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/Runtime.h"

namespace kestrixsim {

namespace {

constexpr size_t limit = 64;  // streams at one time
constinit std::atomic<FILE*> streams[limit] = {};
constinit std::atomic<int> openStreams{0};

bool remember(FILE* stream) {
    for (std::atomic<FILE*>& slot : streams) {
        FILE* free = nullptr;
        if (slot.compare_exchange_strong(free, stream)) {
            openStreams.fetch_add(1);
            return true;
        }
    }
    return false;
}

}  // namespace

bool Commands::owns(const char* commandLine) {
    return commandLine != nullptr && runtime::get().ownsCommand(commandLine);
}

FILE* Commands::start(const char* commandLine, const char* mode, int& error) {
    error = 0;
    const bool reads = mode != nullptr && std::strchr(mode, 'r') != nullptr;
    const bool writes = mode != nullptr && std::strchr(mode, 'w') != nullptr;
    if (reads == writes) {
        error = EINVAL;
        return nullptr;
    }
    error = -runtime::get().startCommand();
    if (error != 0) {
        return nullptr;
    }
    const std::string reply = runtime::get().runCommand(commandLine);
    const int fd = memfd_create("kestrix-command", std::strchr(mode, 'e') != nullptr ? MFD_CLOEXEC : 0);
    if (fd < 0) {
        error = errno;
        return nullptr;
    }
    // A command that the program feeds has its reply on the program's own output, which nobody looks at here.
    const ssize_t size = static_cast<ssize_t>(reply.size());
    FILE* stream = nullptr;
    if (writes || (next::write(fd, reply.data(), reply.size()) == size && lseek(fd, 0, SEEK_SET) == 0)) {
        stream = next::fdopen(fd, reads ? "r" : "w");
    }
    if (stream == nullptr) {
        error = errno;
        next::close(fd);
    } else if (!remember(stream)) {
        error = EMFILE;
        next::fclose(stream);
        stream = nullptr;
    }
    return stream;
}

bool Commands::end(FILE* stream) {
    if (stream == nullptr || openStreams.load() == 0) {
        return false;
    }
    for (std::atomic<FILE*>& slot : streams) {
        FILE* mine = stream;
        if (slot.load(std::memory_order_relaxed) == stream && slot.compare_exchange_strong(mine, nullptr)) {
            openStreams.fetch_sub(1);
            return true;
        }
    }
    return false;
}

}  // namespace kestrixsim
