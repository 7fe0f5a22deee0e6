#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/zornhost/AmplifierState.h"
#include "tools/zornhost/CanPorts.h"
#include "tools/zornhost/ClockCheck.h"
#include "tools/zornhost/ClockWatch.h"
#include "tools/zornhost/HostTree.h"
#include "tools/zornhost/RecordingSink.h"
#include "tools/zornhost/RingReader.h"

namespace zornhost {

struct ChannelReport {
    std::string label;
    std::string path;
    Harvane::RT::Core::Ratio sampleRate;  // exact, Hz, in lowest terms
    uint64_t samples = 0;                 // written; of a recording that failed those of the last flush
    uint64_t lost = 0;                    // known and estimated
    uint64_t gaps = 0;
    double worstFill = 0.0;  // share of the ring, 0 to 1
    bool silent = false;     // not a single sample has come
};

// An asynchronous channel that counts what it loses.
struct AsyncReport {
    std::string label;
    std::string path;
    uint64_t lost = 0;
    std::string failure;           // why the count is not known; empty when it is
    bool can = false;              // its samples are CAN frames
    uint64_t frames = 0;           // or samples, written
    uint64_t unsent = 0;           // messages of an output channel
    std::vector<CanCount> counts;  // what makes up `lost` and `unsent`, and what is told besides
};

// How the sampling clock stood to its reference.
struct ClockHistory {
    std::string mode;  // empty: nothing is known
    Lock atStart = Lock::NotLocked;
    Lock atEnd = Lock::NotLocked;
    size_t changes = 0;      // in between
    bool phaseLost = false;  // at some moment it was neither locked nor held

    // "Clock PPS: locked throughout."
    std::string text() const;
};

struct RecordingReport {
    std::string file;
    double durationS = 0.0;
    std::vector<ChannelReport> channels;
    std::vector<AsyncReport> asyncChannels;
    std::vector<Gap> gapTable;
    std::vector<AmplifierRefusal> refusals;  // settings that amplifiers have not taken, at the start or since
    ClockHistory clock;
    uint64_t moduleReports = 0;  // how often the module said that data was lost
    double longestWriterStallS = 0.0;
    uint64_t bytes = 0;
    bool keeps = true;  // false: nothing was written, the samples were only taken
    bool interrupted = false;
    std::string error;        // why the recording ended early; empty when it didn't
    std::string stopFailure;  // why the acquisition did not stop cleanly; empty when it did

    uint64_t samples() const;
    uint64_t lost() const;
    uint64_t unsent() const;  // messages that routes or others wanted to go out
    uint64_t gaps() const;
    double worstFill() const;
    // Something came of every channel, and what came is all there: as far as anyone can tell.
    bool lossless() const;
    // Nothing is missing and nothing failed.
    bool good() const {
        return error.empty() && stopFailure.empty() && refusals.empty() && !clock.phaseLost && unsent() == 0 &&
               lossless();
    }
    // "Recorded 16 channels for 5.0 s: 80000 samples, none lost."
    std::string verdict() const;
};

// Writes channels into a file on a thread of its own, or takes them in the same way for /dev/null. The cycle never
// waits for it: it reads the channels' rings, and what it could not read in time is counted as a gap. Losses upstream
// of the ring are found by the clock and by what the module reports.
class Recorder {
public:
    struct Options {
        std::string file;
        int flushMs = 500;                         // a recording that is killed is readable up to the last flush
        std::vector<AmplifierRefusal> refusals{};  // what was asked for in those that stand when it starts
        const ClockWatch* clock = nullptr;         // must live as long as the recorder; null: nothing is known
    };

    // Before the acquisition starts, once the module has been initialized. Takes the channels that are in use. Raises
    // RecordingError when the file can't be made or nothing is in use that samples could come of.
    Recorder(Options options, const std::vector<ChannelEntry>& channels, const Harvane::RT::Core::Scheduler& scheduler);
    ~Recorder();

    RecordingSink& sink() { return *sink_; }
    size_t channelCount() const { return streams_.size(); }
    // After the acquisition has started: the rings stand.
    void start(int64_t startTimeUs);
    // The module has said that it lost data. Any thread.
    void reportLostByModule() { moduleReports_.fetch_add(1); }
    // False once the writer has given up: the reason is in the report.
    bool running() const { return running_.load(); }
    double elapsedS() const;
    uint64_t samplesWritten() const { return samplesWritten_.load(); }
    uint64_t samplesLost() const { return samplesLost_.load(); }

    // After the acquisition has stopped: takes what is left in the rings, asks the asynchronous channels what they have
    // lost, closes the file. Does not raise.
    RecordingReport finish(bool interrupted, const std::string& stopFailure = {});

private:
    struct Stream {
        ChannelEntry entry;
        size_t sinkChannel = 0;
        double rate = 0.0;  // Hz
        std::optional<RingReader> reader;
        ClockCheck clock{0.0};
        ChannelInfo info;                    // as the file has it
        std::vector<unsigned char> staging;  // samples that do not fill a chunk of the file yet
        size_t staged = 0;
        uint64_t stagedIndex = 0;            // index of the first of them in the file
        std::optional<size_t> estimatedGap;  // row of the latest gap that the clock has shown
        ChannelReport report;
        ChannelReport flushed;    // as of the last flush
        uint64_t flushedEnd = 0;  // index behind the last sample of it
    };

    // A CAN channel.
    struct CanStream {
        ChannelEntry entry;
        size_t table = 0;
        std::optional<CanReader> reader;
        std::vector<CanReader::Record> fresh;
        std::vector<CanRow> rows;
        uint64_t frames = 0;
        uint64_t lost = 0;  // that the ring no longer held
    };

    // Another asynchronous channel.
    struct ValueStream {
        ChannelEntry entry;
        size_t table = 0;
        std::optional<RingReader> reader;
        std::vector<unsigned char> samples;
        std::vector<long> stamps;
        std::vector<unsigned char> rows;
        uint64_t count = 0;  // written
        uint64_t lost = 0;   // that the ring no longer held
    };

    void run();
    void pass();
    void drain(ValueStream& stream);
    void drain(CanStream& stream);
    void flush();
    bool drain(Stream& stream);
    void checkClock(Stream& stream);
    void writeStaged(Stream& stream);
    void addGap(Stream* stream, Gap gap);
    void noteModuleReports();
    void noteRefusals();
    void noteClock();
    void countUnwritten(Stream& stream);
    void askAsyncChannels();
    void askCanChannels();

    Options options_;
    const Harvane::RT::Core::Scheduler& scheduler_;
    std::unique_ptr<RecordingSink> sink_;
    std::vector<std::unique_ptr<Stream>> streams_;
    std::vector<std::unique_ptr<CanStream>> canStreams_;
    std::vector<std::unique_ptr<ValueStream>> valueStreams_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> running_{false};
    std::atomic<uint64_t> moduleReports_{0};
    std::atomic<uint64_t> samplesWritten_{0};
    std::atomic<uint64_t> samplesLost_{0};
    uint64_t moduleReportsSeen_ = 0;
    size_t nextClockChange_ = 0;  // of the clock's watch
    int64_t startTimeUs_ = 0;
    double lastModuleRowS_ = 0.0;
    std::chrono::steady_clock::time_point startTime_;
    std::chrono::steady_clock::time_point lastFlush_;
    RecordingReport report_;
};

}  // namespace zornhost
