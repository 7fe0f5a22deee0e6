#include "simulator/model/WavFile.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kestrixsim {

namespace {

uint32_t little(const std::vector<uint8_t>& bytes, size_t at, size_t size) {
    uint32_t value = 0;
    for (size_t i = size; i-- > 0;) {
        value = value << 8 | bytes[at + i];
    }
    return value;
}

bool named(const std::vector<uint8_t>& bytes, size_t at, const char* name) {
    return at + 4 <= bytes.size() && std::memcmp(bytes.data() + at, name, 4) == 0;
}

}  // namespace

// RIFF: chunks of a name, a size and as many bytes, padded to an even number.
std::vector<int16_t> readWavFile(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        throw std::runtime_error("Cannot open wave file \"" + file + "\"");
    }
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    if (bytes.size() < 12 || !named(bytes, 0, "RIFF") || !named(bytes, 8, "WAVE")) {
        throw std::runtime_error("\"" + file + "\" is not a wave file");
    }
    uint32_t channels = 0;
    for (size_t at = 12; at + 8 <= bytes.size();) {
        const size_t size = std::min<size_t>(little(bytes, at + 4, 4), bytes.size() - at - 8);
        const size_t content = at + 8;
        if (named(bytes, at, "fmt ") && size >= 16) {
            const uint32_t format = little(bytes, content, 2);
            channels = little(bytes, content + 2, 2);
            const uint32_t bits = little(bytes, content + 14, 2);
            const bool pcm = format == 1 || (format == 0xFFFE && size >= 26 && little(bytes, content + 24, 2) == 1);
            if (!pcm || bits != 16 || channels < 1 || channels > 2) {
                throw std::runtime_error("\"" + file + "\" is not 16-bit PCM, mono or stereo");
            }
        } else if (named(bytes, at, "data")) {
            if (channels == 0) {
                break;
            }
            std::vector<int16_t> samples(size / (size_t{2} * channels));
            for (size_t i = 0; i < samples.size(); ++i) {
                samples[i] = static_cast<int16_t>(little(bytes, content + i * 2 * channels, 2));
            }
            if (samples.empty()) {
                break;
            }
            return samples;
        }
        at = content + size + size % 2;
    }
    throw std::runtime_error("\"" + file + "\" holds no samples");
}

}  // namespace kestrixsim
