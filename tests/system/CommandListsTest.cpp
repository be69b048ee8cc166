// The hand-kept lists of commands against the agent's dispatch table.

#include "client/ClientWorker.h"
#include "support/Program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nimbra-client/CommandSchema.h>

namespace nimbra::test {

namespace {

std::vector<std::string> CommandsOfAgent()
{
    std::vector<std::string> names;
    for (const ClientWorker::Command &command : ClientWorker::Commands())
        names.emplace_back(command.Name());
    return names;
}

#ifdef NIMBRA_METHODS_PATH
/// The methods of the agent that the benchmark measures: it lists them as "<name>" or "<name>/...".
std::set<std::string> MethodsOfBenchmark()
{
    const ProgramResult result =
        RunProgram({NIMBRA_METHODS_PATH, "agent", "--benchmark_list_tests"});
    EXPECT_EQ(result.Status, 0) << result.Output;
    std::set<std::string> names;
    std::istringstream lines(result.Output);
    for (std::string line; std::getline(lines, line);)
        names.insert(line.substr(0, line.find('/')));
    return names;
}
#endif

} // namespace

TEST(CommandLists, ClientLibraryHasTheAgentsCommandsInTheSameOrder)
{
    std::vector<std::string> words;
    for (const client::CommandSchema &schema : client::CommandSchemas())
        words.emplace_back(schema.Word);
    EXPECT_THAT(words, testing::ElementsAreArray(CommandsOfAgent()));
}

#ifdef NIMBRA_METHODS_PATH
TEST(CommandLists, BenchmarkMeasuresTheMethodOfEveryCommand)
{
    // These four call no data method, or one that is not named after the command.
    const std::set<std::string> without = {"Hello", "Login", "Heartbeat", "SetEvent"};
    std::set<std::string> expected = {"HashPassword", "CheckPassword", "AddDBQueryInfo",
                                      "WriteAuditLog"};
    for (const std::string &name : CommandsOfAgent())
        if (!without.contains(name))
            expected.insert(name);
    EXPECT_THAT(MethodsOfBenchmark(), testing::ContainerEq(expected));
}
#endif

} // namespace nimbra::test
