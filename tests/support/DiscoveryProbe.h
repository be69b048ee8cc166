#pragma once

#include "base/Descriptor.h"
#include "support/Waiting.h"

#include <optional>
#include <string>
#include <string_view>

namespace nimbra::test {

/// Whether some socket of this host is bound to the port of probes.
[[nodiscard]] bool IsDiscoveryOpen();

/// A management tool on the second host of the network: sends probes to the panel and receives the
/// broadcast answers. One thread.
class DiscoveryProbe
{
public:
    /// Throws std::system_error if the second host cannot be entered.
    DiscoveryProbe();

    /// A received answer.
    struct Answer
    {
        std::string Text;
        std::string To; ///< its destination address
        int FromPort;   ///< its source port
    };

    /// Sends one datagram to the panel's address, or to all hosts of the network.
    void Send(std::string_view datagram) const;
    void Broadcast(std::string_view datagram) const;
    /// Like Send, but from another port than the one that receives answers.
    static void SendFromAnotherPort(std::string_view datagram);
    /// The next answer; nothing if none arrives in time.
    [[nodiscard]] std::optional<Answer> ReceiveAnswer(milliseconds limit = kSoon) const;
    [[nodiscard]] std::optional<std::string> Receive(milliseconds limit = kSoon) const;
    /// Sends a probe and receives one answer.
    [[nodiscard]] std::string Ask(std::string_view datagram) const;

private:
    Descriptor socket_;
};

} // namespace nimbra::test
