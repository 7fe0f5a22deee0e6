#pragma once

#include <dlfcn.h>

#include <cstddef>
#include <stdexcept>
#include <string>

#include <zorn/structure/module.h>

// The module's binary, loaded as a host does it. Goes with the object.
class ModuleFile {
public:
    ModuleFile() : handle_(dlopen(DAQ_MODULE_FILE, RTLD_NOW | RTLD_LOCAL)) {
        if (handle_ == nullptr) {
            throw std::runtime_error(dlerror());
        }
    }
    ~ModuleFile() { dlclose(handle_); }
    ModuleFile(const ModuleFile&) = delete;
    ModuleFile& operator=(const ModuleFile&) = delete;

    static bool isLoaded() {
        void* handle = dlopen(DAQ_MODULE_FILE, RTLD_NOW | RTLD_NOLOAD);
        if (handle != nullptr) {
            dlclose(handle);
        }
        return handle != nullptr;
    }

    // Calls an entry point by name.
    template <class... Arguments>
    Harvane::RT::Core::ErrCode call(const char* name, Arguments... arguments) const {
        return reinterpret_cast<Harvane::RT::Core::ErrCode (*)(Arguments...)>(symbol(name))(arguments...);
    }
    void* symbol(const char* name) const {
        void* found = dlsym(handle_, name);
        if (found == nullptr) {
            throw std::runtime_error(std::string("no entry point ") + name);
        }
        return found;
    }

    std::size_t objectCount() const {
        std::size_t count = 999;
        Harvane::RT::Core::checkErrorInfo(call("zornGetObjectCount", &count));
        return count;
    }
    bool canUnload() const {
        bool answer = false;
        Harvane::RT::Core::checkErrorInfo(call("zornCanUnload", &answer));
        return answer;
    }

private:
    void* handle_;
};
