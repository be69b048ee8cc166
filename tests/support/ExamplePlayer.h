#pragma once

#include "support/Agent.h"
#include "support/DiscoveryProbe.h"
#include "support/DocExamples.h"
#include "support/ManagementClient.h"

#include <set>
#include <string>
#include <vector>

namespace nimbra::test {

// Each of these plays an example against the running agent. They return an empty text when all of
// it went as written, and otherwise what went wrong. The agent and its panel are the caller's.

/// A client's conversation: lines of a scenario (see scenario/Scenario.h), without words for a
/// reader and commands for a shell. Begins with a login as the controller, unless its Info is
/// marked "anonymous". Files are taken from `folder`. The client, newly connected, stays so.
[[nodiscard]] std::string PlayConversation(const Example &example, const ManagementClient &client,
                                           const std::string &folder);

/// Datagrams: "> " is sent to the panel, "< " must be broadcast by it, "silence 2" is two seconds
/// without an answer.
[[nodiscard]] std::string PlayDiscovery(const Example &example, const DiscoveryProbe &probe);

/// A Python program, and the lines that it must print.
[[nodiscard]] std::string PlayPython(const Example &program, const Example &output);

/// A terminal's window: "$ " is a command for the shell, in which nimbractl is the project's own
/// and the panel and the user are named in the environment; the other lines are what must be
/// printed, to standard output or error.
[[nodiscard]] std::string PlayConsole(const Example &example);

/// The cloud server's side of a conversation, and that of the relay which it orders the panel to
/// call. Listens from its making on. One thread.
class CloudPlayer
{
public:
    /// Throws std::system_error when the server's port cannot be had.
    CloudPlayer();
    ~CloudPlayer();
    CloudPlayer(const CloudPlayer &) = delete;
    CloudPlayer &operator=(const CloudPlayer &) = delete;

    /// "> " must come from the agent, "< " is sent to it, an empty line begins a new connection.
    /// An example that does not begin with the registration finds the panel registered.
    [[nodiscard]] std::string Play(const Example &example);

private:
    /// Where the panel was told to open a session, and the listener there.
    struct Relay
    {
        std::string Address;
        Descriptor Socket;
    };

    [[nodiscard]] std::string PlayConnection(const std::vector<std::string> &lines);
    [[nodiscard]] std::string PlayLines(ManagementClient &panel,
                                        const std::vector<std::string> &lines);
    /// Listens where a heartbeat's answer sends the panel, if it sends it anywhere.
    void Obey(const std::string &answer);

    Descriptor server_;
    Relay relay_;
    std::set<std::string> addresses_; ///< that this machine was given
};

} // namespace nimbra::test
