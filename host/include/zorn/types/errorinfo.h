#pragma once

#include <zorn/types/base.h>

// The text of a failure. One current error info per thread, kept by the core types library.
namespace Harvane::RT::Core {

class IString;

class IErrorInfo : public IBaseObject {
    ZORN_INTERFACE(IErrorInfo, IBaseObject)

    virtual ErrCode getMessage(IString** message) = 0;
    virtual ErrCode getSource(IBaseObject** source) = 0;  // null and 0 when there is none
};

ZORN_FUNCTION ErrCode createErrorInfo(IErrorInfo** info, const char* message, IBaseObject* source);
// Takes its own reference; null clears.
ZORN_FUNCTION ErrCode zornSetErrorInfo(IErrorInfo* info);
// 0 and null when there is none; hands out a reference.
ZORN_FUNCTION ErrCode zornGetErrorInfo(IErrorInfo** info);
ZORN_FUNCTION void zornClearErrorInfo();

// A failure that has no text of its own: what an earlier one of this thread has left must not be taken for its reason.
inline ErrCode plainError(ErrCode code) {
    zornClearErrorInfo();
    return code;
}

ZORN_FUNCTION ErrCode zornDuplicateCharPtr(char** copy, const char* text);
ZORN_FUNCTION ErrCode zornDuplicateCharPtrN(char** copy, const char* text, size_t length);
ZORN_FUNCTION void zornFreeMemory(void* memory);  // null is accepted

}  // namespace Harvane::RT::Core
