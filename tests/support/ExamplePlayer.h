#pragma once

#include "support/Agent.h"
#include "support/DiscoveryProbe.h"
#include "support/DocExamples.h"
#include "support/ManagementClient.h"

#include <set>
#include <string>
#include <vector>

namespace nimbra::test {

// These functions play an example with the running agent of the caller. They return an empty text
// if everything went as written, and otherwise a description of the difference.

/// Plays a client's conversation: lines of a scenario (see simulator/scenario/Scenario.h) without
/// titles, remarks and shell commands. It starts with a login as the controller, unless its Info is
/// "conversation anonymous". Files are read from `folder`. The client must have just connected.
[[nodiscard]] std::string PlayConversation(const Example &example, const ManagementClient &client,
                                           const std::string &folder);

/// Plays datagrams: "> " is sent to the panel, "< " must be broadcast by it, "silence 2" is two
/// seconds without an answer.
[[nodiscard]] std::string PlayDiscovery(const Example &example, const DiscoveryProbe &probe);

/// Runs a Python program, which must print the lines of `output`.
[[nodiscard]] std::string PlayPython(const Example &program, const Example &output);

/// Plays a terminal session: "$ " is a shell command. The shell finds the project's own nimbractl,
/// and its environment names the panel and the user. The other lines are the expected output,
/// standard error included.
[[nodiscard]] std::string PlayConsole(const Example &example);

/// Plays the cloud server in a conversation, and the relay to which it sends the panel. Listens
/// from its construction on. One thread.
class CloudPlayer
{
public:
    /// Throws std::system_error if the server's port is not free.
    CloudPlayer();
    ~CloudPlayer();
    CloudPlayer(const CloudPlayer &) = delete;
    CloudPlayer &operator=(const CloudPlayer &) = delete;

    /// "> " must come from the agent, "< " is sent to it, an empty line starts a new connection. If
    /// the example does not start with a registration, the panel is registered first.
    [[nodiscard]] std::string Play(const Example &example);

private:
    /// The address where the panel must open a session, and the listener on it.
    struct Relay
    {
        std::string Address;
        Descriptor Socket;
    };

    [[nodiscard]] std::string PlayConnection(const std::vector<std::string> &lines);
    [[nodiscard]] std::string PlayLines(ManagementClient &panel,
                                        const std::vector<std::string> &lines);
    /// Listens at the relay's address if a heartbeat response names one.
    void Obey(const std::string &answer);

    Descriptor server_;
    Relay relay_;
    std::set<std::string> addresses_; ///< added to this machine
};

} // namespace nimbra::test
