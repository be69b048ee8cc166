#pragma once

#include "support/AgentTest.h"
#include "support/Program.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace nimbra::test {

/// The command line of nimbractl with these arguments, as the controller on the local panel. It
/// does not use the environment of the test.
[[nodiscard]] std::vector<std::string> CtlCommand(const std::vector<std::string> &arguments,
                                                  const std::vector<std::string> &environment = {
                                                      "NIMBRA_HOST=127.0.0.1", "NIMBRA_USER=admin",
                                                      "NIMBRA_PASSWORD=admin1234"});

/// Runs nimbractl; returns its standard output and error together.
[[nodiscard]] ProgramResult RunCtl(const std::vector<std::string> &arguments);

/// Runs nimbractl with --output json and returns the output. Fails the test if the status is not 0.
[[nodiscard]] nlohmann::json CtlJson(std::vector<std::string> arguments);

/// Checks that nimbractl ends with this status and that its output contains this text.
void ExpectCtlFails(const std::vector<std::string> &arguments, int status,
                    const std::string &complaint);

/// Returns these members of one object, or of each object of an array, as texts, which can be
/// compared with the rows of a table.
[[nodiscard]] std::vector<Row> RowsOf(const nlohmann::json &json,
                                      const std::vector<std::string> &members);

/// Base of the tests of nimbractl: a sample panel and its agent.
class NimbractlTest : public AgentTest
{
protected:
    using AgentTest::AgentTest;

    /// The codes of the events that were audited so far, without logins.
    [[nodiscard]] std::vector<std::string> Audited() const;
};

} // namespace nimbra::test
