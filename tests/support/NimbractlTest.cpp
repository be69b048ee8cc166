#include "support/NimbractlTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace nimbra::test {

using ::testing::HasSubstr;

std::vector<std::string> CtlCommand(const std::vector<std::string> &arguments,
                                    const std::vector<std::string> &environment)
{
    std::vector<std::string> command = {"env", "HOME=/tmp", "TERM=xterm"};
    for (const char *variable :
         {"NIMBRA_HOST", "NIMBRA_PORT", "NIMBRA_USER", "NIMBRA_PASSWORD", "NIMBRA_CLOCK_OFFSET",
          "NO_COLOR", "XDG_CONFIG_HOME", "XDG_STATE_HOME"})
        command.insert(command.begin() + 1, {"-u", variable});
    command.insert(command.end(), environment.begin(), environment.end());
    command.emplace_back(NIMBRACTL_PATH);
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

ProgramResult RunCtl(const std::vector<std::string> &arguments)
{
    return RunProgram(CtlCommand(arguments));
}

nlohmann::json CtlJson(std::vector<std::string> arguments)
{
    arguments.insert(arguments.end(), {"--output", "json"});
    const ProgramResult result = RunCtl(arguments);
    EXPECT_EQ(result.Status, 0) << result.Output;
    return nlohmann::json::parse(result.Output, nullptr, false);
}

void ExpectCtlFails(const std::vector<std::string> &arguments, int status,
                    const std::string &complaint)
{
    const ProgramResult result = RunCtl(arguments);
    EXPECT_EQ(result.Status, status) << result.Output;
    EXPECT_THAT(result.Output, HasSubstr(complaint));
}

std::vector<Row> RowsOf(const nlohmann::json &json, const std::vector<std::string> &members)
{
    std::vector<Row> rows;
    for (const nlohmann::json &object : json.is_array() ? json : nlohmann::json::array({json})) {
        Row row;
        for (const std::string &member : members) {
            const nlohmann::json value = object.value(member, nlohmann::json());
            row.push_back(value.is_string() ? value.get<std::string>() : value.dump());
        }
        rows.push_back(row);
    }
    return rows;
}

std::vector<std::string> NimbractlTest::Audited() const
{
    std::vector<std::string> codes;
    for (const panel::Call &call : panel_.Calls())
        if (call.size() > 4 && call[0] == "log" && call[4] != "15107")
            codes.push_back(call[4]);
    return codes;
}

} // namespace nimbra::test
