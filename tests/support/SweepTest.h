#pragma once

#include "support/Agent.h"
#include "support/Faults.h"
#include "support/ManagementClient.h"
#include "support/TestPanel.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace nimbra::test {

/// Base of the tests that send one request again and again, each time with another of its calls
/// failing: an agent that follows the orders of `faults_`, a client that has logged in, and a main
/// database that can be put back. The agent must hold no more descriptors in the end.
class SweepTest : public ::testing::Test
{
protected:
    /// Sends the request once, so that what is made once only is made.
    explicit SweepTest(const char *request);
    /// Asks the agent to end and scenarios on meanwhile, so that it need not wait for the client.
    ~SweepTest() override;

    /// Sends the request; its answer, rows included.
    std::vector<std::string> Ask() { return client_.AskList(request_); }
    /// Puts the database back as it was before any request.
    void Restore() const;
    /// The tables without the journal.
    [[nodiscard]] std::vector<std::string> Tables() const;

    Faults faults_;
    TestPanel panel_;
    Agent agent_;

private:
    ManagementClient client_;
    const char *request_;
    std::size_t descriptors_ = 0;
};

} // namespace nimbra::test
