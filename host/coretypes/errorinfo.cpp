#include <cstdlib>
#include <cstring>

#include <zorn/types/object_impl.h>
#include <zorn/types/values.h>

namespace Harvane::RT::Core {
namespace {

class ErrorInfoImpl final : public ObjectImpl<IErrorInfo> {
public:
    ErrorInfoImpl(const char* message, IBaseObject* source) : message_(message), source_(source) {}

    ErrCode getMessage(IString** message) override { return handOut(message_, message); }
    ErrCode getSource(IBaseObject** source) override { return handOut(source_, source); }
    ErrCode toString(char** text) override {
        return text == nullptr ? plainError(Errors::ArgumentNull)
                               : zornDuplicateCharPtr(text, message_.toStdString().c_str());
    }

private:
    StringPtr message_;
    BasePtr source_;
};

// Asking whether there is an error is frequent and must not touch more than this pointer.
thread_local IErrorInfo* current = nullptr;

// Releases what a thread leaves behind.
struct Cleaner {
    bool armed = false;
    ~Cleaner() { zornClearErrorInfo(); }
};
thread_local Cleaner cleaner;

}  // namespace

ErrCode createErrorInfo(IErrorInfo** info, const char* message, IBaseObject* source) {
    return createObject<ErrorInfoImpl>(info, message == nullptr ? "" : message, source);
}

ErrCode zornSetErrorInfo(IErrorInfo* info) {
    if (info != nullptr) {
        info->addRef();
        cleaner.armed = true;
    }
    if (IErrorInfo* replaced = std::exchange(current, info)) {
        replaced->releaseRef();
    }
    return Errors::Success;
}

ErrCode zornGetErrorInfo(IErrorInfo** info) {
    if (info == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    *info = current;
    if (current != nullptr) {
        current->addRef();
    }
    return Errors::Success;
}

void zornClearErrorInfo() {
    if (IErrorInfo* replaced = std::exchange(current, nullptr)) {
        replaced->releaseRef();
    }
}

ErrCode zornDuplicateCharPtrN(char** copy, const char* text, size_t length) {
    if (copy == nullptr || text == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    *copy = static_cast<char*>(std::malloc(length + 1));
    if (*copy == nullptr) {
        return plainError(Errors::NoMemory);
    }
    std::memcpy(*copy, text, length);
    (*copy)[length] = 0;
    return Errors::Success;
}

ErrCode zornDuplicateCharPtr(char** copy, const char* text) {
    return text == nullptr ? plainError(Errors::ArgumentNull) : zornDuplicateCharPtrN(copy, text, std::strlen(text));
}

void zornFreeMemory(void* memory) {
    std::free(memory);
}

}  // namespace Harvane::RT::Core
