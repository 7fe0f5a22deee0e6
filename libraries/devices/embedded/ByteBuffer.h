#pragma once

#include <array>
#include <cstddef>
#include <vector>

namespace Harvane::ZornLib::Devices::Embedded {

// Zeroed bytes for one register access: on the stack for what registers need, on the heap for anything longer.
class ByteBuffer {
public:
    explicit ByteBuffer(size_t size) : size_(size) {
        if (size > inline_.size()) {
            heap_.resize(size);
        }
    }

    unsigned char* data() { return heap_.empty() ? inline_.data() : heap_.data(); }
    size_t size() const { return size_; }

private:
    size_t size_;
    std::array<unsigned char, 16> inline_{};
    std::vector<unsigned char> heap_;
};

}  // namespace Harvane::ZornLib::Devices::Embedded
