#include "simulator/model/CanFrame.h"

#include <cstddef>

namespace kestrixsim {

namespace {

// Counts the bits of a frame while they go out: a sixth of one kind in a row is preceded by a stuff bit.
class BitCounter {
public:
    void put(uint32_t value, int width) {
        for (int i = width - 1; i >= 0; --i) {
            const unsigned bit = value >> i & 1;
            crc_ = (crc_ << 1 & 0x7FFF) ^ ((bit ^ (crc_ >> 14)) != 0 ? polynomial : 0);
            stuffed(bit);
        }
    }

    // The check sum of what went out before, stuffed like it, and the fields behind it, which are not.
    int end() {
        const unsigned crc = crc_;
        for (int i = 14; i >= 0; --i) {
            stuffed(crc >> i & 1);
        }
        constexpr int delimiters = 3;  // behind the check sum, the slot for an acknowledge, and behind that
        constexpr int endOfFrame = 7;
        return count_ + delimiters + endOfFrame;
    }

private:
    static constexpr unsigned polynomial = 0x4599;

    void stuffed(unsigned bit) {
        ++count_;
        run_ = bit == last_ ? run_ + 1 : 1;
        last_ = bit;
        if (run_ == 5) {
            ++count_;
            last_ = bit ^ 1;
            run_ = 1;
        }
    }

    int count_ = 0;
    unsigned last_ = 2;  // neither
    int run_ = 0;
    unsigned crc_ = 0;
};

}  // namespace

int CanFrame::bits() const {
    if (isError()) {
        return errorBits;
    }
    const unsigned rtr = isRemote() ? 1 : 0;
    BitCounter counter;
    counter.put(0, 1);  // start of frame
    if (isExtended()) {
        counter.put(id >> 18 & 0x7FF, 11);
        counter.put(3, 2);  // SRR, IDE
        counter.put(id & 0x3FFFF, 18);
        counter.put(rtr, 1);
        counter.put(0, 2);  // reserved
    } else {
        counter.put(id & 0x7FF, 11);
        counter.put(rtr, 1);
        counter.put(0, 2);  // IDE, reserved
    }
    counter.put(length, 4);
    for (std::size_t i = 0; i < length && rtr == 0; ++i) {
        counter.put(data[i], 8);
    }
    return counter.end();
}

uint32_t CanFrame::priority() const {
    if (isError()) {
        return 0;  // an error flag waits for nobody
    }
    const uint32_t rtr = isRemote() ? 1 : 0;
    // The bits as they go out: 11 of the identifier, RTR or SRR, IDE, the other 18, RTR.
    return isExtended() ? (id >> 18 & 0x7FF) << 21 | 3U << 19 | (id & 0x3FFFF) << 1 | rtr
                        : (id & 0x7FF) << 21 | rtr << 20;
}

}  // namespace kestrixsim
