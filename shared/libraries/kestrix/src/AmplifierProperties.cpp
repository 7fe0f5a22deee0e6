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

#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace Harvane::Shared::Kestrix {

using namespace AmplifierCommands;

static_assert(std::endian::native == std::endian::little, "numbers go on the wire as they lie in memory");

namespace {

constexpr int maxAttempts = 3;
constexpr size_t maxReadSize = 64;

// The module's own no.
class Refused : public std::runtime_error {
public:
    explicit Refused(unsigned char moduleStatus) : std::runtime_error("Command failed"), status(moduleStatus) {}
    unsigned char status;
};

class NoAnswer : public std::runtime_error {
public:
    NoAnswer() : std::runtime_error("Timeout") {}
};

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

// Texts of the port end with a line.
std::string busError(std::string text) {
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return "bus error: " + text;
}

template <size_t N>
std::array<unsigned char, N> bytesOf(const auto& value) {
    static_assert(N <= sizeof value);
    std::array<unsigned char, N> bytes;
    std::memcpy(bytes.data(), &value, N);
    return bytes;
}

}  // namespace

AmplifierProperties::AmplifierProperties(int index, std::shared_ptr<Uart> uart, std::shared_ptr<UartMux> uartMux,
                                         std::shared_ptr<std::recursive_mutex> linkMutex,
                                         std::function<TimePoint()> now)
    : uart_(std::move(uart)),
      uartMux_(std::move(uartMux)),
      index_(index),
      linkMutex_(linkMutex ? std::move(linkMutex) : std::make_shared<std::recursive_mutex>()),
      now_(std::move(now)) {
    clearProperties();
}

// ---- The records ----------------------------------------------------------------------------------------------------

void AmplifierProperties::clearProperties() {
    clearDeviceProperties();
    clearUserProperties();
}

void AmplifierProperties::clearDeviceProperties() {
    const std::lock_guard lock(recordMutex_);
    staged_ = AmplifierRecord{};
    staged_.scale = 1.0f;
    staged_.offset = 0.0f;
    inForce_.reset();
}

void AmplifierProperties::clearUserProperties() {
    const std::lock_guard lock(recordMutex_);
    requested_ = AmplifierRecord{};
}

void AmplifierProperties::dropStaged() {
    const std::lock_guard lock(recordMutex_);
    staged_.forgetSettings();
}

AmplifierRecord AmplifierProperties::getUserProperties() const {
    const std::lock_guard lock(recordMutex_);
    return requested_;
}

AmplifierRecord AmplifierProperties::getDeviceProperties() const {
    const std::lock_guard lock(recordMutex_);
    return staged_;
}

std::optional<AmplifierRecord> AmplifierProperties::getSettingsInForce() const {
    const std::lock_guard lock(recordMutex_);
    return inForce_;
}

void AmplifierProperties::getFwVersion(unsigned char& major, unsigned char& minor) const {
    const auto version = getUserProperties().fwVersion;
    major = version[0];
    minor = version[1];
}

void AmplifierProperties::getHwVersion(unsigned char& a, unsigned char& b, unsigned char& c, unsigned char& d) const {
    const auto version = getUserProperties().hwVersion;
    a = version[0];
    b = version[1];
    c = version[2];
    d = version[3];
}

void AmplifierProperties::getSerial(unsigned long& serial) const {
    serial = getUserProperties().serial;
}

short AmplifierProperties::getModuleType() const {
    return getUserProperties().moduleType;
}
short AmplifierProperties::getInputCoupling() const {
    return getUserProperties().inputCoupling;
}
short AmplifierProperties::getInputType() const {
    return getUserProperties().inputType;
}
unsigned char AmplifierProperties::getRange() const {
    return getUserProperties().range;
}
unsigned char AmplifierProperties::getConnectorType() const {
    return getUserProperties().connectorType;
}
unsigned char AmplifierProperties::getHwCapabilities() const {
    return getUserProperties().hwCapabilities;
}
unsigned char AmplifierProperties::getFwCapabilities() const {
    return getUserProperties().fwCapabilities;
}
unsigned char AmplifierProperties::getMeasurementType() const {
    return getUserProperties().measurementType;
}
unsigned char AmplifierProperties::getExcitationUnit() const {
    return getUserProperties().excitationUnit;
}
unsigned char AmplifierProperties::getExcitationType() const {
    return getUserProperties().excitationType;
}
float AmplifierProperties::getExcitationValue() const {
    return getUserProperties().excitationValue;
}
unsigned char AmplifierProperties::getLPFilter() const {
    return getUserProperties().lpFilter;
}
unsigned char AmplifierProperties::getShort() const {
    return getUserProperties().shortOn;
}
long AmplifierProperties::getCalibrationDate() const {
    return getUserProperties().calibrationDate;
}
int AmplifierProperties::getDoLevelInvert() const {
    return -1;
}
int AmplifierProperties::getIndex() const {
    return index_;
}

std::string AmplifierProperties::getFwVersion() const {
    const auto version = getUserProperties().fwVersion;
    return fmt::format("{}.{}", version[0], version[1]);
}

std::string AmplifierProperties::getHwVersion() const {
    const auto version = getUserProperties().hwVersion;
    return fmt::format("{}.{}.{}.{}", version[0], version[1], version[2], version[3]);
}

std::string AmplifierProperties::getSerial() const {
    return fmt::format("{:08X}", getUserProperties().serial);
}

std::string AmplifierProperties::getId() const {
    const AmplifierRecord user = getUserProperties();
    return fmt::format("{}.{}.{}.{}", user.moduleType, user.hwCapabilities, user.fwCapabilities, user.connectorType);
}

void AmplifierProperties::getCalibrationDate(std::string& text) const {
    const time_t seconds = getUserProperties().calibrationDate;
    tm local{};
    std::array<char, 64> buffer{};
    // A date beyond what a calendar year can hold has no text.
    if (localtime_r(&seconds, &local)) {
        std::strftime(buffer.data(), buffer.size(), calibrationDateFormat, &local);
    }
    text = buffer.data();
}

bool AmplifierProperties::isAmplifierDefined() const {
    return getDeviceProperties().moduleType != 0;
}

bool AmplifierProperties::isScalingReported() const {
    const std::lock_guard lock(recordMutex_);
    return scalingReported_;
}

double AmplifierProperties::getDaqScale() const {
    const float scale = getDeviceProperties().scale;
    return std::isfinite(scale) ? scale : 1.0;
}

double AmplifierProperties::getDaqOffset() const {
    const AmplifierRecord device = getDeviceProperties();
    const double scale = std::isfinite(device.scale) ? device.scale : 1.0;
    return std::isfinite(device.offset) ? device.offset * scale / 1000.0 : 0.0;
}

// ---- Transport ------------------------------------------------------------------------------------------------------

void AmplifierProperties::enableChannel() {
    const std::lock_guard lock(*linkMutex_);
    uartMux_->selectChannel(index_);
}

// A refusal is told before silence: the module is there, and doesn't want to.
AmplifierProperties::Exchange AmplifierProperties::exchange(unsigned char code, Payload payload, Reply reply,
                                                            unsigned int timeoutMs, bool quiet) {
    Exchange result;
    if (payload.size() > maxPayload) {
        result.failure.reason = "too long for a frame";
        return result;
    }
    std::array<unsigned char, maxPayload + 4> frame{uartKey, static_cast<unsigned char>(payload.size() + 1), code};
    std::copy(payload.begin(), payload.end(), frame.begin() + 3);
    frame[3 + payload.size()] = uartEnd;

    const std::lock_guard lock(*linkMutex_);
    LinkFailure& failure = result.failure;
    const int level = quiet ? 2 : 5;
    bool settled = false;
    int silences = 0;
    const auto unanswered = [&failure](const std::string& reason) {
        failure.mayBeDone = true;
        if (!failure.refused) {
            failure.reason = reason;
        }
    };
    for (int n = 0; n < maxAttempts; ++n) {
        int failureLevel = level;
        std::string failureText;
        try {
            if (!settled) {
                discardLateReplies();
                // The next attempt, which an exception leads to, asks: the analyzer doesn't follow it there.
                settled = true;  // NOLINT(clang-analyzer-deadcode.DeadStores)
            }
            result.length = attempt(Payload(frame).first(payload.size() + 4), reply, timeoutMs);
            return result;
        } catch (const Refused& refusal) {
            failureText = refusal.what();
            failure.refused = true;
            failure.status = refusal.status;
            failure.reason = fmt::format("refused with status {}", refusal.status);
        } catch (const NoAnswer& silence) {
            failureText = silence.what();
            ++silences;
            unanswered("no answer");
        } catch (const ReceiveOverflow& overflow) {
            failureLevel = 5;
            failureText = overflow.what();
            unanswered("no answer that ends");
        } catch (const std::runtime_error& error) {
            failureText = error.what();
            unanswered(busError(failureText));
        }
        KESTRIX_LOG(failureLevel, "Amplifier index {} error: {} failed! Command {}!", index_, failureText, code);
    }
    if (silences == maxAttempts) {
        repliesAwaited_ = 0;  // nobody is there who could answer late
    }
    KESTRIX_LOG(level, "Amplifier index {} retransmit error!", index_);
    return result;
}

// A reply says nothing of the command that it is for: one that comes late would be taken for the next command's, and so
// on. One that has been lost costs as long as it could have come.
void AmplifierProperties::discardLateReplies() {
    if (repliesAwaited_ > 0) {
        enableChannel();
    }
    ReceiveBuffer buffer{};
    size_t total = 0;
    while (repliesAwaited_ > 0 && now_() < awaitedUntil_) {
        total += uart_->readData(buffer.data() + total, std::min(maxReadSize, buffer.size() - total));
        for (size_t at = findFrame(buffer, total); at < total && repliesAwaited_ > 0; at = findFrame(buffer, total)) {
            const size_t end = at + 3 + buffer[at + 1];
            std::copy(buffer.begin() + static_cast<std::ptrdiff_t>(end), buffer.end(), buffer.begin());
            std::fill(buffer.end() - static_cast<std::ptrdiff_t>(end), buffer.end(), static_cast<unsigned char>(0));
            total -= std::min(end, total);
            --repliesAwaited_;
        }
        if (total >= buffer.size()) {
            buffer.fill(0);
            total = 0;
        }
    }
    repliesAwaited_ = 0;
}

short AmplifierProperties::attempt(Payload frame, Reply reply, unsigned int timeoutMs) {
    enableChannel();
    uart_->clear();
    uart_->writeData(frame.data(), frame.size());

    ReceiveBuffer buffer{};
    const auto start = now_();
    const auto awaitedBefore = std::exchange(awaitedUntil_, start + 2 * std::chrono::milliseconds(timeoutMs));
    ++repliesAwaited_;
    size_t total = 0;
    size_t readSize = maxReadSize;
    for (;;) {
        total += uart_->readData(buffer.data() + total, readSize);
        const size_t at = findFrame(buffer, total);
        if (at < total) {
            --repliesAwaited_;
            awaitedUntil_ = awaitedBefore;
            const unsigned char length = buffer[at + 1];
            const unsigned char status = buffer[at + 2];
            if (status != 0) {
                throw Refused(status);
            }
            // No more than the module sent: behind it lie the end mark and whatever follows.
            const size_t sent = length > 0 ? length - 1u : 0u;
            std::copy_n(buffer.begin() + static_cast<std::ptrdiff_t>(at) + 3, std::min(reply.size(), sent),
                        reply.begin());
            return length;
        }
        // The port's read ends after 0.2 s at the latest, so the clock is looked at often enough.
        if (now_() - start >= std::chrono::milliseconds(timeoutMs)) {
            throw NoAnswer();
        }
        if (total >= buffer.size()) {
            throw ReceiveOverflow();
        }
        readSize = std::min(maxReadSize, buffer.size() - total);
    }
}

short AmplifierProperties::sendReplyCommand(unsigned char command, const unsigned char* data, size_t dataSize,
                                            unsigned char* reply, size_t replySize, unsigned int timeoutMs,
                                            bool quiet) {
    return exchange(command, Payload(data, dataSize), Reply(reply, replySize), timeoutMs, quiet).length;
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

short AmplifierProperties::run(Command command, Payload payload, Reply reply, short leastLength) {
    const CommandRow& row = rowOf(command);
    unsigned char byte = 0;
    const short length =
        exchange(row.code, payload, reply.empty() ? Reply(&byte, 1) : reply, row.timeoutMs, row.quiet).length;
    const short least = std::max(row.leastLength, leastLength);
    switch (row.rule) {
        case ResultRule::Length:
            return length;
        case ResultRule::AtLeast:
            return length < least ? static_cast<short>(-1) : length;
        case ResultRule::Exact:
            return length != least ? static_cast<short>(-1) : length;
        case ResultRule::Byte:
            return length < least ? static_cast<short>(-1) : (reply.empty() ? byte : reply.front());
        case ResultRule::Zero:
            break;
    }
    return length < least ? static_cast<short>(-1) : static_cast<short>(0);
}

// ---- Settings -------------------------------------------------------------------------------------------------------

// One row of the settings: where the value lies in a record, how it goes on the wire, what is said about it.
template <typename T>
struct AmplifierProperties::Setting {
    T AmplifierRecord::*field;
    Command command;
    size_t payloadSize;     // low bytes of the value
    const char* name;       // in the failure
    const char* operation;  // in the log line, null for none
};

struct AmplifierProperties::Settings {
    using Record = AmplifierRecord;
    using Byte = Setting<unsigned char>;
    using Number = Setting<short>;
    using Version = Setting<std::array<unsigned char, 4>>;

    static constexpr Number inputCoupling{&Record::inputCoupling, Command::SetInputCoupling, 1, "coupling",
                                          "setInputCoupling"};
    static constexpr Number inputType{&Record::inputType, Command::SetInputType, 1, "input type", "setInputType"};
    static constexpr Number pattern{&Record::pattern, Command::SetPattern, 1, "pattern", nullptr};
    static constexpr Byte range{&Record::range, Command::SetRange, 1, "range", "setRange"};
    static constexpr Byte connectorType{&Record::connectorType, Command::SetConnectorType, 1, "connector type",
                                        nullptr};
    static constexpr Byte hwCapabilities{&Record::hwCapabilities, Command::SetHwCapabilities, 1,
                                         "hardware capabilities", nullptr};
    static constexpr Byte measurementType{&Record::measurementType, Command::SetMeasurementType, 1, "measurement type",
                                          "setMeasurementType"};
    static constexpr Byte excitationUnit{&Record::excitationUnit, Command::SetExcitationUnit, 1, "excitation unit",
                                         nullptr};
    static constexpr Byte excitationType{&Record::excitationType, Command::SetExcitationType, 1, "excitation type",
                                         "setExcitationType"};
    static constexpr Setting<float> excitationValue{&Record::excitationValue, Command::SetExcitationValue, 4,
                                                    "excitation value", "setExcitationValue"};
    static constexpr Byte lpFilter{&Record::lpFilter, Command::SetLPFilter, 1, "LP filter index", "setLPFilter"};
    static constexpr Byte shortOn{&Record::shortOn, Command::SetShort, 1, "short on", "setShort"};
    static constexpr Setting<unsigned long> serial{&Record::serial, Command::SetSerial, 8, "serial number", nullptr};
    static constexpr Version hwVersion{&Record::hwVersion, Command::SetHwVersion, 4, "hw version", nullptr};
    static constexpr Setting<long> calibrationDate{&Record::calibrationDate, Command::SetCalibrationDate, 8,
                                                   "calibration date", nullptr};
};

template <typename T>
short AmplifierProperties::set(const Setting<T>& setting, const T& value) {
    const std::lock_guard lock(*linkMutex_);
    {
        const std::lock_guard recordLock(recordMutex_);
        requested_.*setting.field = value;
        if (staged_.*setting.field == value) {
            return 0;
        }
    }
    if constexpr (std::is_arithmetic_v<T>) {
        if (setting.operation) {
            KESTRIX_LOG(3, "{}({}) on amplifier '{}'", setting.operation, value, index_);
        }
    }
    const CommandRow& row = rowOf(setting.command);
    const auto payload = bytesOf<sizeof(T)>(value);
    const Exchange result =
        exchange(row.code, Payload(payload).first(setting.payloadSize), {}, row.timeoutMs, row.quiet);
    if (result.length < row.leastLength) {
        throw SettingFailure(setting.name, result.failure);
    }
    const std::lock_guard recordLock(recordMutex_);
    staged_.*setting.field = value;
    return result.length;
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
        const std::lock_guard recordLock(recordMutex_);
        staged_.inputCoupling = AmplifierRecord{}.inputCoupling;
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

bool AmplifierProperties::readIdentity(AmplifierRecord& record, const char*& step) {
    using Self = AmplifierProperties;
    struct Step {
        const char* name;
        bool (*read)(Self&, AmplifierRecord&);
    };
    // One byte of the module into a field.
    static constexpr auto store = [](auto& field, short value) {
        if (value >= 0) {
            field = static_cast<std::remove_reference_t<decltype(field)>>(value);
        }
        return value >= 0;
    };
    static constexpr Step steps[] = {
        {"module type", [](Self& a, AmplifierRecord& r) { return store(r.moduleType, a.readModuleType()); }},
        {"fw version",
         [](Self& a, AmplifierRecord& r) { return a.readFwVersion(r.fwVersion[0], r.fwVersion[1]) >= 0; }},
        {"hw number",
         [](Self& a, AmplifierRecord& r) {
             auto& version = r.hwVersion;
             return a.readHwVersion(version[0], version[1], version[2], version[3]) >= 0;
         }},
        {"serial number", [](Self& a, AmplifierRecord& r) { return a.readSerial(r.serial) >= 0; }},
        {"calibration date", [](Self& a, AmplifierRecord& r) { return a.readCalibrationDate(r.calibrationDate) >= 0; }},
        {"module sub type",
         [](Self& a, AmplifierRecord& r) { return store(r.hwCapabilities, a.readHwCapabilities()); }},
        {"connector type", [](Self& a, AmplifierRecord& r) { return store(r.connectorType, a.readConnectorType()); }},
        {"firmware capabilities",
         [](Self& a, AmplifierRecord& r) { return store(r.fwCapabilities, a.readFwCapabilities()); }},
        {"update scaling", [](Self& a, AmplifierRecord& r) { return !a.readScaling(r.scale, r.offset); }},
    };
    for (const Step& entry : steps) {
        step = entry.name;
        if (!entry.read(*this, record)) {
            return false;
        }
    }
    return true;
}

bool AmplifierProperties::readProperties() {
    const std::lock_guard lock(*linkMutex_);
    AmplifierRecord record = getDeviceProperties();
    const char* step = "";
    bool complete = false;
    try {
        complete = readIdentity(record, step);
    } catch (const std::runtime_error&) {
        // Reported as the step that it came from.
    }
    if (!complete) {
        KESTRIX_LOG(5, "Amplifier index {} error: read of {} failed!", index_, step);
        clearProperties();
        return false;
    }
    const std::lock_guard recordLock(recordMutex_);
    staged_ = record;
    requested_ = record;
    return true;
}

bool AmplifierProperties::updateProperties() {
    return !applySettings();
}

std::optional<SettingFailure> AmplifierProperties::applySettings() {
    const std::lock_guard lock(*linkMutex_);
    std::optional<SettingFailure> result;
    if (const Exchange update = putInForce(); update.length < 0) {
        result.emplace("update properties", update.failure);
    } else if (const auto scaling = refreshScaling()) {
        result.emplace("update scaling", *scaling);
    }
    if (result) {
        KESTRIX_LOG(5, "Amplifier update failed on module {}: {} failed!", index_, result->what());
    }
    return result;
}

AmplifierProperties::Exchange AmplifierProperties::putInForce() {
    const std::lock_guard lock(*linkMutex_);
    const CommandRow& row = rowOf(Command::UpdateAmplifier);
    Exchange result = exchange(row.code, {}, {}, row.timeoutMs, row.quiet);
    const std::lock_guard recordLock(recordMutex_);
    if (result.length >= row.leastLength) {
        inForce_ = staged_;
    } else {
        result.length = -1;
        if (result.failure.mayBeDone) {
            inForce_.reset();
        }
    }
    return result;
}

bool AmplifierProperties::updateScaling() {
    return !refreshScaling();
}

// Both are asked for whatever becomes of the first.
std::optional<LinkFailure> AmplifierProperties::readScaling(float& scale, float& offset) {
    std::optional<LinkFailure> result;
    std::array<float, 2> numbers{1.0f, 0.0f};
    bool reported = true;
    for (size_t i = 0; i < numbers.size(); ++i) {
        const CommandRow& row = rowOf(i == 0 ? Command::ReadScale : Command::ReadOffset);
        std::array<unsigned char, sizeof(float)> number{};
        const Exchange one = exchange(row.code, {}, number, row.timeoutMs, row.quiet);
        if (one.length < 0 && !result) {
            result = one.failure;
        }
        if (one.length > static_cast<short>(number.size())) {
            std::memcpy(&numbers[i], number.data(), number.size());
        } else {
            reported = false;
        }
    }
    if (!result) {
        const bool usable = std::isfinite(numbers[0]) && std::isfinite(numbers[1]);
        scale = usable ? numbers[0] : 1.0f;
        offset = usable ? numbers[1] : 0.0f;
        const std::lock_guard recordLock(recordMutex_);
        scalingReported_ = usable && reported;
    }
    return result;
}

std::optional<LinkFailure> AmplifierProperties::refreshScaling() {
    const std::lock_guard lock(*linkMutex_);
    float scale = 1.0f;
    float offset = 0.0f;
    auto failure = readScaling(scale, offset);
    if (!failure) {
        const std::lock_guard recordLock(recordMutex_);
        staged_.scale = scale;
        staged_.offset = offset;
    }
    return failure;
}

short AmplifierProperties::updateAmplifier() {
    return putInForce().length;
}

// ---- Plain reads and writes -----------------------------------------------------------------------------------------

short AmplifierProperties::readMeasurementType() {
    return run(Command::ReadMeasurementType);
}
short AmplifierProperties::readConnectorType() {
    return run(Command::ReadConnectorType);
}
short AmplifierProperties::readHwCapabilities() {
    return run(Command::ReadHwCapabilities);
}
short AmplifierProperties::readFwCapabilities() {
    return run(Command::ReadFwCapabilities);
}
short AmplifierProperties::readExcitationUnit() {
    return run(Command::ReadExcitationUnit);
}
short AmplifierProperties::readExcitationType() {
    return run(Command::ReadExcitationType);
}
short AmplifierProperties::readLPFilter() {
    return run(Command::ReadLPFilter);
}
short AmplifierProperties::readModuleType() {
    return run(Command::ReadModuleType);
}
short AmplifierProperties::readShort() {
    return run(Command::ReadShort);
}
short AmplifierProperties::readRange() {
    return run(Command::ReadRange);
}
short AmplifierProperties::readInputCoupling() {
    return run(Command::ReadInputCoupling);
}
short AmplifierProperties::readInputType() {
    return run(Command::ReadInputType);
}
short AmplifierProperties::getPattern() {
    return run(Command::GetPattern);
}
short AmplifierProperties::getSensorStatus() {
    return run(Command::GetSensorStatus);
}

short AmplifierProperties::readFwVersion(unsigned char& major, unsigned char& minor) {
    std::array<unsigned char, 2> version{};
    const short length = run(Command::ReadFwVersion, {}, version);
    if (length >= 0) {
        major = version[0];
        minor = version[1];
    }
    return length;
}

short AmplifierProperties::readHwVersion(unsigned char& a, unsigned char& b, unsigned char& c, unsigned char& d) {
    std::array<unsigned char, 4> version{};
    const short length = run(Command::ReadHwVersion, {}, version);
    if (length >= 0) {
        a = version[0];
        b = version[1];
        c = version[2];
        d = version[3];
    }
    return length;
}

template <typename T>
short AmplifierProperties::readNumber(Command command, T& value) {
    std::array<unsigned char, sizeof(T)> bytes{};
    const short length = run(command, {}, bytes);
    if (length >= 0) {
        std::memcpy(&value, bytes.data(), bytes.size());
    }
    return length;
}

short AmplifierProperties::readSerial(unsigned long& serial) {
    return readNumber(Command::ReadSerial, serial);
}

short AmplifierProperties::readCalibrationDate(long& secondsSinceEpoch) {
    return readNumber(Command::ReadCalibrationDate, secondsSinceEpoch);
}

float AmplifierProperties::readExcitationValue() {
    float value = -1.0f;
    readNumber(Command::ReadExcitationValue, value);
    return value;
}

short AmplifierProperties::getCmrSetting(unsigned char selector, unsigned char& second, unsigned char& first) {
    std::array<unsigned char, 2> bytes{};
    const short length = run(Command::GetCmrSetting, Payload(&selector, 1), bytes);
    if (length >= 0) {
        first = bytes[0];
        second = bytes[1];
    }
    return length;
}

short AmplifierProperties::setAlarm(unsigned char value) {
    return run(Command::SetAlarm, Payload(&value, 1));
}

short AmplifierProperties::setLed1Function(bool on) {
    return run(Command::SetLed1Function, bytesOf<1>(on));
}

short AmplifierProperties::setDoLevelInvert(unsigned char first, unsigned char second) {
    return run(Command::SetDoLevelInvert, std::array{first, second});
}

short AmplifierProperties::setCmrSetting(unsigned char first, unsigned char second, bool on) {
    return run(on ? Command::SetCmrSettingOn : Command::SetCmrSettingOff, std::array{first, second});
}

short AmplifierProperties::setRawMode(bool on) {
    return run(Command::SetRawMode, bytesOf<1>(on));
}

bool AmplifierProperties::getRawMode() {
    unsigned char value = 0;
    return run(Command::GetRawMode, {}, Reply(&value, 1)) >= 0 && value == 1;
}

// ---- TEDS -----------------------------------------------------------------------------------------------------------

// The bound is on the length, which counts the status: seven data bytes are enough.
short AmplifierProperties::readTeds(unsigned char* buffer) {
    constexpr size_t dataSize = 8;
    return run(Command::ReadTeds, {}, Reply(buffer, dataSize));
}

short AmplifierProperties::resetTedsCustom() {
    return run(Command::ResetTedsCustom, std::array<unsigned char, 1>{TedsReset});
}

short AmplifierProperties::writeTedsCustom(const unsigned char* data, unsigned long count) {
    std::array<unsigned char, maxPayload> payload{TedsWrite};
    if (count > payload.size() - 1) {
        return -1;
    }
    std::copy_n(data, count, payload.begin() + 1);
    return run(Command::WriteTedsCustom, Payload(payload).first(count + 1));
}

short AmplifierProperties::readTedsCustom(unsigned char* buffer, unsigned long count) {
    if (count > maxReplyData) {
        return -1;
    }
    const std::array<unsigned char, 2> payload{TedsRead, static_cast<unsigned char>(count)};
    return run(Command::ReadTedsCustom, payload, Reply(buffer, count), static_cast<short>(count));
}

short AmplifierProperties::finalizeTedsCustom() {
    return run(Command::FinalizeTedsCustom, std::array<unsigned char, 1>{TedsFinalize});
}

// ---- Calibration memory and firmware --------------------------------------------------------------------------------

bool AmplifierProperties::getLatestSupportedCalibrationStructureVersion(unsigned char& version) {
    version = 1;
    return run(Command::GetLatestCalibrationVersion, {}, Reply(&version, 1)) >= 0;
}

bool AmplifierProperties::getCalibrationDataSize(unsigned short& size) {
    return readNumber(Command::GetCalibrationDataSize, size) >= 0;
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
    return run(Command::WriteCalibrationData, Payload(payload).first(headSize + count));
}

short AmplifierProperties::readCalibrationData(unsigned short address, unsigned char* buffer, unsigned char count) {
    if (count > maxReplyData) {
        return -1;
    }
    const std::array<unsigned char, 3> payload{static_cast<unsigned char>(address),
                                               static_cast<unsigned char>(address >> 8), count};
    return run(Command::ReadCalibrationData, payload, Reply(buffer, count));
}

short AmplifierProperties::hwReset() {
    const std::lock_guard lock(*linkMutex_);
    const short length = run(Command::HwReset);
    if (length >= 0) {
        // A module that starts sends a greeting which must not end up in the next reply.
        std::array<unsigned char, maxReadSize> greeting;
        try {
            uart_->readData(greeting.data(), greeting.size());
        } catch (const std::runtime_error& failure) {
            KESTRIX_LOG(2, "Amplifier index {} error: {} failed! Command {}!", index_, failure.what(),
                        rowOf(Command::HwReset).code);
        }
    }
    return length;
}

short AmplifierProperties::goBootLoad() {
    return run(Command::GoBootLoad);
}

short AmplifierProperties::exitBootLoad() {
    return run(Command::ExitBootLoad);
}

short AmplifierProperties::eraseFlash() {
    return run(Command::EraseFlash);
}

short AmplifierProperties::writeFlash(const unsigned char* data, size_t size) {
    return run(Command::WriteFlash, Payload(data, size));
}

}  // namespace Harvane::Shared::Kestrix
