#pragma once

#include <cstddef>
#include <cstdint>

namespace nimbra::fuzz {

/// What an input of lines may have.
struct InputSize
{
    std::size_t Bytes;
    std::size_t Lines;
};

/// Removes lines of an input, not the first one, until it has the usual size or two lines. One
/// input of eight may have the maximum size: long inputs find little that short ones do not, and
/// take longer. Returns the new size. `seed` chooses the lines and the size.
[[nodiscard]] std::size_t Shorten(std::uint8_t *data, std::size_t size, unsigned seed,
                                  const InputSize &maximum);

} // namespace nimbra::fuzz
