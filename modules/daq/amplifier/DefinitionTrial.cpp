#include "modules/daq/amplifier/DefinitionTrial.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "modules/daq/amplifier/DaqAmplifier.h"
#include "modules/daq/amplifier/DaqAmplifierConsts.h"
#include "modules/daq/objectmodel/Amplifier.h"
#include "modules/daq/objectmodel/DaqAmplifierMeasurementsConsts.h"
#include "modules/daq/objectmodel/RangeText.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;
using Consts = DaqAmplifierConsts;

namespace {

constexpr Ratio usualRate{1000, 1};
constexpr std::int64_t mostMeasurements = 256;  // the amplifier gets the number as a byte

std::string propertyIn(const std::string& text) {
    constexpr std::string_view mark = "property \"";
    const size_t at = text.find(mark);
    if (at == std::string::npos) {
        return {};
    }
    const size_t begin = at + mark.size();
    return text.substr(begin, text.find('"', begin) - begin);
}

ListPtr measurementsOf(const ChannelPtr<IChannel>& channel) {
    return channel.hasProperty(Consts::Measurement) ? channel.getPropertyInfo(Consts::Measurement).getValuesAsList()
                                                    : ListPtr::create();
}

// One channel with its amplifier.
class Bench {
public:
    Bench(const std::string& className, const DefinitionTrial::MakeChannel& makeChannel)
        : channel(makeChannel()),
          amplifier_(std::make_shared<Amplifier>()),
          daqAmplifier_(channel, amplifier_, AcquisitionSyncPtr()),
          className_(className) {}

    void show() { daqAmplifier_.init(className_); }
    // As a user does it, and as the next start does it again.
    void choose(std::int64_t measurement) {
        channel.setPropertyValue(Consts::Measurement, measurement);
        daqAmplifier_.update(true);
        daqAmplifier_.update(false);
    }
    // Balancing reads the ranges.
    void readRanges() const {
        if (!daqAmplifier_.hasBridgeBalanceProperties() ||
            amplifier_->getMeasureType() != DaqAmplifierMeasurementsConsts::Bridge) {
            return;
        }
        const ListPtr ranges = channel.getPropertyInfo(Consts::Range).getValuesAsList();
        for (size_t i = 0, count = ranges.getCount(); i < count; ++i) {
            const GenericPropertyObjectPtr range = ranges.getItemAt(i).asPtr<IPropertyObject>();
            try {
                rangeFromText(range.getPropertyValue<std::string>("DisplayName"));
            } catch (const std::logic_error& failure) {
                throw InvalidValueException("property \"Range\": %s", failure.what());
            }
        }
    }

    const ChannelPtr<IChannel> channel;

private:
    const std::shared_ptr<Amplifier> amplifier_;
    DaqAmplifier daqAmplifier_;
    const std::string& className_;
};

// "" when the step goes well.
template <class Step>
std::string failureOf(Step&& step) {
    try {
        step();
        return {};
    } catch (const std::exception& failure) {
        zornClearErrorInfo();
        const std::string text = failure.what();
        return text.empty() ? "unknown failure" : text;
    }
}

}  // namespace

std::vector<DefinitionTrial::Failure> DefinitionTrial::run(const std::string& className, const MakeChannel& makeChannel,
                                                           const Look& look) {
    std::vector<Failure> failures;
    const auto note = [&](std::int64_t measurement, const std::string& name, const std::string& text) {
        if (!text.empty()) {
            failures.push_back({measurement, name, propertyIn(text), text});
        }
    };
    ListPtr names = ListPtr::create();
    {
        Bench first(className, makeChannel);
        note(-1, "", failureOf([&] { first.show(); }));
        if (!failures.empty()) {
            if (look) {
                look(first.channel, -1);
            }
            return failures;
        }
        note(0, "", failureOf([&] { names = measurementsOf(first.channel); }));
        if (names.getCount() == 0) {
            note(0, "", failureOf([&] { first.readRanges(); }));
            if (look) {
                look(first.channel, 0);
            }
            return failures;
        }
    }
    const auto count = std::min(static_cast<std::int64_t>(names.getCount()), mostMeasurements);
    for (std::int64_t i = 0; i < count; ++i) {
        Bench bench(className, makeChannel);
        std::string name;
        std::string text = failureOf([&] {
            name = fromValue<std::string>(names.getItemAt(static_cast<size_t>(i)));
            bench.show();
            bench.choose(i);
            bench.readRanges();
        });
        note(i, name, text);
        if (look) {
            look(bench.channel, i);
        }
    }
    return failures;
}

ChannelPtr<IChannel> DefinitionTrial::plainChannel() {
    IChannel* made = nullptr;
    checkErrorInfo(createSyncChannel(&made, StringPtr("0").get(), static_cast<int>(SampleDataType::Int16),
                                     std::numeric_limits<double>::quiet_NaN()));
    ChannelPtr<IChannel> channel = ObjectPtr<IChannel>::take(made);
    channel.setName("Channel");
    channel.setUsed(true);
    channel.setSampleRate(usualRate);
    // What the bridge gives every channel of an analog input.
    channel.registerProperty(PropertyInfoPtr::create("MinSampleRate", CoreType::Ratio).readOnly(usualRate));
    channel.registerProperty(PropertyInfoPtr::create("MaxSampleRate", CoreType::Ratio).defaultValue(usualRate));
    channel.registerProperty(PropertyInfoPtr::create("CheckRate", CoreType::Func));
    channel.registerProperty(PropertyInfoPtr::create("Enabled", CoreType::Bool).readOnly(true));
    channel.registerProperty(PropertyInfoPtr::create("PhaseDelay", CoreType::Int).defaultValue(0));
    channel.registerProperty(
        PropertyInfoPtr::create("ExactSampleRate", CoreType::Ratio).defaultValue(usualRate).hidden());
    return channel;
}

}  // namespace Harvane::RT::Modules::Daq
