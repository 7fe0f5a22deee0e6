#include "tools/zornhost/Rates.h"

#include <algorithm>
#include <functional>
#include <set>
#include <stdexcept>

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

using Answer = std::function<int64_t(int64_t)>;  // what a request becomes

int64_t rateOf(const GenericPropertyObjectPtr& node, const char* name) {
    return fromValue<Ratio>(node.getPropertyValue<BasePtr>(name)).numerator;
}

int64_t call(const GenericPropertyObjectPtr& node, const char* name, const BasePtr& arguments) {
    const auto function = node.getPropertyValue<BasePtr>(name).asPtr<IFuncObject>();
    return fromValue<Ratio>(executeFunc(function, arguments)).numerator;
}

BasePtr pairOf(int64_t base, int64_t request) {
    return asBase(ListPtr::create({toValue(Ratio{base, 1}), toValue(Ratio{request, 1})}));
}

// The largest entry at or below the request, the smallest one for requests below all.
Answer nearestOf(const std::vector<int64_t>& rates) {
    return [rates](int64_t request) {
        if (rates.empty()) {
            return int64_t{0};
        }
        const auto above = std::upper_bound(rates.begin(), rates.end(), request);
        return above == rates.begin() ? rates.front() : *(above - 1);
    };
}

// The entries next to the request, as far as the level runs at them.
std::vector<int64_t> around(const std::vector<int64_t>& rates, int64_t request, size_t count, int64_t lowest,
                            const Answer& answer) {
    const auto runs = [&](int64_t rate) { return answer(std::max(rate, lowest)) == rate; };
    const auto middle = std::upper_bound(rates.begin(), rates.end(), request);
    std::vector<int64_t> chosen;
    for (auto rate = middle; rate != rates.begin() && chosen.size() < count;) {
        if (runs(*--rate)) {
            chosen.push_back(*rate);
        }
    }
    std::reverse(chosen.begin(), chosen.end());
    const size_t below = chosen.size();
    for (auto rate = middle; rate != rates.end() && chosen.size() < below + count; ++rate) {
        if (runs(*rate)) {
            chosen.push_back(*rate);
        }
    }
    return chosen;
}

// A device with a selectable clock, and one channel of each stream below it.
struct Instrument {
    GenericPropertyObjectPtr folder;
    std::string path;
    std::optional<ChannelEntry> raw;
    std::optional<ChannelEntry> filtered;
};

Instrument findInstrument(const HostTree& tree) {
    for (const auto& entry : tree.channels()) {
        // The nearest folder above the channel that has a clock.
        for (size_t slash = entry.path.rfind('/'); slash != std::string::npos && slash > 0;
             slash = entry.path.rfind('/', slash - 1)) {
            const auto node = tree.node(entry.path.substr(0, slash));
            if (!node.node.hasProperty("BaseClock")) {
                continue;
            }
            Instrument instrument{node.node, node.path, {}, {}};
            for (const auto& other : tree.channels()) {
                if (other.path.compare(0, node.path.size() + 1, node.path + "/") != 0 ||
                    !other.channel.hasProperty("CheckRate") || other.channel.getType() != 0) {
                    continue;
                }
                // Raw samples have 16 bits, filtered ones 32.
                const auto type = other.channel.getSampleDataType();
                if (type == SampleDataType::Int16 && !instrument.raw) {
                    instrument.raw = other;
                }
                if (type == SampleDataType::Int32 && !instrument.filtered) {
                    instrument.filtered = other;
                }
            }
            return instrument;
        }
    }
    throw std::runtime_error("no device has a selectable base clock");
}

class Reporter {
public:
    Reporter(const HostTree& tree, std::optional<int64_t> request, size_t count)
        : module_(tree.dataModule().asPtr<IPropertyObject>()),
          rootName_(tree.dataModule().getRootFolder().getName().toStdString()),
          instrument_(findInstrument(tree)),
          count_(count) {
        report_.request = request.value_or(rateOf(module_, "SampleRate"));
        if (instrument_.folder.getPropertyValue<int>("BaseClock") >= 0) {
            report_.clockInForce = fromValue<int64_t>(instrument_.folder.getPropertyEnum("BaseClock"));
        }
    }

    RateReport build() {
        const ListPtr clocks = instrument_.folder.getPropertyInfo("BaseClock").getValuesAsList();
        for (size_t i = 0, n = clocks.getCount(); i < n; ++i) {
            addClock(fromValue<int64_t>(clocks.getItemAt(i)));
        }
        return report_;
    }

private:
    void addClock(int64_t clock) {
        clock_ = clock;
        current_ = clock == report_.clockInForce;
        lowest_ = rateOf(instrument_.folder, "MinSampleRate");
        std::vector<int64_t> systemRates;
        for (const int64_t rate : divisorsOf(clock)) {
            if (rate >= lowest_) {
                systemRates.push_back(rate);
            }
        }
        Answer system = nearestOf(systemRates);
        if (current_) {
            system = [this](int64_t rate) { return call(module_, "CheckSampleRate", toValue(Ratio{rate, 1})); };
        }
        // At another clock the rates in force may be impossible and would move.
        const int64_t systemRate = current_ ? rateOf(module_, "SampleRate") : system(rateOf(module_, "SampleRate"));
        addLevel("system", rootName_, clock, systemRates, system, systemRate);

        std::vector<int64_t> deviceRates;
        for (const int64_t rate : divisorsOf(systemRate)) {
            if (rate >= lowest_ && clock % rate == 0) {
                deviceRates.push_back(rate);
            }
        }
        // No device is faster than the system.
        Answer device = nearestOf(deviceRates);
        if (current_) {
            device = [this, systemRate](int64_t rate) {
                return call(instrument_.folder, "CheckRate", pairOf(systemRate, std::min(rate, systemRate)));
            };
        }
        const int64_t inForce = rateOf(instrument_.folder, "SampleRate");
        const int64_t deviceRate = current_ || device(inForce) == inForce ? inForce : systemRate;
        addLevel("device", instrument_.path, systemRate, deviceRates, device, deviceRate);
        addChannels(deviceRate);
    }

    // A level above the channels: the raw stream divides the clock, the filtered stream needs a chain.
    void addLevel(const char* level, const std::string& name, int64_t of, const std::vector<int64_t>& candidates,
                  const Answer& answer, int64_t inForce) {
        RateLevel result{level, name, clock_, current_, of, {}};
        const int64_t becomes = answer(std::max(report_.request, lowest_));
        for (const int64_t rate : around(candidates, report_.request, count_, lowest_, answer)) {
            LegalRate row;
            row.rate = rate;
            row.rawDivider = clock_ / rate;
            row.filtered = filterChain(clock_, rate);
            row.rawInForce = row.filteredInForce = rate == inForce;
            row.rawAnswer = row.filteredAnswer = rate == becomes;
            result.rates.push_back(row);
        }
        report_.levels.push_back(std::move(result));
    }

    // How the channels of one stream divide the device's rate.
    struct Stream {
        ChannelPtr<> channel;
        int64_t lowest;  // what a request below it counts as
        Answer answer;
        std::vector<int64_t> nearby;  // rates around the request
        std::function<bool(int64_t)> runs;
    };

    void addChannels(int64_t deviceRate) {
        std::optional<Stream> raw;
        std::optional<Stream> filtered;
        std::string name;
        std::set<int64_t> rates;
        if (instrument_.raw) {
            name = instrument_.raw->label;
            raw = rawStream(instrument_.raw->channel, deviceRate);
            rates.insert(raw->nearby.begin(), raw->nearby.end());
        }
        if (instrument_.filtered) {
            name += (name.empty() ? "" : ", ") + instrument_.filtered->label;
            filtered = filteredStream(instrument_.filtered->channel, deviceRate);
            rates.insert(filtered->nearby.begin(), filtered->nearby.end());
        }
        RateLevel result{"channel", name, clock_, current_, deviceRate, {}};
        for (const int64_t rate : rates) {
            LegalRate row;
            row.rate = rate;
            if (raw && raw->runs(rate)) {
                row.rawDivider = clock_ / deviceRate * (deviceRate / rate);
                row.rawInForce = current_ && rate == raw->channel.getSampleRate().numerator;
                row.rawAnswer = rate == raw->answer(report_.request);
            }
            if (filtered && filtered->runs(rate)) {
                row.filtered = filterChain(clock_, rate);
                row.filteredInForce = current_ && rate == filtered->channel.getSampleRate().numerator;
                row.filteredAnswer = rate == filtered->answer(report_.request);
            }
            result.rates.push_back(row);
        }
        report_.levels.push_back(std::move(result));
    }

    Answer channelAnswer(const ChannelPtr<>& channel, int64_t deviceRate) const {
        return [channel, deviceRate](int64_t rate) {
            return call(channel.asPtr<IPropertyObject>(), "CheckRate", pairOf(deviceRate, rate));
        };
    }

    // Any whole divider, also one that leaves a rest: the host then shows the truncated rate, which stands for the
    // divider that it comes from.
    Stream rawStream(const ChannelPtr<>& channel, int64_t deviceRate) const {
        Stream stream{channel, channelLowest(channel), channelAnswer(channel, deviceRate), {}, {}};
        const auto dividerFor = [deviceRate, lowest = stream.lowest, highest = clock_](int64_t request) {
            const int64_t rate = std::max(std::min(request, highest), lowest);
            const int64_t shown = std::max<int64_t>(deviceRate / rate, 1);
            return deviceRate / shown == rate ? shown : (deviceRate + rate - 1) / rate;
        };
        if (!current_) {
            stream.answer = [deviceRate, dividerFor](int64_t request) { return deviceRate / dividerFor(request); };
        }
        stream.runs = [deviceRate, lowest = stream.lowest, answer = stream.answer](int64_t rate) {
            if (rate < 1 || rate > deviceRate) {
                return false;
            }
            return deviceRate / (deviceRate / rate) == rate && answer(std::max(rate, lowest)) == rate;
        };
        const int64_t first = dividerFor(report_.request);
        size_t found = 0;
        for (int64_t divider = first; found < count_ && stream.runs(deviceRate / divider); ++divider, ++found) {
            stream.nearby.push_back(deviceRate / divider);
        }
        found = 0;
        for (int64_t divider = first - 1; found < count_ && divider >= 1 && stream.runs(deviceRate / divider);
             --divider, ++found) {
            stream.nearby.push_back(deviceRate / divider);
        }
        return stream;
    }

    // Only whole fractions of the device's rate that have a chain.
    Stream filteredStream(const ChannelPtr<>& channel, int64_t deviceRate) const {
        Stream stream{channel, channelLowest(channel), channelAnswer(channel, deviceRate), {}, {}};
        std::vector<int64_t> rates;
        for (const int64_t rate : divisorsOf(deviceRate)) {
            if (filterChain(clock_, rate)) {
                rates.push_back(rate);
            }
        }
        if (!current_) {
            stream.answer = [nearest = nearestOf(rates), lowest = stream.lowest](int64_t rate) {
                return nearest(std::max(rate, lowest));
            };
        }
        stream.runs = [rates, lowest = stream.lowest, answer = stream.answer](int64_t rate) {
            return std::binary_search(rates.begin(), rates.end(), rate) && answer(std::max(rate, lowest)) == rate;
        };
        stream.nearby = around(rates, report_.request, count_, stream.lowest, stream.answer);
        return stream;
    }

    static int64_t channelLowest(const ChannelPtr<>& channel) {
        return std::max<int64_t>(rateOf(channel.asPtr<IPropertyObject>(), "MinSampleRate"), 1);
    }

    GenericPropertyObjectPtr module_;
    std::string rootName_;
    Instrument instrument_;
    size_t count_;
    RateReport report_;
    // Of the clock that is being reported.
    int64_t clock_ = 0;
    bool current_ = false;
    int64_t lowest_ = 1;
};

}  // namespace

RateReport legalRates(const HostTree& tree, std::optional<int64_t> request, size_t count) {
    return Reporter(tree, request, count).build();
}

}  // namespace zornhost
