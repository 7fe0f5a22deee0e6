#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/zornhost/RecordingSink.h"
#include "tools/zornhost/RecordingTable.h"

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
//   /<path of a CAN channel>   table of its frames: time (s since the start), id, length, data; attributes name,
//                              node_id and interface (how logs name the port)
//   /<path of another          table of its samples: time (s since the start), value (in the channel's own type);
//    asynchronous channel>     attributes name, unit, scale, offset, range_min, range_max, node_id
//   /gaps                      table: channel, first_index, length (samples), time (s since the start), cause,
//                              estimated
//   /clock                     table: time (s since the start), time_us (since 1970), lock ("locked", "not locked",
//                              "holding", "free-running"), tracking, error, phase_error_ns; the first row is how the
//                              clock stood at the start, each further one a change
//   /                          attributes: manufacturer, model, serial_number, hardware_revision, software,
//                              start_time, start_time_us, clock_mode, clock_lock_at_start,
//                              clock_lock_at_end, routes (a line each, if any), verdict (set at the end), complete
//                              (1 after a proper end)
//
// A failure is a RecordingError with the file, what was tried and the system's reason; the file stays as the last flush
// has left it. One thread.
namespace zornhost {

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
    size_t addCanTable(const ChannelInfo& info, const std::string& interface) override;
    void addCanRows(size_t table, const CanRow* rows, size_t count) override;
    size_t addValueTable(const ChannelInfo& info) override;
    void addValueRows(size_t table, const void* rows, size_t count) override;
    void addClockChange(const ClockChange& change, double timeS) override;
    void setClock(const std::string& mode, Lock atStart, Lock atEnd) override;
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
    RecordingTable gaps_;
    RecordingTable clock_;    // only where something is known of it
    bool abandoned_ = false;  // nothing more gets into the file
    std::vector<Channel> channels_;
    std::vector<RecordingTable> canTables_;
    std::vector<RecordingTable> valueTables_;
};

}  // namespace zornhost
