#pragma once

#include <cstring>
#include <functional>
#include <map>
#include <utility>
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
    using Store = std::pair<uint64_t, uint32_t>;

    void write(uint64_t address, uint64_t offset, const unsigned char* data, size_t size) override {
        accesses.push_back({true, address + offset, size});
        cells_[address + offset].assign(data, data + size);
        stores.emplace_back(address + offset, word(address + offset));
    }

    void read(uint64_t address, uint64_t offset, unsigned char* data, size_t size) override {
        if (beforeRead) {
            beforeRead(address + offset);
        }
        accesses.push_back({false, address + offset, size});
        const std::vector<unsigned char> bytes = cell(address + offset, size);
        std::memcpy(data, bytes.data(), size);
    }

    std::recursive_mutex& getSync() override { return sync_; }

    // Native 32-bit words, as the FPGA's bus carries them.
    void setWord(uint64_t address, uint32_t word) {
        cells_[address].resize(sizeof(word));
        std::memcpy(cells_[address].data(), &word, sizeof(word));
    }
    uint32_t word(uint64_t address) const {
        uint32_t word = 0;
        std::memcpy(&word, cell(address, sizeof(word)).data(), sizeof(word));
        return word;
    }

    // Consecutive addresses with one byte each.
    void setBytes(uint64_t address, const std::vector<unsigned char>& bytes) {
        for (const unsigned char byte : bytes) {
            cells_[address++] = {byte};
        }
    }
    std::vector<unsigned char> bytes(uint64_t address, size_t count) const {
        std::vector<unsigned char> result;
        for (; result.size() < count; ++address) {
            result.push_back(cell(address, 1)[0]);
        }
        return result;
    }

    // One address with several bytes; zeros where nothing was stored.
    void setCell(uint64_t address, const std::vector<unsigned char>& bytes) { cells_[address] = bytes; }
    std::vector<unsigned char> cell(uint64_t address, size_t size) const {
        const auto found = cells_.find(address);
        std::vector<unsigned char> bytes = found != cells_.end() ? found->second : std::vector<unsigned char>();
        bytes.resize(size);
        return bytes;
    }

    std::vector<Access> accesses;
    std::vector<Store> stores;  // the first four bytes of each write
    std::function<void(uint64_t address)> beforeRead;

private:
    std::map<uint64_t, std::vector<unsigned char>> cells_;
    std::recursive_mutex sync_;
};

}  // namespace kestrixtest
