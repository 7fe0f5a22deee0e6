#include "tools/zornhost/Recorder.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

constexpr auto passInterval = std::chrono::milliseconds(10);

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

RecordingFile::ChannelInfo describe(const ChannelEntry& entry, double rate) {
    const auto& channel = entry.channel;
    RecordingFile::ChannelInfo info;
    info.path = entry.path;
    info.name = channel.getName().toStdString();
    info.unit = channel.getUnit().toStdString();
    info.nodeId = channel.getNodeId().toStdString();
    info.scale = channel.getScale();
    info.offset = channel.getOffset();
    info.rangeMin = channel.getMinValue();
    info.rangeMax = channel.getMaxValue();
    info.sampleRate = rate;
    info.type = channel.getSampleDataType();
    return info;
}

std::string counted(uint64_t count, const char* one, const char* many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
}

}  // namespace

uint64_t RecordingReport::samples() const {
    uint64_t sum = 0;
    for (const auto& channel : channels)
        sum += channel.samples;
    return sum;
}

uint64_t RecordingReport::lost() const {
    uint64_t sum = 0;
    for (const auto& channel : channels)
        sum += channel.lost;
    return sum;
}

uint64_t RecordingReport::gaps() const { return gapTable.size(); }

double RecordingReport::worstFill() const {
    double worst = 0.0;
    for (const auto& channel : channels)
        worst = std::max(worst, channel.worstFill);
    return worst;
}

std::string RecordingReport::verdict() const {
    std::string text = fmt::format("Recorded {} for {:.1f} s: {}, ", counted(channels.size(), "channel", "channels"),
                                   durationS, counted(samples(), "sample", "samples"));
    if (lost() == 0 && gaps() == 0 && moduleReports == 0)
        text += "none lost.";
    else
        text += fmt::format("{} LOST in {}.", lost(), counted(gaps(), "gap", "gaps"));
    text += fmt::format(" Worst fill of a ring {:.0f} %, longest stall of the writer {:.0f} ms.", 100.0 * worstFill(),
                        1000.0 * longestWriterStallS);
    if (moduleReports > 0)
        text += fmt::format(" The module reported lost data {}.", counted(moduleReports, "time", "times"));
    if (interrupted)
        text += " Ended by the user.";
    if (!error.empty())
        text += fmt::format(" ENDED EARLY: {}.", error);
    return text;
}

Recorder::Recorder(Options options, const std::vector<ChannelEntry>& channels, const Scheduler& scheduler)
    : options_(std::move(options)), scheduler_(scheduler) {
    for (const auto& entry : channels) {
        if (!entry.channel.getActive() || entry.channel.getType() != 0 || entry.channel.getBuffer().getCapacity() == 0)
            continue;
        const Ratio ratio = entry.channel.getSampleRate();
        const double rate = static_cast<double>(ratio.numerator) / static_cast<double>(ratio.denominator);
        streams_.push_back(std::unique_ptr<Stream>(new Stream{
            entry, rate, RingReader(entry.channel, scheduler), ClockCheck(rate), 0, {}, 0, 0, {}}));
    }
    if (streams_.empty())
        throw RecordingError(fmt::format("{}: no channel is in use, there is nothing to record", options_.file));

    file_ = std::make_unique<RecordingFile>(options_.file);
    for (auto& stream : streams_) {
        stream->fileChannel = file_->addChannel(describe(stream->entry, stream->rate));
        stream->staging.resize(file_->chunkSamples(stream->fileChannel) * stream->reader.sampleSize());
        stream->report.label = stream->entry.label;
        stream->report.path = stream->entry.path;
        stream->report.sampleRate = stream->rate;
    }
    report_.file = options_.file;
}

Recorder::~Recorder() {
    stop_.store(true);
    if (thread_.joinable())
        thread_.join();
}

void Recorder::start(int64_t startTimeUs) {
    for (const auto& stream : streams_)
        file_->describeChannel(stream->fileChannel, describe(stream->entry, stream->rate));
    file_->setStartTime(startTimeUs);
    file_->flush();
    startTime_ = std::chrono::steady_clock::now();
    running_.store(true);
    thread_ = std::thread([this] { run(); });
}

double Recorder::elapsedS() const { return secondsSince(startTime_); }

void Recorder::run() {
    auto lastFlush = std::chrono::steady_clock::now();
    try {
        while (!stop_.load()) {
            const auto passStart = std::chrono::steady_clock::now();
            for (auto& stream : streams_)
                while (drain(*stream, false)) {
                }
            const uint64_t reports = moduleReports_.load();
            if (reports != moduleReportsSeen_) {
                moduleReportsSeen_ = reports;
                addGap(nullptr, Gap{"", 0, 0, elapsedS(), "the module reported lost data", true});
            }
            if (secondsSince(lastFlush) * 1000.0 >= options_.flushMs) {
                for (auto& stream : streams_)
                    writeStaged(*stream);
                file_->flush();
                lastFlush = std::chrono::steady_clock::now();
            }
            report_.longestWriterStallS = std::max(report_.longestWriterStallS, secondsSince(passStart));
            std::this_thread::sleep_until(passStart + passInterval);
        }
    } catch (const std::exception& failure) {
        report_.error = failure.what();
    }
    running_.store(false);
}

// One piece out of a ring. True when there may be more.
bool Recorder::drain(Stream& stream, bool atEnd) {
    const size_t sampleSize = stream.reader.sampleSize();
    // Pieces end where a chunk of the file ends, so that each chunk is written once.
    const size_t chunk = stream.staging.size() / sampleSize;
    const size_t room = std::min(chunk - static_cast<size_t>(stream.reader.next() % chunk), chunk - stream.staged);
    stream.report.worstFill = std::max(stream.report.worstFill, stream.reader.fill());
    const auto piece = stream.reader.read(stream.staging.data() + stream.staged * sampleSize, room);

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
        if (stream.staged == 0)
            stream.stagedIndex = piece.firstIndex;
        stream.staged += piece.samples;
        if (stream.staged == chunk || stream.reader.next() % chunk == 0)
            writeStaged(stream);
    }
    if (!atEnd) {
        if (const auto missing = stream.clock.observe(elapsedS(), stream.reader.acquired()))
            addGap(&stream, Gap{stream.entry.path, stream.reader.acquired(), *missing,
                                static_cast<double>(stream.reader.acquired()) / stream.rate,
                                "samples are missing in the stream (by the clock)", true});
    }
    return piece.samples > 0;
}

void Recorder::writeStaged(Stream& stream) {
    if (stream.staged == 0)
        return;
    file_->write(stream.fileChannel, stream.stagedIndex, stream.staging.data(), stream.staged);
    stream.report.samples += stream.staged;
    report_.bytes += stream.staged * stream.reader.sampleSize();
    samplesWritten_.fetch_add(stream.staged);
    stream.staged = 0;
}

void Recorder::addGap(Stream* stream, Gap gap) {
    if (stream != nullptr) {
        stream->report.lost += gap.length;
        ++stream->report.gaps;
    }
    samplesLost_.fetch_add(gap.length);
    file_->addGap(gap);
    report_.gapTable.push_back(std::move(gap));
}

RecordingReport Recorder::finish(bool interrupted) {
    stop_.store(true);
    if (thread_.joinable())
        thread_.join();
    report_.durationS = elapsedS();
    report_.interrupted = interrupted;
    try {
        for (auto& stream : streams_) {
            if (!report_.error.empty())
                break;
            while (drain(*stream, true)) {
            }
            writeStaged(*stream);
        }
        report_.moduleReports = moduleReports_.load();
        if (report_.error.empty() && report_.moduleReports != moduleReportsSeen_)
            addGap(nullptr, Gap{"", 0, 0, report_.durationS, "the module reported lost data", true});
    } catch (const std::exception& failure) {
        report_.error = failure.what();
    }
    report_.channels.clear();
    for (const auto& stream : streams_)
        report_.channels.push_back(stream->report);
    try {
        file_->close(report_.verdict());
    } catch (const std::exception& failure) {
        if (report_.error.empty())
            report_.error = failure.what();
    }
    return report_;
}

}  // namespace zornhost
