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

namespace Errors {
constexpr ErrCode Success = 0;
constexpr ErrCode NoMemory = 0x80000000;
constexpr ErrCode InvalidParameter = 0x80000001;
constexpr ErrCode ConversionFailed = 0x80000004;
constexpr ErrCode OutOfRange = 0x80000005;
constexpr ErrCode NotFound = 0x80000006;
constexpr ErrCode InstanceLimit = 0x80000009;  // a single-instance factory was asked twice
constexpr ErrCode AlreadyExists = 0x8000000A;
constexpr ErrCode NotAssigned = 0x8000000B;
constexpr ErrCode ParseFailed = 0x8000000D;
constexpr ErrCode InvalidValue = 0x8000000E;
constexpr ErrCode InvalidType = 0x80000011;
constexpr ErrCode NotEnabled = 0x80000013;
constexpr ErrCode GeneralError = 0x80000014;
constexpr ErrCode CalcFailed = 0x80000015;
constexpr ErrCode NotImplemented = 0x80000016;
constexpr ErrCode Frozen = 0x80000017;
constexpr ErrCode NotSerializable = 0x80000018;
constexpr ErrCode Deserialize = 0x80000021;
constexpr ErrCode InvalidProperty = 0x80000024;
constexpr ErrCode ArgumentNull = 0x80000026;
constexpr ErrCode InvalidOperation = 0x80000027;
constexpr ErrCode Uninitialized = 0x80000028;
constexpr ErrCode InvalidState = 0x80000029;
constexpr ErrCode ValidateFailed = 0x80000030;
constexpr ErrCode NoInterface = 0x80004002;
constexpr ErrCode IncompatibleVersion = 0x80030004;
}  // namespace Errors

}  // namespace Harvane::RT::Core
