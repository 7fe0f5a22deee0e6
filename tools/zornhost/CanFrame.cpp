#include "tools/zornhost/CanFrame.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <stdexcept>

namespace zornhost {

namespace {

constexpr uint32_t greatestId = 0x1FFFFFFF;

std::optional<uint32_t> hexadecimal(std::string_view text) {
    uint32_t value = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return failure == std::errc() && end == text.data() + text.size() && !text.empty() ? std::optional(value)
                                                                                       : std::nullopt;
}

[[noreturn]] void refuse(std::string_view text, const char* why) {
    throw std::runtime_error(fmt::format("\"{}\" is no CAN frame: {}; write it as 123#DEADBEEF", text, why));
}

// Counts the bits of a frame up to its checksum, which it keeps, and the stuff bits among them.
class BitCounter {
public:
    void add(uint32_t value, int bits) {
        for (int i = bits - 1; i >= 0; --i) {
            const bool bit = ((value >> i) & 1) != 0;
            checksum(bit);
            stuff(bit);
        }
    }
    unsigned finish() {
        const uint32_t sum = crc_;
        for (int i = 14; i >= 0; --i) {
            stuff(((sum >> i) & 1) != 0);
        }
        // Delimiter, acknowledgement and its delimiter, end of frame, and what lies between two frames.
        return count_ + 1 + 2 + 7 + 3;
    }

private:
    void checksum(bool bit) {
        const bool next = bit != (((crc_ >> 14) & 1) != 0);
        crc_ = (crc_ << 1) & 0x7FFF;
        if (next) {
            crc_ ^= 0x4599;
        }
    }
    // After five equal bits an opposite one.
    void stuff(bool bit) {
        ++count_;
        run_ = bit == last_ ? run_ + 1 : 1;
        last_ = bit;
        if (run_ == 5) {
            ++count_;
            last_ = !bit;
            run_ = 1;
        }
    }

    uint32_t crc_ = 0;
    unsigned count_ = 0;
    bool last_ = true;
    int run_ = 0;
};

}  // namespace

std::string frameText(const CanFrame& frame) {
    std::string text = frame.extended() ? fmt::format("{:08X}#", frame.id) : fmt::format("{:03X}#", frame.id);
    for (size_t i = 0; i < std::min<size_t>(frame.length, frame.data.size()); ++i) {
        text += fmt::format("{:02X}", frame.data[i]);
    }
    return text;
}

CanFrame frameFromText(std::string_view text) {
    const size_t mark = text.find('#');
    if (mark == std::string_view::npos) {
        refuse(text, "there is no # behind the identifier");
    }
    CanFrame frame;
    const auto id = hexadecimal(text.substr(0, mark));
    if (!id || *id > greatestId) {
        refuse(text, "its identifier is no hexadecimal number up to 1FFFFFFF");
    }
    frame.id = *id;
    std::string_view data = text.substr(mark + 1);
    if (data.starts_with('#')) {
        refuse(text, "frames with more than 8 bytes can't be sent");
    }
    if (data.starts_with('R') || data.starts_with('r')) {
        refuse(text, "remote frames can't be sent");
    }
    while (!data.empty()) {
        if (data.starts_with('.') && frame.length > 0) {
            data.remove_prefix(1);
        }
        const auto byte = data.size() >= 2 ? hexadecimal(data.substr(0, 2)) : std::nullopt;
        if (!byte) {
            refuse(text, "its data are no pairs of hexadecimal digits");
        }
        if (frame.length == frame.data.size()) {
            refuse(text, "it has more than 8 bytes");
        }
        frame.data[frame.length++] = static_cast<uint8_t>(*byte);
        data.remove_prefix(2);
    }
    return frame;
}

std::string logLine(int64_t timeUs, std::string_view interface, const CanFrame& frame) {
    return fmt::format("({:010d}.{:06d}) {} {}", timeUs / 1000000, timeUs % 1000000, interface, frameText(frame));
}

unsigned bitsOf(const CanFrame& frame) {
    const uint32_t length = std::min<uint32_t>(frame.length, 8);
    BitCounter bits;
    bits.add(0, 1);  // start of frame
    if (frame.extended()) {
        bits.add(frame.id >> 18, 11);
        bits.add(3, 2);  // substitute remote request, identifier extension
        bits.add(frame.id & 0x3FFFF, 18);
        bits.add(0, 3);  // remote request, two reserved bits
    } else {
        bits.add(frame.id, 11);
        bits.add(0, 3);  // remote request, identifier extension, a reserved bit
    }
    bits.add(length, 4);
    for (uint32_t i = 0; i < length; ++i) {
        bits.add(frame.data[i], 8);
    }
    return bits.finish();
}

CanFilter::CanFilter(const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
        const size_t mark = text.find_first_of("-:");
        const auto first = hexadecimal(std::string_view(text).substr(0, mark));
        const auto second = mark == std::string::npos ? first : hexadecimal(std::string_view(text).substr(mark + 1));
        const bool masked = mark != std::string::npos && text[mark] == ':';
        if (!first || !second || (!masked && *second < *first)) {
            throw std::runtime_error(
                fmt::format("\"{}\" is no filter; write 123, 100-1FF or 123:7F0 (identifier and mask)", text));
        }
        rules_.push_back(masked ? Rule{*first, *first, *second} : Rule{*first, *second, 0});
    }
}

bool CanFilter::passes(uint32_t id) const {
    return rules_.empty() || std::any_of(rules_.begin(), rules_.end(), [id](const Rule& rule) {
               return rule.mask != 0 ? (id & rule.mask) == (rule.low & rule.mask) : id >= rule.low && id <= rule.high;
           });
}

}  // namespace zornhost
