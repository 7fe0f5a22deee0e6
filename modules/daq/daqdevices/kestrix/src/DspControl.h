#pragma once

#include <cstdint>
#include <memory>

namespace Harvane::ZornLib::Devices::Embedded {
class IRegisterAccess;
}
namespace Harvane::Shared::Kestrix {
class DspCoreRegister;
class ChannelFilterRegister;
}  // namespace Harvane::Shared::Kestrix

namespace Harvane::RT::Modules::Daq {

// The DSP chain of one module in the FPGA. The raw stream is the converter's data, decimated by an integer. The
// filtered stream runs through a half-band filter, a number of half-band stages (each halves the rate) and a
// resampler with a ratio from 1 to 2. Rates and clocks are in samples per second.
// Used from the thread that drives the acquisition states; register failures pass through.
class DspControl {
public:
    // `channel` is the module, 0 to 7.
    DspControl(std::shared_ptr<ZornLib::Devices::Embedded::IRegisterAccess> access, int channel);
    ~DspControl();
    DspControl(const DspControl&) = delete;
    DspControl& operator=(const DspControl&) = delete;

    // Sets up both streams; a rate of 0 leaves that stream as it is. `rawDecimation` is the decimation of the raw
    // stream where the caller knows it better than the whole-numbered rate tells (1000 / 7 is no whole rate, but
    // 105000 is its decimation at 15 MHz); 0 takes baseClock / rawRate.
    // Throws std::runtime_error when the resampler cannot make the filtered rate.
    void configureDspLogic(int baseClock, uint32_t rawRate, uint32_t filteredRate, uint32_t rawDecimation = 0);
    void setFilterCoefficients();

    // Turns on the streams that the last configureDspLogic had a rate for.
    void enableSampleProcessing();
    // Both streams, also when the first one fails; the first failure passes through.
    void disableSampleProcessing();

    // Empties the chain and waits until the FPGA says that it has. Throws std::runtime_error after a second.
    void clearDspChain();

    void configureStartTriggerControl(bool simulationMode);

    // Splits the way from half the base clock down to the rate into half-band stages and the resampling ratio, which
    // is (1 + ratio / 2^38). True when the ratio is exact, which holds for every rate that divides the clock.
    // Meant for rates up to a quarter of the clock; 0 and what would need a ratio below 1 give false.
    static bool calculateRatioValue(int baseClock, uint32_t rate, uint32_t& halfBands, uint64_t& ratio);

    // Delay of the filtered stream in milliseconds; 0 for a rate below 1.
    static double calculateDspDelay(int baseClock, int rate);

    // Highest rate of the filtered stream at a base clock.
    static constexpr int maxFilteredRate(int64_t baseClock) { return baseClock == 15000000 ? 1875000 : 2000000; }

private:
    const std::unique_ptr<Shared::Kestrix::DspCoreRegister> dspCore_;
    const std::unique_ptr<Shared::Kestrix::ChannelFilterRegister> channelFilter_;
    const int channel_;
    uint32_t rawRate_ = 0;
    uint32_t filteredRate_ = 0;
};

}  // namespace Harvane::RT::Modules::Daq
