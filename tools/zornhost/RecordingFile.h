#pragma once

#include <hdf5.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tools/zornhost/RecordingSink.h"

// A recording on disk: HDF5, readable by any tool for it.
//
//   /<channel path>            one dataset a channel, one dimension, in the channel's own integer or float type,
//                              chunked. Element i is the sample i/rate seconds after the start; lost samples are left
//                              at the fill value (the type's lowest number).
//       attributes             name, unit, scale, offset (physical = raw * scale + offset), range_min, range_max,
//                              sample_rate (Hz), the same exactly as sample_rate_numerator / sample_rate_denominator
//                              (64 bit integers, in lowest terms), start_time (ISO 8601, UTC), start_time_us (since
//                              1970), node_id; of a channel with an amplifier settings_in_force and settings_refused
//                              (with the reason; empty when the amplifier has taken all)
//   /gaps                      table: channel, first_index, length (samples), time (s since the start), cause,
//                              estimated
//   /                          attributes: manufacturer, model, serial_number, hardware_revision, software,
//                              start_time, start_time_us, verdict (set at the end), complete (1 after a proper end)
//
// A failure is a RecordingError with the file, what was tried and the system's reason; the file stays as the last flush
// has left it. One thread.
namespace zornhost {

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

class RecordingFile : public RecordingSink {
public:
    // Replaces an existing file of that name. One that another process is recording into is refused.
    explicit RecordingFile(const std::string& file);
    ~RecordingFile() override;

    bool keeps() const override { return true; }
    size_t addChannel(const ChannelInfo& info) override;
    void describeChannel(size_t channel, const ChannelInfo& info) override;
    void setAttribute(const std::string& name, const std::string& text) override;
    void setStartTime(int64_t microsecondsSince1970) override;
    // Elements in front of `index` that were never written keep the fill value.
    void write(size_t channel, uint64_t index, const void* samples, size_t count) override;
    void putGap(uint64_t row, const Gap& gap) override;
    // After this a killed process leaves all that was written before readable.
    void flush() override;
    void close(const std::string& verdict, bool complete) override;

private:
    struct Channel {
        Hid dataset;
        Hid type;
        uint64_t size = 0;
    };

    [[noreturn]] void fail(const std::string& what);
    void abandon();
    void refuseFileInUse() const;
    void writeVerdict(const std::string& text);
    void setNumber(const std::string& name, int64_t value);
    void keepMetadataInMemory(bool keep);

    std::string file_;
    Hid handle_;
    Hid gaps_;
    Hid gapType_;
    uint64_t gapCount_ = 0;
    bool abandoned_ = false;  // nothing more gets into the file
    std::vector<Channel> channels_;
};

}  // namespace zornhost
