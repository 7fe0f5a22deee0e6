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

enum Command : unsigned char {
    GetLatestCalibrationVersion = 0x40,
    SetRawMode = 0x41,
    GetRawMode = 0x42,
    WriteCalibrationData = 0x45,
    ReadCalibrationData = 0x46,
    GetCalibrationDataSize = 0x47,
    SetCalibrationDate = 0x48,
    ReadCalibrationDate = 0x49,
    EraseFlash = 0x49,  // the boot loader's meaning of the same code
    WriteFlash = 0x50,
    ExitBootLoad = 0x53,
    GoBootLoad = 0x57,
    HwReset = 0x5B,
    SetMeasurementType = 0x60,
    ReadMeasurementType = 0x61,
    SetConnectorType = 0x62,
    ReadConnectorType = 0x63,
    SetHwCapabilities = 0x64,
    ReadHwCapabilities = 0x65,
    ReadFwCapabilities = 0x66,
    UpdateAmplifier = 0x67,
    SetExcitationUnit = 0x68,
    ReadExcitationUnit = 0x69,
    SetExcitationType = 0x6A,
    ReadExcitationType = 0x6B,
    ReadLPFilter = 0x9F,
    SetSerial = 0xA1,
    ReadSerial = 0xA3,
    SetHwVersion = 0xA4,
    ReadHwVersion = 0xA6,
    ReadModuleType = 0xA7,
    ReadFwVersion = 0xAA,
    SetShort = 0xB7,
    ReadShort = 0xB8,
    SetExcitationValue = 0xB9,
    ReadExcitationValue = 0xBA,
    SetRange = 0xBC,
    ReadRange = 0xBD,
    SetInputCoupling = 0xC3,
    ReadInputCoupling = 0xC4,
    SetAlarm = 0xC7,
    SetLPFilter = 0xC8,
    SetInputType = 0xC9,
    ReadInputType = 0xCA,
    ReadTeds = 0xD0,
    TedsCustom = 0xD1,
    SetDoLevelInvert = 0xE0,
    SetCmrSettingOff = 0xEA,
    GetCmrSetting = 0xEB,
    SetCmrSettingOn = 0xEC,
    GetSensorStatus = 0xF0,
    SetLed1Function = 0xF2,
    SetPattern = 0xF7,
    GetPattern = 0xF8,
    ReadScale = 0xFA,
    ReadOffset = 0xFB,
};

// First payload byte of TedsCustom.
enum TedsOperation : unsigned char {
    TedsReset = 0x01,
    TedsWrite = 0x02,
    TedsRead = 0x03,
    TedsFinalize = 0x04,
};

}  // namespace AmplifierCommands

}  // namespace Harvane::Shared::Kestrix
