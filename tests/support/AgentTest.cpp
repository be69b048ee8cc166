#include "support/AgentTest.h"

#include <csignal>

namespace nimbra::test {

AgentTest::AgentTest(const panel::PanelSize &size, const std::string &timeZone)
    : panel_(size), agent_(Agent::InTimeZone(timeZone))
{}

AgentTest::~AgentTest()
{
    if (!agent_.IsRunning())
        return;
    agent_.Signal(SIGTERM);
    static_cast<void>(WaitUntil([this] {
        clients_.remove_if([](ManagementClient &client) {
            client.SendLine("");
            return client.Socket() < 0 || client.IsClosedByPeer(milliseconds(20));
        });
        return clients_.empty();
    }));
}

ManagementClient &AgentTest::Connect()
{
    return clients_.emplace_back();
}

ManagementClient &AgentTest::LogIn(const panel::SampleLogin &login)
{
    return clients_.emplace_back(LoggedIn(login));
}

} // namespace nimbra::test
