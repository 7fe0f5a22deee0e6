#include "tools/zornhost/Session.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>

#include "tools/zornhost/Output.h"
#include "tools/zornhost/PropertyText.h"
#include "tools/zornhost/SyncOptions.h"

using namespace Harvane::RT::Core;

extern "C" {
// There in programs that are built with a sanitizer whose run time must stand in front of what is preloaded.
__attribute__((weak)) void __asan_init();
__attribute__((weak)) void __tsan_init();
}

namespace zornhost {

namespace {

constexpr const char* simulatedMark = "ZORNHOST_SIMULATED";
constexpr std::array<const char*, 7> levelNames{"verbose", "debug", "info", "warning", "error", "fatal", "off"};

int levelOf(const std::string& name) {
    const auto found = std::find(levelNames.begin(), levelNames.end(), name);
    if (found == levelNames.end()) {
        throw std::runtime_error(
            fmt::format("there is no log level \"{}\"; there is {}", name, fmt::join(levelNames, ", ")));
    }
    return static_cast<int>(found - levelNames.begin());
}

std::string objectOf(void* address) {
    Dl_info info{};
    return address != nullptr && ::dladdr(address, &info) != 0 && info.dli_fname != nullptr ? info.dli_fname : "";
}

// The sanitizer's run time that this program runs on, as a file; empty when there is none or it is linked statically.
std::string sanitizerRuntime() {
    void* init = reinterpret_cast<void*>(&__asan_init);
    if (init == nullptr) {
        init = reinterpret_cast<void*>(&__tsan_init);
    }
    const std::string file = objectOf(init);
    return file.find(".so") != std::string::npos ? file : std::string();
}

// "[1, [14]]": a list is written as it is shown, in JSON.
BasePtr listFromText(const std::string& property, const std::string& text) {
    const auto json = nlohmann::json::parse(text, nullptr, false);
    if (!json.is_array()) {
        throw std::runtime_error(
            fmt::format("{} is a list; write it as [1, [2, 3]] and not as \"{}\"", property, text));
    }
    const std::function<BasePtr(const nlohmann::json&)> convert = [&](const nlohmann::json& item) -> BasePtr {
        if (item.is_array()) {
            const ListPtr list = ListPtr::create();
            for (const auto& entry : item) {
                list.pushBack(convert(entry));
            }
            return asBase(list);
        }
        if (item.is_boolean()) {
            return toValue(item.get<bool>());
        }
        if (item.is_number_integer()) {
            return toValue(item.get<int64_t>());
        }
        if (item.is_number()) {
            return toValue(item.get<double>());
        }
        if (item.is_string()) {
            return toValue(item.get<std::string>());
        }
        throw std::runtime_error(fmt::format("{}: a list can hold numbers, texts, true, false and lists", property));
    };
    return convert(json);
}

// The module looks for "amplifiers/" in the working directory, once, when it is created. While this lives, the folder
// that is wanted is found there.
class AmplifierFolder {
public:
    // An empty name leaves the working directory alone.
    explicit AmplifierFolder(const std::string& folder) {
        namespace fs = std::filesystem;
        if (folder.empty()) {
            return;
        }
        std::error_code error;
        const fs::path target = fs::canonical(folder, error);
        if (error || !fs::is_directory(target, error)) {
            throw std::runtime_error(fmt::format("the folder of amplifier definitions \"{}\": {}", folder,
                                                 error ? error.message() : "is no folder"));
        }
        fs::path parent = target.parent_path();
        if (target.filename() != "amplifiers") {
            std::string name = (fs::temp_directory_path() / "zornhost-XXXXXX").string();
            if (::mkdtemp(name.data()) == nullptr) {
                throw std::runtime_error(fmt::format("{}: {}", name, std::strerror(errno)));
            }
            temporary_ = parent = name;
            fs::create_directory_symlink(target, parent / "amplifiers");
        }
        back_ = ::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (back_ < 0 || ::chdir(parent.c_str()) != 0) {
            const int reason = errno;
            leave();
            throw std::runtime_error(fmt::format("\"{}\": {}", parent.string(), std::strerror(reason)));
        }
    }
    ~AmplifierFolder() { leave(); }
    AmplifierFolder(const AmplifierFolder&) = delete;
    AmplifierFolder& operator=(const AmplifierFolder&) = delete;

private:
    void leave() {
        if (back_ >= 0) {
            if (::fchdir(back_) != 0) {
                writeError(fmt::format("zornhost: can't go back to the working directory: {}\n", std::strerror(errno)));
            }
            ::close(back_);
        }
        std::error_code ignored;
        if (!temporary_.empty()) {
            std::filesystem::remove_all(temporary_, ignored);
        }
    }

    int back_ = -1;
    std::filesystem::path temporary_;
};

}  // namespace

std::string programFolder() {
    char path[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) {
        return ".";
    }
    const std::string file(path, static_cast<size_t>(length));
    return file.substr(0, file.rfind('/'));
}

std::string defaultModule() {
    return programFolder() + "/../lib/libdaqmodule-64-1.zmod";
}

std::string defaultAmplifiers() {
    std::error_code ignored;
    if (std::filesystem::is_directory("amplifiers", ignored)) {
        return "amplifiers";
    }
    const std::string beside = programFolder() + "/../share/kestrix/amplifiers";
    return std::filesystem::is_directory(beside, ignored) ? beside : std::string();
}

void ensureSimulation(const SessionOptions& options, char** argv) {
    if (!options.simulate) {
        return;
    }
    if (std::getenv(simulatedMark) != nullptr) {
        // Only for this process: what it starts is no host.
        ::unsetenv(simulatedMark);
        if (!runsOnSimulation()) {
            // The loader preloads nothing into a program whose file gives it rights; that would measure for real.
            throw std::runtime_error(
                "the simulated instrument can't be preloaded: does the program's file have rights of its own "
                "(getcap)?");
        }
        return;
    }
    const std::string library = programFolder() + "/../lib/libkestrixsim.so";
    if (::access(library.c_str(), R_OK) != 0) {
        throw std::runtime_error(
            fmt::format("the simulated instrument is not there: {}: {}", library, std::strerror(errno)));
    }
    if (!options.simulate->empty()) {
        if (::access(options.simulate->c_str(), R_OK) != 0) {
            throw std::runtime_error(fmt::format("scenario {}: {}", *options.simulate, std::strerror(errno)));
        }
        ::setenv("KESTRIX_SIM_SCENARIO", std::filesystem::absolute(*options.simulate).c_str(), 1);
    }
    std::string preload = sanitizerRuntime();
    preload += (preload.empty() ? "" : ":") + library;
    if (const char* others = std::getenv("LD_PRELOAD"); others != nullptr && *others != 0) {
        preload += std::string(":") + others;
    }
    ::setenv("LD_PRELOAD", preload.c_str(), 1);
    ::setenv(simulatedMark, "1", 1);
    ::execv("/proc/self/exe", argv);
    throw std::runtime_error(fmt::format("cannot start again with the simulated instrument: {}", std::strerror(errno)));
}

bool runsOnSimulation() {
    void* const loaded = ::dlopen("libkestrixsim.so", RTLD_NOW | RTLD_NOLOAD);
    if (loaded != nullptr) {
        ::dlclose(loaded);
    }
    return loaded != nullptr;
}

// Takes the module's reports of lost data out of the log.
class Session::Listener : public ILogSink {
public:
    explicit Listener(std::atomic<uint64_t>& count) : count_(count) {}
    void write(const LogRecord& record) override {
        if (std::strcmp(record.logger, "DaqModule") == 0 && std::strstr(record.message, "Data lost") != nullptr) {
            count_.fetch_add(1);
        }
    }

private:
    std::atomic<uint64_t>& count_;
};

Session::Session(const SessionOptions& options) : options_(options), host_(options.cycleTimeMs) {
    const int level = levelOf(options_.logLevel);
    console_.reset(createConsoleSink());
    addLogSink(console_.get(), level);
    if (!options_.logFile.empty()) {
        logFile_.reset(createFileSink(options_.logFile.c_str()));
        if (!logFile_) {
            removeLogSink(console_.get());
            throw std::runtime_error(fmt::format("log file {}: {}", options_.logFile, std::strerror(errno)));
        }
        addLogSink(logFile_.get(), std::min(level, 2));
    }
    listener_ = std::make_unique<Listener>(lostReports_);
    addLogSink(listener_.get(), 4);
}

Session::~Session() {
    try {
        close();
    } catch (const std::exception& failure) {
        writeError(fmt::format("zornhost: {}\n", oneLine(failure.what())));
    }
    removeLogSink(listener_.get());
    if (logFile_) {
        removeLogSink(logFile_.get());
    }
    removeLogSink(console_.get());
}

void Session::open() {
    {
        const std::string module =
            std::filesystem::absolute(options_.module.empty() ? defaultModule() : options_.module).string();
        const AmplifierFolder folder(options_.amplifiers.empty() ? defaultAmplifiers() : options_.amplifiers);
        host_.open(module);
    }
    host_.add();
    for (const auto& setting : options_.settings) {
        const size_t equals = setting.find('=');
        if (equals == std::string::npos || equals == 0) {
            throw std::runtime_error(fmt::format("\"{}\" is no setting; write PATH=VALUE", setting));
        }
        set(tree().property(setting.substr(0, equals)), setting.substr(equals + 1));
    }
    if (!options_.synchronization.empty()) {
        applyOption(*this, options_.synchronization);
    }
}

BasePtr Session::set(const PropertyEntry& property, const std::string& text) {
    const auto& node = property.owner.node;
    const StringPtr name(property.name);
    BasePtr value = toValue(text);
    const bool part = property.name.find_first_of(".[") != std::string::npos;
    if (!part) {
        const auto info = node.getPropertyInfo(name);
        value = info.getValueType() == CoreType::List ? listFromText(property.name, text) : valueOf(info, text);
    }
    try {
        checkErrorInfo(zornCheckedSetProperty(node.get(), name.get(), value.get()));
        return node.getPropertyValue<BasePtr>(name);
    } catch (const ZornException& failure) {
        if (!part) {
            throw;
        }
        // What goes wrong on the way to a part of a property names neither.
        throw std::runtime_error(fmt::format("{}: {}", property.name, failure.what()));
    }
}

void Session::prepare() {
    host_.configure();
    host_.initialize();
}

void Session::start() {
    lostReports_.store(0);
    host_.start();
}

void Session::stop() {
    host_.stop();
}

void Session::close() {
    if (host_.isOpen()) {
        host_.close();
    }
}

}  // namespace zornhost
