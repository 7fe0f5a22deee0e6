#pragma once

#include <stdexcept>
#include <string>

namespace kestrixtest {

// The text that an operation fails with, "no failure" when it doesn't. Any other kind of exception passes through.
template <class Failure = std::runtime_error, class Operation>
std::string failureOf(const Operation& operation) {
    try {
        operation();
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "no failure";
}

}  // namespace kestrixtest
