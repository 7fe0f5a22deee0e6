#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include <zorn/structure/channel.h>

#include "tools/zornhost/CanTable.h"
#include "tools/zornhost/ClockReport.h"

namespace zornhost {

// Why a recording can't be made or goes no further: the file, what was tried, the system's reason.
class RecordingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One row of the table of gaps.
struct Gap {
    std::string channel;      // empty: the whole recording
    uint64_t firstIndex = 0;  // of the first sample that is missing
    uint64_t length = 0;      // samples
    double timeS = 0.0;       // of the first missing sample, since the start
    std::string cause;
    bool estimated = false;  // length and place are taken from the clock, not counted
};

struct ChannelInfo {
    std::string path;
    std::string name;
    std::string unit;
    std::string nodeId;
    double scale = 1.0;
    double offset = 0.0;
    double rangeMin = 0.0;
    double rangeMax = 0.0;
    Harvane::RT::Core::Ratio sampleRate;  // exact, Hz, in lowest terms
    std::string settings;                 // of its amplifier, in force; "" when that isn't known
    std::string refused;                  // what the amplifier has not taken, with the reason
    Harvane::RT::Core::SampleDataType type = Harvane::RT::Core::SampleDataType::Int16;
    size_t sampleSize = 2;  // bytes in the ring
};

// Where the recorder puts what it has taken. A failure is a RecordingError. One thread at a time.
class RecordingSink {
public:
    virtual ~RecordingSink() = default;
    RecordingSink(const RecordingSink&) = delete;
    RecordingSink& operator=(const RecordingSink&) = delete;

    // False when what is written goes nowhere.
    virtual bool keeps() const = 0;
    // Channels are numbered in the order of adding.
    virtual size_t addChannel(const ChannelInfo& info) = 0;
    // Renews the channel's attributes: scale, offset, range and unit are known once the acquisition has been set up.
    virtual void describeChannel(size_t channel, const ChannelInfo& info) = 0;
    virtual void setAttribute(const std::string& name, const std::string& text) = 0;
    virtual void setStartTime(int64_t microsecondsSince1970) = 0;  // of the recording and of every channel
    // `count` samples, the first of them number `index` since the start.
    virtual void write(size_t channel, uint64_t index, const void* samples, size_t count) = 0;
    // Rows are numbered from 0 without a hole; one that is there already is replaced.
    virtual void putGap(uint64_t row, const Gap& gap) = 0;
    // Tables of CAN frames are numbered in the order of adding. `interface`: how logs name the port.
    virtual size_t addCanTable(const ChannelInfo& info, const std::string& interface) = 0;
    virtual void addCanRows(size_t table, const CanRow* rows, size_t count) = 0;
    // Tables of asynchronous samples, likewise. A row is its time (double, s since the start) and, right behind it, the
    // sample in the channel's own type.
    virtual size_t addValueTable(const ChannelInfo& info) = 0;
    virtual void addValueRows(size_t table, const void* rows, size_t count) = 0;
    // A row of the clock's table; `timeS` since the start.
    virtual void addClockChange(const ClockChange& change, double timeS) = 0;
    virtual void setClock(const std::string& mode, Lock atStart, Lock atEnd) = 0;  // attributes; may be renewed
    virtual void flush() = 0;
    // `complete` is false when the recording ended because it failed.
    virtual void close(const std::string& verdict, bool complete) = 0;

protected:
    RecordingSink() = default;
};

// A file; for /dev/null a sink that keeps nothing, which shows what a machine can acquire without its disk. Raises
// RecordingError for a folder, any other device, a pipe, and a file that can't be made.
std::unique_ptr<RecordingSink> openSink(const std::string& file);

// How many samples of a channel are written at a time: a quarter of a second, at most 1 MiB.
size_t chunkSamples(const ChannelInfo& info);

}  // namespace zornhost
