#include "tools/zornhost/Session.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

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
    if (found == levelNames.end())
        throw std::runtime_error(fmt::format("there is no log level \"{}\"; there is {}", name,
                                             fmt::join(levelNames, ", ")));
    return static_cast<int>(found - levelNames.begin());
}

std::string objectOf(void* address) {
    Dl_info info{};
    return address != nullptr && ::dladdr(address, &info) != 0 && info.dli_fname != nullptr ? info.dli_fname : "";
}

// The sanitizer's run time that this program runs on, as a file; empty when there is none or it is linked statically.
std::string sanitizerRuntime() {
    void* init = reinterpret_cast<void*>(&__asan_init);
    if (init == nullptr)
        init = reinterpret_cast<void*>(&__tsan_init);
    const std::string file = objectOf(init);
    return file.find(".so") != std::string::npos ? file : std::string();
}

}  // namespace

std::string programFolder() {
    char path[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return ".";
    const std::string file(path, static_cast<size_t>(length));
    return file.substr(0, file.rfind('/'));
}

std::string defaultModule() { return programFolder() + "/../lib/libdaqmodule-64-1.zmod"; }

void ensureSimulation(const SessionOptions& options, char** argv) {
    if (!options.simulate)
        return;
    if (std::getenv(simulatedMark) != nullptr) {
        // Only for this process: what it starts is no host.
        ::unsetenv(simulatedMark);
        return;
    }
    const std::string library = programFolder() + "/../lib/libkestrixsim.so";
    if (::access(library.c_str(), R_OK) != 0)
        throw std::runtime_error(
            fmt::format("the simulated instrument is not there: {}: {}", library, std::strerror(errno)));
    if (!options.simulate->empty()) {
        if (::access(options.simulate->c_str(), R_OK) != 0)
            throw std::runtime_error(fmt::format("scenario {}: {}", *options.simulate, std::strerror(errno)));
        ::setenv("KESTRIX_SIM_SCENARIO", options.simulate->c_str(), 1);
    }
    std::string preload = sanitizerRuntime();
    preload += (preload.empty() ? "" : ":") + library;
    if (const char* others = std::getenv("LD_PRELOAD"); others != nullptr && *others != 0)
        preload += std::string(":") + others;
    ::setenv("LD_PRELOAD", preload.c_str(), 1);
    ::setenv(simulatedMark, "1", 1);
    ::execv("/proc/self/exe", argv);
    throw std::runtime_error(fmt::format("cannot start again with the simulated instrument: {}", std::strerror(errno)));
}

// Takes the module's reports of lost data out of the log.
class Session::Listener : public ILogSink {
public:
    explicit Listener(std::atomic<uint64_t>& count) : count_(count) {}
    void write(const LogRecord& record) override {
        if (std::strcmp(record.logger, "DaqModule") == 0 && std::strstr(record.message, "Data lost") != nullptr)
            count_.fetch_add(1);
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
        fmt::print(stderr, "zornhost: {}\n", failure.what());
    }
    removeLogSink(listener_.get());
    if (logFile_)
        removeLogSink(logFile_.get());
    removeLogSink(console_.get());
}

void Session::open() {
    host_.open(options_.module.empty() ? defaultModule() : options_.module);
    host_.add();
    for (const auto& setting : options_.settings) {
        const size_t equals = setting.find('=');
        if (equals == std::string::npos || equals == 0)
            throw std::runtime_error(fmt::format("\"{}\" is no setting; write PATH=VALUE", setting));
        set(tree().property(setting.substr(0, equals)), setting.substr(equals + 1));
    }
}

BasePtr Session::set(const PropertyEntry& property, const std::string& text) {
    const auto& node = property.owner.node;
    const StringPtr name(property.name);
    BasePtr value = toValue(text);
    if (property.name.find('.') == std::string::npos) {
        const auto info = node.getPropertyInfo(name);
        const ListPtr choices = info.getValuesAsList();
        if (info.isSelection()) {
            // A display text stands for its place in the list.
            for (size_t i = 0, n = choices.getCount(); i < n; ++i)
                if (valueText(choices.getItemAt(i)) == text)
                    value = toValue(i);
        }
    }
    checkErrorInfo(zornCheckedSetProperty(node.get(), name.get(), value.get()));
    return node.getPropertyValue<BasePtr>(name);
}

void Session::prepare() {
    host_.configure();
    host_.initialize();
}

void Session::start() {
    lostReports_.store(0);
    host_.start();
}

void Session::stop() { host_.stop(); }

void Session::close() {
    if (host_.isOpen())
        host_.close();
}

}  // namespace zornhost
