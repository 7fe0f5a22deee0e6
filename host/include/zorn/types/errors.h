#pragma once

#include <cstdint>

// Result codes of every operation that crosses a shared library's edge.
namespace Harvane::RT::Core {

// Bit 31 set: failure. Any other value is a success, 0 the usual one.
using ErrCode = uint32_t;

constexpr bool failed(ErrCode code) {
    return (code & 0x80000000u) != 0;
}
constexpr bool succeeded(ErrCode code) {
    return !failed(code);
}

// All codes: ERROR(name, code, default text). Constants, default texts, exception classes and their registration are
// made of this one list.
#define ZORN_ERRORS(ERROR)                                                                       \
    ERROR(NoMemory, 0x80000000, "No memory")                                                     \
    ERROR(InvalidParameter, 0x80000001, "Invalid parameter")                                     \
    ERROR(ConversionFailed, 0x80000004, "Conversion failed")                                     \
    ERROR(OutOfRange, 0x80000005, "Out of range")                                                \
    ERROR(NotFound, 0x80000006, "Not found")                                                     \
    ERROR(AlreadyExists, 0x8000000A, "Already exists")                                           \
    ERROR(NotAssigned, 0x8000000B, "Not assigned")                                               \
    ERROR(ParseFailed, 0x8000000D, "Parse failed")                                               \
    ERROR(InvalidValue, 0x8000000E, "Invalid value")                                             \
    ERROR(InvalidType, 0x80000011, "Invalid type")                                               \
    ERROR(NotEnabled, 0x80000013, "Not enabled")                                                 \
    ERROR(GeneralError, 0x80000014, "General error")                                             \
    ERROR(CalcFailed, 0x80000015, "Calculation failed")                                          \
    ERROR(NotImplemented, 0x80000016, "Not Implemented")                                         \
    ERROR(Frozen, 0x80000017, "Object frozen")                                                   \
    ERROR(NotSerializable, 0x80000018, "Not serializable")                                       \
    ERROR(Deserialize, 0x80000021, "Error when parsing or deserializing")                        \
    ERROR(InvalidProperty, 0x80000024, "Invalid property")                                       \
    ERROR(ArgumentNull, 0x80000026, "Argument must not be NULL.")                                \
    ERROR(InvalidOperation, 0x80000027, "Operation in not valid for the current type or state.") \
    ERROR(Uninitialized, 0x80000028, "The operation requires initialization")                    \
    ERROR(InvalidState, 0x80000029, "Invalid state")                                             \
    ERROR(ValidateFailed, 0x80000030, "Validate failed")                                         \
    ERROR(NoInterface, 0x80004002, "Invalid cast. The object does not implement this interface.")

// Codes that have no exception class of their own.
#define ZORN_ERRORS_WITHOUT_CLASS(ERROR)                                  \
    ERROR(InstanceLimit, 0x80000009, "A second instance is not possible") \
    ERROR(IncompatibleVersion, 0x80030004, "A library has the wrong version")

namespace Errors {
constexpr ErrCode Success = 0;
#define ZORN_ERROR_CONSTANT(NAME, CODE, TEXT) constexpr ErrCode NAME = CODE;
ZORN_ERRORS(ZORN_ERROR_CONSTANT)
ZORN_ERRORS_WITHOUT_CLASS(ZORN_ERROR_CONSTANT)
#undef ZORN_ERROR_CONSTANT
}  // namespace Errors

// What a code says for itself; empty for a code that is not in the list.
constexpr const char* defaultErrorText(ErrCode code) {
    switch (code) {
#define ZORN_ERROR_TEXT(NAME, CODE, TEXT) \
    case CODE:                            \
        return TEXT;
        ZORN_ERRORS(ZORN_ERROR_TEXT)
        ZORN_ERRORS_WITHOUT_CLASS(ZORN_ERROR_TEXT)
#undef ZORN_ERROR_TEXT
        default:
            return "";
    }
}

}  // namespace Harvane::RT::Core
