// Many sessions that change the panel concurrently.

#include "support/CommandTest.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;

constexpr int kSessions = 16;
constexpr int kChangesEach = 100;
constexpr int kFewChanges = 6;
constexpr char kNothingSeen[] = "(nothing)";

class ConcurrentChanges : public CommandTest
{
protected:
    /// Runs `session(number)` on one thread for each session, numbered from 1, and waits for all.
    template <class Session>
    static void RunSessions(Session session)
    {
        std::vector<std::thread> threads;
        for (int number = 1; number <= kSessions; ++number)
            threads.emplace_back(session, number);
        for (std::thread &thread : threads)
            thread.join();
    }

    /// The first column of the rows.
    [[nodiscard]] std::vector<std::string> Numbers(const std::string &sql) const
    {
        std::vector<std::string> numbers;
        for (const Row &row : panel_.Rows(sql))
            numbers.push_back(row.at(0));
        return numbers;
    }
};

/// Asks for a change, and again while the others leave it no turn in its 3 seconds, as on a busy
/// machine: such a change is not made.
std::string AskForChange(ManagementClient *client, const std::string &request)
{
    for (;;) {
        const Stopwatch watch;
        const std::string answer = client->Ask(request, seconds(60));
        if (!answer.ends_with("?Result=1") || watch.Seconds() < 3)
            return answer;
    }
}

/// A unique name for a change.
std::string NameOf(int session, int change)
{
    return "S" + std::to_string(session) + "C" + std::to_string(change);
}

/// A request of a session: adds a user or a card, or changes one of the sample panel. Only its own
/// statement holds its name in quotes.
std::string RequestOf(int session, int change)
{
    const std::string name = NameOf(session, change);
    switch (change % 4) {
    case 0:
        return "AddUserInfo?LastName=" + name;
    case 1:
        return "AddCardInfo?UserNo=1&FormatNo=1&CardNumber=" + name;
    case 2:
        return "SetUserInfo?UserNo=" + std::to_string(1 + session % 12) + "&LastName=" + name;
    default:
        return "SetCardInfo?CardNo=" + std::to_string(session) +
               "&UserNo=1&FormatNo=1&CardNumber=" + name;
    }
}

TEST_F(ConcurrentChanges, NoChangeIsLostAndNumbersAreUnique)
{
    const std::size_t calls = panel_.Calls().size();
    RunSessions([](int session) {
        ManagementClient client = LoggedIn(panel::kOperator);
        for (int change = 0; change < kChangesEach; ++change) {
            const std::string request = RequestOf(session, change);
            EXPECT_EQ(AskForChange(&client, request), CommandOf(request) + "Response?Result=0")
                << request;
        }
    });

    // Users 13 and up, and cards 17 and up, were added without a gap.
    constexpr int kAdded = kSessions * kChangesEach / 4;
    EXPECT_THAT(panel_.Rows("SELECT COUNT(*), MIN(No), MAX(No) FROM User"),
                ElementsAre(Row{std::to_string(12 + kAdded), "1", std::to_string(12 + kAdded)}));
    EXPECT_THAT(panel_.Rows("SELECT COUNT(*), MIN(No), MAX(No) FROM Card"),
                ElementsAre(Row{std::to_string(16 + kAdded), "1", std::to_string(16 + kAdded)}));
    EXPECT_EQ(panel_.Value("SELECT COUNT(DISTINCT LastName) FROM User WHERE No > 12"),
              std::to_string(kAdded));
    EXPECT_EQ(panel_.Value("SELECT COUNT(DISTINCT CardNo) FROM Card WHERE No > 16"),
              std::to_string(kAdded));

    // The journal holds each statement once, with its own number.
    constexpr int kChanges = kSessions * kChangesEach;
    EXPECT_THAT(
        panel_.Rows("SELECT COUNT(*), COUNT(DISTINCT Idseq), MIN(Idseq), MAX(Idseq),"
                    " COUNT(DISTINCT QueryData), MIN(DbKind), MAX(DbKind) FROM DBQueryInfo"),
        ElementsAre(Row{std::to_string(kChanges), std::to_string(kChanges), "1",
                        std::to_string(kChanges), std::to_string(kChanges), "1", "1"}));
    std::map<std::string, int> seen;
    for (const std::string &statement : panel_.Journal()) {
        const std::size_t begin = statement.find("'S");
        ASSERT_NE(begin, std::string::npos) << statement;
        ++seen[statement.substr(begin + 1, statement.find('\'', begin + 1) - begin - 1)];
    }
    for (int session = 1; session <= kSessions; ++session)
        for (int change = 0; change < kChangesEach; ++change)
            EXPECT_EQ(seen[NameOf(session, change)], 1) << NameOf(session, change);

    EXPECT_THAT(panel_.Calls(calls), SizeIs(std::size_t{kSessions} + kChanges)); // logins too
}

TEST_F(ConcurrentChanges, JournalKeepsOrderOfChanges)
{
    RunSessions([](int session) {
        ManagementClient client = LoggedIn(panel::kOperator);
        for (int change = 0; change < kFewChanges; ++change)
            EXPECT_EQ(
                AskForChange(&client, "SetUserInfo?UserNo=1&LastName=" + NameOf(session, change)),
                "SetUserInfoResponse?Result=0");
    });
    // The row holds the value of the last journal entry, and the changes of each session are in
    // order.
    const std::vector<std::string> journal = panel_.Journal();
    ASSERT_EQ(journal.size(), std::size_t{kSessions} * kFewChanges);
    EXPECT_THAT(
        journal.back(),
        HasSubstr("LastName='" + panel_.Value("SELECT LastName FROM User WHERE No=1") + "'"));
    std::map<std::string, int> next;
    for (const std::string &statement : journal) {
        const std::size_t begin = statement.find("LastName='S") + 10;
        const std::size_t middle = statement.find('C', begin);
        const std::string session = statement.substr(begin, middle - begin);
        EXPECT_EQ(std::stoi(statement.substr(middle + 1)), next[session]++) << statement;
    }
}

TEST_F(ConcurrentChanges, AccessLevelListsAreReplacedCompletely)
{
    RunSessions([](int session) {
        ManagementClient client = LoggedIn(panel::kOperator);
        const std::string number = std::to_string(session);
        for (int change = 0; change < kFewChanges; ++change)
            EXPECT_EQ(
                AskForChange(&client, "SetCardAccessLevel?CardNo=1&SelectType=1&AccessLevelNo=" +
                                          number + " " + number + " " + number),
                "SetCardAccessLevelResponse?Result=0");
    });
    const std::vector<std::string> levels =
        Numbers("SELECT AccessLevelNo FROM CardAccessLevel WHERE CardNo=1");
    ASSERT_THAT(levels, SizeIs(3));
    EXPECT_EQ(std::set<std::string>(levels.begin(), levels.end()).size(), 1U);
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM DBQueryInfo"),
              std::to_string(kSessions * kFewChanges * 5));
    EXPECT_EQ(panel_.Value("SELECT COUNT(DISTINCT Idseq) FROM DBQueryInfo"),
              std::to_string(kSessions * kFewChanges * 5));
}

TEST_F(ConcurrentChanges, ReadersSeeCompleteRowsDuringWrites)
{
    // Every change sets six columns of user 1 to the same text.
    ASSERT_EQ(Ask("SetUserInfo?UserNo=1&FirstName=A&MiddleName=A&LastName=A&PhoneNumber=A"
                  "&CellPhone=A&Email=A"),
              "SetUserInfoResponse?Result=0");
    RunSessions([](int session) {
        ManagementClient client = LoggedIn(panel::kOperator);
        const std::string name(1, static_cast<char>('A' + session));
        for (int change = 0; change < 20; ++change) {
            if (session % 4 == 0) {
                EXPECT_EQ(AskForChange(&client, "SetUserInfo?UserNo=1&FirstName=" + name +
                                                    "&MiddleName=" + name + "&LastName=" + name +
                                                    "&PhoneNumber=" + name + "&CellPhone=" + name +
                                                    "&Email=" + name),
                          "SetUserInfoResponse?Result=0");
                continue;
            }
            const std::string answer = client.Ask("GetUserInfo?UserNo=1", seconds(60));
            const std::size_t at = answer.find("&FirstName=");
            const std::string seen =
                at == std::string::npos ? std::string(kNothingSeen) : answer.substr(at + 11, 1);
            EXPECT_EQ(answer, "GetUserInfoResponse?Result=0&UserNo=1&FirstName=" + seen +
                                  "&MiddleName=" + seen + "&LastName=" + seen +
                                  "&PhoneNumber=" + seen + "&CellPhone=" + seen + "&Email=" + seen +
                                  "&Ada=0&Exempt=0&ThreatLevel=0");
        }
    });
}

} // namespace
} // namespace nimbra::test
