#pragma once

#include "support/Agent.h"
#include "support/ManagementClient.h"
#include "support/TestPanel.h"

#include <gtest/gtest.h>

#include <list>
#include <string>

namespace nimbra::test {

/// Base of tests with any number of sessions: a sample panel, its agent, and the clients that a
/// test creates.
class AgentTest : public ::testing::Test
{
protected:
    explicit AgentTest(const panel::PanelSize &size = {}, const std::string &timeZone = "UTC0");
    /// Ends the agent while the clients send, so that it does not wait for the rest of their time
    /// to send a line, up to 5 seconds.
    ~AgentTest() override;

    /// Creates a client, which exists until the end of the test.
    ManagementClient &Connect();
    /// Creates a client that has logged in. Fails the test if it cannot log in.
    ManagementClient &LogIn(const panel::SampleLogin &login = panel::kController);

    TestPanel panel_;
    Agent agent_;

private:
    std::list<ManagementClient> clients_;
};

} // namespace nimbra::test
