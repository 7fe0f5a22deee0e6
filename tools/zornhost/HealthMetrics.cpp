#include "tools/zornhost/HealthMetrics.h"

#include <fmt/format.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>

#include <algorithm>
#include <cctype>
#include <exception>
#include <initializer_list>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace zornhost {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::initializer_list<std::pair<const char*, std::string>>;

MetricFamily family(const char* name, const char* help, MetricType type = MetricType::Gauge) {
    MetricFamily result;
    result.name = name;
    result.help = help;
    result.type = type;
    return result;
}

void add(MetricFamily& family, const Labels& labels, double value) {
    ClientMetric metric;
    for (const auto& [name, text] : labels) {
        metric.label.push_back({name, text});
    }
    (family.type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
    family.metric.push_back(std::move(metric));
}

class Families {
public:
    void take(MetricFamily&& family) {
        if (!family.metric.empty()) {
            families_.push_back(std::move(family));
        }
    }
    void single(const char* name, const char* help, double value, MetricType type = MetricType::Gauge) {
        auto one = family(name, help, type);
        add(one, {}, value);
        take(std::move(one));
    }
    std::vector<MetricFamily> all() && { return std::move(families_); }

private:
    std::vector<MetricFamily> families_;
};

void addSensors(const HealthFigures& figures, Families& families) {
    auto temperatures = family("kestrix_temperature_celsius", "Temperature of a sensor at its last read that worked.");
    auto working = family("kestrix_sensor_up", "Whether the last read of a sensor worked.");
    auto failures = family("kestrix_sensor_failures_total", "Reads of a sensor that failed.", MetricType::Counter);
    for (const auto& sensor : figures.sensors) {
        const Labels labels{{"group", sensor.group}, {"sensor", sensor.name}, {"place", sensor.place}};
        if (sensor.ok && sensor.ageSeconds >= 0.0) {
            add(temperatures, labels, sensor.celsius);
        }
        add(working, labels, sensor.ok ? 1.0 : 0.0);
        add(failures, labels, static_cast<double>(sensor.failures));
    }
    families.take(std::move(temperatures));
    families.take(std::move(working));
    families.take(std::move(failures));
    auto lines = family("kestrix_input", "A digital input of the instrument.");
    for (const auto& line : figures.lines) {
        if (line.reason.empty()) {
            add(lines, {{"input", line.name}}, line.value ? 1.0 : 0.0);
        }
    }
    families.take(std::move(lines));
}

void addClock(const ClockReport& clock, Families& families) {
    auto lock = family("kestrix_clock_lock", "How the sampling clock stands: 1 for the state that it is in.");
    for (const Lock each : {Lock::FreeRunning, Lock::NotLocked, Lock::Locked, Lock::Holding}) {
        add(lock, {{"mode", clock.mode}, {"state", lockText(each)}}, clock.lock == each ? 1.0 : 0.0);
    }
    families.take(std::move(lock));
    if (!clock.followsNothing() && clock.last.steered) {
        families.single("kestrix_clock_phase_error_seconds",
                        "Phase of the instrument's pulse against the reference's at the last pulse.",
                        clock.last.phaseErrorNs * 1e-9);
    }
    families.single("kestrix_clock_control_word", "Control word of the oscillator, 0 to 1023.", clock.last.controlWord);
}

void addChannels(const HealthFigures& figures, Families& families) {
    auto amplifiers = family("kestrix_amplifier_up", "Whether an amplifier answers and has taken its settings.");
    for (const auto& amplifier : figures.amplifiers) {
        if (amplifier.fitted || !amplifier.failure.empty()) {
            add(amplifiers, {{"module", amplifier.module}}, amplifier.failure.empty() ? 1.0 : 0.0);
        }
    }
    families.take(std::move(amplifiers));
    auto frames = family("kestrix_can_count_total", "What a CAN port has lost, not sent or been told of, by cause.",
                         MetricType::Counter);
    for (const auto& count : figures.portCounts) {
        add(frames, {{"port", count.port}, {"cause", count.text}}, static_cast<double>(count.value));
    }
    families.take(std::move(frames));
    families.single("kestrix_channels", "Analog channels in use.", static_cast<double>(figures.streams));
    families.single("kestrix_channels_silent", "Of them, without a sample for more than a second.",
                    static_cast<double>(figures.streamsSilent));
    if (figures.mostDescriptors >= 0) {
        families.single("kestrix_descriptors_found_max",
                        "Most blocks of a stream that one cycle has found waiting; the driver holds 16.",
                        static_cast<double>(figures.mostDescriptors));
    }
    if (figures.samplesLost >= 0) {
        families.single("kestrix_lost_samples_total", "Samples that the recording has found missing.",
                        static_cast<double>(figures.samplesLost), MetricType::Counter);
    }
    int64_t errors = 0;
    for (const auto& error : figures.errors) {
        errors += error.count;
    }
    families.single("kestrix_errors_total", "Errors in the log.", static_cast<double>(errors), MetricType::Counter);
}

bool isPort(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

}  // namespace

class HealthEndpoint::Collector : public prometheus::Collectable {
public:
    Collector(std::function<HealthFigures()> source, HealthLimits limits)
        : source_(std::move(source)), limits_(limits) {}

    std::vector<MetricFamily> Collect() const override {
        const std::lock_guard lock(mutex_);
        Families families;
        try {
            const HealthFigures figures = source_();
            addSensors(figures, families);
            if (figures.clock) {
                addClock(*figures.clock, families);
            }
            addChannels(figures, families);
            auto states = family("kestrix_health", "A line of `zornhost status`: 0 OK, 1 WARN, 2 FAIL.");
            for (const auto& verdict : judge(figures, limits_)) {
                add(states, {{"line", verdict.topic->key}}, static_cast<double>(verdict.health));
            }
            families.take(std::move(states));
            families.single("kestrix_up", "Whether the instrument's figures can be had.", 1.0);
        } catch (const std::exception&) {
            families = {};
            families.single("kestrix_up", "Whether the instrument's figures can be had.", 0.0);
        }
        return std::move(families).all();
    }

private:
    const std::function<HealthFigures()> source_;
    const HealthLimits limits_;
    mutable std::mutex mutex_;  // one look at a time
};

class HealthEndpoint::Server : public prometheus::Exposer {
public:
    using prometheus::Exposer::Exposer;
};

HealthEndpoint::HealthEndpoint(const std::string& address, std::function<HealthFigures()> source, HealthLimits limits)
    : address_(isPort(address) ? "127.0.0.1:" + address : address),
      collector_(std::make_shared<Collector>(std::move(source), limits)) {
    const size_t colon = address_.rfind(':');
    if (colon == 0 || colon == std::string::npos || !isPort(address_.substr(colon + 1))) {
        throw std::runtime_error(
            fmt::format("\"{}\" is no address to listen at; write 127.0.0.1:9100, or 9100", address));
    }
    try {
        server_ = std::make_unique<Server>(address_, 1);
    } catch (const std::exception& failure) {
        throw std::runtime_error(fmt::format("nothing can be served at {}: {}", address_, failure.what()));
    }
    server_->RegisterCollectable(collector_);
    if (const auto ports = server_->GetListeningPorts(); ports.size() == 1) {
        address_ = fmt::format("{}:{}", address_.substr(0, colon), ports.front());
    }
}

HealthEndpoint::~HealthEndpoint() = default;

}  // namespace zornhost
