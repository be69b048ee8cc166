#include "fuzz/InputSize.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace nimbra::fuzz {

namespace {

constexpr InputSize kUsual = {512, 8};

} // namespace

std::size_t Shorten(std::uint8_t *data, std::size_t size, unsigned seed, const InputSize &maximum)
{
    constexpr unsigned kOneIn = 8;
    std::minstd_rand random(seed);
    const InputSize &wanted = random() % kOneIn == 0 ? maximum : kUsual;
    // The last line has no line feed.
    auto lines = static_cast<std::size_t>(std::count(data, data + size, '\n')) + 1;
    for (; lines > 2 && (size > wanted.Bytes || lines > wanted.Lines); --lines) {
        // Removes the line behind one of the line feeds, with that line feed.
        std::uint8_t *begin = std::find(data, data + size, '\n');
        for (std::size_t skipped = random() % (lines - 1); skipped > 0; --skipped)
            begin = std::find(begin + 1, data + size, '\n');
        std::uint8_t *const end = std::find(begin + 1, data + size, '\n');
        std::memmove(begin, end, static_cast<std::size_t>(data + size - end));
        size -= static_cast<std::size_t>(end - begin);
    }
    return size;
}

} // namespace nimbra::fuzz
