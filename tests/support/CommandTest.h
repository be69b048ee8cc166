#pragma once

#include "support/Agent.h"
#include "support/ManagementClient.h"
#include "support/TestPanel.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace nimbra::test {

/// Base of the tests of a command family: a sample panel, its agent, and a client that has logged
/// in as the controller. A request is a line without its line feed.
class CommandTest : public ::testing::Test
{
protected:
    explicit CommandTest(const panel::PanelSize &size = {}, const std::string &timeZone = "UTC0");
    /// Stops the agent first, so that it does not wait for the client.
    ~CommandTest() override;

    [[nodiscard]] std::string Ask(const std::string &request, milliseconds limit = kSoon)
    {
        return client_->Ask(request, limit);
    }
    [[nodiscard]] std::vector<std::string> AskList(const std::string &request)
    {
        return client_->AskList(request);
    }
    /// Returns the first column of a query's rows.
    [[nodiscard]] std::vector<std::string> Lines(const std::string &sql) const;

    /// Checks that the response to a request is only a result code, that the handler logs
    /// `message`, and that nothing is changed, journalled or audited.
    void ExpectRefused(const std::string &request, int result, const std::string &message);
    /// The same for Result=1 and the failure message of the command.
    void ExpectFails(const std::string &request);
    /// Checks that the response to a request is only Result=0, and that before the response exactly
    /// these statements were journalled and only this event was audited.
    void ExpectChanges(const std::string &request, const std::vector<std::string> &statements,
                       int eventCode);
    /// Checks that a change fails after these statements were journalled, that the method logs the
    /// failed statement, and that nothing is audited.
    void ExpectBreaksOff(const std::string &request, const std::vector<std::string> &statements);

    /// Shows that the request fails while the databases cannot be opened, and that the data
    /// method logs it.
    void ExpectNeedsDatabase(const std::string &request);
    /// Checks that the request is refused as incomplete without access to the databases, also while
    /// they do not exist.
    void ExpectIncomplete(const std::string &request);
    /// Checks that a request gets the same response with its keys in upper case, and with an
    /// unknown first key, which is logged.
    void ExpectReadsKeys(const std::string &request);

    TestPanel panel_;
    Agent agent_;
    /// The client. Replaced if a test needs another connection.
    std::optional<ManagementClient> client_;
};

/// The command word of a request, without its question mark.
[[nodiscard]] std::string CommandOf(const std::string &request);

/// The request with its keys in upper case.
[[nodiscard]] std::string WithUpperCaseKeys(const std::string &request);

/// The expected response of a list command: the header and these rows, or a failure without rows.
[[nodiscard]] std::vector<std::string> ListAnswer(const std::string &command, std::size_t total,
                                                  int offset, const std::vector<std::string> &rows);

} // namespace nimbra::test
