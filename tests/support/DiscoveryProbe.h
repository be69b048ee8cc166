#pragma once

#include "base/Descriptor.h"
#include "support/Waiting.h"

#include <optional>
#include <string>
#include <string_view>

namespace nimbra::test {

/// A management tool on the second host of the segment: sends probes to the panel and receives
/// the answers that are broadcast. One thread.
class DiscoveryProbe
{
public:
    /// Throws std::system_error when the second host cannot be entered.
    DiscoveryProbe();

    /// An answer as it came.
    struct Answer
    {
        std::string Text;
        std::string To; ///< the address that it was sent to
    };

    /// Sends one datagram to the panel's address, or to everyone on the segment.
    void Send(std::string_view datagram) const;
    void Broadcast(std::string_view datagram) const;
    /// The same as Send, from another port than the one where answers are received.
    static void SendFromAnotherPort(std::string_view datagram);
    /// The next answer; nothing when none comes in time.
    [[nodiscard]] std::optional<Answer> ReceiveAnswer(milliseconds limit = kSoon) const;
    [[nodiscard]] std::optional<std::string> Receive(milliseconds limit = kSoon) const;
    /// Sends a probe and receives one answer.
    [[nodiscard]] std::string Ask(std::string_view datagram) const;

private:
    Descriptor socket_;
};

} // namespace nimbra::test
