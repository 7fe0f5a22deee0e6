#pragma once

#include <hdf5.h>

#include <cstdint>
#include <utility>

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

// A table of rows of one compound type, which grows at its end. The results say whether HDF5 has done it; why not
// stands on its error stack.
class RecordingTable {
public:
    RecordingTable() = default;
    // `name` may be a path. `type` is taken over; `chunk`: rows that are written together.
    RecordingTable(hid_t file, const char* name, Hid type, uint64_t chunk);

    bool valid() const { return set_.valid(); }
    hid_t id() const { return set_.get(); }
    uint64_t size() const { return size_; }
    // Rows from `first` on, which may be one behind the last.
    bool put(uint64_t first, const void* rows, uint64_t count);
    herr_t close() { return set_.reset(); }

private:
    Hid type_;
    Hid set_;
    uint64_t size_ = 0;
};

// UTF-8 of at most `size` bytes, ended by a zero.
Hid fixedText(size_t size);

}  // namespace zornhost
