#include "host/modulemanager/ModuleLibrary.h"

#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

#include <dlfcn.h>

#include <zorn/types/values.h>

namespace Harvane::RT::Core {

namespace {

constexpr auto UnloadPollInterval = std::chrono::milliseconds(5);

// dlopen looks a bare name up in the system's folders; here it means a file of the working directory.
std::string loadPath(const std::string& file) {
    if (file.find('/') != std::string::npos) {
        return file;
    }
    return "./" + file;
}

}  // namespace

void throwStepFailure(const std::string& where, const std::string& step, ErrCode code) {
    std::string reason = takeErrorMessage();
    if (reason.empty()) {
        reason = defaultErrorText(code);
    }
    throw ZornException(code, false, "%s: %s failed: %s (0x%08X)", where.c_str(), step.c_str(),
                        reason.empty() ? "no reason was given" : reason.c_str(), code);
}

template <class Function>
Function ModuleLibrary::find(const char* name) const {
    return reinterpret_cast<Function>(dlsym(handle_, name));
}

template <class Function>
Function ModuleLibrary::require(const char* name) const {
    if (auto function = find<Function>(name)) {
        return function;
    }
    throw InvalidValueException("%s is no module library: it has no entry point %s", file_.c_str(), name);
}

ModuleLibrary::ModuleLibrary(const std::string& file) : file_(file) {
    if (file.empty()) {
        throw InvalidParameterException("No module file was named");
    }
    dlerror();
    handle_ = dlopen(loadPath(file).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        const char* reason = dlerror();
        throw NotFoundException("Can't load %s: %s", file.c_str(), reason == nullptr ? "no reason was given" : reason);
    }
    try {
        auto checkDependencies = require<ErrCode (*)(IString**)>("zornCheckDependencies");
        createDriver_ = find<ErrCode (*)(IModuleDriver**)>("createModuleDriver");
        if (createDriver_ == nullptr) {
            createDriver_ = require<ErrCode (*)(IModuleDriver**)>("createDaqModuleDriver");
        }
        canUnload_ = require<ErrCode (*)(bool*)>("zornCanUnload");
        getObjectCount_ = find<ErrCode (*)(size_t*)>("zornGetObjectCount");

        IString* rawMessage = nullptr;
        const ErrCode code = checkDependencies(&rawMessage);
        const StringPtr message = ObjectPtr<IString>::take(rawMessage);
        if (failed(code)) {
            zornClearErrorInfo();
            throw ZornException(code, false, "%s can't be used with this host: %s (0x%08X)", file.c_str(),
                                message ? message.toStdString().c_str() : "its version check failed", code);
        }
        if (auto initialize = find<ErrCode (*)()>("zornInitDaqModuleLibrary")) {
            checkStep(file, "zornInitDaqModuleLibrary", initialize);
        }
    } catch (...) {
        unload(0);
        throw;
    }
}

ModuleLibrary::~ModuleLibrary() = default;

ObjectPtr<IModuleDriver> ModuleLibrary::createDriver() const {
    IModuleDriver* driver = nullptr;
    checkStep(file_, "creating the driver", [&] { return createDriver_(&driver); });
    if (driver == nullptr) {
        throw InvalidValueException("%s: creating the driver gave nothing", file_.c_str());
    }
    return ObjectPtr<IModuleDriver>::take(driver);
}

bool ModuleLibrary::canUnload() const {
    bool free = false;
    // A library that was refused before its entry points were known has made no object that anyone holds.
    return handle_ == nullptr || canUnload_ == nullptr || (succeeded(canUnload_(&free)) && free);
}

uint64_t ModuleLibrary::objectCount() const {
    size_t count = 0;
    if (handle_ != nullptr && getObjectCount_ != nullptr) {
        getObjectCount_(&count);
    }
    return count;
}

bool ModuleLibrary::unload(int timeoutMs) {
    if (handle_ == nullptr) {
        return true;
    }
    // This thread's error info may hold an object of the module as its source.
    zornClearErrorInfo();
    // Any function of the library tells which one it is. A library that has to stay is through with reading files, too.
    for (const char* name : {"zornCheckDependencies", "zornCanUnload"}) {
        if (const void* inside = dlsym(handle_, name)) {
            zornDropSerializerFactories(inside);
        }
    }
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!canUnload()) {
        if (std::chrono::steady_clock::now() >= until) {
            return false;
        }
        std::this_thread::sleep_for(UnloadPollInterval);
    }
    dlclose(handle_);
    handle_ = nullptr;
    return true;
}

}  // namespace Harvane::RT::Core
