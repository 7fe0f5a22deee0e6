#pragma once

#include <cstdarg>
#include <cstdio>
#include <exception>
#include <memory>
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

// One class for each code. Without a text the default text stands and is not sent to the other side.
#define ZORN_EXCEPTION(CLASS, CODE, TEXT)                                                                            \
    class CLASS : public ZornException {                                                                             \
    public:                                                                                                          \
        static constexpr ErrCode Code = CODE;                                                                        \
        CLASS() : ZornException(CODE, true) {                                                                        \
            message = TEXT;                                                                                          \
        }                                                                                                            \
        __attribute__((format(printf, 2, 3))) explicit CLASS(const char* format, ...) : ZornException(CODE, false) { \
            if (format == nullptr || *format == 0) {                                                                 \
                defaultMessage = true;                                                                               \
                message = TEXT;                                                                                      \
                return;                                                                                              \
            }                                                                                                        \
            va_list arguments;                                                                                       \
            va_start(arguments, format);                                                                             \
            formatMessage(format, arguments);                                                                        \
            va_end(arguments);                                                                                       \
        }                                                                                                            \
    }

ZORN_EXCEPTION(NoMemoryException, 0x80000000, "No memory");
ZORN_EXCEPTION(InvalidParameterException, 0x80000001, "Invalid parameter");
ZORN_EXCEPTION(ConversionFailedException, 0x80000004, "Conversion failed");
ZORN_EXCEPTION(OutOfRangeException, 0x80000005, "Out of range");
ZORN_EXCEPTION(NotFoundException, 0x80000006, "Not found");
ZORN_EXCEPTION(AlreadyExistsException, 0x8000000A, "Already exists");
ZORN_EXCEPTION(NotAssignedException, 0x8000000B, "Not assigned");
ZORN_EXCEPTION(ParseFailedException, 0x8000000D, "Parse failed");
ZORN_EXCEPTION(InvalidValueException, 0x8000000E, "Invalid value");
ZORN_EXCEPTION(InvalidTypeException, 0x80000011, "Invalid type");
ZORN_EXCEPTION(NotEnabledException, 0x80000013, "Not enabled");
ZORN_EXCEPTION(GeneralErrorException, 0x80000014, "General error");
ZORN_EXCEPTION(CalcFailedException, 0x80000015, "Calculation failed");
ZORN_EXCEPTION(NotImplementedException, 0x80000016, "Not Implemented");
ZORN_EXCEPTION(FrozenException, 0x80000017, "Object frozen");
ZORN_EXCEPTION(NotSerializableException, 0x80000018, "Not serializable");
ZORN_EXCEPTION(DeserializeException, 0x80000021, "Error when parsing or deserializing");
ZORN_EXCEPTION(InvalidPropertyException, 0x80000024, "Invalid property");
ZORN_EXCEPTION(ArgumentNullException, 0x80000026, "Argument must not be NULL.");
ZORN_EXCEPTION(InvalidOperationException, 0x80000027, "Operation in not valid for the current type or state.");
ZORN_EXCEPTION(UninitializedException, 0x80000028, "The operation requires initialization");
ZORN_EXCEPTION(InvalidStateException, 0x80000029, "Invalid state");
ZORN_EXCEPTION(ValidateFailedException, 0x80000030, "Validate failed");
ZORN_EXCEPTION(NoInterfaceException, 0x80004002, "Invalid cast. The object does not implement this interface.");

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

// Which exception stands for which code. The 24 classes above are registered by registerExceptionFactories.
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
    auto add = [&table]<class... T>(std::unique_ptr<T>...) {
        (table.registerRtException(T::Code, new GenericExceptionFactory<T>), ...);
    };
    add(std::unique_ptr<NoMemoryException>(), std::unique_ptr<InvalidParameterException>(),
        std::unique_ptr<ConversionFailedException>(), std::unique_ptr<OutOfRangeException>(),
        std::unique_ptr<NotFoundException>(), std::unique_ptr<AlreadyExistsException>(),
        std::unique_ptr<NotAssignedException>(), std::unique_ptr<ParseFailedException>(),
        std::unique_ptr<InvalidValueException>(), std::unique_ptr<InvalidTypeException>(),
        std::unique_ptr<NotEnabledException>(), std::unique_ptr<GeneralErrorException>(),
        std::unique_ptr<CalcFailedException>(), std::unique_ptr<NotImplementedException>(),
        std::unique_ptr<FrozenException>(), std::unique_ptr<NotSerializableException>(),
        std::unique_ptr<DeserializeException>(), std::unique_ptr<InvalidPropertyException>(),
        std::unique_ptr<ArgumentNullException>(), std::unique_ptr<InvalidOperationException>(),
        std::unique_ptr<UninitializedException>(), std::unique_ptr<InvalidStateException>(),
        std::unique_ptr<ValidateFailedException>(), std::unique_ptr<NoInterfaceException>());
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

// The other way: leaves the text (unless it is the default text) for the other side and returns the code.
inline ErrCode errorFromException(const ZornException& exception, IBaseObject* source = nullptr) {
    if (!exception.defaultMessage) {
        IErrorInfo* info = nullptr;
        if (succeeded(createErrorInfo(&info, exception.what(), source)) && info != nullptr) {
            zornSetErrorInfo(info);
            info->releaseRef();
        }
    }
    return exception.errorCode;
}

// Leaves a text with a code, for places that fail without an exception.
inline ErrCode makeError(ErrCode code, const char* message, IBaseObject* source = nullptr) {
    return errorFromException(ZornException(code, false, "%s", message == nullptr ? "" : message), source);
}

// Runs `body` at a library's edge: no exception leaves. A body that returns an ErrCode decides the result itself.
template <class Body>
ErrCode wrapHandler(Body&& body, IBaseObject* source = nullptr) {
    try {
        if constexpr (std::is_same_v<decltype(body()), ErrCode>) {
            return body();
        } else {
            body();
            return Errors::Success;
        }
    } catch (const ZornException& exception) {
        return errorFromException(exception, source);
    } catch (const std::bad_alloc&) {
        return Errors::NoMemory;
    } catch (const std::exception& exception) {
        return makeError(Errors::GeneralError, exception.what(), source);
    } catch (...) {
        return Errors::GeneralError;
    }
}

}  // namespace Harvane::RT::Core
