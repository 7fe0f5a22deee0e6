#include "shared/libraries/kestrix/src/AmplifierProperties.h"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "shared/libraries/kestrix/src/AmplifierCommands.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace Harvane::Shared::Kestrix {

using namespace AmplifierCommands;

static_assert(std::endian::native == std::endian::little, "numbers go on the wire as they lie in memory");

namespace {

constexpr int maxAttempts = 3;
constexpr size_t maxReadSize = 64;

// A reply that doesn't end: reported whatever the caller asked for.
class ReceiveOverflow : public std::runtime_error {
public:
    ReceiveOverflow() : std::runtime_error("UART received data overflow") {}
};

using ReceiveBuffer = std::array<unsigned char, receiveBufferSize>;

// Index of the first frame, or `total`. A key that is not followed by an end mark at its distance is noise.
size_t findFrame(const ReceiveBuffer& buffer, size_t total) {
    for (size_t i = 0; i < total; ++i) {
        if (buffer[i] != uartKey || i + 1 >= buffer.size()) {
            continue;
        }
        const size_t end = i + 2 + buffer[i + 1];
        if (end < buffer.size() && buffer[end] == uartEnd) {
            return i;
        }
    }
    return total;
}

short atLeast(short length, short bound) {
    return length < bound ? static_cast<short>(-1) : length;
}

short zeroOnSuccess(short length) {
    return length < 1 ? -1 : 0;
}

}  // namespace

AmplifierProperties::AmplifierProperties(int index, std::shared_ptr<Uart> uart, std::shared_ptr<UartMux> uartMux,
                                         std::shared_ptr<std::recursive_mutex> linkMutex)
    : uart_(std::move(uart)),
      uartMux_(std::move(uartMux)),
      index_(index),
      linkMutex_(linkMutex ? std::move(linkMutex) : std::make_shared<std::recursive_mutex>()) {
    clearProperties();
}

// ---- The two copies -------------------------------------------------------------------------------------------------

void AmplifierProperties::clearProperties() {
    clearDeviceProperties();
    clearUserProperties();
}

void AmplifierProperties::clearDeviceProperties() {
    const std::lock_guard lock(*linkMutex_);
    device_ = AmplifierRecord{};
    device_.scale = 1.0f;
    device_.offset = 0.0f;
}

void AmplifierProperties::clearUserProperties() {
    const std::lock_guard lock(*linkMutex_);
    user_ = AmplifierRecord{};
}

void AmplifierProperties::getFwVersion(unsigned char& major, unsigned char& minor) const {
    major = user_.fwVersion[0];
    minor = user_.fwVersion[1];
}

void AmplifierProperties::getHwVersion(unsigned char& a, unsigned char& b, unsigned char& c, unsigned char& d) const {
    a = user_.hwVersion[0];
    b = user_.hwVersion[1];
    c = user_.hwVersion[2];
    d = user_.hwVersion[3];
}

void AmplifierProperties::getSerial(unsigned long& serial) const {
    serial = user_.serial;
}

short AmplifierProperties::getModuleType() const {
    return user_.moduleType;
}
short AmplifierProperties::getInputCoupling() const {
    return user_.inputCoupling;
}
short AmplifierProperties::getInputType() const {
    return user_.inputType;
}
unsigned char AmplifierProperties::getRange() const {
    return user_.range;
}
unsigned char AmplifierProperties::getConnectorType() const {
    return user_.connectorType;
}
unsigned char AmplifierProperties::getHwCapabilities() const {
    return user_.hwCapabilities;
}
unsigned char AmplifierProperties::getFwCapabilities() const {
    return user_.fwCapabilities;
}
unsigned char AmplifierProperties::getMeasurementType() const {
    return user_.measurementType;
}
unsigned char AmplifierProperties::getExcitationUnit() const {
    return user_.excitationUnit;
}
unsigned char AmplifierProperties::getExcitationType() const {
    return user_.excitationType;
}
float AmplifierProperties::getExcitationValue() const {
    return user_.excitationValue;
}
unsigned char AmplifierProperties::getLPFilter() const {
    return user_.lpFilter;
}
unsigned char AmplifierProperties::getShort() const {
    return user_.shortOn;
}
long AmplifierProperties::getCalibrationDate() const {
    return user_.calibrationDate;
}
int AmplifierProperties::getDoLevelInvert() const {
    return -1;
}
int AmplifierProperties::getIndex() const {
    return index_;
}

std::string AmplifierProperties::getFwVersion() const {
    return fmt::format("{}.{}", user_.fwVersion[0], user_.fwVersion[1]);
}

std::string AmplifierProperties::getHwVersion() const {
    const auto& version = user_.hwVersion;
    return fmt::format("{}.{}.{}.{}", version[0], version[1], version[2], version[3]);
}

std::string AmplifierProperties::getSerial() const {
    return fmt::format("{:08X}", user_.serial);
}

std::string AmplifierProperties::getId() const {
    return fmt::format("{}.{}.{}.{}", user_.moduleType, user_.hwCapabilities, user_.fwCapabilities,
                       user_.connectorType);
}

void AmplifierProperties::getCalibrationDate(std::string& text) const {
    const time_t seconds = user_.calibrationDate;
    tm local{};
    std::array<char, 64> buffer{};
    // A date beyond what a calendar year can hold has no text.
    if (localtime_r(&seconds, &local)) {
        std::strftime(buffer.data(), buffer.size(), calibrationDateFormat, &local);
    }
    text = buffer.data();
}

bool AmplifierProperties::isAmplifierDefined() const {
    return device_.moduleType != 0;
}

double AmplifierProperties::getDaqScale() const {
    return std::isfinite(device_.scale) ? device_.scale : 1.0;
}

double AmplifierProperties::getDaqOffset() const {
    return std::isfinite(device_.offset) ? device_.offset * getDaqScale() / 1000.0 : 0.0;
}

// ---- Transport ------------------------------------------------------------------------------------------------------

void AmplifierProperties::enableChannel() {
    const std::lock_guard lock(*linkMutex_);
    uartMux_->selectChannel(index_);
}

short AmplifierProperties::sendReplyCommand(unsigned char command, const unsigned char* data, size_t dataSize,
                                            unsigned char* reply, size_t replySize, unsigned int timeoutMs,
                                            bool quiet) {
    if (dataSize > maxPayload) {
        return -1;
    }
    std::array<unsigned char, maxPayload + 4> frame{uartKey, static_cast<unsigned char>(dataSize + 1), command};
    std::copy_n(data, dataSize, frame.begin() + 3);
    frame[3 + dataSize] = uartEnd;

    const std::lock_guard lock(*linkMutex_);
    const int level = quiet ? 2 : 5;
    for (int n = 0; n < maxAttempts; ++n) {
        int failureLevel = level;
        std::string failureText;
        try {
            return attempt(frame.data(), dataSize + 4, reply, replySize, timeoutMs);
        } catch (const ReceiveOverflow& failure) {
            failureLevel = 5;
            failureText = failure.what();
        } catch (const std::runtime_error& failure) {
            failureText = failure.what();
        }
        KESTRIX_LOG(failureLevel, "Amplifier index {} error: {} failed! Command {}!", index_, failureText, command);
    }
    KESTRIX_LOG(level, "Amplifier index {} retransmit error!", index_);
    return -1;
}

short AmplifierProperties::attempt(const unsigned char* frame, size_t frameSize, unsigned char* reply, size_t replySize,
                                   unsigned int timeoutMs) {
    enableChannel();
    uart_->clear();
    uart_->writeData(frame, frameSize);

    ReceiveBuffer buffer{};
    const auto start = std::chrono::steady_clock::now();
    size_t total = 0;
    size_t readSize = maxReadSize;
    for (;;) {
        total += uart_->readData(buffer.data() + total, readSize);
        const size_t at = findFrame(buffer, total);
        if (at < total) {
            const unsigned char length = buffer[at + 1];
            const unsigned char status = buffer[at + 2];
            if (status != 0) {
                throw std::runtime_error("Command failed");
            }
            // No more than the module sent: behind it lie the end mark and whatever follows.
            const size_t sent = length > 0 ? length - 1u : 0u;
            std::copy_n(buffer.begin() + static_cast<std::ptrdiff_t>(at) + 3, std::min(replySize, sent), reply);
            return length;
        }
        // The port's read ends after 0.2 s at the latest, so the clock is looked at often enough.
        if (std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(timeoutMs)) {
            throw std::runtime_error("Timeout");
        }
        if (total >= buffer.size()) {
            throw ReceiveOverflow();
        }
        readSize = std::min(maxReadSize, buffer.size() - total);
    }
}

short AmplifierProperties::sendReplyCommand(unsigned char command, unsigned char* reply, size_t replySize,
                                            unsigned int timeoutMs, bool quiet) {
    return sendReplyCommand(command, nullptr, 0, reply, replySize, timeoutMs, quiet);
}

short AmplifierProperties::sendCommand(unsigned char command, const unsigned char* data, size_t dataSize,
                                       unsigned int timeoutMs, bool quiet) {
    return sendReplyCommand(command, data, dataSize, nullptr, 0, timeoutMs, quiet);
}

// Without a payload a command is never quiet, whatever the caller asks for.
short AmplifierProperties::sendCommand(unsigned char command, unsigned int timeoutMs, bool) {
    return sendReplyCommand(command, nullptr, 0, nullptr, 0, timeoutMs, false);
}

// ---- Settings -------------------------------------------------------------------------------------------------------

// One row of the settings: where the value lies in a record, how it goes on the wire, what is said about it.
template <typename T>
struct AmplifierProperties::Setting {
    T AmplifierRecord::*field;
    unsigned char command;
    size_t payloadSize;     // low bytes of the value
    const char* name;       // in the failure
    const char* operation;  // in the log line, null for none
};

struct AmplifierProperties::Settings {
    using Record = AmplifierRecord;
    using Byte = Setting<unsigned char>;
    using Number = Setting<short>;
    using Version = Setting<std::array<unsigned char, 4>>;

    static constexpr Number inputCoupling{&Record::inputCoupling, SetInputCoupling, 1, "coupling", "setInputCoupling"};
    static constexpr Number inputType{&Record::inputType, SetInputType, 1, "input type", "setInputType"};
    static constexpr Number pattern{&Record::pattern, SetPattern, 1, "pattern", nullptr};
    static constexpr Byte range{&Record::range, SetRange, 1, "range", "setRange"};
    static constexpr Byte connectorType{&Record::connectorType, SetConnectorType, 1, "connector type", nullptr};
    static constexpr Byte hwCapabilities{&Record::hwCapabilities, SetHwCapabilities, 1, "hardware capabilities",
                                         nullptr};
    static constexpr Byte measurementType{&Record::measurementType, SetMeasurementType, 1, "measurement type",
                                          "setMeasurementType"};
    static constexpr Byte excitationUnit{&Record::excitationUnit, SetExcitationUnit, 1, "excitation unit", nullptr};
    static constexpr Byte excitationType{&Record::excitationType, SetExcitationType, 1, "excitation type",
                                         "setExcitationType"};
    static constexpr Setting<float> excitationValue{&Record::excitationValue, SetExcitationValue, 4, "excitation value",
                                                    "setExcitationValue"};
    static constexpr Byte lpFilter{&Record::lpFilter, SetLPFilter, 1, "LP filter index", "setLPFilter"};
    static constexpr Byte shortOn{&Record::shortOn, SetShort, 1, "short on", "setShort"};
    static constexpr Setting<unsigned long> serial{&Record::serial, SetSerial, 8, "serial number", nullptr};
    static constexpr Version hwVersion{&Record::hwVersion, SetHwVersion, 4, "hw version", nullptr};
    static constexpr Setting<long> calibrationDate{&Record::calibrationDate, SetCalibrationDate, 8, "calibration date",
                                                   nullptr};
};

template <typename T>
short AmplifierProperties::set(const Setting<T>& setting, const T& value) {
    const std::lock_guard lock(*linkMutex_);
    user_.*setting.field = value;
    if (device_.*setting.field == value) {
        return 0;
    }
    if constexpr (std::is_arithmetic_v<T>) {
        if (setting.operation) {
            KESTRIX_LOG(3, "{}({}) on amplifier '{}'", setting.operation, value, index_);
        }
    }
    std::array<unsigned char, sizeof(T)> payload;
    std::memcpy(payload.data(), &value, sizeof(T));
    const short result = sendCommand(setting.command, payload.data(), setting.payloadSize, defaultTimeoutMs, false);
    if (result < 1) {
        throw std::runtime_error(setting.name);
    }
    device_.*setting.field = value;
    return result;
}

short AmplifierProperties::setInputCoupling(short value) {
    return set(Settings::inputCoupling, value);
}
short AmplifierProperties::setInputType(short value) {
    return set(Settings::inputType, value);
}
short AmplifierProperties::setPattern(short value) {
    return set(Settings::pattern, value);
}
short AmplifierProperties::setRange(unsigned char value) {
    return set(Settings::range, value);
}
short AmplifierProperties::setConnectorType(unsigned char value) {
    return set(Settings::connectorType, value);
}
short AmplifierProperties::setHwCapabilities(unsigned char value) {
    return set(Settings::hwCapabilities, value);
}
short AmplifierProperties::setExcitationUnit(unsigned char value) {
    return set(Settings::excitationUnit, value);
}
short AmplifierProperties::setExcitationType(unsigned char value) {
    return set(Settings::excitationType, value);
}
short AmplifierProperties::setExcitationValue(float value) {
    return set(Settings::excitationValue, value);
}
short AmplifierProperties::setLPFilter(unsigned char value) {
    return set(Settings::lpFilter, value);
}
short AmplifierProperties::setShort(unsigned char value) {
    return set(Settings::shortOn, value);
}
void AmplifierProperties::setCalibrationDate(long seconds) {
    set(Settings::calibrationDate, seconds);
}

short AmplifierProperties::setMeasurementType(unsigned char value) {
    const std::lock_guard lock(*linkMutex_);
    const short result = set(Settings::measurementType, value);
    // The module changes its coupling with the measurement: the next setInputCoupling has to reach it.
    if (result > 0) {
        device_.inputCoupling = AmplifierRecord{}.inputCoupling;
    }
    return result;
}

short AmplifierProperties::setSerial(unsigned long value) {
    const short result = set(Settings::serial, value);
    return result == 0 ? static_cast<short>(-1) : result;
}

short AmplifierProperties::setSerial(const std::string& text) {
    return setSerial(std::stoull(text, nullptr, 16));
}

short AmplifierProperties::setHwVersion(unsigned char a, unsigned char b, unsigned char c, unsigned char d) {
    return set(Settings::hwVersion, {a, b, c, d});
}

short AmplifierProperties::setHwVersion(const std::string& text) {
    std::vector<std::string> parts;
    splitString(parts, text, ".");
    std::array<unsigned char, 4> version{};
    if (parts.size() != version.size()) {
        return -1;
    }
    std::transform(parts.begin(), parts.end(), version.begin(),
                   [](const std::string& part) { return static_cast<unsigned char>(std::stoi(part)); });
    return set(Settings::hwVersion, version);
}

void AmplifierProperties::splitString(std::vector<std::string>& parts, const std::string& text,
                                      const std::string& delimiter) {
    for (size_t start = 0; start < text.size();) {
        const size_t end = delimiter.empty() ? text.size() : std::min(text.find(delimiter, start), text.size());
        if (end > start) {
            parts.push_back(text.substr(start, end - start));
        }
        start = end + delimiter.size();
    }
}

// ---- Whole module ---------------------------------------------------------------------------------------------------

bool AmplifierProperties::readIdentity(const char*& step) {
    using Self = AmplifierProperties;
    struct Step {
        const char* name;
        bool (*read)(Self&);
    };
    // One byte of the module into a field of the device copy.
    static constexpr auto store = [](auto& field, short value) {
        if (value >= 0) {
            field = static_cast<std::remove_reference_t<decltype(field)>>(value);
        }
        return value >= 0;
    };
    static constexpr Step steps[] = {
        {"module type", [](Self& a) { return store(a.device_.moduleType, a.readModuleType()); }},
        {"fw version",
         [](Self& a) {
             auto& version = a.device_.fwVersion;
             return a.readFwVersion(version[0], version[1]) >= 0;
         }},
        {"hw number",
         [](Self& a) {
             auto& version = a.device_.hwVersion;
             return a.readHwVersion(version[0], version[1], version[2], version[3]) >= 0;
         }},
        {"serial number", [](Self& a) { return a.readSerial(a.device_.serial) >= 0; }},
        {"calibration date", [](Self& a) { return a.readCalibrationDate(a.device_.calibrationDate) >= 0; }},
        {"module sub type", [](Self& a) { return store(a.device_.hwCapabilities, a.readHwCapabilities()); }},
        {"connector type", [](Self& a) { return store(a.device_.connectorType, a.readConnectorType()); }},
        {"firmware capabilities", [](Self& a) { return store(a.device_.fwCapabilities, a.readFwCapabilities()); }},
        {"update scaling", [](Self& a) { return a.updateScaling(); }},
    };
    for (const Step& entry : steps) {
        step = entry.name;
        if (!entry.read(*this)) {
            return false;
        }
    }
    return true;
}

bool AmplifierProperties::readProperties() {
    const std::lock_guard lock(*linkMutex_);
    const char* step = "";
    bool complete = false;
    try {
        complete = readIdentity(step);
    } catch (const std::runtime_error&) {
        // Reported as the step that it came from.
    }
    if (!complete) {
        KESTRIX_LOG(5, "Amplifier index {} error: read of {} failed!", index_, step);
        clearProperties();
        return false;
    }
    user_ = device_;
    return true;
}

bool AmplifierProperties::updateProperties() {
    const std::lock_guard lock(*linkMutex_);
    try {
        if (updateAmplifier() < 0) {
            throw std::runtime_error("update properties");
        }
        if (!updateScaling()) {
            throw std::runtime_error("update scaling");
        }
        return true;
    } catch (const std::runtime_error& failure) {
        KESTRIX_LOG(5, "Amplifier update failed on module {}: {} failed!", index_, failure.what());
        return false;
    }
}

float AmplifierProperties::readFloat(unsigned char command, float preset, bool& answered) {
    float value = preset;
    std::array<unsigned char, sizeof(float)> bytes{};
    const short length = sendReplyCommand(command, bytes.data(), bytes.size(), defaultTimeoutMs, false);
    answered = length >= 0;
    if (length > static_cast<short>(bytes.size())) {
        std::memcpy(&value, bytes.data(), bytes.size());
    }
    return value;
}

bool AmplifierProperties::updateScaling() {
    const std::lock_guard lock(*linkMutex_);
    bool scaleAnswered = false;
    bool offsetAnswered = false;
    const float scale = readFloat(ReadScale, 1.0f, scaleAnswered);
    const float offset = readFloat(ReadOffset, 0.0f, offsetAnswered);
    if (!scaleAnswered || !offsetAnswered) {
        return false;
    }
    const bool usable = std::isfinite(scale) && std::isfinite(offset);
    device_.scale = usable ? scale : 1.0f;
    device_.offset = usable ? offset : 0.0f;
    return true;
}

short AmplifierProperties::updateAmplifier() {
    return atLeast(sendCommand(UpdateAmplifier, 500, false), 1);
}

// ---- Plain reads and writes -----------------------------------------------------------------------------------------

short AmplifierProperties::readByte(unsigned char command) {
    unsigned char byte = 0;
    const short length = sendReplyCommand(command, &byte, 1, defaultTimeoutMs, false);
    return length < 2 ? static_cast<short>(-1) : byte;
}

short AmplifierProperties::readMeasurementType() {
    return readByte(ReadMeasurementType);
}
short AmplifierProperties::readConnectorType() {
    return readByte(ReadConnectorType);
}
short AmplifierProperties::readHwCapabilities() {
    return readByte(ReadHwCapabilities);
}
short AmplifierProperties::readFwCapabilities() {
    return readByte(ReadFwCapabilities);
}
short AmplifierProperties::readExcitationUnit() {
    return readByte(ReadExcitationUnit);
}
short AmplifierProperties::readExcitationType() {
    return readByte(ReadExcitationType);
}
short AmplifierProperties::readLPFilter() {
    return readByte(ReadLPFilter);
}
short AmplifierProperties::readModuleType() {
    return readByte(ReadModuleType);
}
short AmplifierProperties::readShort() {
    return readByte(ReadShort);
}
short AmplifierProperties::readRange() {
    return readByte(ReadRange);
}
short AmplifierProperties::readInputCoupling() {
    return readByte(ReadInputCoupling);
}
short AmplifierProperties::readInputType() {
    return readByte(ReadInputType);
}
short AmplifierProperties::getPattern() {
    return readByte(GetPattern);
}

short AmplifierProperties::getSensorStatus() {
    unsigned char status = 0;
    const short length = sendReplyCommand(GetSensorStatus, &status, 1, defaultTimeoutMs, false);
    return length < 1 ? static_cast<short>(-1) : status;
}

short AmplifierProperties::readFwVersion(unsigned char& major, unsigned char& minor) {
    std::array<unsigned char, 2> version{};
    const short length =
        atLeast(sendReplyCommand(ReadFwVersion, version.data(), version.size(), defaultTimeoutMs, false), 3);
    if (length >= 0) {
        major = version[0];
        minor = version[1];
    }
    return length;
}

short AmplifierProperties::readHwVersion(unsigned char& a, unsigned char& b, unsigned char& c, unsigned char& d) {
    std::array<unsigned char, 4> version{};
    const short length =
        atLeast(sendReplyCommand(ReadHwVersion, version.data(), version.size(), defaultTimeoutMs, false), 5);
    if (length >= 0) {
        a = version[0];
        b = version[1];
        c = version[2];
        d = version[3];
    }
    return length;
}

short AmplifierProperties::readSerial(unsigned long& serial) {
    std::array<unsigned char, 8> bytes{};
    const short length = atLeast(sendReplyCommand(ReadSerial, bytes.data(), bytes.size(), defaultTimeoutMs, false), 9);
    if (length >= 0) {
        std::memcpy(&serial, bytes.data(), bytes.size());
    }
    return length;
}

short AmplifierProperties::readCalibrationDate(long& secondsSinceEpoch) {
    std::array<unsigned char, 8> bytes{};
    const short length =
        atLeast(sendReplyCommand(ReadCalibrationDate, bytes.data(), bytes.size(), defaultTimeoutMs, false), 9);
    if (length >= 0) {
        std::memcpy(&secondsSinceEpoch, bytes.data(), bytes.size());
    }
    return length;
}

short AmplifierProperties::getCmrSetting(unsigned char selector, unsigned char& second, unsigned char& first) {
    std::array<unsigned char, 2> bytes{};
    const short length =
        atLeast(sendReplyCommand(GetCmrSetting, &selector, 1, bytes.data(), bytes.size(), defaultTimeoutMs, false), 3);
    if (length >= 0) {
        first = bytes[0];
        second = bytes[1];
    }
    return length;
}

float AmplifierProperties::readExcitationValue() {
    bool answered = false;
    return readFloat(ReadExcitationValue, -1.0f, answered);
}

short AmplifierProperties::setAlarm(unsigned char value) {
    return atLeast(sendCommand(SetAlarm, &value, 1, defaultTimeoutMs, false), 1);
}

short AmplifierProperties::setLed1Function(bool on) {
    const unsigned char value = on ? 1 : 0;
    return sendCommand(SetLed1Function, &value, 1, defaultTimeoutMs, false);
}

short AmplifierProperties::setDoLevelInvert(unsigned char first, unsigned char second) {
    const std::array<unsigned char, 2> payload{first, second};
    return atLeast(sendCommand(SetDoLevelInvert, payload.data(), payload.size(), defaultTimeoutMs, false), 1);
}

short AmplifierProperties::setCmrSetting(unsigned char first, unsigned char second, bool on) {
    const std::array<unsigned char, 2> payload{first, second};
    const unsigned char command = on ? SetCmrSettingOn : SetCmrSettingOff;
    return atLeast(sendCommand(command, payload.data(), payload.size(), defaultTimeoutMs, false), 1);
}

short AmplifierProperties::setRawMode(bool on) {
    const unsigned char value = on ? 1 : 0;
    return sendCommand(SetRawMode, &value, 1, defaultTimeoutMs, false);
}

bool AmplifierProperties::getRawMode() {
    unsigned char value = 0;
    return sendReplyCommand(GetRawMode, &value, 1, defaultTimeoutMs, false) == 2 && value == 1;
}

// ---- TEDS -----------------------------------------------------------------------------------------------------------

// A module without a chip answers with a failure: no reason to alarm anybody.
short AmplifierProperties::readTeds(unsigned char* buffer) {
    constexpr size_t dataSize = 8;
    // The bound is on the length, which counts the status: seven data bytes are enough.
    return sendReplyCommand(ReadTeds, buffer, dataSize, defaultTimeoutMs, true) >= static_cast<short>(dataSize) ? 0
                                                                                                                : -1;
}

short AmplifierProperties::resetTedsCustom() {
    const unsigned char operation = TedsReset;
    return zeroOnSuccess(sendCommand(TedsCustom, &operation, 1, defaultTimeoutMs, true));
}

short AmplifierProperties::writeTedsCustom(const unsigned char* data, unsigned long count) {
    std::array<unsigned char, maxPayload> payload{TedsWrite};
    if (count > payload.size() - 1) {
        return -1;
    }
    std::copy_n(data, count, payload.begin() + 1);
    return zeroOnSuccess(sendCommand(TedsCustom, payload.data(), count + 1, defaultTimeoutMs, false));
}

short AmplifierProperties::readTedsCustom(unsigned char* buffer, unsigned long count) {
    if (count > maxReplyData) {
        return -1;
    }
    const std::array<unsigned char, 2> payload{TedsRead, static_cast<unsigned char>(count)};
    const short length =
        sendReplyCommand(TedsCustom, payload.data(), payload.size(), buffer, count, defaultTimeoutMs, false);
    return length < 1 || static_cast<unsigned long>(length) < count ? -1 : 0;
}

short AmplifierProperties::finalizeTedsCustom() {
    const unsigned char operation = TedsFinalize;
    return zeroOnSuccess(sendCommand(TedsCustom, &operation, 1, defaultTimeoutMs, false));
}

// ---- Calibration memory and firmware --------------------------------------------------------------------------------

bool AmplifierProperties::getLatestSupportedCalibrationStructureVersion(unsigned char& version) {
    version = 1;
    return sendReplyCommand(GetLatestCalibrationVersion, &version, 1, defaultTimeoutMs, false) == 2;
}

bool AmplifierProperties::getCalibrationDataSize(unsigned short& size) {
    std::array<unsigned char, 2> bytes{};
    if (sendReplyCommand(GetCalibrationDataSize, bytes.data(), bytes.size(), defaultTimeoutMs, false) != 3) {
        return false;
    }
    size = static_cast<unsigned short>(bytes[0] | (bytes[1] << 8));
    return true;
}

short AmplifierProperties::writeCalibrationData(unsigned short address, const unsigned char* data,
                                                unsigned char count) {
    constexpr size_t headSize = 3;
    std::array<unsigned char, maxPayload> payload{static_cast<unsigned char>(address),
                                                  static_cast<unsigned char>(address >> 8), count};
    if (count > payload.size() - headSize) {
        return -1;
    }
    std::copy_n(data, count, payload.begin() + headSize);
    return sendCommand(WriteCalibrationData, payload.data(), headSize + count, defaultTimeoutMs, false);
}

short AmplifierProperties::readCalibrationData(unsigned short address, unsigned char* buffer, unsigned char count) {
    if (count > maxReplyData) {
        return -1;
    }
    const std::array<unsigned char, 3> payload{static_cast<unsigned char>(address),
                                               static_cast<unsigned char>(address >> 8), count};
    return sendReplyCommand(ReadCalibrationData, payload.data(), payload.size(), buffer, count, defaultTimeoutMs,
                            false);
}

short AmplifierProperties::hwReset() {
    const std::lock_guard lock(*linkMutex_);
    const short length = atLeast(sendCommand(HwReset, defaultTimeoutMs, false), 1);
    if (length >= 0) {
        // A module that starts sends a greeting which must not end up in the next reply.
        std::array<unsigned char, maxReadSize> greeting;
        try {
            uart_->readData(greeting.data(), greeting.size());
        } catch (const std::runtime_error& failure) {
            KESTRIX_LOG(2, "Amplifier index {} error: {} failed! Command {}!", index_, failure.what(),
                        static_cast<int>(HwReset));
        }
    }
    return length;
}

short AmplifierProperties::goBootLoad() {
    return atLeast(sendCommand(GoBootLoad, 1000, false), 1);
}

short AmplifierProperties::exitBootLoad() {
    return atLeast(sendCommand(ExitBootLoad, 7000, false), 1);
}

short AmplifierProperties::eraseFlash() {
    return atLeast(sendCommand(EraseFlash, 2000, false), 1);
}

short AmplifierProperties::writeFlash(const unsigned char* data, size_t size) {
    return atLeast(sendCommand(WriteFlash, data, size, defaultTimeoutMs, false), 1);
}

}  // namespace Harvane::Shared::Kestrix
