#include "tools/zornhost/CanCommands.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "tools/zornhost/CanExport.h"
#include "tools/zornhost/CanPorts.h"
#include "tools/zornhost/Elapsed.h"
#include "tools/zornhost/Interrupt.h"
#include "tools/zornhost/PositiveSeconds.h"

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

constexpr int pollMs = 20;
constexpr auto sendingTime = std::chrono::milliseconds(200);  // from the last message handed over to its port's verdict

std::string describe(const CanCount& count) {
    return fmt::format("{} {}", count.value, count.text);
}

void setBitRate(Session& session, const CanPort& port, int bitRate) {
    const ListPtr choices = port.input.channel.getPropertyInfo("BaudRate").getValuesAsList();
    std::vector<int> rates;
    for (size_t i = 0, n = choices.getCount(); i < n; ++i) {
        rates.push_back(fromValue<int>(choices.getItemAt(i)));
    }
    if (std::find(rates.begin(), rates.end(), bitRate) == rates.end()) {
        throw std::runtime_error(
            fmt::format("{}: {} bit/s can't be had; there are {}", port.name(), bitRate, fmt::join(rates, ", ")));
    }
    session.set(session.tree().property(port.input.path + "/BaudRate"), std::to_string(bitRate));
}

// A run of CAN ports alone, which ends with this.
class CanRun {
public:
    enum class Direction { Receive, Send };

    CanRun(Session& session, const std::vector<CanPort>& ports, std::optional<int> bitRate, Direction direction)
        : session_(session) {
        // Frames of other ports would have to be complained about.
        for (const auto& entry : session.tree().channels()) {
            entry.channel.setUsed(isCanChannel(entry.channel) && !isCanOutput(entry.channel));
        }
        for (const auto& port : ports) {
            if (port.output) {
                port.output->channel.setUsed(direction == Direction::Send);
            }
            if (bitRate) {
                setBitRate(session, port, *bitRate);
            }
            session.set(session.tree().property(port.input.path + "/OperationMode"),
                        direction == Direction::Send ? "ReadWriteAcq" : "ReadOnly");
        }
        session.prepare();
        session.start();
    }
    ~CanRun() {
        try {
            stop();
        } catch (const std::exception& failure) {
            writeError(fmt::format("zornhost: {}\n", oneLine(failure.what())));
        }
    }
    CanRun(const CanRun&) = delete;
    CanRun& operator=(const CanRun&) = delete;
    void stop() {
        if (!std::exchange(stopped_, true)) {
            session_.stop();
        }
    }

private:
    Session& session_;
    bool stopped_ = false;
};

// What happened at a port besides frames; 0 when that was no loss.
int tellCounts(Output& output, const CanPort& port, uint64_t overtaken) {
    int result = 0;
    auto counts = canCounts(port.input.channel);
    if (overtaken > 0) {
        counts.push_back({"", CanCount::Kind::Loss, "that this program came too late for", overtaken});
    }
    for (const auto& count : counts) {
        const bool loss = count.kind == CanCount::Kind::Loss;
        result = loss ? 1 : result;
        const std::string what = loss ? "LOST" : count.kind == CanCount::Kind::Beginning ? "not taken" : "seen";
        output.message(fmt::format("zornhost: {}: {} {}", port.name(), describe(count), what));
    }
    return result;
}

// The time in front of a frame, as SocketCAN's own tool writes it with its option -t.
class TimeText {
public:
    TimeText(std::string kind, int64_t startUs) : kind_(std::move(kind)), startUs_(startUs) {}

    int64_t absoluteUs(int64_t timeNs) const { return startUs_ + timeNs / 1000; }
    std::string text(int64_t timeNs) {
        const int64_t us = timeNs / 1000;
        if (kind_ == "A") {
            const int64_t at = absoluteUs(timeNs);
            return fmt::format("({:%Y-%m-%d %H:%M:%S}.{:06d})", fmt::localtime(static_cast<std::time_t>(at / 1000000)),
                               at % 1000000);
        }
        if (kind_ == "a") {
            const int64_t at = absoluteUs(timeNs);
            return fmt::format("({:010d}.{:06d})", at / 1000000, at % 1000000);
        }
        int64_t shown = us;
        if (kind_ == "d") {
            shown = last_ ? std::max<int64_t>(us - *last_, 0) : 0;
            last_ = us;
        }
        return fmt::format("({:03d}.{:06d})", shown / 1000000, shown % 1000000);
    }

private:
    const std::string kind_;
    const int64_t startUs_;
    std::optional<int64_t> last_;
};

struct Heard {
    const CanPort* port;
    CanReader::Record record;
};

// The module knows the start once its clock has begun.
int64_t startTimeUs(Session& session) {
    long start = -1;
    const auto absTime = session.host().absTimeProvider();
    for (const auto begin = Clock::now(); absTime && start <= 0 && secondsSince(begin) < 3.0;) {
        absTime->getStartAbsTime(&start);
        if (start <= 0 && Interrupt::sleepMs(pollMs)) {
            break;
        }
    }
    return std::max<long>(start, 0);
}

std::string dumpLine(const Heard& heard, TimeText& time) {
    const CanFrame& frame = heard.record.frame;
    std::string line =
        fmt::format(" {}  {}  {:>8}   [{}] ", time.text(heard.record.timeNs), heard.port->interface(),
                    fmt::format(fmt::runtime(frame.extended() ? "{:08X}" : "{:03X}"), frame.id), frame.length);
    for (size_t i = 0; i < std::min<size_t>(frame.length, frame.data.size()); ++i) {
        line += fmt::format(" {:02X}", frame.data[i]);
    }
    return line;
}

}  // namespace

CanCommandLine::CanCommandLine(CLI::App& app) {
    command_ = app.add_subcommand("can", "CAN ports: show what comes, send, count; frames of a recording as a log");
    command_->require_subcommand(1);
    const auto addBitRate = [this](CLI::App* command) {
        command->add_option("--bitrate", bitRate_, "Bit rate of the ports, bit/s (default: as the port is set)");
    };
    const std::string flags =
        "A CAN channel keeps no flags: identifiers up to 7FF are written as those of standard frames.";

    dump_ = command_->add_subcommand("dump", "Frames as they come. " + flags);
    dump_->add_option("ports", ports_, "\"CAN Port 1\", can0 or 1; all without any");
    dump_
        ->add_option("-t", time_,
                     "Time in front of a frame: a absolute, d difference to the one before, z since the start of the "
                     "acquisition, A absolute with date")
        ->check(CLI::IsMember({"a", "d", "z", "A"}))
        ->capture_default_str();
    dump_->add_flag("-L", log_, "Write the log format of SocketCAN's tools, to be played again by them");
    dump_
        ->add_option("--filter", filters_,
                     "123, 100-1FF or 123:7F0 (identifier and mask), hexadecimal; may be repeated")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    dump_->add_option("-n", count_, "End after so many frames");
    dump_->add_option("-d,--duration", durationS_, "Seconds; until Ctrl-C when not given")->check(secondsAbove0());
    addBitRate(dump_);

    send_ = command_->add_subcommand(
        "send", "Send frames, always with the extended format. Ends with 1 when the port has not taken all of them");
    send_->add_option("port", port_, "\"CAN Port 1\", can0 or 1")->required();
    send_->add_option("frames", frames_, "123#DEADBEEF: identifier and data, hexadecimal")->required();
    send_->add_option("--every", everyMs_, "Milliseconds between two rounds (default: one cycle)")
        ->check(CLI::Range(0.0, 3.6e6));
    send_->add_option("--count", repeats_, "Rounds")->check(CLI::Range(uint64_t{1}, uint64_t{1000000000}));
    addBitRate(send_);

    stats_ = command_->add_subcommand(
        "stats",
        "Counts of a port and the load of its bus: bits of the frames that came, with the stuff bits that they "
        "have (ISO 11898-1), of those that its bit rate allows");
    stats_->add_option("ports", ports_, "\"CAN Port 1\", can0 or 1; all without any");
    stats_->add_option("-d,--duration", statsS_, "Seconds to count")->check(secondsAbove0())->capture_default_str();
    addBitRate(stats_);

    export_ = command_->add_subcommand(
        "export", "Write the CAN frames of a recording in the log format of SocketCAN's tools. " + flags);
    export_->add_option("file", recording_, "The recording")->required();
    export_->add_option("-o,--output", target_, "The log; the standard output when not given");
}

int CanCommandLine::run(Session& session, Output& output, bool json) const {
    if (dump_->parsed()) {
        return dump(session, output, json);
    }
    return send_->parsed() ? send(session, output, json) : stats(session, output, json);
}

int CanCommandLine::runExport(Output& output) const {
    return exportCan(recording_, target_, output);
}

int CanCommandLine::dump(Session& session, Output& output, bool json) const {
    const CanFilter filter(filters_);
    const auto ports = findPorts(canPorts(session.tree()), ports_);
    CanRun run(session, ports, bitRate_, CanRun::Direction::Receive);
    std::vector<CanReader> readers;
    for (const auto& port : ports) {
        readers.emplace_back(port.input, session.host().scheduler());
    }
    TimeText time(time_, startTimeUs(session));
    std::vector<uint64_t> overtaken(ports.size(), 0);
    std::vector<CanReader::Record> fresh;
    std::vector<Heard> heard;
    uint64_t shown = 0;
    const auto begin = Clock::now();
    const auto done = [&] {
        return !output.good() || (count_ > 0 && shown >= count_) ||
               (durationS_ > 0.0 && secondsSince(begin) >= durationS_);
    };
    while (!done()) {
        const bool ended = Interrupt::sleepMs(pollMs);
        heard.clear();
        for (size_t i = 0; i < ports.size(); ++i) {
            fresh.clear();
            overtaken[i] += readers[i].read(fresh);
            for (const auto& record : fresh) {
                heard.push_back({&ports[i], record});
            }
        }
        std::stable_sort(heard.begin(), heard.end(),
                         [](const Heard& a, const Heard& b) { return a.record.timeNs < b.record.timeNs; });
        for (const auto& entry : heard) {
            if (!filter.passes(entry.record.frame.id)) {
                continue;
            }
            if (json) {
                output.line(Json{{"timeS", static_cast<double>(entry.record.timeNs) / 1e9},
                                 {"timeUs", time.absoluteUs(entry.record.timeNs)},
                                 {"port", entry.port->name()},
                                 {"id", entry.record.frame.id},
                                 {"data", std::vector<int>(entry.record.frame.data.begin(),
                                                           entry.record.frame.data.begin() +
                                                               std::min<int>(entry.record.frame.length, 8))}}
                                .dump());
            } else if (log_) {
                output.line(logLine(time.absoluteUs(entry.record.timeNs), entry.port->interface(), entry.record.frame));
            } else {
                output.line(dumpLine(entry, time));
            }
            if (++shown == count_) {
                break;
            }
        }
        if (ended) {
            break;
        }
    }
    int result = 0;
    for (size_t i = 0; i < ports.size(); ++i) {
        result = std::max(result, tellCounts(output, ports[i], overtaken[i]));
    }
    run.stop();
    return result;
}

int CanCommandLine::send(Session& session, Output& output, bool json) const {
    std::vector<CanFrame> frames;
    for (const auto& text : frames_) {
        frames.push_back(frameFromText(text));
    }
    const CanPort port = findPort(canPorts(session.tree()), port_);
    if (!port.output) {
        throw std::runtime_error(fmt::format("{} can't send: it has no output channel", port.name()));
    }
    CanRun run(session, {port}, bitRate_, CanRun::Direction::Send);
    const auto channel = port.output->channel.asPtr<IAsyncChannel>();
    const auto clock = session.host().clockProvider();
    const size_t capacity = port.output->channel.getBuffer().getCapacity();
    const auto cycle = std::chrono::milliseconds(session.host().scheduler().cycleTimeMs());
    const auto pause = std::max<Clock::duration>(
        cycle, std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double, std::milli>(everyMs_)));
    if (frames.size() > capacity / 2) {
        throw std::runtime_error(fmt::format("at most {} frames in a round", capacity / 2));
    }
    uint64_t handed = 0;
    auto next = Clock::now();
    for (uint64_t round = 0; round < repeats_ && !Interrupt::requested(); ++round) {
        session.host().outsideOfCycles([&] {
            long now = 0;
            clock->getCurrentClock(&now);
            for (const auto& frame : frames) {
                checkErrorInfo(channel->addSample(now, &frame));
            }
        });
        handed += frames.size();
        next += pause;
        while (Clock::now() < next && !Interrupt::requested()) {
            std::this_thread::sleep_for(std::min<Clock::duration>(next - Clock::now(), std::chrono::milliseconds(50)));
        }
    }
    std::this_thread::sleep_for(sendingTime);
    uint64_t unsent = 0;
    std::string reasons;
    for (const auto& count : canCounts(port.output->channel)) {
        unsent += count.value;
        reasons += fmt::format("{}{} because {}", reasons.empty() ? "" : ", ", count.value, count.text);
    }
    run.stop();
    if (json) {
        output.line(
            Json{{"port", port.name()}, {"sent", handed - unsent}, {"notSent", unsent}, {"reasons", reasons}}.dump(2));
    } else {
        output.line(fmt::format("{}: {} of {} frames sent{}{}", port.name(), handed - unsent, handed,
                                reasons.empty() ? "" : "; NOT SENT: ", reasons));
    }
    return unsent == 0 ? 0 : 1;
}

int CanCommandLine::stats(Session& session, Output& output, bool json) const {
    const auto ports = findPorts(canPorts(session.tree()), ports_);
    CanRun run(session, ports, bitRate_, CanRun::Direction::Receive);
    std::vector<CanReader> readers;
    for (const auto& port : ports) {
        readers.emplace_back(port.input, session.host().scheduler());
    }
    struct Sum {
        uint64_t frames = 0;
        uint64_t bits = 0;
        uint64_t overtaken = 0;
        int64_t firstNs = 0;
        int64_t lastNs = 0;
    };
    std::vector<Sum> sums(ports.size());
    std::vector<CanReader::Record> fresh;
    // Frames have times once the clocks are related; before that there is nothing to count.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    for (auto& reader : readers) {
        fresh.clear();
        reader.read(fresh);
    }
    const auto begin = Clock::now();
    while (secondsSince(begin) < statsS_ && !Interrupt::sleepMs(pollMs)) {
        for (size_t i = 0; i < ports.size(); ++i) {
            fresh.clear();
            sums[i].overtaken += readers[i].read(fresh);
            for (const auto& record : fresh) {
                ++sums[i].frames;
                sums[i].bits += bitsOf(record.frame);
            }
        }
    }
    const double seconds = secondsSince(begin);
    int result = 0;
    Json list = Json::array();
    std::vector<std::vector<std::string>> rows{
        {"Port", "Interface", ">Bit/s", ">Frames", ">Frames/s", ">Load %", "Besides"}};
    for (size_t i = 0; i < ports.size(); ++i) {
        const double rate = static_cast<double>(sums[i].frames) / seconds;
        const double load =
            readers[i].bitRate() > 0 ? 100.0 * static_cast<double>(sums[i].bits) / seconds / readers[i].bitRate() : 0.0;
        auto counts = canCounts(ports[i].input.channel);
        if (sums[i].overtaken > 0) {
            counts.push_back(
                {"Overtaken", CanCount::Kind::Loss, "that this program came too late for", sums[i].overtaken});
        }
        std::vector<std::string> besides;
        Json countJson = Json::object();
        for (const auto& count : counts) {
            const bool loss = count.kind == CanCount::Kind::Loss;
            result = loss ? 1 : result;
            besides.push_back((loss ? "LOST " : "") + describe(count));
            countJson[count.property] = count.value;
        }
        rows.push_back({ports[i].name(), ports[i].interface(), std::to_string(readers[i].bitRate()),
                        std::to_string(sums[i].frames), fmt::format("{:.0f}", rate), fmt::format("{:.1f}", load),
                        fmt::format("{}", fmt::join(besides, ", "))});
        list.push_back(Json{{"port", ports[i].name()},
                            {"interface", ports[i].interface()},
                            {"bitRate", readers[i].bitRate()},
                            {"frames", sums[i].frames},
                            {"framesPerSecond", rate},
                            {"loadPercent", load},
                            {"counts", countJson}});
    }
    run.stop();
    if (json) {
        output.line(Json{{"seconds", seconds}, {"ports", list}}.dump(2));
    } else {
        output.data(formatTable(rows));
    }
    return result;
}

}  // namespace zornhost
