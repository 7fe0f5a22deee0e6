#pragma once

#include <cerrno>
#include <exception>

namespace kestrixsim {

// Stands on the stack while a thread is inside the simulated instrument: interposed calls that the instrument makes
// itself are passed on. errno is as it was when the entry ends, unless fail() has set it.
class Entry {
public:
    Entry() : errno_(errno) { ++depth_; }
    ~Entry() {
        --depth_;
        errno = errno_;
    }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    // Whether this thread is inside already.
    static bool inside() { return depth_ != 0; }

    // A result in the kernel's way (count or negative errno) becomes one in the C library's.
    template <typename T>
    T finish(T result) {
        if (result < 0) {
            errno_ = static_cast<int>(-result);
            return -1;
        }
        return result;
    }

    void fail(int error) { errno_ = error; }

private:
    // The initial-exec model needs no memory from the loader at a thread's first access.
    __attribute__((tls_model("initial-exec"))) static constinit thread_local int depth_;

    int errno_;
};

// Runs the instrument's side of a call. Only a lack of memory throws there, which is an I/O error to the caller.
template <typename Call>
auto served(Call&& call) -> decltype(call()) {
    Entry entry;
    try {
        return entry.finish(call());
    } catch (const std::exception&) {
        return entry.finish(static_cast<decltype(call())>(-EIO));
    }
}

}  // namespace kestrixsim
