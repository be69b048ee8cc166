#pragma once

#include "base/Flag.h"
#include "base/SecondTimer.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace nimbra {

/// Sends the lines of a list, many with one call. Each line keeps a limit of its own: 5 seconds, in
/// whole seconds of the clock, from the moment when the line before it is done. A line that fails
/// loses its own rest and no other line. The list ends early after the line on its way when the
/// session is to stop, and when its client has taken no byte for 60 seconds. One thread.
class RowSender
{
public:
    /// `stop` must outlive the sender.
    RowSender(int socket, const Flag &stop) : socket_(socket), stop_(stop) {}

    /// Adds a line, which is sent by a later call at the latest. False when the list ends here.
    [[nodiscard]] bool Add(std::string_view line);
    /// Sends all lines that were added. False when the list ends here.
    [[nodiscard]] bool Flush();
    /// Whether the list has ended because its client took nothing for 60 seconds.
    [[nodiscard]] bool IsGivenUp() const { return isGivenUp_; }

private:
    /// The lines of a batch, one behind the other, and where each ends.
    struct Batch
    {
        static constexpr std::size_t kSize = std::size_t{16} * 1024;
        static constexpr std::size_t kLines = 256;
        static_assert(kSize <= UINT16_MAX);

        std::array<char, kSize> Bytes;
        std::array<std::uint16_t, kLines> Ends;
    };

    /// How many bytes the lines of the batch have.
    [[nodiscard]] std::size_t Size() const;

    int socket_;
    const Flag &stop_;
    SecondTimer sinceTaken_;
    bool isGivenUp_ = false;
    /// Allocated with the sender: an allocation that fails later would leave a list without its
    /// end.
    std::unique_ptr<Batch> batch_ = std::make_unique_for_overwrite<Batch>();
    std::size_t lines_ = 0;
};

} // namespace nimbra
