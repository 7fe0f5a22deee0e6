#include "modules/daq/objectmodel/StatusChannel.h"

#include <algorithm>
#include <iterator>

namespace Harvane::RT::Modules::Daq {

namespace {

enum class Sample { Bool, Word, Float, Double };

struct Kind {
    StatusChannelType type;
    const char* name;
    Sample sample;
    double minimum;
    double maximum;
};

using Type = StatusChannelType;

// Degrees Celsius, seconds; the phase error in microseconds, of either sign whatever its range says.
constexpr Kind kinds[] = {
    {Type::DeviceTime, "Device relative time", Sample::Double, 0, 2592000},
    {Type::TimeLock, "Time lock", Sample::Bool, 0, 1},
    {Type::PowerLost, "Power lost", Sample::Bool, 0, 1},
    {Type::CpuTemperature, "CPU temperature", Sample::Float, -100, 100},
    {Type::BoardTemperature, "Motherboard temperature", Sample::Float, -100, 100},
    {Type::PhaseError, "Phase error", Sample::Float, 0, 75000000},
    {Type::VcxoValue, "VCXO value", Sample::Word, 0, 1024},
    {Type::CableDetect1, "Cable detect 1", Sample::Bool, 0, 1},
    {Type::CableDetect2, "Cable detect 2", Sample::Bool, 0, 1},
    {Type::CableTemperature, "Cable temperature", Sample::Float, -200, 200},
};

}  // namespace

StatusChannel::StatusChannel(int number, StatusChannelType type) : Channel(number), statusChannelType(type) {
    used = true;
    asyncRate = 100;
    const auto* const kind =
        std::find_if(std::begin(kinds), std::end(kinds), [type](const Kind& each) { return each.type == type; });
    if (kind == std::end(kinds)) {
        return;
    }
    name = kind->name;
    minValue = kind->minimum;
    maxValue = kind->maximum;
    switch (kind->sample) {
        case Sample::Bool:
            createChannelBuffer<bool>();
            break;
        case Sample::Word:
            createChannelBuffer<unsigned short>();
            break;
        case Sample::Float:
            createChannelBuffer<float>();
            break;
        case Sample::Double:
            createChannelBuffer<double>();
            break;
    }
}

}  // namespace Harvane::RT::Modules::Daq
