#include "modules/daq/daqdevices/kestrix/src/PlatformScript.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace Harvane::RT::Modules::Daq::Platform {

namespace {

struct PipeCloser {
    void operator()(FILE* pipe) const { pclose(pipe); }
};

std::string readToEnd(FILE* pipe, const std::string& path) {
    std::string text;
    std::array<char, 128> piece;
    for (;;) {
        const size_t count = fread(piece.data(), 1, piece.size(), pipe);
        text.append(piece.data(), count);
        if (ferror(pipe) != 0) {
            // A signal of the host's doesn't end the script.
            if (errno == EINTR) {
                clearerr(pipe);
                continue;
            }
            throw std::system_error(errno, std::generic_category(), path);
        }
        if (count < piece.size()) {
            return text;
        }
    }
}

void stripEnd(std::string& text) {
    while (!text.empty() && isgraph(static_cast<unsigned char>(text.back())) == 0) {
        text.pop_back();
    }
}

}  // namespace

std::string runScript(const std::string& path, std::initializer_list<std::string> arguments) {
    std::string command = path;
    for (const std::string& argument : arguments) {
        command += ' ';
        command += argument;
    }
    KESTRIX_LOG(2, "about to execute command: {}", command);
    const std::unique_ptr<FILE, PipeCloser> pipe(popen(command.c_str(), "re"));
    if (!pipe) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    std::string reply = readToEnd(pipe.get(), path);
    stripEnd(reply);
    KESTRIX_LOG(2, "command reply: {}", reply);
    return reply;
}

bool isSuccess(const std::string& reply) {
    return reply.starts_with("OK:");
}

}  // namespace Harvane::RT::Modules::Daq::Platform
