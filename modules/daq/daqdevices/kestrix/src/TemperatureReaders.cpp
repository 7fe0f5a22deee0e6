#include "modules/daq/daqdevices/kestrix/src/TemperatureReaders.h"

#include <charconv>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <utility>

#include "libraries/utils/StringHelper.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace Harvane::RT::Modules::Daq {

namespace {

std::string addressText(std::uint64_t address) {
    return fmt::format("{:#02x}", address);
}

// The whole text must be a number, whatever the process's locale: half of one is as good as none.
std::optional<double> readNumber(const SysfsFileReader& file, std::string& failure) {
    const auto read = file.read(failure);
    if (!read) {
        return std::nullopt;
    }
    const std::string text = Utils::DataTypes::StringHelper::trim(*read);
    double value = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
        throw std::runtime_error("file " + file.path() + " holds no number");
    }
    return value;
}

}  // namespace

HWMonTemperatureReader::HWMonTemperatureReader(std::string group, std::string name, const std::string& path)
    : TemperatureReader(std::move(group), std::move(name), path), file_(path) {
    KESTRIX_LOG(1, "creating HWMonTemperatureReader file {}", path);
}

double HWMonTemperatureReader::readTemperatureCelsius() const {
    std::string failure;
    const auto number = readNumber(file_, failure);
    if (!number) {
        failed(std::move(failure));
        return 0.0;
    }
    return *number / 1000.0;
}

FPGATemperatureReader::FPGATemperatureReader(std::string group, std::string name, const std::string& path)
    : TemperatureReader(std::move(group), std::move(name), path), file_(path) {
    KESTRIX_LOG(1, "creating FPGATemperatureReader file {}", path);
}

double FPGATemperatureReader::readTemperatureCelsius() const {
    std::string failure;
    const auto raw = readNumber(file_, failure);
    if (!raw) {
        failed(std::move(failure));
        return 0.0;
    }
    return *raw * 509.314 * 1.52587890625e-5 - 280.23;
}

I2CTemperatureReader::I2CTemperatureReader(std::string group, std::shared_ptr<Shared::Kestrix::IRegisterAccess> access,
                                           std::uint64_t slaveAddress)
    : TemperatureReader(std::move(group), addressText(slaveAddress), "i2c " + addressText(slaveAddress)),
      chip_(std::move(access), slaveAddress, true, true) {
    KESTRIX_LOG(1, "creating I2CTemperatureReader i2c addr: {:#02x}", slaveAddress);
}

double I2CTemperatureReader::readTemperatureCelsius() const {
    return static_cast<double>(chip_.getTemperature());
}

CableTemperatureReader::CableTemperatureReader(std::string group, const std::string& differentialPath,
                                               const std::string& singlePath)
    : TemperatureReader(std::move(group), "PT1000", differentialPath + ", " + singlePath),
      differential_(differentialPath),
      single_(singlePath) {
    KESTRIX_LOG(1, "creating CableTemperatureReader file {}, {}", differentialPath, singlePath);
}

double CableTemperatureReader::readTemperatureCelsius() const {
    std::string failure;
    const auto differential = readNumber(differential_, failure);
    const auto single = differential ? readNumber(single_, failure) : std::nullopt;
    if (!single) {
        failed(std::move(failure));
        return 0.0;
    }
    // What the resistance lacks of 1000 ohms.
    const double missing = 1000.0 - 2000.0 * *differential / *single;
    const double x = missing * 0.00231 + 15.274808890000001;
    return (std::sqrt(x) - 3.9083) / -0.001155;
}

}  // namespace Harvane::RT::Modules::Daq
