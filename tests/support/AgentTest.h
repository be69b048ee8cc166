#pragma once

#include "support/Agent.h"
#include "support/ManagementClient.h"
#include "support/TestPanel.h"

#include <gtest/gtest.h>

#include <list>
#include <string>

namespace nimbra::test {

/// Base of tests with sessions of any kind and number: a sample panel, the agent on it, and the
/// clients that a test makes.
class AgentTest : public ::testing::Test
{
protected:
    explicit AgentTest(const panel::PanelSize &size = {}, const std::string &timeZone = "UTC0");
    /// Asks the agent to end, and lets the clients send meanwhile: it need not wait for their
    /// silence.
    ~AgentTest() override;

    /// A new client, which stays until the test's end.
    ManagementClient &Connect();
    /// One that has logged in; the test fails when it cannot.
    ManagementClient &LogIn(const panel::SampleLogin &login = panel::kController);

    TestPanel panel_;
    Agent agent_;

private:
    std::list<ManagementClient> clients_;
};

} // namespace nimbra::test
