#pragma once

#include <exception>
#include <utility>

namespace Harvane::RT::Modules::Daq {

// Steps that are all tried, whichever of them fails: keeps the first failure and logs the others.
class FirstFailure {
public:
    // `what` names the step in the log. Returns whether it went through.
    template <class Step>
    bool attempt(const char* what, Step&& step) noexcept {
        try {
            std::forward<Step>(step)();
            return true;
        } catch (...) {
            note(what);
            return false;
        }
    }

    void rethrow() const {
        if (first_) {
            std::rethrow_exception(first_);
        }
    }

private:
    void note(const char* what) noexcept;

    std::exception_ptr first_;
};

// Logs the exception that is being handled.
void logFailure(const char* what) noexcept;

// A step whose failure must not make another one: it is logged.
template <class Step>
void runQuietly(const char* what, Step&& step) noexcept {
    try {
        std::forward<Step>(step)();
    } catch (...) {
        logFailure(what);
    }
}

}  // namespace Harvane::RT::Modules::Daq
