#pragma once

#include <algorithm>
#include <bit>

namespace Harvane::Utils::DataTypes {

class ByteHelper {
public:
    ByteHelper() = delete;

    // Reverses N bytes in place.
    template <unsigned N>
    static void sizedByteSwap(unsigned char* data) {
        static_assert(N == 1 || N == 2 || N == 4 || N == 8, "words of 1, 2, 4 or 8 bytes");
        std::reverse(data, data + N);
    }

    static constexpr bool isLittleEndian() { return std::endian::native == std::endian::little; }
};

}  // namespace Harvane::Utils::DataTypes
