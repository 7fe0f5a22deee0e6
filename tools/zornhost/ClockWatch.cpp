#include "tools/zornhost/ClockWatch.h"

#include <fmt/format.h>

#include <chrono>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "tools/zornhost/NamedValues.h"
#include "tools/zornhost/Output.h"
#include "tools/zornhost/SyncOptions.h"

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

using Json = nlohmann::ordered_json;

constexpr auto lookInterval = std::chrono::milliseconds(100);
constexpr size_t rowsKept = 86400;
constexpr const char* clockStateName = "ClockState";
constexpr double ticksPerSecond = 1e9;

ClockWatch::Looker lookerOf(Session& session) {
    const auto module = session.tree().dataModule();
    if (!module.hasProperty(clockStateName)) {
        throw std::runtime_error("this module says nothing of its clock");
    }
    const auto function = module.getPropertyValue<BasePtr>(clockStateName).asPtr<IFuncObject>();
    const auto clock = session.host().clockProvider();
    const auto absTime = session.host().absTimeProvider();
    return [function, clock, absTime] {
        const NamedValues state(executeFunc(function, {}), "the module's clock");
        if (state.empty()) {
            throw std::runtime_error("the module has no clock that it could tell of");
        }
        ClockWatch::Look look;
        look.pulses = static_cast<uint64_t>(state.get<int64_t>("Pulses"));
        look.tracking = state.get<bool>("Tracking");
        look.error = state.get<bool>("Error");
        look.row.pulse = look.pulses;
        look.row.timeUs = state.get<int64_t>("PulseTime");
        look.row.steered = state.get<bool>("Steered");
        look.row.phaseErrorNs = state.get<double>("PhaseErrorNs");
        look.row.frequencyErrorPpb = state.get<double>("FrequencyErrorPpb");
        look.row.controlWord = state.get<int>("ControlWord");
        look.row.equilibrium = state.get<double>("Equilibrium");
        look.ptpPort = state.get<std::string>("PtpPort");
        look.ptpClock = state.get<std::string>("PtpClock");
        look.ptpGrandmaster = state.get<std::string>("PtpGrandmaster");
        long value = -1;
        if (absTime && absTime->getCurrentAbsTime(&value) == Errors::Success) {
            look.absTimeUs = value;
        }
        value = -1;
        if (clock && clock->getCurrentClock(&value) == Errors::Success) {
            look.acquisitionTimeS = value > 0 ? static_cast<double>(value) / ticksPerSecond : -1.0;
        }
        return look;
    };
}

}  // namespace

ClockWatch::ClockWatch(Session& session)
    : ClockWatch(appliedOption(session).name(), appliedOption(session).isStandalone(), lookerOf(session)) {
    look();
    thread_ = std::thread([this] { run(); });
}

ClockWatch::ClockWatch(std::string mode, bool followsNothing, Looker looker)
    : mode_(std::move(mode)), followsNothing_(followsNothing), looker_(std::move(looker)) {
    report_.mode = mode_;
    report_.lock = followsNothing_ ? Lock::FreeRunning : Lock::NotLocked;
}

ClockWatch::~ClockWatch() {
    stop_.store(true);
    if (thread_.joinable()) {
        thread_.join();
    }
}

void ClockWatch::run() {
    while (!stop_.load()) {
        std::this_thread::sleep_for(lookInterval);
        look();
    }
}

// A clock that can't be asked is not locked.
void ClockWatch::look() {
    try {
        take(looker_());
    } catch (const std::exception& failure) {
        Look unknown;
        {
            const std::lock_guard guard(mutex_);
            unknown.pulses = report_.last.pulse;
            unknown.row = report_.last;
            unknown.error = true;
            unknown.absTimeUs = report_.absTimeUs;
        }
        take(unknown);
        const std::lock_guard guard(mutex_);
        report_.failure = oneLine(failure.what());
    }
}

Lock ClockWatch::lockOf(const Look& look) const {
    if (followsNothing_) {
        return Lock::FreeRunning;
    }
    if (look.error || (!look.tracking && !everLocked_)) {
        return Lock::NotLocked;
    }
    return look.tracking ? Lock::Locked : Lock::Holding;
}

void ClockWatch::take(const Look& look) {
    const std::lock_guard guard(mutex_);
    const Lock lock = lockOf(look);
    // Who has lost the phase holds nothing.
    everLocked_ = lock == Lock::Locked || lock == Lock::Holding;
    ClockRow row = look.row;
    row.lock = lock;
    if (look.pulses > report_.last.pulse) {
        if (report_.last.pulse > 0) {
            report_.missedPulses += look.pulses - report_.last.pulse - 1;
        }
        rows_.push_back(row);
        if (rows_.size() > rowsKept) {
            rows_.pop_front();
        }
        if (lock == Lock::Locked && row.steered) {
            lastSteeredUs_ = row.timeUs;
            lockedFigures_ = figuresOf(rows_);
        }
        report_.figures = figuresOf(rows_);
    }
    const bool first = changes_.empty() && firstChange_ == 0;
    if (first || lock != report_.lock) {
        const int64_t now = look.absTimeUs > 0 ? look.absTimeUs : row.timeUs;
        changes_.push_back({now, lock, look.tracking, look.error,
                            row.steered ? row.phaseErrorNs : std::numeric_limits<double>::quiet_NaN()});
        if (changes_.size() > rowsKept) {
            changes_.pop_front();
            ++firstChange_;
        }
        report_.lockSinceUs = now;
    }
    report_.lock = lock;
    report_.tracking = look.tracking;
    report_.error = look.error;
    report_.last = row;
    report_.absTimeUs = look.absTimeUs;
    report_.acquisitionTimeS = look.acquisitionTimeS;
    report_.ptpPort = look.ptpPort;
    report_.ptpClock = look.ptpClock;
    report_.ptpGrandmaster = look.ptpGrandmaster;
    report_.failure.clear();
    report_.errorBoundNs.reset();
    if ((lock == Lock::Locked || lock == Lock::Holding) && lastSteeredUs_ > 0) {
        report_.errorBoundNs = errorBoundNs(lockedFigures_, look.absTimeUs - lastSteeredUs_);
    }
}

ClockReport ClockWatch::report() const {
    const std::lock_guard guard(mutex_);
    return report_;
}

std::vector<ClockRow> ClockWatch::rows(uint64_t behindPulse) const {
    const std::lock_guard guard(mutex_);
    auto from = rows_.end();
    while (from != rows_.begin() && std::prev(from)->pulse > behindPulse) {
        --from;
    }
    return {from, rows_.end()};
}

std::vector<ClockChange> ClockWatch::changes(size_t& from) const {
    const std::lock_guard guard(mutex_);
    const size_t skipped = std::min(from > firstChange_ ? from - firstChange_ : 0, changes_.size());
    from = firstChange_ + changes_.size();
    return {changes_.begin() + static_cast<std::ptrdiff_t>(skipped), changes_.end()};
}

std::string ClockWatch::answer(const std::string& request) const {
    constexpr std::string_view history = "history ";
    Json json{{"clock", toJson(report())}};
    if (request.starts_with(history)) {
        Json list = Json::array();
        for (const auto& row : rows(std::strtoull(request.c_str() + history.size(), nullptr, 10))) {
            list.push_back(toJson(row));
        }
        json["rows"] = std::move(list);
    }
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace zornhost
