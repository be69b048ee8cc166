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

/// Base of tests that repeat one request, each time with another failing call: an agent that
/// follows the rules of `faults_`, a client that has logged in, and a main database that can be
/// restored. At the end the agent must have no more open descriptors than before.
class SweepTest : public ::testing::Test
{
protected:
    /// Sends the request once, so that later requests find everything that is created only once.
    explicit SweepTest(const char *request);
    /// Stops the agent first, so that it does not wait for the client.
    ~SweepTest() override;

    /// Sends the request and returns its response with all rows.
    std::vector<std::string> Ask() { return client_.AskList(request_); }
    /// Restores the database as it was before the first request.
    void Restore() const;
    /// The content of all tables except the journal.
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
