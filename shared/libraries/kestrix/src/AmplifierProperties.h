#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "libraries/protocols/uart/Uart.h"
#include "shared/libraries/kestrix/src/AmplifierRecord.h"
#include "shared/libraries/kestrix/src/UartMux.h"

namespace Harvane::Shared::Kestrix {

// One amplifier module as the UART sees it: frames commands, waits for replies, retries, and holds two copies of the
// module's settings, what the module was last known to hold (device copy) and what has been asked for (user copy).
//
// An exchange (select, request, reply) holds the link's mutex, which all modules of the port share, so operations may
// come from any thread and wait for each other: up to 3 attempts of timeout plus 0.2 s each. The accessors of the
// copies don't wait; they go with the thread that drives the settings.
//
// An exchange that can't be completed gives -1. Only the `set` family throws: std::runtime_error with the name of what
// could not be set. The std::logic_error of a multiplexer that doesn't take a channel passes through everything.
class AmplifierProperties {
public:
    using Uart = ZornLib::Protocols::Uart::Uart;

    static constexpr const char* calibrationDateFormat = "%d.%m.%Y %H:%M:%S";
    static constexpr unsigned int defaultTimeoutMs = 200;

    // `index` is the slot, from 0. Without a mutex the object has its own.
    AmplifierProperties(int index, std::shared_ptr<Uart> uart, std::shared_ptr<UartMux> uartMux,
                        std::shared_ptr<std::recursive_mutex> linkMutex = nullptr);
    AmplifierProperties(const AmplifierProperties&) = delete;
    AmplifierProperties& operator=(const AmplifierProperties&) = delete;

    // ---- The two copies, no traffic on the wire ---------------------------------------------------------------------

    void clearProperties();
    void clearDeviceProperties();  // scale 1 and offset 0, all else unknown
    void clearUserProperties();

    // All from the user copy.
    void getFwVersion(unsigned char& major, unsigned char& minor) const;
    short getModuleType() const;
    void getHwVersion(unsigned char& a, unsigned char& b, unsigned char& c, unsigned char& d) const;
    void getSerial(unsigned long& serial) const;
    short getInputCoupling() const;
    short getInputType() const;
    unsigned char getRange() const;
    unsigned char getConnectorType() const;
    unsigned char getHwCapabilities() const;
    unsigned char getFwCapabilities() const;
    unsigned char getMeasurementType() const;
    unsigned char getExcitationUnit() const;
    unsigned char getExcitationType() const;
    float getExcitationValue() const;
    unsigned char getLPFilter() const;
    unsigned char getShort() const;
    long getCalibrationDate() const;

    // Texts of the same: "1.2", "1.2.3.4", upper-case hexadecimal of at least 8 digits, "type.hw.fw.connector" and
    // the local time in calibrationDateFormat.
    std::string getFwVersion() const;
    std::string getHwVersion() const;
    std::string getSerial() const;
    std::string getId() const;
    void getCalibrationDate(std::string& text) const;

    // What the module was last known to hold.
    const AmplifierRecord& getDeviceProperties() const { return device_; }
    // From the device copy.
    bool isAmplifierDefined() const;
    double getDaqScale() const;   // 1 when the module reported no finite number
    double getDaqOffset() const;  // offset * scale / 1000; 0 when the module reported no finite number

    int getDoLevelInvert() const;  // not supported by any module: -1
    int getIndex() const;

    // ---- Transport --------------------------------------------------------------------------------------------------

    // Connects the port to this module.
    void enableChannel();
    // One exchange. Returns the reply's length field, which counts the status byte, or -1 after 3 failed attempts.
    // `reply` gets what the module sent, at most `replySize` bytes; bytes that it didn't send stay as they are.
    // `quiet` lowers the level of the messages about failed attempts. A payload above 254 bytes gives -1 unsent.
    short sendReplyCommand(unsigned char command, const unsigned char* data, size_t dataSize, unsigned char* reply,
                           size_t replySize, unsigned int timeoutMs, bool quiet);
    short sendReplyCommand(unsigned char command, unsigned char* reply, size_t replySize, unsigned int timeoutMs,
                           bool quiet);
    short sendCommand(unsigned char command, const unsigned char* data, size_t dataSize, unsigned int timeoutMs,
                      bool quiet);
    short sendCommand(unsigned char command, unsigned int timeoutMs, bool quiet);

    // ---- Whole module -----------------------------------------------------------------------------------------------

    // Reads identity, scale and offset into the device copy and takes that over as the user copy. False when the slot
    // doesn't answer; then both copies are cleared.
    bool readProperties();
    // Makes the module apply what was set, and reads scale and offset again.
    bool updateProperties();
    bool updateScaling();
    short updateAmplifier();

    // ---- Settings: user copy, wire if the device copy differs, device copy ------------------------------------------

    // Return the reply's length, or 0 when the module has the value already.
    short setInputCoupling(short value);
    short setInputType(short value);
    short setPattern(short value);
    short setRange(unsigned char value);
    short setConnectorType(unsigned char value);
    short setHwCapabilities(unsigned char value);
    short setMeasurementType(unsigned char value);  // makes the module's coupling unknown
    short setExcitationUnit(unsigned char value);
    short setExcitationType(unsigned char value);
    short setExcitationValue(float value);
    short setLPFilter(unsigned char value);
    short setShort(unsigned char value);
    short setSerial(unsigned long value);  // -1 when the module has it already
    // Hexadecimal. Throws std::invalid_argument or std::out_of_range with "stoull".
    short setSerial(const std::string& text);
    short setHwVersion(unsigned char a, unsigned char b, unsigned char c, unsigned char d);
    // "1.2.3.4"; -1 for another number of pieces. Throws std::invalid_argument or std::out_of_range with "stoi".
    short setHwVersion(const std::string& text);
    void setCalibrationDate(long secondsSinceEpoch);

    // ---- Plain reads and writes, neither copy changes ---------------------------------------------------------------

    // One byte, or -1.
    short readMeasurementType();
    short readConnectorType();
    short readHwCapabilities();
    short readFwCapabilities();
    short readExcitationUnit();
    short readExcitationType();
    short readLPFilter();
    short readModuleType();
    short readShort();
    short readRange();
    short readInputCoupling();
    short readInputType();
    short getPattern();
    short getSensorStatus();  // 0 also when the module answers without a byte

    // The reply's length, or -1; the values only change with success.
    short readFwVersion(unsigned char& major, unsigned char& minor);
    short readHwVersion(unsigned char& a, unsigned char& b, unsigned char& c, unsigned char& d);
    short readSerial(unsigned long& serial);
    short readCalibrationDate(long& secondsSinceEpoch);
    short getCmrSetting(unsigned char selector, unsigned char& second, unsigned char& first);
    float readExcitationValue();  // -1.0 when it fails

    short setAlarm(unsigned char value);
    short setLed1Function(bool on);
    short setDoLevelInvert(unsigned char first, unsigned char second);
    short setCmrSetting(unsigned char first, unsigned char second, bool on);
    short setRawMode(bool on);
    bool getRawMode();

    // 0 or -1. `buffer` of readTeds has 8 bytes.
    short readTeds(unsigned char* buffer);
    short resetTedsCustom();
    short writeTedsCustom(const unsigned char* data, unsigned long count);
    short readTedsCustom(unsigned char* buffer, unsigned long count);
    short finalizeTedsCustom();

    // Calibration memory; a read of more than 124 bytes gives -1 unsent.
    bool getLatestSupportedCalibrationStructureVersion(unsigned char& version);
    bool getCalibrationDataSize(unsigned short& size);
    short writeCalibrationData(unsigned short address, const unsigned char* data, unsigned char count);
    short readCalibrationData(unsigned short address, unsigned char* buffer, unsigned char count);

    // Firmware. The reply's length, or -1.
    short hwReset();
    short goBootLoad();
    short exitBootLoad();
    short eraseFlash();
    short writeFlash(const unsigned char* data, size_t size);

    // Pieces of the text between the delimiters, without the empty ones, appended to `parts`.
    static void splitString(std::vector<std::string>& parts, const std::string& text, const std::string& delimiter);

private:
    template <typename T>
    struct Setting;
    struct Settings;

    template <typename T>
    short set(const Setting<T>& setting, const T& value);
    short attempt(const unsigned char* frame, size_t frameSize, unsigned char* reply, size_t replySize,
                  unsigned int timeoutMs);
    short readByte(unsigned char command);
    bool readIdentity(const char*& step);
    float readFloat(unsigned char command, float preset, bool& answered);

    std::shared_ptr<Uart> uart_;
    std::shared_ptr<UartMux> uartMux_;
    AmplifierRecord device_;
    AmplifierRecord user_;
    int index_;
    std::shared_ptr<std::recursive_mutex> linkMutex_;
};

}  // namespace Harvane::Shared::Kestrix
