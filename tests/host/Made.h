#pragma once

#include <cstdio>
#include <string>
#include <utility>

#include <zorn/types/values.h>

// Short ways to call the host's operations.
namespace Harvane::RT::Core::Testing {

// What an operation hands out; its failure is an exception. For a function with the output first, or a callable that
// takes the output alone.
template <class I, class Operation, class... Arguments>
ObjectPtr<I> made(Operation&& operation, Arguments&&... arguments) {
    I* object = nullptr;
    checkErrorInfo(operation(&object, std::forward<Arguments>(arguments)...));
    return ObjectPtr<I>::take(object);
}

// What a call leaves: "" for success, else code and text as in "80000006 Not found".
template <class Call>
std::string failure(Call&& call) {
    zornClearErrorInfo();
    try {
        call();
        return "";
    } catch (const ZornException& exception) {
        char code[16];
        std::snprintf(code, sizeof code, "%08X ", exception.errorCode);
        return code + exception.message;
    }
}

// The text that a call gives, or its failure.
template <class Call>
std::string outcome(Call&& call) {
    std::string text;
    const std::string error = failure([&] { text = call(); });
    return error.empty() ? text : error;
}

}  // namespace Harvane::RT::Core::Testing
