#pragma once

#include <string>

#include <zorn/structure/module.h>

namespace Harvane::RT::Core {

// A failing step as an exception: the file or step, what was tried, the reason and the code. Takes the thread's error
// text; without one the code speaks for itself.
[[noreturn]] void throwStepFailure(const std::string& where, const std::string& step, ErrCode code);

// Runs a step. No text of an earlier failure is taken for the reason of this one, whatever the other side does.
template <class Step>
void checkStep(const std::string& where, const std::string& step, Step&& body) {
    zornClearErrorInfo();
    if (const ErrCode code = body(); failed(code)) {
        throwStepFailure(where, step, code);
    }
}

// One loaded module library: its entry points by name. Loads in the constructor (everything resolved at once, symbols
// kept to itself) and passes version check and initialisation before anything else is called.
class ModuleLibrary {
public:
    explicit ModuleLibrary(const std::string& file);
    // Unloads only where unload() has found the library free; otherwise it stays loaded for good, since code of it may
    // still be called.
    ~ModuleLibrary();
    ModuleLibrary(const ModuleLibrary&) = delete;
    ModuleLibrary& operator=(const ModuleLibrary&) = delete;

    ObjectPtr<IModuleDriver> createDriver() const;
    bool canUnload() const;
    uint64_t objectCount() const;
    // Drops the serialiser factories of the library, waits until it is free and unloads it. False after the time-out.
    bool unload(int timeoutMs);
    const std::string& file() const { return file_; }

private:
    template <class Function>
    Function find(const char* name) const;
    template <class Function>
    Function require(const char* name) const;

    std::string file_;
    void* handle_ = nullptr;
    ErrCode (*createDriver_)(IModuleDriver**) = nullptr;
    ErrCode (*canUnload_)(bool*) = nullptr;
    ErrCode (*getObjectCount_)(size_t*) = nullptr;
};

}  // namespace Harvane::RT::Core
