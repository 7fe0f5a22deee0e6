#pragma once

#include <hdf5.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

// Reads a recording back with plain HDF5 calls, as a stranger's tool would.
class RecordingReader {
public:
    explicit RecordingReader(const std::string& file) : file_(H5Fopen(file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT)) {
        if (file_ < 0) {
            throw std::runtime_error("can't open " + file);
        }
    }
    ~RecordingReader() { H5Fclose(file_); }
    RecordingReader(const RecordingReader&) = delete;
    RecordingReader& operator=(const RecordingReader&) = delete;

    // Paths of all one-dimensional sample datasets, in the order of the file's names.
    std::vector<std::string> channels() const {
        std::vector<std::string> paths;
        H5Ovisit2(
            file_, H5_INDEX_NAME, H5_ITER_INC,
            [](hid_t, const char* name, const H5O_info_t* info, void* target) -> herr_t {
                if (info->type == H5O_TYPE_DATASET && std::string(name).find('/') != std::string::npos) {
                    static_cast<std::vector<std::string>*>(target)->push_back(name);
                }
                return 0;
            },
            &paths, H5O_INFO_BASIC);
        std::erase_if(paths, [this](const std::string& path) { return isTable(path); });
        return paths;
    }

    template <class T>
    std::vector<T> samples(const std::string& path) const {
        const hid_t set = open(path);
        std::vector<T> values(length(set));
        const hid_t type = sizeof(T) == 2 ? H5T_NATIVE_INT16 : H5T_NATIVE_INT32;
        const hid_t stored = H5Dget_type(set);
        const bool same = H5Tequal(stored, type) > 0;
        H5Tclose(stored);
        const herr_t result = H5Dread(set, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
        H5Dclose(set);
        if (result < 0 || !same) {
            throw std::runtime_error("can't read " + path + " in its own type");
        }
        return values;
    }

    template <class T>
    std::vector<double> numbers(const std::string& path) const {
        const auto values = samples<T>(path);
        return {values.begin(), values.end()};
    }

    size_t count(const std::string& path) const {
        const hid_t set = open(path);
        const size_t result = length(set);
        H5Dclose(set);
        return result;
    }

    double number(const std::string& path, const std::string& attribute) const {
        double value = 0.0;
        read(path, attribute, [&](hid_t id) { return H5Aread(id, H5T_NATIVE_DOUBLE, &value); });
        return value;
    }

    std::string text(const std::string& path, const std::string& attribute) const {
        std::string value;
        read(path, attribute, [&](hid_t id) {
            const hid_t type = H5Aget_type(id);
            value.resize(H5Tget_size(type));
            const herr_t result = H5Aread(id, type, value.data());
            H5Tclose(type);
            return result;
        });
        value.resize(std::min(value.find('\0'), value.size()));
        return value;
    }

    // Time and value of each row of an asynchronous channel.
    std::vector<std::array<double, 2>> values(const std::string& path) const {
        const hid_t set = open(path);
        std::vector<std::array<double, 2>> rows(length(set));
        const hid_t row = H5Tcreate(H5T_COMPOUND, sizeof rows[0]);
        H5Tinsert(row, "time", 0, H5T_NATIVE_DOUBLE);
        H5Tinsert(row, "value", sizeof(double), H5T_NATIVE_DOUBLE);
        const herr_t result = H5Dread(set, row, H5S_ALL, H5S_ALL, H5P_DEFAULT, rows.data());
        H5Tclose(row);
        H5Dclose(set);
        if (result < 0) {
            throw std::runtime_error("can't read the rows of " + path);
        }
        return rows;
    }

    size_t gapRows() const { return count("gaps"); }

    // The column "lock" of the table of the clock.
    std::vector<std::string> clockLocks() const {
        constexpr size_t size = 16;
        const hid_t set = open("clock");
        std::vector<std::array<char, size>> cells(length(set));
        const hid_t text = H5Tcopy(H5T_C_S1);
        H5Tset_size(text, size);
        H5Tset_cset(text, H5T_CSET_UTF8);
        const hid_t row = H5Tcreate(H5T_COMPOUND, size);
        H5Tinsert(row, "lock", 0, text);
        const herr_t result = H5Dread(set, row, H5S_ALL, H5S_ALL, H5P_DEFAULT, cells.data());
        H5Tclose(row);
        H5Tclose(text);
        H5Dclose(set);
        if (result < 0) {
            throw std::runtime_error("can't read the table of the clock");
        }
        std::vector<std::string> locks;
        for (const auto& cell : cells) {
            locks.emplace_back(cell.data());
        }
        return locks;
    }

private:
    bool isTable(const std::string& path) const {
        const hid_t set = open(path);
        const hid_t type = H5Dget_type(set);
        const bool result = H5Tget_class(type) == H5T_COMPOUND;
        H5Tclose(type);
        H5Dclose(set);
        return result;
    }
    template <class Read>
    void read(const std::string& path, const std::string& attribute, Read&& value) const {
        const hid_t set = path.empty() ? H5Gopen2(file_, "/", H5P_DEFAULT) : open(path);
        const hid_t id = H5Aopen(set, attribute.c_str(), H5P_DEFAULT);
        const herr_t result = id < 0 ? -1 : value(id);
        H5Aclose(id);
        H5Oclose(set);
        if (result < 0) {
            throw std::runtime_error("no attribute " + attribute);
        }
    }
    hid_t open(const std::string& path) const {
        const hid_t set = H5Dopen2(file_, path.c_str(), H5P_DEFAULT);
        if (set < 0) {
            throw std::runtime_error("no dataset " + path);
        }
        return set;
    }
    static size_t length(hid_t set) {
        const hid_t space = H5Dget_space(set);
        const auto points = H5Sget_simple_extent_npoints(space);
        H5Sclose(space);
        return static_cast<size_t>(points);
    }

    hid_t file_;
};
