#include "tools/zornhost/RecordingFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>

#include "tools/zornhost/Output.h"
#include "tools/zornhost/RateMath.h"

using Harvane::RT::Core::SampleDataType;

namespace zornhost {

namespace {

constexpr size_t channelTextSize = 160;
constexpr size_t causeTextSize = 96;
constexpr size_t lockTextSize = 16;
constexpr uint64_t tableChunk = 64;  // rows
constexpr uint64_t canChunk = 4096;
constexpr size_t verdictTextSize = 1000;
// Chunks in a leaf of a dataset's index are twice as many: a leaf splits after four minutes of a channel. A process
// that is killed while a split is written leaves a dataset that can't be read.
constexpr unsigned indexOrder = 512;
constexpr hsize_t metadataBlock = 1 << 20;  // bytes: what belongs together is written together

struct GapRow {
    char channel[channelTextSize];
    uint64_t firstIndex;
    uint64_t length;
    double timeS;
    char cause[causeTextSize];
    uint8_t estimated;
};

struct ClockRowOnDisk {
    double timeS;
    int64_t timeUs;
    char lock[lockTextSize];
    uint8_t tracking;
    uint8_t error;
    double phaseErrorNs;
};

Hid gapType() {
    Hid type(H5Tcreate(H5T_COMPOUND, sizeof(GapRow)), H5Tclose);
    const Hid channelText = fixedText(channelTextSize);
    const Hid causeText = fixedText(causeTextSize);
    H5Tinsert(type.get(), "channel", HOFFSET(GapRow, channel), channelText.get());
    H5Tinsert(type.get(), "first_index", HOFFSET(GapRow, firstIndex), H5T_NATIVE_UINT64);
    H5Tinsert(type.get(), "length", HOFFSET(GapRow, length), H5T_NATIVE_UINT64);
    H5Tinsert(type.get(), "time", HOFFSET(GapRow, timeS), H5T_NATIVE_DOUBLE);
    H5Tinsert(type.get(), "cause", HOFFSET(GapRow, cause), causeText.get());
    H5Tinsert(type.get(), "estimated", HOFFSET(GapRow, estimated), H5T_NATIVE_UINT8);
    return type;
}

Hid clockType() {
    Hid type(H5Tcreate(H5T_COMPOUND, sizeof(ClockRowOnDisk)), H5Tclose);
    const Hid lockText = fixedText(lockTextSize);
    H5Tinsert(type.get(), "time", HOFFSET(ClockRowOnDisk, timeS), H5T_NATIVE_DOUBLE);
    H5Tinsert(type.get(), "time_us", HOFFSET(ClockRowOnDisk, timeUs), H5T_NATIVE_INT64);
    H5Tinsert(type.get(), "lock", HOFFSET(ClockRowOnDisk, lock), lockText.get());
    H5Tinsert(type.get(), "tracking", HOFFSET(ClockRowOnDisk, tracking), H5T_NATIVE_UINT8);
    H5Tinsert(type.get(), "error", HOFFSET(ClockRowOnDisk, error), H5T_NATIVE_UINT8);
    H5Tinsert(type.get(), "phase_error_ns", HOFFSET(ClockRowOnDisk, phaseErrorNs), H5T_NATIVE_DOUBLE);
    return type;
}

hid_t nativeType(SampleDataType type) {
    switch (type) {
        case SampleDataType::Float64:
            return H5T_NATIVE_DOUBLE;
        case SampleDataType::Int32:
            return H5T_NATIVE_INT32;
        case SampleDataType::Int16:
            return H5T_NATIVE_INT16;
        case SampleDataType::Int8:
            return H5T_NATIVE_INT8;
        case SampleDataType::Float32:
            return H5T_NATIVE_FLOAT;
        default:
            return -1;
    }
}

// The lowest number of the type stands where samples are missing; NaN for floats.
void setFillValue(hid_t properties, SampleDataType type) {
    const int32_t lowest32 = std::numeric_limits<int32_t>::min();
    const int16_t lowest16 = std::numeric_limits<int16_t>::min();
    const int8_t lowest8 = std::numeric_limits<int8_t>::min();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    switch (type) {
        case SampleDataType::Int32:
            H5Pset_fill_value(properties, H5T_NATIVE_INT32, &lowest32);
            break;
        case SampleDataType::Int16:
            H5Pset_fill_value(properties, H5T_NATIVE_INT16, &lowest16);
            break;
        case SampleDataType::Int8:
            H5Pset_fill_value(properties, H5T_NATIVE_INT8, &lowest8);
            break;
        default:
            H5Pset_fill_value(properties, H5T_NATIVE_DOUBLE, &nan);
            break;
    }
}

// One that is there with the same type is overwritten where it lies.
bool writeAttribute(hid_t object, const std::string& name, hid_t type, const void* value) {
    if (H5Aexists(object, name.c_str()) > 0) {
        const Hid present(H5Aopen(object, name.c_str(), H5P_DEFAULT), H5Aclose);
        const Hid stored(H5Aget_type(present.get()), H5Tclose);
        if (H5Tequal(stored.get(), type) > 0) {
            return H5Awrite(present.get(), type, value) >= 0;
        }
        H5Adelete(object, name.c_str());
    }
    const Hid space(H5Screate(H5S_SCALAR), H5Sclose);
    const Hid attribute(H5Acreate2(object, name.c_str(), type, space.get(), H5P_DEFAULT, H5P_DEFAULT), H5Aclose);
    return attribute.valid() && H5Awrite(attribute.get(), type, value) >= 0;
}

// With room for `size` characters and the zero behind them; what is longer is cut off.
bool writeText(hid_t object, const std::string& name, std::string text, size_t size) {
    text.resize(size);
    const Hid type = fixedText(size + 1);
    return writeAttribute(object, name, type.get(), text.c_str());
}

bool writeText(hid_t object, const std::string& name, const std::string& text) {
    return writeText(object, name, text, text.size());
}

bool writeNumber(hid_t object, const std::string& name, double value) {
    return writeAttribute(object, name, H5T_NATIVE_DOUBLE, &value);
}

bool writeInteger(hid_t object, const std::string& name, int64_t value) {
    return writeAttribute(object, name, H5T_NATIVE_INT64, &value);
}

// HDF5 prints its errors, by a setting of each thread.
void keepQuiet() {
    [[maybe_unused]] thread_local const herr_t quiet = H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
}

// The innermost text of HDF5's error stack: it holds the system's reason.
herr_t takeDescription(unsigned, const H5E_error2_t* entry, void* target) {
    if (entry->desc != nullptr && *entry->desc != 0) {
        *static_cast<std::string*>(target) = entry->desc;
    }
    return 0;
}

}  // namespace

// HDF5 would go on to write what it still holds, with the part that failed missing in between. What the file has since
// the last flush is whole.
void RecordingFile::abandon() {
    abandoned_ = true;
    void* driver = nullptr;
    const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (nothing >= 0 && H5Fget_vfd_handle(handle_.get(), H5P_DEFAULT, &driver) >= 0) {
        ::dup2(nothing, *static_cast<int*>(driver));
    }
    if (nothing >= 0) {
        ::close(nothing);
    }
}

void RecordingFile::fail(const std::string& what) {
    const int systemError = errno;
    std::string reason;
    H5Ewalk2(
        H5E_DEFAULT, H5E_WALK_UPWARD,
        [](unsigned n, const H5E_error2_t* entry, void* target) -> herr_t {
            return n == 0 ? takeDescription(n, entry, target) : 0;
        },
        &reason);
    if (systemError != 0 && reason.find("errno") == std::string::npos) {
        reason += fmt::format("{}{}", reason.empty() ? "" : ": ", std::strerror(systemError));
    }
    const size_t text = reason.find("error message = '");
    if (text != std::string::npos) {
        const size_t begin = text + std::strlen("error message = '");
        reason = reason.substr(begin, reason.find('\'', begin) - begin);
    }
    if (handle_.valid()) {
        abandon();
    }
    throw RecordingError(fmt::format("{}: cannot {}{}{}", file_, what, reason.empty() ? "" : ": ", reason));
}

// HDF5 empties a file before it asks for the lock: another recording that runs into it would be gone.
void RecordingFile::refuseFileInUse() const {
    const int descriptor = ::open(file_.c_str(), O_RDWR | O_CLOEXEC);
    if (descriptor < 0) {
        return;
    }
    const bool used = ::flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(descriptor);
    if (used) {
        throw RecordingError(fmt::format("{}: another program has it open; a recording may be running into it", file_));
    }
}

RecordingFile::RecordingFile(const std::string& file) : file_(file) {
    // Without this HDF5 tidies up at the end of the process and stumbles over files whose last write failed. All files
    // are closed here.
    [[maybe_unused]] static const herr_t noExitHandler = H5dont_atexit();
    keepQuiet();
    refuseFileInUse();
    errno = 0;
    const Hid access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose);
    // This format has no "open for writing" mark, so that a recording whose process was killed opens like any other.
    H5Pset_libver_bounds(access.get(), H5F_LIBVER_V18, H5F_LIBVER_V18);
    H5Pset_fclose_degree(access.get(), H5F_CLOSE_STRONG);
    H5Pset_meta_block_size(access.get(), metadataBlock);
    const Hid creation(H5Pcreate(H5P_FILE_CREATE), H5Pclose);
    H5Pset_istore_k(creation.get(), indexOrder);
    handle_ = Hid(H5Fcreate(file.c_str(), H5F_ACC_TRUNC, creation.get(), access.get()), H5Fclose);
    if (!handle_.valid()) {
        fail("create the file");
    }

    gaps_ = RecordingTable(handle_.get(), "gaps", gapType(), tableChunk);
    if (!gaps_.valid()) {
        fail("create the table of gaps");
    }
    // The end of the recording only fills these in: a process killed at that moment leaves a whole file.
    setNumber("complete", 0);
    writeVerdict("");
}

RecordingFile::~RecordingFile() = default;

size_t RecordingFile::addChannel(const ChannelInfo& info) {
    const hid_t native = nativeType(info.type);
    if (native < 0 || H5Tget_size(native) != info.sampleSize) {
        throw RecordingError(
            fmt::format("{}: channel \"{}\" has a sample type that can't be recorded", file_, info.path));
    }
    Channel channel;
    channel.type = Hid(H5Tcopy(native), H5Tclose);
    const hsize_t none = 0;
    const hsize_t unlimited = H5S_UNLIMITED;
    const hsize_t chunk = chunkSamples(info);
    const Hid space(H5Screate_simple(1, &none, &unlimited), H5Sclose);
    const Hid properties(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
    H5Pset_chunk(properties.get(), 1, &chunk);
    setFillValue(properties.get(), info.type);
    H5Pset_fill_time(properties.get(), H5D_FILL_TIME_IFSET);
    const Hid access(H5Pcreate(H5P_DATASET_ACCESS), H5Pclose);
    // Nothing is held back: what can't be written fails here and not in the midst of a flush.
    H5Pset_chunk_cache(access.get(), 0, 0, 1.0);
    const Hid links(H5Pcreate(H5P_LINK_CREATE), H5Pclose);
    H5Pset_create_intermediate_group(links.get(), 1);
    H5Pset_char_encoding(links.get(), H5T_CSET_UTF8);
    channel.dataset = Hid(
        H5Dcreate2(handle_.get(), info.path.c_str(), native, space.get(), links.get(), properties.get(), access.get()),
        H5Dclose);
    if (!channel.dataset.valid()) {
        fail(fmt::format("create the dataset of channel \"{}\"", info.path));
    }
    channels_.push_back(std::move(channel));
    describeChannel(channels_.size() - 1, info);
    return channels_.size() - 1;
}

void RecordingFile::describeChannel(size_t number, const ChannelInfo& info) {
    const hid_t set = channels_[number].dataset.get();
    const bool written = writeText(set, "name", info.name) && writeText(set, "unit", info.unit) &&
                         writeText(set, "node_id", info.nodeId) && writeNumber(set, "scale", info.scale) &&
                         writeNumber(set, "offset", info.offset) && writeNumber(set, "range_min", info.rangeMin) &&
                         writeNumber(set, "range_max", info.rangeMax) &&
                         writeNumber(set, "sample_rate", toHz(info.sampleRate)) &&
                         writeInteger(set, "sample_rate_numerator", info.sampleRate.numerator) &&
                         writeInteger(set, "sample_rate_denominator", info.sampleRate.denominator);
    const bool hasAmplifier = !info.settings.empty() || !info.refused.empty();
    if (!written || (hasAmplifier && !(writeText(set, "settings_in_force", info.settings) &&
                                       writeText(set, "settings_refused", info.refused)))) {
        fail(fmt::format("describe channel \"{}\"", info.path));
    }
}

void RecordingFile::setAttribute(const std::string& name, const std::string& text) {
    if (!writeText(handle_.get(), name, text)) {
        fail(fmt::format("write the attribute \"{}\"", name));
    }
}

void RecordingFile::writeVerdict(const std::string& text) {
    if (!writeText(handle_.get(), "verdict", text, verdictTextSize)) {
        fail("write the verdict");
    }
}

void RecordingFile::setNumber(const std::string& name, int64_t value) {
    if (!writeInteger(handle_.get(), name, value)) {
        fail(fmt::format("write the attribute \"{}\"", name));
    }
}

void RecordingFile::setStartTime(int64_t microseconds) {
    const std::string text = isoTime(microseconds);
    setAttribute("start_time", text);
    setNumber("start_time_us", microseconds);
    for (const auto& channel : channels_) {
        if (!writeText(channel.dataset.get(), "start_time", text) ||
            !writeInteger(channel.dataset.get(), "start_time_us", microseconds)) {
            fail("write the start time");
        }
    }
}

void RecordingFile::write(size_t number, uint64_t index, const void* samples, size_t count) {
    if (count == 0) {
        return;
    }
    Channel& channel = channels_[number];
    keepQuiet();
    errno = 0;
    if (index + count > channel.size) {
        const hsize_t size = index + count;
        if (H5Dset_extent(channel.dataset.get(), &size) < 0) {
            fail("extend the recording");
        }
        channel.size = size;
    }
    const hsize_t start = index;
    const hsize_t length = count;
    const Hid target(H5Dget_space(channel.dataset.get()), H5Sclose);
    H5Sselect_hyperslab(target.get(), H5S_SELECT_SET, &start, nullptr, &length, nullptr);
    const Hid source(H5Screate_simple(1, &length, nullptr), H5Sclose);
    if (H5Dwrite(channel.dataset.get(), channel.type.get(), source.get(), target.get(), H5P_DEFAULT, samples) < 0) {
        fail("write samples");
    }
}

void RecordingFile::putGap(uint64_t number, const Gap& gap) {
    GapRow row{};
    std::strncpy(row.channel, gap.channel.c_str(), sizeof row.channel - 1);
    std::strncpy(row.cause, gap.cause.c_str(), sizeof row.cause - 1);
    row.firstIndex = gap.firstIndex;
    row.length = gap.length;
    row.timeS = gap.timeS;
    row.estimated = gap.estimated ? 1 : 0;
    keepQuiet();
    errno = 0;
    if (!gaps_.put(number, &row, 1)) {
        fail("write the table of gaps");
    }
}

size_t RecordingFile::addCanTable(const ChannelInfo& info, const std::string& interface) {
    RecordingTable table(handle_.get(), info.path.c_str(), canRowType(), canChunk);
    if (!table.valid() || !writeText(table.id(), "name", info.name) || !writeText(table.id(), "node_id", info.nodeId) ||
        !writeText(table.id(), canInterfaceName, interface)) {
        fail(fmt::format("create the table of channel \"{}\"", info.path));
    }
    canTables_.push_back(std::move(table));
    return canTables_.size() - 1;
}

void RecordingFile::addCanRows(size_t number, const CanRow* rows, size_t count) {
    keepQuiet();
    errno = 0;
    RecordingTable& table = canTables_[number];
    if (!table.put(table.size(), rows, count)) {
        fail("write CAN frames");
    }
}

size_t RecordingFile::addValueTable(const ChannelInfo& info) {
    const hid_t native = nativeType(info.type);
    if (native < 0 || H5Tget_size(native) != info.sampleSize) {
        throw RecordingError(
            fmt::format("{}: channel \"{}\" has a sample type that can't be recorded", file_, info.path));
    }
    Hid type(H5Tcreate(H5T_COMPOUND, sizeof(double) + info.sampleSize), H5Tclose);
    H5Tinsert(type.get(), "time", 0, H5T_NATIVE_DOUBLE);
    H5Tinsert(type.get(), "value", sizeof(double), native);
    RecordingTable table(handle_.get(), info.path.c_str(), std::move(type), canChunk);
    if (!table.valid() || !writeText(table.id(), "name", info.name) || !writeText(table.id(), "unit", info.unit) ||
        !writeNumber(table.id(), "scale", info.scale) || !writeNumber(table.id(), "offset", info.offset) ||
        !writeNumber(table.id(), "range_min", info.rangeMin) || !writeNumber(table.id(), "range_max", info.rangeMax) ||
        !writeText(table.id(), "node_id", info.nodeId)) {
        fail(fmt::format("create the table of channel \"{}\"", info.path));
    }
    valueTables_.push_back(std::move(table));
    return valueTables_.size() - 1;
}

void RecordingFile::addValueRows(size_t number, const void* rows, size_t count) {
    keepQuiet();
    errno = 0;
    RecordingTable& table = valueTables_[number];
    if (!table.put(table.size(), rows, count)) {
        fail("write asynchronous samples");
    }
}

void RecordingFile::addClockChange(const ClockChange& change, double timeS) {
    ClockRowOnDisk row{};
    std::strncpy(row.lock, lockText(change.lock), sizeof row.lock - 1);
    row.timeS = timeS;
    row.timeUs = change.timeUs;
    row.tracking = change.tracking ? 1 : 0;
    row.error = change.error ? 1 : 0;
    row.phaseErrorNs = change.phaseErrorNs;
    keepQuiet();
    errno = 0;
    if (!clock_.valid()) {
        clock_ = RecordingTable(handle_.get(), "clock", clockType(), tableChunk);
    }
    if (!clock_.valid() || !clock_.put(clock_.size(), &row, 1)) {
        fail("write the table of the clock");
    }
}

void RecordingFile::setClock(const std::string& mode, Lock atStart, Lock atEnd) {
    if (!writeText(handle_.get(), "clock_mode", mode) ||
        !writeText(handle_.get(), "clock_lock_at_start", lockText(atStart), lockTextSize) ||
        !writeText(handle_.get(), "clock_lock_at_end", lockText(atEnd), lockTextSize)) {
        fail("describe the clock");
    }
}

// Metadata must reach the disk as a whole at a flush and never in between, or a process killed at that moment would
// leave an index that points nowhere.
void RecordingFile::keepMetadataInMemory(bool keep) {
    H5AC_cache_config_t config{};
    config.version = H5AC__CURR_CACHE_CONFIG_VERSION;
    if (H5Fget_mdc_config(handle_.get(), &config) < 0) {
        return;
    }
    config.evictions_enabled = keep ? 0 : 1;
    config.incr_mode = H5C_incr__off;
    config.flash_incr_mode = H5C_flash_incr__off;
    config.decr_mode = H5C_decr__off;
    H5Fset_mdc_config(handle_.get(), &config);
}

void RecordingFile::flush() {
    keepQuiet();
    errno = 0;
    keepMetadataInMemory(false);
    if (H5Fflush(handle_.get(), H5F_SCOPE_GLOBAL) < 0) {
        fail("flush the recording");
    }
    keepMetadataInMemory(true);
}

void RecordingFile::close(const std::string& verdict, bool complete) {
    keepQuiet();
    if (!handle_.valid() || abandoned_) {
        return;
    }
    writeVerdict(verdict);
    setNumber("complete", complete ? 1 : 0);
    flush();
    keepMetadataInMemory(false);
    errno = 0;
    bool closed = true;
    for (auto& channel : channels_) {
        closed = channel.dataset.reset() >= 0 && closed;
    }
    for (auto* const tables : {&canTables_, &valueTables_}) {
        for (auto& table : *tables) {
            closed = table.close() >= 0 && closed;
        }
    }
    closed = gaps_.close() >= 0 && clock_.close() >= 0 && closed;
    if (handle_.reset() < 0 || !closed) {
        fail("close the file");
    }
}

}  // namespace zornhost
