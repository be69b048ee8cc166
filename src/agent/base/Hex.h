#pragma once

#include "base/FixedText.h"

#include <array>
#include <cstddef>

namespace nimbra {

/// The bytes of a digest as upper-case hexadecimal digits, two a byte. Any thread.
template <std::size_t N>
[[nodiscard]] FixedText<2 * N> ToHex(const std::array<unsigned char, N> &bytes)
{
    // Worked out, not looked up: so the compiler makes many digits at a time.
    const auto digit = [](unsigned value) {
        return static_cast<char>(value + (value < 10 ? '0' : 'A' - 10));
    };
    FixedText<2 * N> text;
    for (std::size_t i = 0; i < N; ++i) {
        text.Set(2 * i, digit(bytes[i] >> 4U));
        text.Set(2 * i + 1, digit(bytes[i] & 0xFU));
    }
    return text;
}

} // namespace nimbra
