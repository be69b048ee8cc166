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

/// Base of the tests of a family of commands: a sample panel, the agent on it, and a client that
/// has logged in as the controller. A request is a line without its line feed.
class CommandTest : public ::testing::Test
{
protected:
    explicit CommandTest(const panel::PanelSize &size = {}, const std::string &timeZone = "UTC0");
    /// Asks the agent to end and scenarios on meanwhile, so that it need not wait for the client.
    ~CommandTest() override;

    [[nodiscard]] std::string Ask(const std::string &request, milliseconds limit = kSoon)
    {
        return client_->Ask(request, limit);
    }
    [[nodiscard]] std::vector<std::string> AskList(const std::string &request)
    {
        return client_->AskList(request);
    }
    /// The first column of a query's rows.
    [[nodiscard]] std::vector<std::string> Lines(const std::string &sql) const;

    /// Shows that a request is answered with a result code alone, that the command's handler logs
    /// `message`, and that nothing is changed, journalled or audited.
    void ExpectRefused(const std::string &request, int result, const std::string &message);
    /// The same for Result=1 and the command's fail message.
    void ExpectFails(const std::string &request);
    /// Shows that a request is answered with Result=0 alone, and that by the time of the answer
    /// exactly these statements have been journalled and this one event has been audited.
    void ExpectChanges(const std::string &request, const std::vector<std::string> &statements,
                       int eventCode);
    /// Shows that a change fails after these statements have been journalled, the method logs the
    /// statement that failed, and nothing is audited.
    void ExpectBreaksOff(const std::string &request, const std::vector<std::string> &statements);

    /// Shows that the request fails while the databases cannot be opened, and that the data
    /// method logs it.
    void ExpectNeedsDatabase(const std::string &request);
    /// Shows that the request is refused as incomplete without a look at the databases: while they
    /// are away, too.
    void ExpectIncomplete(const std::string &request);
    /// Shows that the answer to a request is that to its keys in upper case, and to the request
    /// with an unknown key in front, which is logged.
    void ExpectReadsKeys(const std::string &request);

    TestPanel panel_;
    Agent agent_;
    /// Always there; a new one is made where another connection is needed.
    std::optional<ManagementClient> client_;
};

/// The word of a request, without its question mark.
[[nodiscard]] std::string CommandOf(const std::string &request);

/// The request with its keys in upper case and its values as they are.
[[nodiscard]] std::string WithUpperCaseKeys(const std::string &request);

/// What a list command answers for these rows: the header, then the rows; the bare failure when
/// there are none.
[[nodiscard]] std::vector<std::string> ListAnswer(const std::string &command, std::size_t total,
                                                  int offset, const std::vector<std::string> &rows);

} // namespace nimbra::test
