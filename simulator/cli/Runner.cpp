#include "simulator/cli/Runner.h"

#include <elf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "simulator/model/ScenarioJson.h"

namespace kestrixsim {

namespace {

namespace fs = std::filesystem;

constexpr int cannotRun = 126;
constexpr int notFound = 127;

// lib/libkestrixsim.so beside bin/kestrix-sim, or in the same folder.
fs::path simulatorLibrary() {
    const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
    for (const fs::path& candidate : {here / ".." / "lib" / "libkestrixsim.so", here / "libkestrixsim.so"}) {
        std::error_code ignored;
        if (fs::exists(candidate, ignored)) {
            return fs::canonical(candidate);
        }
    }
    throw std::runtime_error("libkestrixsim.so is neither in " + (here / ".." / "lib").lexically_normal().string() +
                             " nor in " + here.string());
}

// As a shell finds a command; empty if it doesn't.
fs::path findProgram(const std::string& name) {
    if (name.find('/') != name.npos) {
        return access(name.c_str(), F_OK) == 0 ? fs::path(name) : fs::path();
    }
    const char* path = std::getenv("PATH");
    std::string rest = path != nullptr ? path : "/usr/bin:/bin";
    while (!rest.empty()) {
        const size_t end = rest.find(':');
        const std::string folder = rest.substr(0, end);
        rest = end != rest.npos ? rest.substr(end + 1) : "";
        fs::path candidate = fs::path(folder.empty() ? "." : folder) / name;
        if (access(candidate.c_str(), X_OK) == 0 && fs::is_regular_file(candidate)) {
            return candidate;
        }
    }
    return {};
}

// Why the loader would ignore a preloaded library; empty if it won't. Such a program would reach for real hardware.
std::string whyNotPreloadable(const fs::path& program) {
    struct stat status {};
    if (stat(program.c_str(), &status) == 0 && (status.st_mode & (S_ISUID | S_ISGID)) != 0) {
        return "it changes its user or group, so nothing can be preloaded";
    }
    std::ifstream file(program, std::ios::binary);
    Elf64_Ehdr header{};
    if (!file.read(reinterpret_cast<char*>(&header), sizeof header) ||
        std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) {
        return "";
    }
    if (header.e_ident[EI_CLASS] != ELFCLASS64) {
        return "it is no 64-bit program, so the library cannot be preloaded";
    }
    for (int i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr segment{};
        file.seekg(static_cast<std::streamoff>(header.e_phoff + static_cast<uint64_t>(i) * header.e_phentsize));
        if (!file.read(reinterpret_cast<char*>(&segment), sizeof segment) || segment.p_type == PT_INTERP) {
            return "";
        }
    }
    return "it is linked statically, so nothing can be preloaded";
}

void prepend(std::string& list, const std::string& entry) {
    if (!entry.empty()) {
        list = list.empty() ? entry : entry + ":" + list;
    }
}

}  // namespace

int runProgram(const RunOptions& options) {
    const fs::path program = findProgram(options.command.front());
    if (program.empty()) {
        std::fprintf(stderr, "kestrix-sim: %s: not found\n", options.command.front().c_str());
        return notFound;
    }
    if (const std::string reason = whyNotPreloadable(program); !reason.empty()) {
        std::fprintf(stderr, "kestrix-sim: %s: %s\n", program.c_str(), reason.c_str());
        return cannotRun;
    }
    if (!options.scenario.empty()) {
        ScenarioJson::read(options.scenario);  // better here than inside the program
        setenv("KESTRIX_SIM_SCENARIO", fs::absolute(options.scenario).c_str(), 1);
    } else {
        unsetenv("KESTRIX_SIM_SCENARIO");
    }
    const char* old = std::getenv("LD_PRELOAD");
    const char* first = std::getenv("KESTRIX_SIM_PRELOAD_FIRST");
    std::string preload = old != nullptr ? old : "";
    const std::string library = simulatorLibrary().string();
    if (library.find_first_of(" :") != library.npos) {
        std::fprintf(stderr, "kestrix-sim: %s: a path with a blank or a colon cannot be preloaded\n", library.c_str());
        return cannotRun;
    }
    prepend(preload, library);
    prepend(preload, !options.preloadFirst.empty() ? options.preloadFirst : first != nullptr ? first : "");
    setenv("LD_PRELOAD", preload.c_str(), 1);

    std::vector<char*> arguments;
    arguments.reserve(options.command.size() + 1);
    for (const std::string& argument : options.command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    execv(program.c_str(), arguments.data());
    std::fprintf(stderr, "kestrix-sim: %s: %s\n", program.c_str(), std::strerror(errno));
    return errno == ENOENT ? notFound : cannotRun;
}

}  // namespace kestrixsim
