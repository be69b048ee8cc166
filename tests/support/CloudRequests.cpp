#include "support/CloudRequests.h"

namespace nimbra::test {

bool WaitForRequests(const simulator::CloudServer &server, Agent &agent, const std::string &word,
                     std::size_t count, milliseconds limit)
{
    return WaitUntil(
        [&] {
            static_cast<void>(agent.Log());
            return server.Count(word) >= count;
        },
        limit);
}

} // namespace nimbra::test
