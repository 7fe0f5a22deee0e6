#include "modules/daq/bridge/CntProperties.h"

#include <algorithm>
#include <array>
#include <limits>

#include "modules/daq/objectmodel/CntChannel.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

constexpr const char* clockProp = "CntBaseClock";

// Choices by number, visible to the user.
struct Choice {
    const char* name;
    int CntChannel::*field;
    std::array<const char*, 7> texts;
};

constexpr std::array choices{
    Choice{"BaseMode", &CntChannel::baseMode, {"AngleSensor", "EvCounting", "Timing"}},
    Choice{"CountingMode", &CntChannel::countingMode, {"Simple", "Gated", "UpDown", "EncoderCount"}},
    Choice{"TimingMode", &CntChannel::timingMode, {"Period", "PulseWidth", "DutyCycle", "EdgeSep", "Frequency"}},
    Choice{"FilterDelay", &CntChannel::filterDelay, {"Off", "_500ns", "_1us", "_2us", "_4us", "_5us", "_7_5us"}},
    Choice{"EncoderMode", &CntChannel::encoderMode, {"X1", "X2", "X4"}},
};

// Wiring of the counter's inputs, which a host's own views set.
struct Number {
    const char* name;
    int CntChannel::*field;
    int defaultValue;
    bool visible = false;
};

constexpr std::array numbers{
    Number{"Source", &CntChannel::source, 0},
    Number{"Gate", &CntChannel::gate, 1},
    Number{"SourceInvert", &CntChannel::sourceInvert, 0},
    Number{"GateInvert", &CntChannel::gateInvert, 0},
    Number{"AuxInvert", &CntChannel::auxInvert, 0},
    Number{"ZEnabled", &CntChannel::zEnabled, 0, true},
};

struct Flag {
    const char* name;
    bool CntChannel::*field;
    bool defaultValue;
};

constexpr std::array flags{
    Flag{"ResetOnStartMeasure", &CntChannel::resetOnStartMeasure, true},
    Flag{"AdvancedCountingMode", &CntChannel::advancedCountingMode, false},
};

int intOf(const NodePtr<>& folder, const char* name) {
    return static_cast<int>(std::clamp<int64_t>(folder.getPropertyValue<int64_t>(name), std::numeric_limits<int>::min(),
                                                std::numeric_limits<int>::max()));
}

// The value that a property would show if it were read-only; as it is not, this documents where the channel starts.
template <class T>
PropertyInfoPtr hiddenInfo(const char* name, CoreType type, T defaultValue, T startValue) {
    const auto info = PropertyInfoPtr::create(name, type).readOnly(startValue);
    checkErrorInfo(info->setReadOnly(toValue(false).get()));
    return info.hidden().defaultValue(defaultValue);
}

}  // namespace

void CntProperties::registerOn(const NodePtr<>& folder, const CntChannel& channel) {
    if (folder.hasProperty(clockProp)) {
        return;
    }
    folder.registerProperty(PropertyInfoPtr::create(clockProp, CoreType::Int).readOnly(channel.cntBaseClock).hidden());
    for (const auto& choice : choices) {
        const ListPtr texts = ListPtr::create();
        for (const char* text : choice.texts) {
            if (text != nullptr) {
                texts.pushBack(toValue(text));
            }
        }
        folder.registerProperty(PropertyInfoPtr::create(choice.name, CoreType::Enum).values(texts).defaultValue(0));
    }
    for (const auto& number : numbers) {
        const auto info = hiddenInfo(number.name, CoreType::Int, number.defaultValue, channel.*number.field);
        if (number.visible) {
            info.visible(true).selection(false);
        }
        folder.registerProperty(info);
    }
    for (const auto& flag : flags) {
        folder.registerProperty(
            hiddenInfo(flag.name, CoreType::Bool, flag.defaultValue, channel.*flag.field).visible(true));
    }
}

void CntProperties::readBack(const NodePtr<>& folder, CntChannel& channel) {
    for (const auto& choice : choices) {
        channel.*choice.field = intOf(folder, choice.name);
    }
    for (const auto& number : numbers) {
        channel.*number.field = intOf(folder, number.name);
    }
    for (const auto& flag : flags) {
        channel.*flag.field = folder.getPropertyValue<bool>(flag.name);
    }
}

}  // namespace Harvane::RT::Modules::Daq
