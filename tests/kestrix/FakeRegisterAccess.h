#pragma once

#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "libraries/devices/embedded/IRegisterAccess.h"

// Registers as a map of 32-bit words, with a log of what was stored.
class FakeRegisterAccess : public Harvane::ZornLib::Devices::Embedded::IRegisterAccess {
public:
    void write(uint64_t address, uint64_t offset, const unsigned char* data, size_t) override {
        uint32_t word = 0;
        std::memcpy(&word, data, sizeof(word));
        words[address + offset] = word;
        stores.emplace_back(address + offset, word);
    }

    void read(uint64_t address, uint64_t offset, unsigned char* data, size_t) override {
        if (beforeRead) {
            beforeRead(address + offset);
        }
        const uint32_t word = words[address + offset];
        std::memcpy(data, &word, sizeof(word));
    }

    std::recursive_mutex& getSync() override { return sync; }

    std::map<uint64_t, uint32_t> words;
    std::vector<std::pair<uint64_t, uint32_t>> stores;
    std::function<void(uint64_t address)> beforeRead;

private:
    std::recursive_mutex sync;
};
