#include "support/CommandTest.h"

#include "support/EndAgent.h"
#include "support/WithoutDatabases.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <utility>

namespace nimbra::test {

namespace {

using ::testing::HasSubstr;

constexpr char kHandlers[] = "ClientWorker.cpp";
constexpr char kDataMethods[] = "DataManager.cpp";

} // namespace

CommandTest::CommandTest(const panel::PanelSize &size, const std::string &timeZone)
    : panel_(size), agent_(Agent::InTimeZone(timeZone)), client_(LoggedIn())
{}

CommandTest::~CommandTest()
{
    EndAgent(agent_, *client_);
}

std::vector<std::string> CommandTest::Lines(const std::string &sql) const
{
    std::vector<std::string> lines;
    for (Row &row : panel_.Rows(sql))
        lines.push_back(std::move(row[0]));
    return lines;
}

void CommandTest::ExpectRefused(const std::string &request, int result, const std::string &message)
{
    SCOPED_TRACE(request);
    const std::string command = CommandOf(request);
    const std::size_t messages = agent_.CountMessages(kHandlers, command, message);
    const std::size_t calls = panel_.Calls().size();
    const std::vector<std::string> content = TestPanel::Dump(panel_.Paths().MainDatabase);
    EXPECT_EQ(Ask(request), command + "Response?Result=" + std::to_string(result));
    EXPECT_TRUE(agent_.WaitForMessage(kHandlers, command, message, messages + 1));
    EXPECT_EQ(TestPanel::Dump(panel_.Paths().MainDatabase), content);
    EXPECT_EQ(panel_.Calls(calls), std::vector<panel::Call>());
}

void CommandTest::ExpectFails(const std::string &request)
{
    ExpectRefused(request, 1, CommandOf(request) + " fail");
}

void CommandTest::ExpectChanges(const std::string &request,
                                const std::vector<std::string> &statements, int eventCode)
{
    SCOPED_TRACE(request);
    std::vector<std::string> journal = panel_.Journal();
    const std::size_t calls = panel_.Calls().size();
    EXPECT_EQ(Ask(request), CommandOf(request) + "Response?Result=0");
    EXPECT_EQ(panel_.Calls(calls), std::vector<panel::Call>({AuditCall(eventCode)}));
    journal.insert(journal.end(), statements.begin(), statements.end());
    EXPECT_EQ(panel_.Journal(), journal);
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM DBQueryInfo WHERE DbKind IS NOT 1"), "0");
    EXPECT_EQ(panel_.Value("SELECT COUNT(DISTINCT Idseq) FROM DBQueryInfo"),
              std::to_string(journal.size()));
}

void CommandTest::ExpectBreaksOff(const std::string &request,
                                  const std::vector<std::string> &statements)
{
    SCOPED_TRACE(request);
    const std::string command = CommandOf(request);
    const std::size_t messages = agent_.CountMessages(kHandlers, command, command + " fail");
    const std::size_t failures = agent_.CountMessages(kDataMethods, command, "sqlite3_exec fail");
    const std::size_t calls = panel_.Calls().size();
    std::vector<std::string> journal = panel_.Journal();
    EXPECT_EQ(Ask(request), command + "Response?Result=1");
    EXPECT_TRUE(agent_.WaitForMessage(kHandlers, command, command + " fail", messages + 1));
    EXPECT_EQ(agent_.CountMessages(kDataMethods, command, "sqlite3_exec fail"), failures + 1);
    journal.insert(journal.end(), statements.begin(), statements.end());
    EXPECT_EQ(panel_.Journal(), journal);
    EXPECT_EQ(panel_.Calls(calls), std::vector<panel::Call>());
}

void CommandTest::ExpectNeedsDatabase(const std::string &request)
{
    SCOPED_TRACE(request);
    const std::string command = CommandOf(request);
    const std::size_t calls = panel_.Calls().size();
    const std::size_t messages = agent_.CountMessages(kHandlers, command, command + " fail");
    const WithoutDatabases withoutDatabases(panel_);
    EXPECT_EQ(Ask(request), command + "Response?Result=1");
    EXPECT_TRUE(agent_.WaitForMessage(kHandlers, command, command + " fail", messages + 1));
    EXPECT_EQ(agent_.CountMessages(kDataMethods, command, "sqlite3_open fail"), 1U);
    EXPECT_EQ(panel_.Calls(calls), std::vector<panel::Call>());
}

void CommandTest::ExpectIncomplete(const std::string &request)
{
    SCOPED_TRACE(request);
    {
        const WithoutDatabases withoutDatabases(panel_);
        EXPECT_EQ(Ask(request), CommandOf(request) + "Response?Result=2");
    }
    EXPECT_EQ(agent_.CountInLog("sqlite3_open fail"), 0U);
    ExpectRefused(request, 2, "Message fail");
    EXPECT_EQ(agent_.CountInLog(kDataMethods), 0U);
}

void CommandTest::ExpectReadsKeys(const std::string &request)
{
    SCOPED_TRACE(request);
    const std::vector<std::string> answer = AskList(request);
    EXPECT_THAT(answer[0], HasSubstr("Result=0"));
    const std::size_t unknown = agent_.CountInLog("Invalid Token");
    EXPECT_EQ(AskList(WithUpperCaseKeys(request)), answer);
    EXPECT_EQ(agent_.CountInLog("Invalid Token"), unknown);
    const std::string command = CommandOf(request);
    EXPECT_EQ(AskList(command + "?Unknown=1&" + request.substr(command.size() + 1)), answer);
    EXPECT_EQ(agent_.CountMessages(kHandlers, command, "Invalid Token: Unknown"), 1U);
}

std::string CommandOf(const std::string &request)
{
    return request.substr(0, request.find('?'));
}

std::string WithUpperCaseKeys(const std::string &request)
{
    std::string changed = request;
    bool isKey = false;
    for (char &c : changed) {
        if (c == '?' || c == '&')
            isKey = true;
        else if (c == '=')
            isKey = false;
        else if (isKey)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return changed;
}

std::vector<std::string> ListAnswer(const std::string &command, std::size_t total, int offset,
                                    const std::vector<std::string> &rows)
{
    if (rows.empty())
        return {command + "Response?Result=1"};
    std::vector<std::string> lines = {command + "Response?Result=0&Total=" + std::to_string(total) +
                                      "&Offset=" + std::to_string(offset) +
                                      "&Count=" + std::to_string(rows.size())};
    lines.insert(lines.end(), rows.begin(), rows.end());
    return lines;
}

} // namespace nimbra::test
