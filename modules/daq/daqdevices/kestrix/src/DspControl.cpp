#include "modules/daq/daqdevices/kestrix/src/DspControl.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <thread>

#include "libraries/devices/embedded/IRegisterAccess.h"
#include "libraries/utils/Timer.h"
#include "modules/daq/daqdevices/kestrix/src/FirstFailure.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "shared/libraries/kestrix/src/registers/ChannelFilterRegister.h"
#include "shared/libraries/kestrix/src/registers/DspCoreRegister.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"

namespace Harvane::RT::Modules::Daq {

using Shared::Kestrix::ChannelFilterRegister;
using Shared::Kestrix::DspCoreRegister;

namespace {

constexpr int ratioPlaces = 38;               // binary places of the resampler's ratio
constexpr double ratioUnit = 274877906944.0;  // 2^38
constexpr uint32_t maxHalfBands = 18;

// The symmetric impulse response of the half-band filter, 27 bits in two's complement: the taps at odd distance from
// the centre, C1 to C63, and the centre C64.
constexpr std::array<int32_t, 33> filterCoefficients{
    0,       0,      -936,     1672,    -3128,    5344,    -8608,    13224,   -19576,   28128,    -39376,
    53936,   -72464, 95728,    -124600, 160056,   -203232, 255440,   -318272, 393664,   -484080,  592792,
    -724312, 885184, -1085360, 1340904, -1679632, 2154288, -2878224, 4146832, -7044560, 21336000, 33554432,
};

uint64_t blockAddress(int channel) {
    return Shared::Kestrix::RegistersAddress::dspBaseAddress(static_cast<unsigned int>(channel));
}

}  // namespace

DspControl::DspControl(std::shared_ptr<ZornLib::Devices::Embedded::IRegisterAccess> access, int channel)
    : dspCore_(std::make_unique<DspCoreRegister>(access, blockAddress(channel), true)),
      channelFilter_(std::make_unique<ChannelFilterRegister>(access, blockAddress(channel), true)),
      channel_(channel) {}

DspControl::~DspControl() = default;

void DspControl::configureDspLogic(int baseClock, uint32_t rawRate, uint32_t filteredRate, uint32_t rawDecimation) {
    rawRate_ = rawRate;
    filteredRate_ = filteredRate;
    KESTRIX_LOG(2, "config channel: {}, raw sample rate: {}->{}, filtered sample rate: {}->{}", channel_, rawRate,
                rawRate_, filteredRate, filteredRate_);
    if (rawRate != 0) {
        const uint32_t decimation = rawDecimation != 0 ? rawDecimation : static_cast<uint32_t>(baseClock) / rawRate;
        KESTRIX_LOG(2, "RAW: channel: {}, decimation: {}", channel_, decimation);
        dspCore_->RSD.write(decimation);
        dspCore_->LEN.write(0xFFFFFFFF);
    }
    if (filteredRate != 0) {
        channelFilter_->FLTTYPE.write(false);
        setFilterCoefficients();
        if (filteredRate <= static_cast<uint32_t>(maxFilteredRate(baseClock))) {
            uint32_t halfBands = 0;
            uint64_t ratio = 0;
            if (!calculateRatioValue(baseClock, filteredRate, halfBands, ratio)) {
                throw std::runtime_error("DspControl::calculateRatioValue failed");
            }
            dspCore_->RSPLO.write(static_cast<unsigned int>(ratio));
            dspCore_->RSPHI.write(static_cast<unsigned char>(ratio >> 32));
            dspCore_->HBNUM.write(static_cast<unsigned char>(halfBands));
            KESTRIX_LOG(2, "Filtered: channel: {}, resampling ratio: {}, half-bands: {}", channel_, ratio, halfBands);
        }
    }
}

void DspControl::setFilterCoefficients() {
    for (size_t tap = 0; tap < filterCoefficients.size(); ++tap) {
        channelFilter_->coefficients[tap]->write(static_cast<unsigned int>(filterCoefficients[tap]));
    }
}

void DspControl::enableSampleProcessing() {
    KESTRIX_LOG(2, "enabling channel: {}", channel_);
    dspCore_->RAWEN.write(rawRate_ != 0);
    dspCore_->FILTEN.write(filteredRate_ != 0);
}

void DspControl::disableSampleProcessing() {
    KESTRIX_LOG(2, "disabling sample processing, channel: {}", channel_);
    FirstFailure failure;
    failure.attempt("raw stream", [this] { dspCore_->RAWEN.write(false); });
    failure.attempt("filtered stream", [this] { dspCore_->FILTEN.write(false); });
    failure.rethrow();
}

void DspControl::clearDspChain() {
    constexpr int pollMs = 10;
    constexpr int maxPolls = 100;  // the system clock may be stepped backwards while this waits
    dspCore_->CLRST.write(false);
    dspCore_->CLREN.write(true);
    const Utils::Synchronization::Timer timer;
    for (int poll = 0;; ++poll) {
        if (dspCore_->CLRST.read()) {
            dspCore_->CLRST.write(false);
            return;
        }
        if (timer.elapsed() > 1.0 || poll >= maxPolls) {
            throw std::runtime_error("DspControl::Clear process status timeout");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(pollMs));
    }
}

void DspControl::configureStartTriggerControl(bool simulationMode) {
    KESTRIX_LOG(2, "configuring trigger control, channel: {}, simulationMode: {}", channel_, simulationMode);
}

bool DspControl::calculateRatioValue(int baseClock, uint32_t rate, uint32_t& halfBands, uint64_t& ratio) {
    const uint64_t half = static_cast<uint64_t>(std::max(baseClock, 0) / 2);
    uint64_t doubled = 2 * static_cast<uint64_t>(rate);
    // Above a quarter of the clock there is nothing left to resample.
    if (rate == 0 || doubled > half) {
        return false;
    }
    uint32_t stages = 0;
    while (doubled <= half / 2 && stages < maxHalfBands) {
        ++stages;
        doubled *= 2;
    }
    // Whole numbers: in double precision some hundred rates round to a ratio that looks exact and isn't. 31 and 38 bits
    // don't fit into 64 together, so the division runs in two steps of 19 places.
    constexpr int step = ratioPlaces / 2;
    const uint64_t whole = half / doubled;
    const uint64_t upper = (half % doubled) << step;
    const uint64_t lower = (upper % doubled) << step;
    if (lower % doubled != 0) {
        return false;
    }
    // A chain of 18 stages doesn't exist; what is left for the ratio then is tested all the same.
    halfBands = stages < maxHalfBands ? stages : 0;
    ratio = ((whole - 1) << ratioPlaces) + ((upper / doubled) << step) + lower / doubled;
    return true;
}

double DspControl::calculateDspDelay(int baseClock, int rate) {
    if (rate < 1 || baseClock / 4 / rate < 1) {
        return 0.0;
    }
    const int quarter = baseClock / 4;
    const int stages = static_cast<int>(std::floor(std::log2(quarter / rate)));
    const double resamplerRate = quarter / std::ldexp(1.0, stages);
    const double hardwareRatio = std::round(resamplerRate / rate * ratioUnit) / ratioUnit;
    double ticks = 55.0;
    for (int stage = 1; stage <= stages; ++stage) {
        ticks += std::ldexp(17.0, stage) * hardwareRatio;
    }
    return (ticks + std::ldexp(65.0, stages + 1) * hardwareRatio) * 1000.0 / baseClock;
}

}  // namespace Harvane::RT::Modules::Daq
