#pragma once

#include <cstdarg>
#include <cstdio>
#include <exception>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include <zorn/types/errorinfo.h>
#include <zorn/types/errors.h>

// The two languages of failure and their translation: error codes across the interfaces, exceptions inside a library.
// Header-only, and hidden in each shared object: no exception crosses a library's edge.
namespace Harvane::RT::Core {

class ZornException : public std::exception {
public:
    // `format` is printf-style; the text is cut to 1023 characters. An empty format counts as no text.
    __attribute__((format(printf, 4, 5))) ZornException(ErrCode code, bool isDefaultMessage, const char* format, ...)
        : errorCode(code), defaultMessage(isDefaultMessage) {
        va_list arguments;
        va_start(arguments, format);
        formatMessage(format, arguments);
        va_end(arguments);
    }

    ~ZornException() override = default;
    const char* what() const noexcept override { return message.c_str(); }

    ErrCode errorCode;
    std::string message;
    bool defaultMessage;

protected:
    ZornException(ErrCode code, bool isDefaultMessage) : errorCode(code), defaultMessage(isDefaultMessage) {}

    __attribute__((format(printf, 2, 0))) void formatMessage(const char* format, va_list arguments) {
        char buffer[1024];
        std::vsnprintf(buffer, sizeof buffer, format, arguments);
        message = buffer;
    }
};

// One class for each code of the list. Without a text the default text stands and is not sent to the other side.
#define ZORN_EXCEPTION(NAME, CODE, TEXT)                                                        \
    class NAME##Exception : public ZornException {                                              \
    public:                                                                                     \
        static constexpr ErrCode Code = CODE;                                                   \
        NAME##Exception() : ZornException(CODE, true) {                                         \
            message = TEXT;                                                                     \
        }                                                                                       \
        __attribute__((format(printf, 2, 3))) explicit NAME##Exception(const char* format, ...) \
            : ZornException(CODE, false) {                                                      \
            if (format == nullptr || *format == 0) {                                            \
                defaultMessage = true;                                                          \
                message = TEXT;                                                                 \
                return;                                                                         \
            }                                                                                   \
            va_list arguments;                                                                  \
            va_start(arguments, format);                                                        \
            formatMessage(format, arguments);                                                   \
            va_end(arguments);                                                                  \
        }                                                                                       \
    };
ZORN_ERRORS(ZORN_EXCEPTION)
#undef ZORN_EXCEPTION

class IExceptionFactory {
public:
    virtual ~IExceptionFactory() = default;
    virtual void destroy() = 0;
    // Does not return. An empty message stands for the default text.
    virtual void throwException(ErrCode code, const std::string& message) = 0;
};

template <class T>
class GenericExceptionFactory : public IExceptionFactory {
public:
    void destroy() override { delete this; }
    void throwException(ErrCode, const std::string& message) override {
        if (message.empty()) {
            throw T();
        }
        throw T("%s", message.c_str());
    }
};

template <>
class GenericExceptionFactory<ZornException> : public IExceptionFactory {
public:
    void destroy() override { delete this; }
    void throwException(ErrCode code, const std::string& message) override {
        throw ZornException(code, false, "%s", message.c_str());
    }
};

// Which exception stands for which code. The classes of the list are registered by registerExceptionFactories.
class ErrorCodeToException {
public:
    static ErrorCodeToException& GetInstance() {
        static ErrorCodeToException instance;
        return instance;
    }

    // Takes the factory over. An earlier factory of that code gets destroy().
    void registerRtException(ErrCode code, IExceptionFactory* factory) {
        std::lock_guard lock(mutex_);
        IExceptionFactory*& slot = factories_[code];
        if (slot != nullptr && slot != factory) {
            slot->destroy();
        }
        slot = factory;
    }

    IExceptionFactory* getExceptionFactory(ErrCode code) const {
        static GenericExceptionFactory<ZornException> unknown;
        std::lock_guard lock(mutex_);
        auto found = factories_.find(code);
        return found == factories_.end() ? &unknown : found->second;
    }

    [[noreturn]] void throwExceptionFromErrorCode(ErrCode code, const std::string& message) const {
        getExceptionFactory(code)->throwException(code, message);
        char number[16];
        std::snprintf(number, sizeof number, "%u", code);
        throw std::runtime_error(message + " (" + number + ")");
    }

    ErrorCodeToException(const ErrorCodeToException&) = delete;
    ErrorCodeToException& operator=(const ErrorCodeToException&) = delete;

private:
    ErrorCodeToException() = default;
    ~ErrorCodeToException() {
        for (auto& [code, factory] : factories_) {
            factory->destroy();
        }
    }

    mutable std::mutex mutex_;
    std::unordered_map<ErrCode, IExceptionFactory*> factories_;
};

inline void registerExceptionFactories() {
    auto& table = ErrorCodeToException::GetInstance();
#define ZORN_REGISTER(NAME, CODE, TEXT) table.registerRtException(CODE, new GenericExceptionFactory<NAME##Exception>);
    ZORN_ERRORS(ZORN_REGISTER)
#undef ZORN_REGISTER
}

// Every source file that sees this header has the table filled before its own static objects need it.
namespace {
[[maybe_unused]] const bool exceptionFactoriesRegistered = (registerExceptionFactories(), true);
}

// The text of the thread's current error info, which is cleared; empty when there is none. Defined in values.h.
std::string takeErrorMessage();

// Every result of a call into another library goes through this: a failing code becomes the exception of its class
// with the text that the other side left. Success leaves the error info alone. Run on the thread of the call.
inline void checkErrorInfo(ErrCode code) {
    if (succeeded(code)) {
        return;
    }
    ErrorCodeToException::GetInstance().throwExceptionFromErrorCode(code, takeErrorMessage());
}

// The other way: leaves the text for the other side and returns the code. A default text isn't sent, and then no older
// text stays.
inline ErrCode errorFromException(const ZornException& exception, IBaseObject* source = nullptr) {
    IErrorInfo* info = nullptr;
    if (!exception.defaultMessage) {
        createErrorInfo(&info, exception.what(), source);
    }
    zornSetErrorInfo(info);
    if (info != nullptr) {
        info->releaseRef();
    }
    return exception.errorCode;
}

// Leaves a text with a code, for places that fail without an exception.
inline ErrCode makeError(ErrCode code, const char* message, IBaseObject* source = nullptr) {
    return errorFromException(ZornException(code, false, "%s", message == nullptr ? "" : message), source);
}

// The text that a thread had before an operation. Held, so that no newer one can have its address.
class EarlierErrorInfo {
public:
    EarlierErrorInfo() { zornGetErrorInfo(&info_); }
    ~EarlierErrorInfo() {
        if (info_ != nullptr) {
            info_->releaseRef();
        }
    }
    EarlierErrorInfo(const EarlierErrorInfo&) = delete;
    EarlierErrorInfo& operator=(const EarlierErrorInfo&) = delete;

    // A failure after which the text is still the old one has left none.
    ErrCode clearedFrom(ErrCode code) const {
        if (info_ != nullptr && failed(code)) {
            IErrorInfo* now = nullptr;
            zornGetErrorInfo(&now);
            if (now == info_) {
                zornClearErrorInfo();
            }
            if (now != nullptr) {
                now->releaseRef();
            }
        }
        return code;
    }

private:
    IErrorInfo* info_ = nullptr;
};

// Runs `body` at a library's edge: no exception leaves. A body that returns an ErrCode decides the result itself. A
// failure without a text leaves no older one behind.
template <class Body>
ErrCode wrapHandler(Body&& body, IBaseObject* source = nullptr) {
    try {
        if constexpr (std::is_same_v<decltype(body()), ErrCode>) {
            const EarlierErrorInfo earlier;
            return earlier.clearedFrom(body());
        } else {
            body();
            return Errors::Success;
        }
    } catch (const ZornException& exception) {
        return errorFromException(exception, source);
    } catch (const std::bad_alloc&) {
        return plainError(Errors::NoMemory);
    } catch (const std::exception& exception) {
        return makeError(Errors::GeneralError, exception.what(), source);
    } catch (...) {
        return plainError(Errors::GeneralError);
    }
}

}  // namespace Harvane::RT::Core
