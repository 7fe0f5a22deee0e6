#include "simulator/preload/Commands.h"

#include <sys/mman.h>
#include <sys/wait.h>
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
constinit std::atomic<int> statuses[limit] = {};
constinit std::atomic<int> openStreams{0};

bool remember(FILE* stream, int status) {
    for (size_t i = 0; i < limit; ++i) {
        FILE* free = nullptr;
        if (streams[i].compare_exchange_strong(free, stream)) {
            statuses[i].store(status);
            openStreams.fetch_add(1);
            return true;
        }
    }
    return false;
}

// Does what the command does; its output, and its status as a program gets it from wait(2).
std::string finish(const char* commandLine, int& status) {
    const CommandResult result = runtime::get().finishCommand(commandLine);
    if (!result.errors.empty()) {
        (void)!next::write(STDERR_FILENO, result.errors.data(), result.errors.size());
    }
    status = W_EXITCODE(result.status, 0);
    return result.output;
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
    error = -runtime::get().startCommand(commandLine);
    if (error != 0) {
        return nullptr;
    }
    int status = 0;
    const std::string reply = finish(commandLine, status);
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
    } else if (!remember(stream, status)) {
        error = EMFILE;
        next::fclose(stream);
        stream = nullptr;
    }
    return stream;
}

int Commands::run(const char* commandLine) {
    if (const int error = runtime::get().startCommand(commandLine); error != 0) {
        return error;
    }
    int status = 0;
    const std::string output = finish(commandLine, status);
    (void)!next::write(STDOUT_FILENO, output.data(), output.size());
    return status;
}

bool Commands::end(FILE* stream, int& status) {
    if (stream == nullptr || openStreams.load() == 0) {
        return false;
    }
    for (size_t i = 0; i < limit; ++i) {
        FILE* mine = stream;
        status = statuses[i].load();
        if (streams[i].load(std::memory_order_relaxed) == stream && streams[i].compare_exchange_strong(mine, nullptr)) {
            openStreams.fetch_sub(1);
            return true;
        }
    }
    return false;
}

}  // namespace kestrixsim
