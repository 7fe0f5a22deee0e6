#pragma once

namespace Harvane::Shared::Kestrix {

// The amplifiers' command protocol: what a frame on the UART is made of.
//
//   request  key  length  command  payload...  end     length counts command and payload
//   reply    key  length  status   data...     end     length counts status and data; status 0 is success
//
// There is no checksum. Numbers have their low byte first, floats are 32 bits in IEEE 754 format.
namespace AmplifierCommands {

inline constexpr unsigned char uartKey = 0xA5;
inline constexpr unsigned char uartEnd = 0x5A;

// The length is one byte and counts the command.
inline constexpr unsigned int maxPayload = 254;
// A reply is taken from a buffer of 128 bytes, of which key, length, status and end take four.
inline constexpr unsigned int receiveBufferSize = 128;
inline constexpr unsigned int maxReplyData = receiveBufferSize - 4;

// The command set. Two pairs share a code: the boot loader gives 0x49 a meaning of its own, and the first payload byte
// tells the operations on the custom TEDS area apart.
enum class Command : unsigned char {
    GetLatestCalibrationVersion,
    SetRawMode,
    GetRawMode,
    WriteCalibrationData,
    ReadCalibrationData,
    GetCalibrationDataSize,
    SetCalibrationDate,
    ReadCalibrationDate,
    EraseFlash,
    WriteFlash,
    ExitBootLoad,
    GoBootLoad,
    HwReset,
    SetMeasurementType,
    ReadMeasurementType,
    SetConnectorType,
    ReadConnectorType,
    SetHwCapabilities,
    ReadHwCapabilities,
    ReadFwCapabilities,
    UpdateAmplifier,
    SetExcitationUnit,
    ReadExcitationUnit,
    SetExcitationType,
    ReadExcitationType,
    ReadLPFilter,
    SetSerial,
    ReadSerial,
    SetHwVersion,
    ReadHwVersion,
    ReadModuleType,
    ReadFwVersion,
    SetShort,
    ReadShort,
    SetExcitationValue,
    ReadExcitationValue,
    SetRange,
    ReadRange,
    SetInputCoupling,
    ReadInputCoupling,
    SetAlarm,
    SetLPFilter,
    SetInputType,
    ReadInputType,
    ReadTeds,
    ResetTedsCustom,
    WriteTedsCustom,
    ReadTedsCustom,
    FinalizeTedsCustom,
    SetDoLevelInvert,
    SetCmrSettingOff,
    GetCmrSetting,
    SetCmrSettingOn,
    GetSensorStatus,
    SetLed1Function,
    SetPattern,
    GetPattern,
    ReadScale,
    ReadOffset,
};

// What an operation makes of the reply's length, which counts the status byte.
enum class ResultRule : unsigned char {
    Length,   // the length as it is, -1 without a good reply
    AtLeast,  // the length, -1 below the least one
    Exact,    // the length, -1 for any other one than the least
    Byte,     // the reply's first byte, -1 below the least length
    Zero,     // 0, -1 below the least length
};

struct CommandRow {
    Command command;
    unsigned char code;
    unsigned int timeoutMs;
    bool quiet;  // a module that refuses it is nothing to alarm anybody about
    short leastLength;
    ResultRule rule;
};

// By the number of the command.
// clang-format off
inline constexpr CommandRow commandTable[] = {
    {Command::GetLatestCalibrationVersion, 0x40, 200, false, 2, ResultRule::Exact},
    {Command::SetRawMode, 0x41, 200, false, 1, ResultRule::Length},
    {Command::GetRawMode, 0x42, 200, false, 2, ResultRule::Exact},
    {Command::WriteCalibrationData, 0x45, 200, false, 1, ResultRule::Length},
    {Command::ReadCalibrationData, 0x46, 200, false, 1, ResultRule::Length},
    {Command::GetCalibrationDataSize, 0x47, 200, false, 3, ResultRule::Exact},
    {Command::SetCalibrationDate, 0x48, 200, false, 1, ResultRule::AtLeast},
    {Command::ReadCalibrationDate, 0x49, 200, false, 9, ResultRule::AtLeast},
    {Command::EraseFlash, 0x49, 2000, false, 1, ResultRule::AtLeast},
    {Command::WriteFlash, 0x50, 200, false, 1, ResultRule::AtLeast},
    {Command::ExitBootLoad, 0x53, 7000, false, 1, ResultRule::AtLeast},
    {Command::GoBootLoad, 0x57, 1000, false, 1, ResultRule::AtLeast},
    {Command::HwReset, 0x5B, 200, false, 1, ResultRule::AtLeast},
    {Command::SetMeasurementType, 0x60, 200, false, 1, ResultRule::AtLeast},
    {Command::ReadMeasurementType, 0x61, 200, false, 2, ResultRule::Byte},
    {Command::SetConnectorType, 0x62, 200, false, 1, ResultRule::AtLeast},
    {Command::ReadConnectorType, 0x63, 200, false, 2, ResultRule::Byte},
    {Command::SetHwCapabilities, 0x64, 200, false, 1, ResultRule::AtLeast},
    {Command::ReadHwCapabilities, 0x65, 200, false, 2, ResultRule::Byte},
    {Command::ReadFwCapabilities, 0x66, 200, false, 2, ResultRule::Byte},
    {Command::UpdateAmplifier, 0x67, 500, false, 1, ResultRule::AtLeast},
    {Command::SetExcitationUnit, 0x68, 200, false, 1, ResultRule::AtLeast},
    {Command::ReadExcitationUnit, 0x69, 200, false, 2, ResultRule::Byte},
    {Command::SetExcitationType, 0x6A, 200, false, 1, ResultRule::AtLeast},
    {Command::ReadExcitationType, 0x6B, 200, false, 2, ResultRule::Byte},
    {Command::ReadLPFilter, 0x9F, 200, false, 2, ResultRule::Byte},
    {Command::SetSerial, 0xA1, 200, false, 1, ResultRule::AtLeast},
    {Command::ReadSerial, 0xA3, 200, false, 9, ResultRule::AtLeast},
    {Command::SetHwVersion, 0xA4, 200, false, 1, ResultRule::AtLeast},
    {Command::ReadHwVersion, 0xA6, 200, false, 5, ResultRule::AtLeast},
    {Command::ReadModuleType, 0xA7, 200, false, 2, ResultRule::Byte},
    {Command::ReadFwVersion, 0xAA, 200, false, 3, ResultRule::AtLeast},
    {Command::SetShort, 0xB7, 200, false, 1, ResultRule::AtLeast},
    {Command::ReadShort, 0xB8, 200, false, 2, ResultRule::Byte},
    {Command::SetExcitationValue, 0xB9, 200, false, 1, ResultRule::AtLeast},
    {Command::ReadExcitationValue, 0xBA, 200, false, 5, ResultRule::AtLeast},
    {Command::SetRange, 0xBC, 200, false, 1, ResultRule::AtLeast},
    {Command::ReadRange, 0xBD, 200, false, 2, ResultRule::Byte},
    {Command::SetInputCoupling, 0xC3, 200, false, 1, ResultRule::AtLeast},
    {Command::ReadInputCoupling, 0xC4, 200, false, 2, ResultRule::Byte},
    {Command::SetAlarm, 0xC7, 200, false, 1, ResultRule::AtLeast},
    {Command::SetLPFilter, 0xC8, 200, false, 1, ResultRule::AtLeast},
    {Command::SetInputType, 0xC9, 200, false, 1, ResultRule::AtLeast},
    {Command::ReadInputType, 0xCA, 200, false, 2, ResultRule::Byte},
    {Command::ReadTeds, 0xD0, 200, true, 8, ResultRule::Zero},
    {Command::ResetTedsCustom, 0xD1, 200, true, 1, ResultRule::Zero},
    {Command::WriteTedsCustom, 0xD1, 200, false, 1, ResultRule::Zero},
    {Command::ReadTedsCustom, 0xD1, 200, false, 1, ResultRule::Zero},
    {Command::FinalizeTedsCustom, 0xD1, 200, false, 1, ResultRule::Zero},
    {Command::SetDoLevelInvert, 0xE0, 200, false, 1, ResultRule::AtLeast},
    {Command::SetCmrSettingOff, 0xEA, 200, false, 1, ResultRule::AtLeast},
    {Command::GetCmrSetting, 0xEB, 200, false, 3, ResultRule::AtLeast},
    {Command::SetCmrSettingOn, 0xEC, 200, false, 1, ResultRule::AtLeast},
    {Command::GetSensorStatus, 0xF0, 200, false, 1, ResultRule::Byte},
    {Command::SetLed1Function, 0xF2, 200, false, 1, ResultRule::Length},
    {Command::SetPattern, 0xF7, 200, false, 1, ResultRule::AtLeast},
    {Command::GetPattern, 0xF8, 200, false, 2, ResultRule::Byte},
    {Command::ReadScale, 0xFA, 200, false, 1, ResultRule::Length},
    {Command::ReadOffset, 0xFB, 200, false, 1, ResultRule::Length},
};
// clang-format on

constexpr const CommandRow& rowOf(Command command) {
    return commandTable[static_cast<unsigned char>(command)];
}

constexpr bool isInOrder() {
    unsigned char place = 0;
    for (const CommandRow& row : commandTable) {
        if (static_cast<unsigned char>(row.command) != place++) {
            return false;
        }
    }
    return true;
}
static_assert(isInOrder());

// First payload byte of the operations on the custom TEDS area.
enum TedsOperation : unsigned char {
    TedsReset = 0x01,
    TedsWrite = 0x02,
    TedsRead = 0x03,
    TedsFinalize = 0x04,
};

}  // namespace AmplifierCommands

}  // namespace Harvane::Shared::Kestrix
