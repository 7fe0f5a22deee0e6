#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cerrno>

// Defines the library's own version of a C function. The name goes in by assembler label, so that it neither clashes
// with the declaration of a system header nor with what that header renames.
#define KESTRIX_HOOK(result, name, parameters)                                                             \
    extern "C" __attribute__((visibility("default"))) result kestrixHook_##name parameters __asm__(#name); \
    result kestrixHook_##name parameters

namespace kestrixsim {

// The definition of a C function behind ours: the next one in the loader's order, so that a chain of interposers
// stays whole. Found at first use; may be called before any constructor has run. Leaves errno alone.
template <typename Function>
class Next {
public:
    // `version`: where the C library has kept an older function of this name for old programs.
    constexpr explicit Next(const char* name, const char* version = nullptr) : name_(name), version_(version) {}

    Function* get() {
        Function* found = function_.load(std::memory_order_relaxed);
        return found != nullptr ? found : find();
    }

    template <typename... Arguments>
    auto operator()(Arguments... arguments) {
        return get()(arguments...);
    }

private:
    Function* find() {
        const int before = errno;
        auto* found = reinterpret_cast<Function*>(version_ != nullptr ? dlvsym(RTLD_NEXT, name_, version_) : nullptr);
        if (found == nullptr) {
            found = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name_));
        }
        if (found == nullptr) {
            __builtin_trap();  // every function named here is in any C library that this can be linked against
        }
        function_.store(found, std::memory_order_relaxed);
        errno = before;
        return found;
    }

    const char* name_;
    const char* version_;
    std::atomic<Function*> function_{nullptr};
};

}  // namespace kestrixsim
