#include "simulator/model/AmplifierLink.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <utility>

#include "simulator/model/Hash.h"

namespace kestrixsim {

namespace {

constexpr double bootSeconds = 0.150;
constexpr uint8_t frameKey = 0xA5;
constexpr uint8_t frameEnd = 0x5A;

// Commands that ask for the scale and the offset.
bool isScaling(uint8_t command) {
    return command == 0xFA || command == 0xFB;
}

std::string describe(int slot, const std::vector<uint8_t>& frame) {
    std::string text = std::to_string(slot) + ":";
    for (const uint8_t byte : frame) {
        char digits[4];
        std::snprintf(digits, sizeof digits, " %02X", byte);
        text += digits;
    }
    return text;
}

// Bytes that a disturbed line delivers: nothing that could begin or end a frame, but for one beginning in the short
// form that leads nowhere.
std::vector<uint8_t> noise(int size) {
    if (size <= 0) {
        return {0xFF, 0x3C, frameKey, 0xF0, 0x00};
    }
    std::vector<uint8_t> bytes;
    for (uint64_t i = 0; bytes.size() < static_cast<size_t>(size); ++i) {
        const auto byte = static_cast<uint8_t>(mix(i));
        if (byte != frameKey && byte != frameEnd) {
            bytes.push_back(byte);
        }
    }
    return bytes;
}

}  // namespace

AmplifierLink::AmplifierLink(const Clock& clock, Faults& faults, std::function<void(int, const FrontEnd&)> changed)
    : clock_(clock), faults_(faults), frontEndChanged_(std::move(changed)) {}

void AmplifierLink::tellFrontEnd(int slot) {
    Slot& place = slots_[static_cast<size_t>(slot)];
    const FrontEnd now = place.firmware ? place.firmware->frontEnd() : FrontEnd{};
    if (now != place.frontEnd) {
        place.frontEnd = now;
        frontEndChanged_(slot, now);
    }
}

bool AmplifierLink::alive(const Slot& slot) const {
    return slot.firmware && slot.supplied && clock_.seconds() >= slot.bootedAt &&
           clock_.programSeconds() >= slot.restartedAt;
}

void AmplifierLink::plug(int slot, std::unique_ptr<Firmware> firmware) {
    const std::lock_guard lock(mutex_);
    arrive();
    Slot& place = slots_.at(static_cast<size_t>(slot));
    std::erase_if(pending_, [slot](const Pending& reply) { return reply.slot == slot; });
    place.firmware = std::move(firmware);
    place.collector.drop();
    place.bootedAt = clock_.seconds() + bootSeconds;
    place.restartedAt = 0.0;
    tellFrontEnd(slot);
}

void AmplifierLink::supply(uint8_t before, uint8_t after, bool atOnce) {
    const std::lock_guard lock(mutex_);
    arrive();
    for (int i = 0; i < slotCount; ++i) {
        const bool was = (before >> i & 1) != 0;
        const bool is = (after >> i & 1) != 0;
        if (was == is) {
            continue;
        }
        Slot& slot = slots_[static_cast<size_t>(i)];
        slot.supplied = is;
        slot.collector.drop();
        slot.restartedAt = 0.0;
        slot.bootedAt = atOnce ? clock_.seconds() : clock_.seconds() + bootSeconds;
        if (slot.firmware) {
            slot.firmware->powerOn();
        }
        tellFrontEnd(i);
        std::erase_if(pending_, [i](const Pending& reply) { return reply.slot == i; });
    }
}

void AmplifierLink::select(int slot) {
    const std::lock_guard lock(mutex_);
    if (slot == selected_) {
        return;
    }
    arrive();
    if (selected_ >= 0) {
        slots_[static_cast<size_t>(selected_)].collector.drop();
    }
    selected_ = slot >= 0 && slot < slotCount ? slot : -1;
}

// Moves what is due to the port; what comes from a slot that is not selected is lost.
void AmplifierLink::arrive() {
    const double now = clock_.programSeconds();
    for (Pending& reply : pending_) {
        for (; reply.arrived < reply.bytes.size() && reply.nextDue() <= now; ++reply.arrived) {
            if (reply.slot == selected_) {
                received_.push_back(reply.bytes[reply.arrived]);
            }
        }
    }
    std::erase_if(pending_, [](const Pending& reply) { return reply.arrived == reply.bytes.size(); });
}

// Replies of a slot do not run into each other.
void AmplifierLink::send(int slot, double due, std::vector<uint8_t> bytes) {
    const double length = static_cast<double>(bytes.size()) * byteSeconds;
    for (const Pending& reply : pending_) {
        const double end = reply.due + static_cast<double>(reply.bytes.size()) * byteSeconds;
        if (reply.slot == slot && due < end && reply.due < due + length) {
            due = end;
        }
    }
    const auto later = std::find_if(pending_.begin(), pending_.end(), [due](const Pending& p) { return p.due > due; });
    pending_.insert(later, {slot, due, std::move(bytes)});
    changed_.notify_all();
}

ssize_t AmplifierLink::write(const uint8_t* bytes, size_t size) {
    if (faults_.hit(FaultKind::UartWrite)) {
        return -EIO;
    }
    const std::lock_guard lock(mutex_);
    if (selected_ >= 0) {
        Slot& slot = slots_[static_cast<size_t>(selected_)];
        if (alive(slot)) {
            slot.collector.add(bytes, size, clock_.programSeconds());
            while (const auto frame = slot.collector.take()) {
                takeFrame(selected_, *frame);
            }
        }
    }
    return static_cast<ssize_t>(size);
}

void AmplifierLink::takeFrame(int slot, const std::vector<uint8_t>& frame) {
    frames_.push_back(describe(slot, frame));
    const auto hit = [&](FaultKind kind) { return faults_.hit(kind, slot, 0, frame[2]); };
    if (hit(FaultKind::AmplifierSilent)) {
        return;
    }
    Slot& place = slots_[static_cast<size_t>(slot)];
    Firmware::Reply reply;
    if (const auto fault = hit(FaultKind::AmplifierBadStatus)) {
        reply.status = static_cast<uint8_t>(fault->code == 0 ? 3 : fault->code);
    } else {
        reply = place.firmware->execute(frame[2], {frame.begin() + 3, frame.end() - 1});
        tellFrontEnd(slot);
        if (isScaling(frame[2]) && hit(FaultKind::AmplifierNan)) {
            reply.data = {0x00, 0x00, 0xC0, 0x7F};
        }
    }
    std::vector<uint8_t> bytes(reply.data.size() + 4);
    bytes[0] = frameKey;
    bytes[1] = static_cast<uint8_t>(reply.data.size() + 1);
    bytes[2] = reply.status;
    std::copy(reply.data.begin(), reply.data.end(), bytes.begin() + 3);
    bytes.back() = frameEnd;
    if (hit(FaultKind::AmplifierHalfFrame)) {
        bytes.resize(bytes.size() / 2);
    }
    if (const auto fault = hit(FaultKind::AmplifierGarbage)) {
        const std::vector<uint8_t> before = noise(fault->code);
        bytes.insert(bytes.begin(), before.begin(), before.end());
    }
    double due = clock_.programSeconds() + static_cast<double>(frame.size()) * byteSeconds + reply.seconds;
    if (const auto fault = hit(FaultKind::AmplifierLate)) {
        due += fault->code * 0.001;
    }
    send(slot, due, std::move(bytes));
    if (!reply.text.empty()) {
        send(slot, due + static_cast<double>(reply.data.size() + 4) * byteSeconds + 0.005, reply.text);
        place.restartedAt = due + bootSeconds;
        place.collector.drop();
    }
}

ssize_t AmplifierLink::read(uint8_t* bytes, size_t size, int timeoutMs) {
    if (faults_.hit(FaultKind::UartRead)) {
        return -EIO;
    }
    using Steady = std::chrono::steady_clock;
    const auto inSource = [this](double seconds) {
        return std::chrono::duration_cast<Steady::duration>(
            std::chrono::duration<double>(seconds / clock_.programFactor()));
    };
    const auto deadline = Steady::now() + inSource(std::max(timeoutMs, 0) * 1e-3);
    std::unique_lock lock(mutex_);
    for (;;) {
        arrive();
        if (!received_.empty() || size == 0) {
            break;
        }
        const auto now = Steady::now();
        if (now >= deadline) {
            return 0;
        }
        auto wake = deadline;
        if (!pending_.empty()) {
            const double left = std::max(pending_.front().nextDue() - clock_.programSeconds(), 0.0001);
            wake = std::min(wake, now + inSource(left));
        }
        changed_.wait_until(lock, wake);
    }
    const size_t count = std::min(size, received_.size());
    const auto end = received_.begin() + static_cast<std::ptrdiff_t>(count);
    std::copy(received_.begin(), end, bytes);
    received_.erase(received_.begin(), end);
    return static_cast<ssize_t>(count);
}

void AmplifierLink::flush() {
    const std::lock_guard lock(mutex_);
    arrive();
    received_.clear();
}

std::vector<std::string> AmplifierLink::framesReceived() const {
    const std::lock_guard lock(mutex_);
    return frames_;
}

AmplifierState AmplifierLink::state(int slot) const {
    const std::lock_guard lock(mutex_);
    const auto& firmware = slots_.at(static_cast<size_t>(slot)).firmware;
    AmplifierState state;
    if (firmware) {
        const Firmware::Settings& active = firmware->active();
        state.present = true;
        state.measurement = active.measurement;
        state.range = active.range;
        state.lpFilter = active.lowPass;
        state.coupling = active.coupling;
        state.inputType = active.inputType;
        state.excitation = active.excitation;
        state.excitationType = active.excitationType;
        state.shortOn = active.shorted != 0;
        state.scale = firmware->scale();
        state.offset = firmware->offset();
    }
    return state;
}

bool AmplifierLink::ledOn(int slot) const {
    const std::lock_guard lock(mutex_);
    const auto& firmware = slots_.at(static_cast<size_t>(slot)).firmware;
    return firmware && firmware->ledOn();
}

}  // namespace kestrixsim
