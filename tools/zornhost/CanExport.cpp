#include "tools/zornhost/CanExport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "tools/zornhost/CanFrame.h"
#include "tools/zornhost/CanTable.h"

namespace zornhost {

namespace {

constexpr uint64_t piece = 65536;  // rows that are read at a time

// One port's rows, in order, a piece at a time.
class PortRows {
public:
    PortRows(hid_t file, const std::string& path) : set_(H5Dopen2(file, path.c_str(), H5P_DEFAULT), H5Dclose) {
        const Hid space(H5Dget_space(set_.get()), H5Sclose);
        hsize_t size = 0;
        H5Sget_simple_extent_dims(space.get(), &size, nullptr);
        size_ = size;
        char name[32] = {};
        const Hid attribute(H5Aopen(set_.get(), canInterfaceName, H5P_DEFAULT), H5Aclose);
        const Hid type = fixedText(sizeof name);
        if (!attribute.valid() || H5Aread(attribute.get(), type.get(), name) < 0) {
            throw std::runtime_error(fmt::format("\"{}\" has no \"{}\"", path, canInterfaceName));
        }
        name[sizeof name - 1] = 0;
        interface_ = name;
        fill();
    }
    bool ended() const { return next_ == rows_.size(); }
    const CanRow& row() const { return rows_[next_]; }
    const std::string& interface() const { return interface_; }
    void advance() {
        if (++next_ == rows_.size()) {
            fill();
        }
    }

private:
    void fill() {
        rows_.resize(std::min(piece, size_ - read_));
        next_ = 0;
        if (rows_.empty()) {
            return;
        }
        const hsize_t start = read_;
        const hsize_t count = rows_.size();
        const Hid source(H5Dget_space(set_.get()), H5Sclose);
        H5Sselect_hyperslab(source.get(), H5S_SELECT_SET, &start, nullptr, &count, nullptr);
        const Hid target(H5Screate_simple(1, &count, nullptr), H5Sclose);
        const Hid type = canRowType();
        if (H5Dread(set_.get(), type.get(), target.get(), source.get(), H5P_DEFAULT, rows_.data()) < 0) {
            throw std::runtime_error(fmt::format("the frames of {} can't be read", interface_));
        }
        read_ += count;
    }

    Hid set_;
    std::string interface_;
    std::vector<CanRow> rows_;
    size_t next_ = 0;
    uint64_t size_ = 0;
    uint64_t read_ = 0;
};

std::vector<std::string> tablesOf(hid_t file) {
    std::vector<std::string> paths;
    H5Ovisit2(
        file, H5_INDEX_NAME, H5_ITER_INC,
        [](hid_t root, const char* name, const H5O_info_t* info, void* target) -> herr_t {
            if (info->type == H5O_TYPE_DATASET && H5Aexists_by_name(root, name, canInterfaceName, H5P_DEFAULT) > 0) {
                static_cast<std::vector<std::string>*>(target)->emplace_back(name);
            }
            return 0;
        },
        &paths, H5O_INFO_BASIC);
    return paths;
}

}  // namespace

int exportCan(const std::string& recording, const std::string& target, Output& output) {
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
    const Hid file(H5Fopen(recording.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT), H5Fclose);
    if (!file.valid()) {
        throw std::runtime_error(fmt::format("{}: is no recording that can be read", recording));
    }
    int64_t startUs = 0;
    const Hid start(H5Aopen(file.get(), "start_time_us", H5P_DEFAULT), H5Aclose);
    if (!start.valid() || H5Aread(start.get(), H5T_NATIVE_INT64, &startUs) < 0) {
        throw std::runtime_error(fmt::format("{}: has no start time: it is no recording of this program", recording));
    }
    std::vector<std::unique_ptr<PortRows>> ports;
    for (const auto& path : tablesOf(file.get())) {
        ports.push_back(std::make_unique<PortRows>(file.get(), path));
    }
    if (ports.empty()) {
        throw std::runtime_error(fmt::format("{}: has no CAN channels", recording));
    }
    std::unique_ptr<FILE, int (*)(FILE*)> log(target.empty() ? nullptr : std::fopen(target.c_str(), "we"), std::fclose);
    if (!target.empty() && !log) {
        throw std::runtime_error(fmt::format("{}: {}", target, std::strerror(errno)));
    }
    uint64_t count = 0;
    while (output.good()) {
        PortRows* first = nullptr;
        for (const auto& port : ports) {
            if (!port->ended() && (first == nullptr || port->row().timeS < first->row().timeS)) {
                first = port.get();
            }
        }
        if (first == nullptr) {
            break;
        }
        const CanRow& row = first->row();
        CanFrame frame;
        frame.id = row.id;
        frame.length = row.length;
        std::copy(std::begin(row.data), std::end(row.data), frame.data.begin());
        const std::string line = logLine(startUs + std::llround(row.timeS * 1e6), first->interface(), frame) + "\n";
        if (log && std::fputs(line.c_str(), log.get()) < 0) {
            break;
        }
        if (!log) {
            output.data(line);
        }
        first->advance();
        ++count;
    }
    if (log) {
        const bool failed = std::ferror(log.get()) != 0 || std::fflush(log.get()) != 0;
        if (std::fclose(log.release()) != 0 || failed) {
            throw std::runtime_error(fmt::format("{}: cannot be written: {}", target, std::strerror(errno)));
        }
        output.message(fmt::format("zornhost: {} frames of {} ports", count, ports.size()));
    }
    return 0;
}

}  // namespace zornhost
