#include "simulator/model/Firmware.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "simulator/model/Hash.h"

namespace kestrixsim {

namespace {

constexpr uint8_t frameKey = 0xA5;
constexpr uint8_t frameEnd = 0x5A;
constexpr double forgetSeconds = 0.020;

constexpr uint8_t good = 0;
constexpr uint8_t unknownCommand = 1;
constexpr uint8_t wrongLength = 2;
constexpr uint8_t notAllowed = 3;
constexpr uint8_t notNow = 4;

constexpr size_t calibrationBytes = 256;
constexpr size_t longestData = 124;  // a reply has to fit 128 bytes

Firmware::Reply status(uint8_t value) {
    Firmware::Reply reply;
    reply.status = value;
    return reply;
}

Firmware::Reply answer(std::vector<uint8_t> data) {
    Firmware::Reply reply;
    reply.data = std::move(data);
    return reply;
}

std::vector<uint8_t> littleEndian(uint64_t value, size_t size) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(value >> (8 * i));
    }
    return bytes;
}

uint64_t fromLittleEndian(const std::vector<uint8_t>& bytes) {
    uint64_t value = 0;
    for (size_t i = bytes.size(); i-- > 0;) {
        value = value << 8 | bytes[i];
    }
    return value;
}

std::vector<uint8_t> floatBytes(float value) {
    uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return littleEndian(bits, 4);
}

// Check byte of a 1-Wire ROM: x^8 + x^5 + x^4 + 1, least significant bit first.
uint8_t romCheck(const std::vector<uint8_t>& bytes) {
    uint8_t check = 0;
    for (uint8_t byte : bytes) {
        for (int bit = 0; bit < 8; ++bit) {
            const bool mixed = ((check ^ byte) & 1) != 0;
            check = static_cast<uint8_t>(check >> 1 ^ (mixed ? 0x8C : 0));
            byte = static_cast<uint8_t>(byte >> 1);
        }
    }
    return check;
}

}  // namespace

void FrameCollector::add(const uint8_t* bytes, size_t size, double now) {
    if (!bytes_.empty() && now - lastByte_ > forgetSeconds) {
        bytes_.clear();
    }
    lastByte_ = now;
    bytes_.insert(bytes_.end(), bytes, bytes + size);
}

std::optional<std::vector<uint8_t>> FrameCollector::take() {
    for (;;) {
        bytes_.erase(bytes_.begin(), std::find(bytes_.begin(), bytes_.end(), frameKey));
        if (bytes_.size() < 2) {
            return std::nullopt;
        }
        const size_t end = size_t(2) + bytes_[1];
        if (bytes_[1] != 0 && bytes_.size() <= end) {
            return std::nullopt;
        }
        if (bytes_[1] != 0 && bytes_[end] == frameEnd) {
            const auto last = bytes_.begin() + static_cast<std::ptrdiff_t>(end) + 1;
            std::vector<uint8_t> frame(bytes_.begin(), last);
            bytes_.erase(bytes_.begin(), last);
            return frame;
        }
        bytes_.erase(bytes_.begin());
    }
}

void FrameCollector::drop() {
    bytes_.clear();
}

// What distinguishes the kinds. Numbers of settings are places in these lists.
struct Firmware::Kind {
    struct Measurement {
        std::vector<double> ranges;     // +- so much
        std::vector<double> couplings;  // Hz, corner of the high-pass; 0: direct
        bool excited;                   // the sensor lives on the excitation
    };

    uint8_t type;
    uint8_t hardwareCapabilities;
    uint8_t firmwareCapabilities;
    uint8_t connector;
    std::array<uint8_t, 2> firmwareVersion;
    std::array<uint8_t, 4> hardwareVersion;
    std::vector<Measurement> measurements;
    std::vector<double> lowPasses;  // Hz; the first is what the amplifier cannot do without. 0: none
    uint8_t inputTypes;
    std::vector<float> excitations;  // besides 0, which is off
    bool canShort;
    bool led;
    bool watchesSensor;  // reads its TEDS chip and knows whether its wire is broken
    bool customTeds;
    double scaleSpread;
    double offsetSpread;
};

const Firmware::Kind& Firmware::describe(AmplifierKind kind) {
    static const Kind voltage{.type = 1,
                              .hardwareCapabilities = 0,
                              .firmwareCapabilities = 1,
                              .connector = 1,
                              .firmwareVersion = {2, 7},
                              .hardwareVersion = {1, 0, 3, 0},
                              .measurements = {{{10.0, 5.0, 1.0, 0.1}, {0.0, 1.0}, false}},
                              .lowPasses = {5e6, 1e6, 1e5, 1e4, 1e3},
                              .inputTypes = 2,
                              .excitations = {},
                              .canShort = true,
                              .led = true,
                              .watchesSensor = false,
                              .customTeds = false,
                              .scaleSpread = 2e-4,
                              .offsetSpread = 2.0};
    static const Kind bridge{.type = 2,
                             .hardwareCapabilities = 1,
                             .firmwareCapabilities = 3,
                             .connector = 2,
                             .firmwareVersion = {3, 1},
                             .hardwareVersion = {2, 0, 0, 0},
                             .measurements = {{{10.0, 5.0, 2.0, 1.0}, {0.0}, true},  // mV/V
                                              {{10.0, 1.0}, {0.0}, false},           // V
                                              {{100.0}, {0.0}, true}},               // %
                             .lowPasses = {3e5, 1e5, 1e4, 1e3, 1e2},
                             .inputTypes = 3,
                             .excitations = {1.0F, 2.5F, 5.0F, 10.0F},
                             .canShort = true,
                             .led = true,
                             .watchesSensor = true,
                             .customTeds = true,
                             .scaleSpread = 1.3e-3,
                             .offsetSpread = 4.0};
    // The current source lifts the sensor's output by volts: only a high-pass takes that away.
    static const Kind iepe{
        .type = 3,
        .hardwareCapabilities = 0,
        .firmwareCapabilities = 3,
        .connector = 1,
        .firmwareVersion = {2, 9},
        .hardwareVersion = {1, 1, 0, 0},
        .measurements = {{{10.0, 5.0, 1.0}, {0.1, 1.0}, true}, {{10.0, 5.0, 1.0}, {0.0, 0.1, 1.0}, false}},
        .lowPasses = {1e6, 1e5, 1e4},
        .inputTypes = 1,
        .excitations = {4.0F, 8.0F},
        .canShort = false,
        .led = true,
        .watchesSensor = true,
        .customTeds = false,
        .scaleSpread = 3e-4,
        .offsetSpread = 1.0};
    static const Kind highVoltage{.type = 4,
                                  .hardwareCapabilities = 2,
                                  .firmwareCapabilities = 1,
                                  .connector = 4,
                                  .firmwareVersion = {1, 4},
                                  .hardwareVersion = {1, 0, 0, 0},
                                  .measurements = {{{1000.0, 400.0, 200.0, 50.0}, {0.0}, false}},
                                  .lowPasses = {2e6, 3e5, 3e4},
                                  .inputTypes = 1,
                                  .excitations = {},
                                  .canShort = false,
                                  .led = false,
                                  .watchesSensor = false,
                                  .customTeds = false,
                                  .scaleSpread = 5e-4,
                                  .offsetSpread = 500.0};
    static const Kind unknown{.type = 9,
                              .hardwareCapabilities = 9,
                              .firmwareCapabilities = 9,
                              .connector = 9,
                              .firmwareVersion = {9, 9},
                              .hardwareVersion = {9, 9, 9, 9},
                              .measurements = {{{10.0}, {0.0}, false}},
                              .lowPasses = {0.0},
                              .inputTypes = 1,
                              .excitations = {},
                              .canShort = false,
                              .led = false,
                              .watchesSensor = false,
                              .customTeds = false,
                              .scaleSpread = 0.0,
                              .offsetSpread = 0.0};
    switch (kind) {
        case AmplifierKind::Bridge:
            return bridge;
        case AmplifierKind::Iepe:
            return iepe;
        case AmplifierKind::HighVoltage:
            return highVoltage;
        case AmplifierKind::Unknown:
            return unknown;
        case AmplifierKind::Voltage:
            break;
    }
    return voltage;
}

Firmware::Firmware(const ModuleScenario& module, uint64_t serial, uint64_t seed)
    : kind_(describe(module.kind)),
      sensor_(module.sensor),
      tedsChip_(module.tedsChip),
      seed_(seed),
      serial_(serial),
      hardwareVersion_(kind_.hardwareVersion),
      hardwareCapabilities_(kind_.hardwareCapabilities),
      connector_(kind_.connector),
      calibrationDate_(1767225600),  // 1 January 2026
      calibrationMemory_(calibrationBytes) {
    for (size_t i = 0; i < calibrationBytes; ++i) {
        calibrationMemory_[i] = static_cast<uint8_t>(mix(seed_ ^ serial_ ^ (i << 32)));
    }
    customTeds_.fill(0xFF);
    powerOn();
}

void Firmware::powerOn() {
    bootMode_ = false;
    rawMode_ = false;
    staged_ = {};
    active_ = {};
    pattern_ = 0;
    ledOn_ = false;
    for (auto& trim : trims_) {
        trim = {};
    }
}

double Firmware::calibration(uint64_t which) const {
    const uint64_t place = which << 16 | static_cast<uint64_t>(active_.measurement) << 8 | active_.range;
    return symmetric(mix(mix(seed_ ^ serial_) + place));
}

float Firmware::calibratedScale() const {
    return static_cast<float>(1.0 + kind_.scaleSpread * calibration(1));
}

float Firmware::calibratedOffset() const {
    return static_cast<float>(kind_.offsetSpread * calibration(2));
}

float Firmware::scale() const {
    return rawMode_ ? 1.0F : calibratedScale();
}

float Firmware::offset() const {
    return rawMode_ ? 0.0F : calibratedOffset();
}

FrontEnd Firmware::frontEnd() const {
    const Kind::Measurement& measurement = kind_.measurements[active_.measurement];
    const double range = measurement.ranges[active_.range];
    FrontEnd result = FrontEnd::calibrated(-range, range, calibratedScale(), calibratedOffset());
    result.highPassHz = measurement.couplings[active_.coupling];
    result.lowPassHz = kind_.lowPasses[active_.lowPass];
    // Excitation itself does not show: what the bridge gives is divided by it. Without any there is nothing to divide.
    const bool watched = kind_.watchesSensor && measurement.excited;
    if (active_.shorted != 0 || (measurement.excited && active_.excitation == 0.0F) ||
        (watched && sensor_ == Sensor::Shorted)) {
        result.input = FrontEnd::Input::Grounded;
    } else if (watched && sensor_ == Sensor::Open) {
        result.input = FrontEnd::Input::Rail;
    }
    return result;
}

Firmware::Reply Firmware::set(uint8_t Settings::*field, uint8_t value, size_t count) {
    if (value >= count) {
        return status(notAllowed);
    }
    staged_.*field = value;
    return status(good);
}

// The lists of ranges and couplings hang on the measurement, the excitation on its type: only together they are right
// or wrong.
uint8_t Firmware::apply() {
    const Settings& wanted = staged_;
    const bool excitable = wanted.excitation == 0.0F || std::find(kind_.excitations.begin(), kind_.excitations.end(),
                                                                  wanted.excitation) != kind_.excitations.end();
    const Kind::Measurement& measurement = kind_.measurements[wanted.measurement];
    if (wanted.range >= measurement.ranges.size() || wanted.coupling >= measurement.couplings.size() ||
        wanted.lowPass >= kind_.lowPasses.size() || !excitable || wanted.excitationType != 0) {
        return notAllowed;
    }
    active_ = staged_;
    return good;
}

Firmware::Reply Firmware::customTeds(const std::vector<uint8_t>& payload) {
    if (!kind_.customTeds) {
        return status(notNow);
    }
    if (payload.empty()) {
        return status(wrongLength);
    }
    switch (payload[0]) {
        case 0x01:
            if (payload.size() != 1) {
                return status(wrongLength);
            }
            customTeds_.fill(0xFF);
            return status(good);
        case 0x02:
            if (payload.size() - 1 > customTeds_.size()) {
                return status(notAllowed);
            }
            std::copy(payload.begin() + 1, payload.end(), customTeds_.begin());
            return status(good);
        case 0x03:
            if (payload.size() != 2) {
                return status(wrongLength);
            }
            if (payload[1] > customTeds_.size()) {
                return status(notAllowed);
            }
            return answer({customTeds_.begin(), customTeds_.begin() + payload[1]});
        case 0x04:
            return status(payload.size() == 1 ? good : wrongLength);
        default:
            return status(notAllowed);
    }
}

Firmware::Reply Firmware::boot(uint8_t command, const std::vector<uint8_t>& payload) {
    Reply reply;
    switch (command) {
        case 0x49:
            reply.status = payload.empty() ? good : wrongLength;
            reply.seconds = 0.5;
            return reply;
        case 0x50:
            return status(payload.empty() ? wrongLength : good);
        case 0x53:
            if (!payload.empty()) {
                return status(wrongLength);
            }
            powerOn();
            reply.seconds = 1.5;
            return reply;
        case 0x57:
            return reply;
        default:
            return status(notNow);
    }
}

Firmware::Reply Firmware::execute(uint8_t command, const std::vector<uint8_t>& payload) {
    const size_t size = payload.size();
    const uint8_t first = payload.empty() ? 0 : payload[0];
    if (bootMode_ && command != 0x5B) {
        return boot(command, payload);
    }

    // Length of the payload: of the variable ones the least.
    size_t wanted = 0;
    bool variable = false;
    switch (command) {
        case 0xA7:
        case 0xAA:
        case 0xA6:
        case 0xA3:
        case 0x49:
        case 0x65:
        case 0x63:
        case 0x66:
        case 0xFA:
        case 0xFB:
        case 0x61:
        case 0xBD:
        case 0x9F:
        case 0xC4:
        case 0xCA:
        case 0xBA:
        case 0x6B:
        case 0x69:
        case 0xB8:
        case 0x67:
        case 0xD0:
        case 0xF0:
        case 0xF8:
        case 0x40:
        case 0x42:
        case 0x47:
        case 0x57:
        case 0x53:
        case 0x5B:
            break;
        case 0x60:
        case 0xBC:
        case 0xC8:
        case 0xC3:
        case 0xC9:
        case 0x6A:
        case 0x68:
        case 0xB7:
        case 0xF2:
        case 0xF7:
        case 0xC7:
        case 0xEB:
        case 0x41:
        case 0x62:
        case 0x64:
            wanted = 1;
            break;
        case 0xE0:
        case 0xEA:
        case 0xEC:
            wanted = 2;
            break;
        case 0x46:
            wanted = 3;
            break;
        case 0xB9:
        case 0xA4:
            wanted = 4;
            break;
        case 0x48:
        case 0xA1:
            wanted = 8;
            break;
        case 0x45:
            wanted = 3;
            variable = true;
            break;
        case 0xD1:
        case 0x50:
            variable = true;
            break;
        default:
            return status(unknownCommand);
    }
    if (variable ? size < wanted : size != wanted) {
        return status(wrongLength);
    }

    switch (command) {
        // Identity.
        case 0xA7:
            return answer({kind_.type});
        case 0xAA:
            return answer({kind_.firmwareVersion[0], kind_.firmwareVersion[1]});
        case 0xA6:
            return answer({hardwareVersion_.begin(), hardwareVersion_.end()});
        case 0xA3:
            return answer(littleEndian(serial_, 8));
        case 0x49:
            return answer(littleEndian(static_cast<uint64_t>(calibrationDate_), 8));
        case 0x65:
            return answer({hardwareCapabilities_});
        case 0x63:
            return answer({connector_});
        case 0x66:
            return answer({kind_.firmwareCapabilities});
        case 0xA1:
            serial_ = fromLittleEndian(payload);
            return status(good);
        case 0xA4:
            std::copy(payload.begin(), payload.end(), hardwareVersion_.begin());
            return status(good);
        case 0x48:
            calibrationDate_ = static_cast<int64_t>(fromLittleEndian(payload));
            return status(good);
        case 0x62:
            connector_ = first;
            return status(good);
        case 0x64:
            hardwareCapabilities_ = first;
            return status(good);

        // Settings.
        case 0x60: {
            const bool changes = first != staged_.measurement;
            Reply reply = set(&Settings::measurement, first, kind_.measurements.size());
            if (reply.status == good && changes) {
                staged_.coupling = 0;
            }
            return reply;
        }
        case 0x61:
            return answer({staged_.measurement});
        case 0xBC:
            return set(&Settings::range, first, 256);
        case 0xBD:
            return answer({staged_.range});
        case 0xC8:
            return set(&Settings::lowPass, first, 256);
        case 0x9F:
            return answer({staged_.lowPass});
        case 0xC3:
            return set(&Settings::coupling, first, 256);
        case 0xC4:
            return answer({staged_.coupling});
        case 0xC9:
            return set(&Settings::inputType, first, kind_.inputTypes);
        case 0xCA:
            return answer({staged_.inputType});
        case 0xB9: {
            const auto bits = static_cast<uint32_t>(fromLittleEndian(payload));
            std::memcpy(&staged_.excitation, &bits, sizeof bits);
            return status(good);
        }
        case 0xBA:
            return answer(floatBytes(staged_.excitation));
        case 0x6A:
            return set(&Settings::excitationType, first, 256);
        case 0x6B:
            return answer({staged_.excitationType});
        case 0x68:
            return set(&Settings::excitationUnit, first, 256);
        case 0x69:
            return answer({staged_.excitationUnit});
        case 0xB7:
            return set(&Settings::shorted, first, kind_.canShort ? 2 : 1);
        case 0xB8:
            return answer({staged_.shorted});
        case 0x67: {
            Reply reply = status(apply());
            reply.seconds = 0.020;
            return reply;
        }
        case 0xF2:
            ledOn_ = kind_.led && first != 0;
            return status(kind_.led ? good : notNow);
        case 0xFA:
            return answer(floatBytes(scale()));
        case 0xFB:
            return answer(floatBytes(offset()));

        // Sensor.
        case 0xD0: {
            if (!kind_.watchesSensor || !tedsChip_) {
                return status(notNow);
            }
            std::vector<uint8_t> rom{0x14};
            for (uint64_t i = 0; i < 6; ++i) {
                rom.push_back(static_cast<uint8_t>(mix(seed_ ^ serial_) >> (8 * i)));
            }
            rom.push_back(romCheck(rom));
            return answer(rom);
        }
        case 0xD1:
            return customTeds(payload);
        case 0xF0:
            if (!kind_.watchesSensor) {
                return answer({0});
            }
            return answer({static_cast<uint8_t>(sensor_ == Sensor::Open ? 2 : sensor_ == Sensor::Shorted ? 3 : 1)});

        // Stored only.
        case 0xF7:
            pattern_ = first;
            return status(good);
        case 0xF8:
            return answer({pattern_});
        case 0xC7:
        case 0xE0:
            return status(good);
        case 0xEA:
        case 0xEC:
            trims_[first] = {payload[0], payload[1]};
            return status(good);
        case 0xEB:
            return answer({trims_[first][0], trims_[first][1]});

        // Calibration memory.
        case 0x40:
            return answer({1});
        case 0x41:
            rawMode_ = first != 0;
            return status(good);
        case 0x42:
            return answer({static_cast<uint8_t>(rawMode_ ? 1 : 0)});
        case 0x47:
            return answer(littleEndian(calibrationBytes, 2));
        case 0x46:
        case 0x45: {
            const size_t address = payload[0] | static_cast<size_t>(payload[1]) << 8;
            const size_t count = payload[2];
            if (address + count > calibrationBytes || count > longestData) {
                return status(notAllowed);
            }
            const auto place = calibrationMemory_.begin() + static_cast<std::ptrdiff_t>(address);
            if (command == 0x46) {
                return answer({place, place + static_cast<std::ptrdiff_t>(count)});
            }
            if (size != 3 + count) {
                return status(wrongLength);
            }
            std::copy(payload.begin() + 3, payload.end(), place);
            return status(good);
        }

        // Boot loader.
        case 0x57: {
            bootMode_ = true;
            Reply reply;
            reply.seconds = 0.2;
            return reply;
        }
        case 0x53:
        case 0x50:
            return status(notNow);
        case 0x5B: {
            Reply reply;
            const std::string text = "\r\nAmplifier " + std::to_string(kind_.type) + " starting, firmware " +
                                     std::to_string(kind_.firmwareVersion[0]) + "." +
                                     std::to_string(kind_.firmwareVersion[1]) + "\r\n";
            reply.text.assign(text.begin(), text.end());
            powerOn();
            return reply;
        }
        default:
            return status(unknownCommand);
    }
}

}  // namespace kestrixsim
