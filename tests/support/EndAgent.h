#pragma once

#include "support/Agent.h"
#include "support/ManagementClient.h"

namespace nimbra::test {

/// Asks the agent to end, and lets the client send until its session has ended: the agent need not
/// wait for its silence.
void EndAgent(Agent &agent, ManagementClient &client);

} // namespace nimbra::test
