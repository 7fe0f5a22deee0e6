#include "tools/zornhost/Recorder.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

#include <zorn/structure/property_classes.h>

#include "tools/zornhost/Elapsed.h"
#include "tools/zornhost/RateMath.h"

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

constexpr auto passInterval = std::chrono::milliseconds(10);
constexpr double moduleRowIntervalS = 1.0;  // a module that reports a loss in every cycle fills no table
constexpr const char* lostSamplesName = "LostSamples";
constexpr size_t pieceOfValues = 1024;  // asynchronous samples that are taken at a time
// What an asynchronous channel counts of its samples, and what that means.
constexpr std::pair<const char*, const char*> valueLosses[] = {
    {lostSamplesName, "lost before they reached the host, at unknown places"},
    {"SamplesOverflowed", "the module had no room for them, at unknown places"},
    {"SamplesRefused", "the module's channel doesn't take them, at unknown places"},
    {"FailedReads", "could not be read, at unknown places"},
};
constexpr size_t channelsNamed = 3;  // in a verdict; the report has all

ChannelInfo describe(const ChannelEntry& entry) {
    const auto& channel = entry.channel;
    ChannelInfo info;
    info.path = entry.path;
    info.name = channel.getName().toStdString();
    info.unit = channel.getUnit().toStdString();
    info.nodeId = channel.getNodeId().toStdString();
    info.scale = channel.getScale();
    info.offset = channel.getOffset();
    info.rangeMin = channel.getMinValue();
    info.rangeMax = channel.getMaxValue();
    info.sampleRate = inLowestTerms(channel.getExactSampleRate());
    info.settings = amplifierState(channel).settings;
    info.type = channel.getSampleDataType();
    info.sampleSize = channel.getBuffer().getSampleSize();
    return info;
}

std::string counted(uint64_t count, const char* one, const char* many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
}

std::string named(const std::vector<std::string>& labels) {
    const size_t shown = std::min(labels.size(), channelsNamed);
    std::string text = fmt::format("{}", fmt::join(labels.begin(), labels.begin() + static_cast<long>(shown), ", "));
    return labels.size() > shown ? fmt::format("{} and {} more", text, labels.size() - shown) : text;
}

// " CAN: 1000 frames of 2 channels." and what happened besides.
std::string canText(const std::vector<AsyncReport>& channels) {
    uint64_t frames = 0;
    size_t count = 0;
    std::string besides;
    for (const auto& channel : channels) {
        if (!channel.can) {
            continue;
        }
        ++count;
        frames += channel.frames;
        for (const auto& each : channel.counts) {
            const char* const kind = each.kind == CanCount::Kind::Loss     ? " LOST"
                                     : each.kind == CanCount::Kind::Unsent ? " NOT SENT:"
                                                                           : "";
            besides += fmt::format(" {}:{} {} {}.", channel.label, kind, each.value, each.text);
        }
    }
    return count == 0 ? std::string()
                      : fmt::format(" CAN: {} of {}.{}", counted(frames, "frame", "frames"),
                                    counted(count, "channel", "channels"), besides);
}

// " Besides: 612 samples of 6 asynchronous channels."
std::string valuesText(const std::vector<AsyncReport>& channels) {
    uint64_t samples = 0;
    size_t count = 0;
    for (const auto& channel : channels) {
        if (!channel.can) {
            ++count;
            samples += channel.frames;
        }
    }
    return count == 0 ? std::string()
                      : fmt::format(" Besides: {} of {}.", counted(samples, "sample", "samples"),
                                    counted(count, "asynchronous channel", "asynchronous channels"));
}

// A channel whose samples go elsewhere has no ring and brings nothing.
bool reservesMemory(const ChannelPtr<>& channel) {
    return channel.getPropertyValue<bool>(ChannelPropertyClass::ShouldReserveMemoryProp);
}

}  // namespace

uint64_t RecordingReport::samples() const {
    uint64_t sum = 0;
    for (const auto& channel : channels) {
        sum += channel.samples;
    }
    return sum;
}

uint64_t RecordingReport::lost() const {
    uint64_t sum = 0;
    for (const auto& channel : channels) {
        sum += channel.lost;
    }
    for (const auto& channel : asyncChannels) {
        sum += channel.lost;
    }
    return sum;
}

uint64_t RecordingReport::unsent() const {
    uint64_t sum = 0;
    for (const auto& channel : asyncChannels) {
        sum += channel.unsent;
    }
    return sum;
}

bool RecordingReport::lossless() const {
    return lost() == 0 && gaps() == 0 && moduleReports == 0 &&
           std::none_of(channels.begin(), channels.end(), [](const auto& channel) { return channel.silent; }) &&
           std::all_of(asyncChannels.begin(), asyncChannels.end(),
                       [](const auto& channel) { return channel.failure.empty(); });
}

uint64_t RecordingReport::gaps() const {
    return gapTable.size();
}

double RecordingReport::worstFill() const {
    double worst = 0.0;
    for (const auto& channel : channels) {
        worst = std::max(worst, channel.worstFill);
    }
    return worst;
}

std::string ClockHistory::text() const {
    if (atStart == Lock::FreeRunning) {
        return fmt::format("Clock {}: free-running.", mode);
    }
    if (atStart == Lock::Locked && changes == 0) {
        return fmt::format("Clock {}: locked throughout.", mode);
    }
    return fmt::format("{} ({}): {} at the start, {} at the end, {} in between.",
                       phaseLost ? "CLOCK NOT LOCKED" : "CLOCK WITHOUT ITS REFERENCE", mode, lockText(atStart),
                       lockText(atEnd), counted(changes, "change", "changes"));
}

std::string RecordingReport::verdict() const {
    std::string text = fmt::format("{} {} for {:.1f} s: {}, ", keeps ? "Recorded" : "Acquired",
                                   counted(channels.size(), "channel", "channels"), durationS,
                                   counted(samples(), "sample", "samples"));
    if (lossless()) {
        text += "none lost.";
    } else {
        text += fmt::format("{} LOST in {}.", lost(), counted(gaps(), "gap", "gaps"));
    }
    std::vector<std::string> silent;
    for (const auto& channel : channels) {
        if (channel.silent) {
            silent.push_back(channel.label);
        }
    }
    if (!silent.empty()) {
        text += fmt::format(" NOTHING CAME of {}: {}.", counted(silent.size(), "channel", "channels"), named(silent));
    }
    text += fmt::format(" Worst fill of a ring {:.0f} %, longest stall of the writer {:.0f} ms.", 100.0 * worstFill(),
                        1000.0 * longestWriterStallS);
    if (moduleReports > 0) {
        text += fmt::format(" The module reported lost data {}.", counted(moduleReports, "time", "times"));
    }
    std::vector<std::string> losers;
    std::vector<std::string> unknown;
    std::string whyUnknown;
    uint64_t asyncLost = 0;
    for (const auto& channel : asyncChannels) {
        if (!channel.failure.empty()) {
            unknown.push_back(channel.label);
            whyUnknown = channel.failure;
        } else if (channel.lost > 0 && !channel.can) {
            losers.push_back(channel.label);
            asyncLost += channel.lost;
        }
    }
    if (!clock.mode.empty()) {
        text += " " + clock.text();
    }
    text += canText(asyncChannels);
    text += valuesText(asyncChannels);
    for (const auto& refusal : refusals) {
        text += fmt::format(" SETTINGS NOT TAKEN: {}: {}.", refusal.module, refusal.text());
    }
    if (!losers.empty()) {
        text += fmt::format(" {} lost {}.", named(losers), counted(asyncLost, "sample", "samples"));
    }
    if (!unknown.empty()) {
        text += fmt::format(" What {} lost is not known: {}.", named(unknown), whyUnknown);
    }
    if (!keeps) {
        text += fmt::format(" Nothing was written: {} keeps no file.", file);
    }
    if (interrupted) {
        text += " Ended by the user.";
    }
    if (!stopFailure.empty()) {
        text += fmt::format(" The acquisition did not stop cleanly: {}.", stopFailure);
    }
    if (!error.empty()) {
        text += fmt::format(" ENDED EARLY: {}.", error);
    }
    return text;
}

Recorder::Recorder(Options options, const std::vector<ChannelEntry>& channels, const Scheduler& scheduler)
    : options_(std::move(options)), scheduler_(scheduler) {
    bool anyRing = false;
    for (const auto& entry : channels) {
        if (!entry.channel.getUsed()) {
            continue;
        }
        if (entry.channel.getType() == 0) {
            anyRing = anyRing || reservesMemory(entry.channel);
            streams_.emplace_back(std::make_unique<Stream>())->entry = entry;
        } else if (isCanChannel(entry.channel)) {
            anyRing = true;
            canStreams_.emplace_back(std::make_unique<CanStream>())->entry = entry;
        } else if (entry.channel.hasProperty(lostSamplesName)) {
            anyRing = anyRing || reservesMemory(entry.channel);
            valueStreams_.emplace_back(std::make_unique<ValueStream>())->entry = entry;
        }
    }
    if (!anyRing) {
        throw RecordingError(fmt::format("{}: no channel is in use, there is nothing to record", options_.file));
    }

    sink_ = openSink(options_.file);
    for (auto& stream : streams_) {
        const auto info = describe(stream->entry);
        stream->sinkChannel = sink_->addChannel(info);
        stream->staging.resize(chunkSamples(info) * info.sampleSize);
        stream->report.label = stream->entry.label;
        stream->report.path = stream->entry.path;
    }
    for (auto& stream : canStreams_) {
        stream->table = sink_->addCanTable(describe(stream->entry), interfaceOf(stream->entry));
    }
    for (auto& stream : valueStreams_) {
        stream->table = sink_->addValueTable(describe(stream->entry));
    }
    report_.file = options_.file;
    report_.keeps = sink_->keeps();
}

Recorder::~Recorder() {
    stop_.store(true);
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Recorder::start(int64_t startTimeUs) {
    for (const auto& stream : streams_) {
        stream->info = describe(stream->entry);
        sink_->describeChannel(stream->sinkChannel, stream->info);
        stream->rate = toHz(stream->info.sampleRate);
        stream->reader.emplace(stream->entry.channel, scheduler_);
        stream->clock = ClockCheck(stream->rate);
        stream->report.sampleRate = stream->info.sampleRate;
        stream->flushed = stream->report;
    }
    for (const auto& stream : canStreams_) {
        stream->reader.emplace(stream->entry, scheduler_);
    }
    for (const auto& stream : valueStreams_) {
        stream->reader.emplace(stream->entry.channel, scheduler_);
        stream->samples.resize(pieceOfValues * stream->reader->sampleSize());
        stream->stamps.resize(pieceOfValues);
    }
    noteRefusals();
    sink_->setStartTime(startTimeUs);
    startTimeUs_ = startTimeUs;
    noteClock();
    sink_->flush();
    startTime_ = lastFlush_ = std::chrono::steady_clock::now();
    running_.store(true);
    thread_ = std::thread([this] { run(); });
}

double Recorder::elapsedS() const {
    return secondsSince(startTime_);
}

void Recorder::run() {
    try {
        while (!stop_.load()) {
            const auto passStart = std::chrono::steady_clock::now();
            pass();
            report_.longestWriterStallS = std::max(report_.longestWriterStallS, secondsSince(passStart));
            std::this_thread::sleep_until(passStart + passInterval);
        }
    } catch (const std::exception& failure) {
        report_.error = failure.what();
    }
    running_.store(false);
}

void Recorder::pass() {
    for (auto& stream : streams_) {
        // What is there now, and not what comes meanwhile: a channel must not keep the others waiting.
        const uint64_t end = stream->reader->acquired();
        while (stream->reader->next() < end && drain(*stream)) {
        }
        checkClock(*stream);
        if (secondsSince(lastFlush_) * 1000.0 >= options_.flushMs) {
            flush();
        }
    }
    for (auto& stream : canStreams_) {
        drain(*stream);
    }
    for (auto& stream : valueStreams_) {
        drain(*stream);
    }
    noteModuleReports();
    noteClock();
}

void Recorder::drain(ValueStream& stream) {
    const size_t sampleSize = stream.reader->sampleSize();
    for (size_t count = pieceOfValues; count == pieceOfValues;) {
        const auto piece = stream.reader->read(stream.samples.data(), stream.stamps.data(), pieceOfValues);
        count = piece.samples;
        stream.rows.resize(count * (sizeof(double) + sampleSize));
        unsigned char* row = stream.rows.data();
        for (size_t i = 0; i < count; ++i) {
            const double timeS = static_cast<double>(stream.stamps[i]) / 1e9;
            std::memcpy(row, &timeS, sizeof timeS);
            std::memcpy(row + sizeof timeS, stream.samples.data() + i * sampleSize, sampleSize);
            row += sizeof timeS + sampleSize;
        }
        if (piece.lost > 0) {
            const double timeS = count == 0 ? elapsedS() : static_cast<double>(stream.stamps[0]) / 1e9;
            stream.lost += piece.lost;
            addGap(nullptr,
                   Gap{stream.entry.path, stream.count, piece.lost, timeS, "the writer could not keep up", false});
        }
        if (count > 0) {
            sink_->addValueRows(stream.table, stream.rows.data(), count);
            stream.count += count;
        }
    }
}

void Recorder::drain(CanStream& stream) {
    stream.fresh.clear();
    const uint64_t lost = stream.reader->read(stream.fresh);
    stream.rows.clear();
    for (const auto& [frame, timeNs] : stream.fresh) {
        CanRow row{static_cast<double>(timeNs) / 1e9, frame.id, frame.length, {}};
        std::copy(frame.data.begin(), frame.data.end(), row.data);
        stream.rows.push_back(row);
    }
    if (!stream.rows.empty()) {
        sink_->addCanRows(stream.table, stream.rows.data(), stream.rows.size());
        stream.frames += stream.rows.size();
    }
    if (lost > 0) {
        const double timeS = stream.rows.empty() ? elapsedS() : stream.rows.front().timeS;
        stream.lost += lost;
        addGap(nullptr, Gap{stream.entry.path, stream.frames, lost, timeS, "the writer could not keep up", false});
    }
}

void Recorder::flush() {
    for (auto& stream : streams_) {
        writeStaged(*stream);
    }
    sink_->flush();
    for (auto& stream : streams_) {
        stream->flushed = stream->report;
        stream->flushedEnd = stream->reader->next();
    }
    lastFlush_ = std::chrono::steady_clock::now();
}

// One piece out of a ring. True when there may be more.
bool Recorder::drain(Stream& stream) {
    const size_t sampleSize = stream.reader->sampleSize();
    // Pieces end where a chunk of the file ends, so that each chunk is written once.
    const size_t chunk = stream.staging.size() / sampleSize;
    const size_t room = std::min(chunk - static_cast<size_t>(stream.reader->next() % chunk), chunk - stream.staged);
    stream.report.worstFill = std::max(stream.report.worstFill, stream.reader->fill());
    const auto piece = stream.reader->read(stream.staging.data() + stream.staged * sampleSize, room);

    if (piece.lost > 0) {
        // The new piece lies behind the gap: what is staged in front of it goes out first.
        const uint64_t firstMissing = piece.firstIndex - piece.lost;
        const std::vector<unsigned char> behind(
            stream.staging.begin() + static_cast<std::ptrdiff_t>(stream.staged * sampleSize),
            stream.staging.begin() + static_cast<std::ptrdiff_t>((stream.staged + piece.samples) * sampleSize));
        writeStaged(stream);
        std::copy(behind.begin(), behind.end(), stream.staging.begin());
        addGap(&stream, Gap{stream.entry.path, firstMissing, piece.lost,
                            static_cast<double>(firstMissing) / stream.rate, "the writer could not keep up", false});
    }
    if (piece.samples > 0) {
        if (stream.staged == 0) {
            stream.stagedIndex = piece.firstIndex;
        }
        stream.staged += piece.samples;
        if (stream.staged == chunk || stream.reader->next() % chunk == 0) {
            writeStaged(stream);
        }
    }
    return piece.samples > 0;
}

void Recorder::checkClock(Stream& stream) {
    const uint64_t acquired = stream.reader->acquired();
    const auto missing = stream.clock.observe(elapsedS(), acquired);
    if (!missing) {
        return;
    }
    // A stream that stands still is one gap that grows.
    if (stream.estimatedGap && report_.gapTable[*stream.estimatedGap].firstIndex == acquired) {
        Gap& gap = report_.gapTable[*stream.estimatedGap];
        gap.length += *missing;
        stream.report.lost += *missing;
        samplesLost_.fetch_add(*missing);
        sink_->putGap(*stream.estimatedGap, gap);
        return;
    }
    stream.estimatedGap = report_.gapTable.size();
    addGap(&stream, Gap{stream.entry.path, acquired, *missing, static_cast<double>(acquired) / stream.rate,
                        "samples are missing in the stream (by the clock)", true});
}

void Recorder::writeStaged(Stream& stream) {
    if (stream.staged == 0) {
        return;
    }
    sink_->write(stream.sinkChannel, stream.stagedIndex, stream.staging.data(), stream.staged);
    stream.report.samples += stream.staged;
    samplesWritten_.fetch_add(stream.staged);
    stream.staged = 0;
}

// The report has the gap even if the file can't take it.
void Recorder::addGap(Stream* stream, Gap gap) {
    if (stream != nullptr) {
        stream->report.lost += gap.length;
        ++stream->report.gaps;
    }
    samplesLost_.fetch_add(gap.length);
    report_.gapTable.push_back(std::move(gap));
    sink_->putGap(report_.gapTable.size() - 1, report_.gapTable.back());
}

void Recorder::noteModuleReports() {
    const uint64_t reports = moduleReports_.load();
    const double nowS = elapsedS();
    if (reports == moduleReportsSeen_ || (moduleReportsSeen_ > 0 && nowS - lastModuleRowS_ < moduleRowIntervalS)) {
        return;
    }
    moduleReportsSeen_ = reports;
    lastModuleRowS_ = nowS;
    addGap(nullptr, Gap{"", 0, 0, nowS, "the module reported lost data", true});
}

// The first row is how the clock stood at the start, whatever was before.
void Recorder::noteClock() {
    if (options_.clock == nullptr) {
        return;
    }
    ClockHistory& history = report_.clock;
    auto changes = options_.clock->changes(nextClockChange_);
    const bool first = history.mode.empty();
    if (first) {
        history.mode = options_.clock->report().mode;
        changes.erase(changes.begin(), changes.end() - 1);
        changes.back().timeUs = startTimeUs_;
        history.atStart = changes.back().lock;
    }
    for (const auto& change : changes) {
        sink_->addClockChange(change, static_cast<double>(change.timeUs - startTimeUs_) / 1e6);
        history.atEnd = change.lock;
        history.phaseLost = history.phaseLost || change.lock == Lock::NotLocked;
    }
    history.changes += changes.size() - (first ? 1 : 0);
    if (!changes.empty()) {
        sink_->setClock(history.mode, history.atStart, history.atEnd);
    }
}

// The first reason for each amplifier stays: what came later may be about what was gone back to. Scale and settings in
// force stay those of the start, by which the samples were taken.
void Recorder::noteRefusals() {
    std::vector<ChannelEntry> channels;
    for (const auto& stream : streams_) {
        channels.push_back(stream->entry);
    }
    for (auto& refusal : amplifierRefusals(channels, options_.refusals)) {
        const auto same = [&](const AmplifierRefusal& known) { return known.module == refusal.module; };
        if (std::none_of(report_.refusals.begin(), report_.refusals.end(), same)) {
            report_.refusals.push_back(std::move(refusal));
        }
    }
    for (auto& stream : streams_) {
        for (const auto& refusal : report_.refusals) {
            if (refusal.module == moduleOf(stream->entry.path) && stream->info.refused != refusal.text()) {
                stream->info.refused = refusal.text();
                sink_->describeChannel(stream->sinkChannel, stream->info);
            }
        }
    }
}

// A write that failed may have left anything behind the last flush.
void Recorder::countUnwritten(Stream& stream) {
    const double worstFill = stream.report.worstFill;
    stream.report = stream.flushed;
    stream.report.worstFill = worstFill;
    const uint64_t acquired = stream.reader->acquired();
    if (acquired == stream.flushedEnd) {
        return;
    }
    const Gap gap{stream.entry.path,
                  stream.flushedEnd,
                  acquired - stream.flushedEnd,
                  static_cast<double>(stream.flushedEnd) / stream.rate,
                  "the recording had ended early",
                  false};
    stream.report.lost += gap.length;
    ++stream.report.gaps;
    report_.gapTable.push_back(gap);
}

// What did not come through a CAN port, by its causes. Their places nobody has seen.
void Recorder::askCanChannels() {
    for (const auto& stream : canStreams_) {
        AsyncReport report;
        report.label = stream->entry.label;
        report.path = stream->entry.path;
        report.can = true;
        report.frames = stream->frames;
        report.lost = stream->lost;
        try {
            report.counts = canCounts(stream->entry.channel);
        } catch (const std::exception& failure) {
            report.failure = failure.what();
        }
        for (const auto& count : report.counts) {
            if (count.kind == CanCount::Kind::Loss) {
                report.lost += count.value;
                report_.gapTable.push_back(
                    Gap{report.path, 0, count.value, 0.0, fmt::format("frames {}", count.text), false});
            } else if (count.kind == CanCount::Kind::Unsent) {
                report.unsent += count.value;
            }
        }
        report_.asyncChannels.push_back(std::move(report));
    }
}

// What they have lost nobody has seen the place of.
void Recorder::askAsyncChannels() {
    for (const auto& stream : valueStreams_) {
        const ChannelEntry& entry = stream->entry;
        AsyncReport report;
        report.label = entry.label;
        report.path = entry.path;
        report.frames = stream->count;
        report.lost = stream->lost;
        try {
            for (const auto& [property, cause] : valueLosses) {
                if (!entry.channel.hasProperty(property)) {
                    continue;
                }
                const auto function = entry.channel.getPropertyValue<BasePtr>(property).asPtr<IFuncObject>();
                const auto lost = std::max<int64_t>(fromValue<int64_t>(executeFunc(function, {})), 0);
                if (lost > 0) {
                    report.lost += static_cast<uint64_t>(lost);
                    report_.gapTable.push_back(Gap{entry.path, 0, static_cast<uint64_t>(lost), 0.0, cause, false});
                }
            }
        } catch (const std::exception& failure) {
            report.failure = failure.what();
        }
        report_.asyncChannels.push_back(std::move(report));
    }
}

RecordingReport Recorder::finish(bool interrupted, const std::string& stopFailure) {
    stop_.store(true);
    if (thread_.joinable()) {
        thread_.join();
    }
    report_.durationS = elapsedS();
    report_.interrupted = interrupted;
    report_.stopFailure = stopFailure;
    report_.moduleReports = moduleReports_.load();
    if (report_.error.empty()) {
        try {
            for (auto& stream : canStreams_) {
                drain(*stream);
            }
            for (auto& stream : valueStreams_) {
                drain(*stream);
            }
        } catch (const std::exception& failure) {
            report_.error = failure.what();
        }
    }
    const size_t told = report_.gapTable.size();
    askAsyncChannels();
    askCanChannels();
    if (report_.error.empty()) {
        try {
            for (size_t row = told; row < report_.gapTable.size(); ++row) {
                sink_->putGap(row, report_.gapTable[row]);
            }
            for (auto& stream : streams_) {
                while (drain(*stream)) {
                }
                if (stream->reader->acquired() == 0) {
                    addGap(stream.get(),
                           Gap{stream->entry.path, 0, static_cast<uint64_t>(report_.durationS * stream->rate), 0.0,
                               "no sample has come", true});
                }
            }
            lastModuleRowS_ = -moduleRowIntervalS;
            noteModuleReports();
            noteRefusals();
            noteClock();
            flush();
        } catch (const std::exception& failure) {
            report_.error = failure.what();
        }
    }
    for (auto& stream : streams_) {
        if (!report_.error.empty()) {
            countUnwritten(*stream);
        }
        stream->report.silent = stream->reader->acquired() == 0;
        report_.channels.push_back(stream->report);
        report_.bytes += stream->report.samples * stream->reader->sampleSize();
    }
    try {
        sink_->close(report_.verdict(), report_.error.empty());
    } catch (const std::exception& failure) {
        if (report_.error.empty()) {
            report_.error = failure.what();
        }
    }
    return report_;
}

}  // namespace zornhost
