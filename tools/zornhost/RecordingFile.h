#pragma once

#include <hdf5.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <zorn/structure/channel.h>

// A recording on disk: HDF5, readable by any tool for it.
//
//   /<channel path>            one dataset a channel, one dimension, in the channel's own integer or float type, chunked.
//                              Element i is the sample i/rate seconds after the start; lost samples are left at the fill
//                              value (the type's lowest number).
//       attributes             name, unit, scale, offset (physical = raw * scale + offset), range_min, range_max,
//                              sample_rate (Hz), start_time (ISO 8601, UTC), start_time_us (since 1970), node_id
//   /gaps                      table: channel, first_index, length (samples), time (s since the start), cause, estimated
//   /                          attributes: manufacturer, model, serial_number, hardware_revision, software,
//                              start_time, start_time_us, verdict (set at the end), complete (1 after a proper end)
//
// A failure is a RecordingError with the file, what was tried and the system's reason. One thread.
namespace zornhost {

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
    bool estimated = false;   // length and place are taken from the clock, not counted
};

// An HDF5 identifier that is closed by the function it came with.
class Hid {
public:
    using Close = herr_t (*)(hid_t);
    Hid() = default;
    Hid(hid_t id, Close close) : id_(id), close_(close) {}
    Hid(Hid&& other) noexcept : id_(other.id_), close_(other.close_) { other.id_ = -1; }
    Hid& operator=(Hid&& other) noexcept {
        std::swap(id_, other.id_);
        std::swap(close_, other.close_);
        return *this;
    }
    ~Hid() { reset(); }
    hid_t get() const { return id_; }
    bool valid() const { return id_ >= 0; }
    // What the close answered; 0 when nothing was open.
    herr_t reset() {
        const hid_t id = std::exchange(id_, -1);
        return id >= 0 ? close_(id) : 0;
    }

private:
    hid_t id_ = -1;
    Close close_ = nullptr;
};

class RecordingFile {
public:
    struct ChannelInfo {
        std::string path;
        std::string name;
        std::string unit;
        std::string nodeId;
        double scale = 1.0;
        double offset = 0.0;
        double rangeMin = 0.0;
        double rangeMax = 0.0;
        double sampleRate = 0.0;
        Harvane::RT::Core::SampleDataType type = Harvane::RT::Core::SampleDataType::Int16;
    };

    // Replaces an existing file of that name.
    explicit RecordingFile(const std::string& file);
    ~RecordingFile();

    // Channels are numbered in the order of adding.
    size_t addChannel(const ChannelInfo& info);
    // Renews the channel's attributes: scale, offset, range and unit are known once the acquisition has been set up.
    void describeChannel(size_t channel, const ChannelInfo& info);
    void setAttribute(const std::string& name, const std::string& text);
    void setAttribute(const std::string& name, int64_t value);
    void setStartTime(int64_t microsecondsSince1970);  // on the file and on every channel

    // Writes `count` samples at element `index`; elements in front that were never written keep the fill value.
    void write(size_t channel, uint64_t index, const void* samples, size_t count);
    void addGap(const Gap& gap);
    // After this a killed process leaves all that was written before readable.
    void flush();
    void close(const std::string& verdict);

    size_t chunkSamples(size_t channel) const;
    const std::string& file() const { return file_; }

private:
    struct Channel {
        Hid dataset;
        Hid type;
        size_t chunk = 0;
        uint64_t size = 0;
    };

    [[noreturn]] void fail(const std::string& what) const;
    void keepMetadataInMemory(bool keep);

    std::string file_;
    Hid handle_;
    Hid gaps_;
    Hid gapType_;
    uint64_t gapCount_ = 0;
    std::vector<Channel> channels_;
};

}  // namespace zornhost
