#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "modules/daq/daqdevices/kestrix/src/SysfsFileReader.h"
#include "modules/daq/daqdevices/kestrix/src/TemperatureReader.h"
#include "shared/libraries/kestrix/src/registers/Tmp100Register.h"

// The kinds of sensors of the instrument's boards. A file that holds no number is an exception.
namespace Harvane::RT::Modules::Daq {

// A hardware monitor of the kernel: millidegrees.
class HWMonTemperatureReader : public TemperatureReader {
public:
    HWMonTemperatureReader(std::string group, std::string name, const std::string& path);
    double readTemperatureCelsius() const override;

private:
    const SysfsFileReader file_;
};

// The FPGA's converter: steps of 509.314 / 2^16 degrees from -280.23.
class FPGATemperatureReader : public TemperatureReader {
public:
    FPGATemperatureReader(std::string group, std::string name, const std::string& path);
    double readTemperatureCelsius() const override;

private:
    const SysfsFileReader file_;
};

// A TMP100 on the I2C bus, which the oscillator's driver shares: a chip that is slow keeps that one waiting too. A bus
// error is an exception.
class I2CTemperatureReader : public TemperatureReader {
public:
    I2CTemperatureReader(std::string group, std::shared_ptr<Shared::Kestrix::IRegisterAccess> access,
                         std::uint64_t slaveAddress);
    double readTemperatureCelsius() const override;

private:
    const Shared::Kestrix::Tmp100Register chip_;
};

// A platinum resistance of 1000 ohms in the cable, by the ratio of two voltages. Not a number when the second is 0.
//
// The curve is inverted as if its fourth-degree term, which counts below 0 degrees, were not there. That is exact from
// 0 degrees up; below it reads too low: by 0.0095 degrees at -40, by 0.21 at -100 and by 2.4 at -200.
class CableTemperatureReader : public TemperatureReader {
public:
    CableTemperatureReader(std::string group, const std::string& differentialPath, const std::string& singlePath);
    double readTemperatureCelsius() const override;

private:
    const SysfsFileReader differential_;
    const SysfsFileReader single_;
};

}  // namespace Harvane::RT::Modules::Daq
