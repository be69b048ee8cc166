#include "support/EndAgent.h"

#include "support/Waiting.h"

#include <csignal>

namespace nimbra::test {

void EndAgent(Agent &agent, ManagementClient &client)
{
    agent.Signal(SIGTERM);
    static_cast<void>(WaitUntil([&client] {
        client.SendLine("Heartbeat?");
        return client.Socket() < 0 || client.IsClosedByPeer(milliseconds(20));
    }));
}

} // namespace nimbra::test
