#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "libraries/protocols/uart/Uart.h"
#include "shared/libraries/kestrix/src/AmplifierCommands.h"
#include "shared/libraries/kestrix/src/AmplifierRecord.h"
#include "shared/libraries/kestrix/src/UartMux.h"

namespace Harvane::Shared::Kestrix {

// Why an exchange failed.
struct LinkFailure {
    bool refused = false;      // the module has answered, with a status other than 0
    unsigned char status = 0;  // of the refusal
    bool mayBeDone = false;    // an attempt went without an answer: the module may have done it all the same
    std::string reason;        // "refused with status 3", "no answer", "bus error: ..."
};

// A setting that the module didn't take, or all of them; the text is its name.
class SettingFailure : public std::runtime_error {
public:
    SettingFailure(const char* name, LinkFailure why) : std::runtime_error(name), failure(std::move(why)) {}
    LinkFailure failure;
};

// One amplifier module as the UART sees it: frames commands, waits for replies, retries, and keeps three records of the
// module's settings: what has been asked for (the user copy), what the module has acknowledged setting by setting
// (staged; with identity, scale and offset the device copy), and what it has put in force by the update command.
//
// Locking: every access to a record locks the records' mutex, which nobody holds while he waits. An exchange (select,
// request, reply) holds the link's mutex, which all modules of the port share, so operations may come from any thread
// and wait for each other: up to 3 attempts of timeout plus 0.2 s each, after an exchange with an attempt that went
// unanswered up to that one's time-out more, so that a late reply isn't taken for another command's. The accessors
// never wait for an exchange.
//
// An exchange that can't be completed gives -1. Only the `set` family throws: SettingFailure with the name of what
// could not be set. The std::logic_error of a multiplexer that doesn't take a channel passes through everything.
class AmplifierProperties {
public:
    using Uart = ZornLib::Protocols::Uart::Uart;

    static constexpr const char* calibrationDateFormat = "%d.%m.%Y %H:%M:%S";
    using TimePoint = std::chrono::steady_clock::time_point;

    // `index` is the slot, from 0. Without a mutex the object has its own. `now` is what time-outs go by.
    AmplifierProperties(int index, std::shared_ptr<Uart> uart, std::shared_ptr<UartMux> uartMux,
                        std::shared_ptr<std::recursive_mutex> linkMutex = nullptr,
                        std::function<TimePoint()> now = std::chrono::steady_clock::now);
    AmplifierProperties(const AmplifierProperties&) = delete;
    AmplifierProperties& operator=(const AmplifierProperties&) = delete;

    // ---- The records, no traffic on the wire ------------------------------------------------------------------------

    void clearProperties();
    void clearDeviceProperties();  // scale 1 and offset 0, all else unknown, and nothing known to be in force
    void clearUserProperties();
    // What has been acknowledged but not put in force is nothing to go by any more: each setting is sent again.
    void dropStaged();

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

    // What has been asked for.
    AmplifierRecord getUserProperties() const;
    // What the module was last known to hold.
    AmplifierRecord getDeviceProperties() const;
    // What the latest update command that was acknowledged has put in force; empty before the first one, and after
    // one that may have been done although its answer was missed.
    std::optional<AmplifierRecord> getSettingsInForce() const;
    // From the device copy.
    bool isAmplifierDefined() const;
    // Whether the numbers that were read last are the module's own, and no stand-in for what was none.
    bool isScalingReported() const;
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
    // The same, with what went wrong: "update properties" or "update scaling".
    std::optional<SettingFailure> applySettings();
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

    // ---- Plain reads and writes, no record changes
    // -------------------------------------------------------------------

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
    struct Exchange {
        short length = -1;  // of a good reply
        LinkFailure failure;
    };
    using Payload = std::span<const unsigned char>;
    using Reply = std::span<unsigned char>;

    template <typename T>
    short set(const Setting<T>& setting, const T& value);
    Exchange exchange(unsigned char code, Payload payload, Reply reply, unsigned int timeoutMs, bool quiet);
    short attempt(Payload frame, Reply reply, unsigned int timeoutMs);
    void discardLateReplies();
    // A command by its row of the table, with one least length in the place of the row's.
    short run(AmplifierCommands::Command command, Payload payload = {}, Reply reply = {}, short leastLength = 0);
    template <typename T>
    short readNumber(AmplifierCommands::Command command, T& value);
    Exchange putInForce();
    bool readIdentity(AmplifierRecord& record, const char*& step);
    std::optional<LinkFailure> readScaling(float& scale, float& offset);
    std::optional<LinkFailure> refreshScaling();

    std::shared_ptr<Uart> uart_;
    std::shared_ptr<UartMux> uartMux_;
    mutable std::mutex recordMutex_;
    AmplifierRecord requested_;
    AmplifierRecord staged_;
    std::optional<AmplifierRecord> inForce_;
    bool scalingReported_ = true;
    int index_;
    std::shared_ptr<std::recursive_mutex> linkMutex_;
    std::function<TimePoint()> now_;
    // Of requests that went without a reply, and how long it may still come; the link's mutex guards them.
    int repliesAwaited_ = 0;
    TimePoint awaitedUntil_;
};

}  // namespace Harvane::Shared::Kestrix
