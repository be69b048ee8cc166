#pragma once

#include "support/AgentTest.h"
#include "support/Program.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace nimbra::test {

/// The words that run nimbractl with these arguments, as the controller on this machine's panel;
/// what is in the environment of the test is left out.
[[nodiscard]] std::vector<std::string> CtlCommand(const std::vector<std::string> &arguments,
                                                  const std::vector<std::string> &environment = {
                                                      "NIMBRA_HOST=127.0.0.1", "NIMBRA_USER=admin",
                                                      "NIMBRA_PASSWORD=admin1234"});

/// Runs nimbractl to its end; output and complaints together.
[[nodiscard]] ProgramResult RunCtl(const std::vector<std::string> &arguments);

/// The same with --output json: what it printed. The test fails when the status is not 0.
[[nodiscard]] nlohmann::json CtlJson(std::vector<std::string> arguments);

/// Shows that nimbractl ends with this status, and that what it says holds this text.
void ExpectCtlFails(const std::vector<std::string> &arguments, int status,
                    const std::string &complaint);

/// These members of each object of an array, or of one object, as texts: comparable with the rows
/// of a table.
[[nodiscard]] std::vector<Row> RowsOf(const nlohmann::json &json,
                                      const std::vector<std::string> &members);

/// Base of the tests of nimbractl: a sample panel and the agent on it.
class NimbractlTest : public AgentTest
{
protected:
    using AgentTest::AgentTest;

    /// The codes of the events that were audited so far, logins left out.
    [[nodiscard]] std::vector<std::string> Audited() const;
};

} // namespace nimbra::test
