#pragma once

#include <cstring>
#include <map>
#include <vector>

#include "libraries/devices/embedded/IRegisterAccess.h"

namespace kestrixtest {

// A bus whose every address holds as many bytes as anybody stores there, and that remembers its accesses.
class FakeAccess : public Harvane::ZornLib::Devices::Embedded::IRegisterAccess {
public:
    struct Access {
        bool write;
        uint64_t address;  // base and offset together
        size_t size;
        bool operator==(const Access&) const = default;
    };

    void write(uint64_t address, uint64_t offset, const unsigned char* data, size_t size) override {
        accesses.push_back({true, address + offset, size});
        cells_[address + offset].assign(data, data + size);
    }

    void read(uint64_t address, uint64_t offset, unsigned char* data, size_t size) override {
        accesses.push_back({false, address + offset, size});
        auto& cell = cells_[address + offset];
        cell.resize(size);
        std::memcpy(data, cell.data(), size);
    }

    std::recursive_mutex& getSync() override { return sync_; }

    // Native 32-bit words, as the FPGA's bus carries them.
    void setWord(uint64_t address, uint32_t word) {
        cells_[address].resize(sizeof(word));
        std::memcpy(cells_[address].data(), &word, sizeof(word));
    }

    uint32_t word(uint64_t address) {
        uint32_t word = 0;
        cells_[address].resize(sizeof(word));
        std::memcpy(&word, cells_[address].data(), sizeof(word));
        return word;
    }

    // Consecutive addresses with one byte each.
    void setBytes(uint64_t address, const std::vector<unsigned char>& bytes) {
        for (const unsigned char byte : bytes)
            cells_[address++] = {byte};
    }

    // One address with several bytes.
    void setCell(uint64_t address, const std::vector<unsigned char>& bytes) { cells_[address] = bytes; }
    std::vector<unsigned char> cell(uint64_t address) { return cells_[address]; }

    size_t writes() const {
        size_t count = 0;
        for (const Access& access : accesses)
            count += access.write ? 1 : 0;
        return count;
    }

    std::vector<Access> accesses;

private:
    std::map<uint64_t, std::vector<unsigned char>> cells_;
    std::recursive_mutex sync_;
};

}  // namespace kestrixtest
