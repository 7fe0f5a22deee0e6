#include "simulator/model/Thermals.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <thread>

namespace kestrixsim {

namespace {

enum class Kind { Monitor, Converter, Chip, Differential, Single, Line };
enum class Part { Processor, Board, Cable };

// In the order of the numbers that faults use.
struct SensorPlace {
    std::string_view path;  // empty: on the I2C bus
    Kind kind;
    Part part;
    double offset;  // degrees against its part
};

constexpr auto sensors = std::to_array<SensorPlace>({
    {"/sys/class/hwmon/hwmon2/temp1_input", Kind::Monitor, Part::Processor, 0.0},
    {"/sys/class/hwmon/hwmon2/temp2_input", Kind::Monitor, Part::Processor, -0.5},
    {"/sys/class/hwmon/hwmon2/temp3_input", Kind::Monitor, Part::Processor, 0.8},
    {"/sys/class/hwmon/hwmon0/temp1_input", Kind::Monitor, Part::Board, 0.0},
    {"/sys/class/hwmon/hwmon1/temp1_input", Kind::Monitor, Part::Board, 2.75},
    {"/sys/bus/iio/devices/iio:device0/in_temp0_ps_temp_raw", Kind::Converter, Part::Processor, 0.0},
    {"/sys/bus/iio/devices/iio:device0/in_temp1_remote_temp_raw", Kind::Converter, Part::Processor, -0.5},
    {"/sys/bus/iio/devices/iio:device0/in_temp2_pl_temp_raw", Kind::Converter, Part::Processor, 0.8},
    {{}, Kind::Chip, Part::Board, 0.0},   // 0x48
    {{}, Kind::Chip, Part::Board, 2.75},  // 0x49
    {{}, Kind::Chip, Part::Board, -2.5},  // 0x4A
    {"/sys/bus/iio/devices/iio:device1/in_voltage0-voltage1_raw", Kind::Differential, Part::Cable, 0.0},
    {"/sys/bus/iio/devices/iio:device1/in_voltage1_raw", Kind::Single, Part::Cable, 0.0},
    {"/sys/class/gpio/gpio496/value", Kind::Line, Part::Cable, 0.0},
    {"/sys/class/gpio/gpio497/value", Kind::Line, Part::Cable, 0.0},
});

constexpr int firstChip = 8;
constexpr int firstAddress = 0x48;
constexpr int lastAddress = 0x4A;

// Degrees above the ambient temperature when nothing goes on, for each amplifier that is on, and while converters run.
struct Warmth {
    double idle;
    double amplifier;
    double converting;
};
constexpr Warmth processorWarmth{27.3, 0.1, 6.0};
constexpr Warmth boardWarmth{13.5, 0.5, 3.0};
constexpr double processorSeconds = 40.0;

constexpr double busPatience = 1.0;  // seconds of one transfer
constexpr double cableCounts = 8e6;  // what the second voltage reads

const SensorPlace* find(std::string_view path, int& number) {
    number = 0;
    for (const SensorPlace& sensor : sensors) {
        if (!path.empty() && sensor.path == path) {
            return &sensor;
        }
        ++number;
    }
    return nullptr;
}

}  // namespace

Thermals::Thermals(const Scenario& scenario, const Clock& clock, Faults& faults)
    : scenario_(scenario.thermals), eightSlots_(scenario.boardType != 1), clock_(clock), faults_(faults) {
    processor_.timeConstant = processorSeconds;
    board_.timeConstant = scenario_.timeConstantSeconds;
    supplied_ = scenario.supplyOn || !eightSlots_ ? (eightSlots_ ? 8 : 2) : 0;
    setTargets();
    // It has been standing there for long.
    processor_.rise = processor_.target;
    board_.rise = board_.target;
}

void Thermals::setTargets() {
    const auto target = [this](const Warmth& warmth) {
        return warmth.idle + supplied_ * warmth.amplifier + (converting_ ? warmth.converting : 0.0);
    };
    processor_.target = target(processorWarmth);
    board_.target = target(boardWarmth);
}

void Thermals::advance() {
    const double now = clock_.seconds();
    for (Body* body : {&processor_, &board_}) {
        body->rise = body->target + (body->rise - body->target) * std::exp((at_ - now) / body->timeConstant);
    }
    at_ = now;
}

void Thermals::setSupplied(int slots) {
    const std::lock_guard lock(mutex_);
    advance();
    supplied_ = slots;
    setTargets();
}

void Thermals::setConverting(bool running) {
    const std::lock_guard lock(mutex_);
    advance();
    converting_ = running;
    setTargets();
}

double Thermals::processorCelsius() {
    const std::lock_guard lock(mutex_);
    advance();
    return scenario_.ambientCelsius + processor_.rise;
}

double Thermals::boardCelsius() {
    const std::lock_guard lock(mutex_);
    advance();
    return scenario_.ambientCelsius + board_.rise;
}

double Thermals::celsius(int sensor) {
    const SensorPlace& place = sensors[static_cast<size_t>(sensor)];
    return place.offset + (place.part == Part::Processor ? processorCelsius() : boardCelsius());
}

// IEC 60751: the third coefficient counts below 0 degrees only.
double Thermals::resistanceAt(double celsius) {
    constexpr double a = 3.9083e-3;
    constexpr double b = -5.775e-7;
    constexpr double c = -4.183e-12;
    const double below = celsius < 0.0 ? c * (celsius - 100.0) * celsius * celsius * celsius : 0.0;
    return 1000.0 * (1.0 + a * celsius + b * celsius * celsius + below);
}

std::string Thermals::text(int sensor) {
    double number = 0.0;
    switch (sensors[static_cast<size_t>(sensor)].kind) {
        case Kind::Monitor:
            number = celsius(sensor) * 1000.0;
            break;
        case Kind::Converter:
            number = (celsius(sensor) + 280.23) * 65536.0 / 509.314;
            break;
        case Kind::Differential:
            number = cableCounts * resistanceAt(scenario_.cableCelsius) / 2000.0;
            break;
        case Kind::Single:
            number = cableCounts;
            break;
        default:
            break;
    }
    return std::to_string(std::llround(number)) + "\n";
}

// The instrument's time passes. Without the fault nobody waits on.
void Thermals::wait(int sensor, double seconds) const {
    const double until = clock_.seconds() + seconds;
    while (clock_.seconds() < until && faults_.present(FaultKind::SensorSlow, sensor)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

int Thermals::begin(int sensor) {
    if (const auto slow = faults_.hit(FaultKind::SensorSlow, sensor)) {
        wait(sensor, slow->code / 1000.0);
    }
    if (faults_.hit(FaultKind::SensorMissing, sensor)) {
        return -ENOENT;
    }
    return faults_.hit(FaultKind::SensorDenied, sensor) ? -EACCES : 0;
}

int Thermals::readChip(int address, double& reading) {
    if (address < firstAddress || address > lastAddress || (address == lastAddress && !eightSlots_)) {
        return -ENXIO;
    }
    const int sensor = firstChip + address - firstAddress;
    if (const auto slow = faults_.hit(FaultKind::SensorSlow, sensor)) {
        const double seconds = slow->code / 1000.0;
        wait(sensor, std::min(seconds, busPatience));
        if (seconds > busPatience) {
            return -ETIMEDOUT;
        }
    }
    if (faults_.hit(FaultKind::SensorMissing, sensor)) {
        return -ENXIO;
    }
    reading = celsius(sensor);
    return 0;
}

bool Thermals::owns(std::string_view path) {
    int sensor = 0;
    return find(path, sensor) != nullptr;
}

std::string Thermals::textOf(std::string_view path) {
    int sensor = 0;
    return find(path, sensor) != nullptr ? text(sensor) : std::string();
}

int Thermals::fileAccess(std::string_view path) const {
    int sensor = 0;
    if (find(path, sensor) == nullptr) {
        return 0;
    }
    if (faults_.due(FaultKind::SensorMissing, sensor)) {
        return -ENOENT;
    }
    return faults_.due(FaultKind::SensorDenied, sensor) ? -EACCES : 0;
}

int Thermals::fileOpen(std::string_view path, std::optional<std::string>& content) {
    int sensor = 0;
    const SensorPlace* const place = find(path, sensor);
    if (place == nullptr) {
        return 0;
    }
    if (const int error = begin(sensor); error != 0) {
        return error;
    }
    // What a line says stays what was written there.
    if (place->kind != Kind::Line) {
        content = faults_.hit(FaultKind::SensorRubbish, sensor) ? "#\x01?:-\n" : text(sensor);
    }
    return 0;
}

}  // namespace kestrixsim
