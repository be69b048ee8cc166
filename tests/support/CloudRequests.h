#pragma once

#include "simulator/cloud/CloudServer.h"
#include "support/Agent.h"

#include <cstddef>
#include <string>

namespace nimbra::test {

/// Waits until the server has received `count` requests that start with `word`. Reads the log of
/// the agent meanwhile, so that the agent does not block on its output.
[[nodiscard]] bool WaitForRequests(const simulator::CloudServer &server, Agent &agent,
                                   const std::string &word, std::size_t count,
                                   milliseconds limit = seconds(60));

} // namespace nimbra::test
