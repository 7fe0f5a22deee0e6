#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrixsim {

// The samples of a 16-bit PCM file, mono or the left channel of a stereo one. Throws std::runtime_error with the file's
// name when it cannot be read or is anything else.
std::vector<int16_t> readWavFile(const std::string& file);

}  // namespace kestrixsim
