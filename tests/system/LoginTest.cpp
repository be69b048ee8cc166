// Login: the controller's account, the web users and the rights of their roles, and what the panel
// is told of it.

#include "simulator/panel/SamplePanel.h"
#include "simulator/panel/Sqlite.h"
#include "support/AgentTest.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace nimbra::test {
namespace {

using panel::PasswordDigest;

constexpr char kAccepted[] = "LoginResponse?Result=0";
constexpr char kRefused[] = "LoginResponse?Result=1";
constexpr char kSource[] = "ClientWorker.cpp";

using Words = std::set<std::string>;

/// What each row (FormIndex, Authority) of the role table allows; every other pair allows nothing.
const std::map<std::pair<int, int>, Words> &RoleRights()
{
    static const std::map<std::pair<int, int>, Words> rights = {
        {{3, 0}, {"GetUserInfo", "GetUserInfoEx", "GetUserImage"}},
        {{3, 1}, {"AddUserInfo"}},
        {{3, 2}, {"SetUserInfo", "DelUserInfo", "SetUserImage"}},
        {{4, 0}, {"GetCardInfo", "GetCardInfoEx", "GetCardAccessLevel"}},
        {{4, 1}, {"AddCardInfo"}},
        {{4, 2}, {"SetCardInfo", "DelCardInfo", "SetCardAccessLevel"}},
        {{5, 0}, {"GetCardFormat", "GetCardFormatEx"}},
        {{6, 0}, {"GetAccessLevel", "GetAccessLevelEx"}},
        {{10, 0}, {"GetThreatLevel"}},
        {{10, 3}, {"SetThreatLevel"}},
        {{11, 0}, {"GetThreatInfo", "GetThreatInfoEx"}},
        {{41, 0}, {"GetDoorInfo", "GetDoorInfoEx"}},
        {{1, 24}, {"GetDoorLock", "SetDoorLock"}},
        {{1, 25}, {"GetAuxOutput", "SetAuxOutput"}},
    };
    return rights;
}

/// What several rows of the role table allow together.
Words RightsOf(const std::vector<std::pair<int, int>> &rows)
{
    Words words;
    for (const auto &row : rows) {
        const auto found = RoleRights().find(row);
        if (found != RoleRights().end())
            words.insert(found->second.begin(), found->second.end());
    }
    return words;
}

/// Every command that needs a right.
Words ProtectedWords()
{
    Words words;
    for (const auto &[row, allowed] : RoleRights())
        words.insert(allowed.begin(), allowed.end());
    return words;
}

/// The protected commands that a session may use: those not answered with Result=9. They are sent
/// without keys, and change nothing but the threat level.
Words Allowed(ManagementClient &client)
{
    const Words words = ProtectedWords();
    std::string lines;
    for (const std::string &word : words)
        lines += word + "?\n";
    client.Send(lines);
    Words allowed;
    for (const std::string &word : words) {
        const std::string header = client.ReadLine().value_or("(no answer)");
        EXPECT_EQ(header.rfind(word + "Response?Result=", 0), 0U) << header;
        const std::size_t count = header.rfind("&Count=");
        for (int rows = count == std::string::npos ? 0 : std::stoi(header.substr(count + 7));
             rows > 0; --rows)
            EXPECT_TRUE(client.ReadLine());
        if (header != word + "Response?Result=9")
            allowed.insert(word);
    }
    return allowed;
}

/// Checks that commands which need no right are served.
void ExpectUnprotectedCommandsWork(ManagementClient &client)
{
    EXPECT_EQ(client.Ask("Hello?").rfind("HelloResponse?Result=0&Key=", 0), 0U);
    for (const std::string word : {"Heartbeat", "SetEvent"})
        EXPECT_EQ(client.Ask(word + "?"), word + "Response?Result=0");
    for (const std::string line :
         {"GetEventLog?EventNo=1", "GetEventLogEx?Limit=1", "GetEventCode?Code=10001",
          "GetEventCodeEx?Limit=1", "GetLiveVideoInfo?DoorNo=1",
          "GetPlayVideoInfo?VideoTag=1&EventTime=2026-01-01 12:00:00"}) {
        const std::string header = client.AskList(line)[0];
        const std::string word = line.substr(0, line.find('?'));
        EXPECT_EQ(header.rfind(word + "Response?Result=0&", 0), 0U) << header;
    }
}

class Login : public AgentTest
{
protected:
    void AddWebUser(const std::string &id, const std::optional<std::string> &digest,
                    int role = kRole)
    {
        panel::SqliteFile file(panel_.Paths().MainDatabase);
        panel::SqliteStatement(
            file, "INSERT INTO WebUser (ID, Password, Name, UserRole) VALUES (?, ?, '', ?)")
            .Execute(id, digest, role);
    }

    /// Replaces the rows of the test's own role.
    void SetRole(const std::vector<std::pair<int, int>> &rows)
    {
        std::string sql = "DELETE FROM UserRoleTable WHERE UserRole=" + std::to_string(kRole);
        for (const auto &[form, authority] : rows)
            sql += "; INSERT INTO UserRoleTable (UserRole, FormIndex, Authority) VALUES (" +
                   std::to_string(kRole) + ", " + std::to_string(form) + ", " +
                   std::to_string(authority) + ")";
        panel_.Run(sql);
    }

    /// The answer to a login of a new session that is not used any more.
    std::string Answer(const std::string &user, const std::string &password)
    {
        if (tries_ == nullptr)
            tries_ = &Connect();
        return tries_->Login(user, password);
    }

    /// Checks that a login is refused, and that this is logged and not told to the panel.
    void ExpectRefused(const std::string &user, const std::string &password)
    {
        const std::size_t calls = panel_.Calls().size();
        const std::size_t messages = Failures();
        EXPECT_EQ(Answer(user, password), kRefused) << user;
        EXPECT_TRUE(agent_.WaitForMessage(kSource, "Login", "CheckPassword fail", messages + 1))
            << user;
        EXPECT_EQ(panel_.Calls().size(), calls) << user;
    }

    std::size_t Failures() { return agent_.CountMessages(kSource, "Login", "CheckPassword fail"); }

    /// A role that nobody of the sample panel has.
    static constexpr int kRole = 77;

private:
    ManagementClient *tries_ = nullptr;
};

// Accounts

TEST_F(Login, GivesTheControllerEveryRight)
{
    ManagementClient &client = LogIn(panel::kController);
    EXPECT_EQ(panel_.Calls(), std::vector<panel::Call>({AuditCall(15107)}));
    EXPECT_EQ(Allowed(client), ProtectedWords());
    EXPECT_EQ(Failures(), 0U);
}

TEST_F(Login, RefusesAWrongNameOrPassword)
{
    ExpectRefused("admin", "wrong");
    ExpectRefused("admin", "Admin1234");
    ExpectRefused("admin", "admin1234 ");
    ExpectRefused("admin", " admin1234");
    ExpectRefused("Admin", "admin1234");
    ExpectRefused("admin ", "admin1234");
    ExpectRefused("operator", "admin1234");
    ExpectRefused("somebody", "admin1234");
    ExpectRefused("%", "admin1234");
}

TEST_F(Login, RefusesAnEmptyNameOrPassword)
{
    ExpectRefused("", "");
    ExpectRefused("admin", "");
    ExpectRefused("", "admin1234");
    ManagementClient &client = Connect();
    for (const char *line : {"Login?", "Login?Username=admin", "Login?Password=admin1234",
                             "Login?Username", "Login?Username=admin&Password"})
        EXPECT_EQ(client.Ask(line), kRefused) << line;
}

TEST_F(Login, ComparesAnEmptyPasswordLikeAnyOther)
{
    AddWebUser("open", PasswordDigest(""));
    EXPECT_EQ(Answer("open", ""), kAccepted);
    ExpectRefused("open", "x");
    AddWebUser("", PasswordDigest(""));
    EXPECT_EQ(Connect().Ask("Login?"), kAccepted);
    EXPECT_EQ(panel_.Calls().back(), AuditCall(15107, ""));
}

TEST_F(Login, FindsItsWordAndKeysInAnyCaseAndOrder)
{
    ManagementClient &client = Connect();
    for (const char *line :
         {"login?username=admin&password=admin1234", "LOGIN?USERNAME=admin&PASSWORD=admin1234",
          "lOgIn?uSERname=admin&passWORD=admin1234", "Login?Password=admin1234&Username=admin",
          "Login?Username=x&Username=admin&Password=y&Password=admin1234",
          "Login?Site=1&Username=admin&Key=12&Password=admin1234"})
        EXPECT_EQ(client.Ask(line), kAccepted) << line;
    for (const char *key : {"Site", "Key"})
        EXPECT_EQ(agent_.CountMessages(kSource, "Login", std::string("Invalid Token: ") + key), 1U);
}

TEST_F(Login, ComparesDigestsInAnyCase)
{
    EXPECT_EQ(Answer(panel::kLowerCase.Id, panel::kLowerCase.Password), kAccepted);
    panel_.Run("UPDATE Controller SET Password=lower(Password)");
    EXPECT_EQ(Answer(panel::kController.Id, panel::kController.Password), kAccepted);
    ExpectRefused(panel::kController.Id, "ADMIN1234");
}

TEST_F(Login, RefusesTheDigestItself)
{
    const std::string digest = PasswordDigest(panel::kController.Password);
    ExpectRefused("admin", digest);
    AddWebUser("tester", digest.substr(0, 63));
    ExpectRefused("tester", panel::kController.Password);
    panel_.Run("UPDATE WebUser SET Password='" + digest + "0' WHERE ID='tester'");
    ExpectRefused("tester", panel::kController.Password);
    panel_.Run("UPDATE WebUser SET Password='" + digest + "' WHERE ID='tester'");
    EXPECT_EQ(Answer("tester", panel::kController.Password), kAccepted);
}

TEST_F(Login, RefusesAnAccountWithoutAStoredPassword)
{
    ExpectRefused(panel::kLocked.Id, "");
    ExpectRefused(panel::kLocked.Id, "x");
    AddWebUser("blank", "");
    ExpectRefused("blank", "");
    panel_.Run("UPDATE Controller SET Password=NULL");
    ExpectRefused("admin", "");
    ExpectRefused("admin", panel::kController.Password);
    EXPECT_EQ(Answer("admin", panel::kWebAdmin.Password), kAccepted);
}

TEST_F(Login, TriesTheControllerFirstAndThenTheWebUserOfTheSameName)
{
    EXPECT_EQ(Allowed(LogIn(panel::kController)), ProtectedWords());
    EXPECT_EQ(Allowed(LogIn(panel::kWebAdmin)), Allowed(LogIn(panel::kViewer)));
    ExpectRefused("admin", "neither");
    // Same name and same password: the controller's rights.
    panel_.Run("UPDATE WebUser SET Password=(SELECT Password FROM Controller) WHERE ID='admin'");
    EXPECT_EQ(Allowed(LogIn(panel::kController)), ProtectedWords());
    ExpectRefused("admin", panel::kWebAdmin.Password);
}

TEST_F(Login, KnowsOnlyTheFirstControllerRow)
{
    panel_.Run("UPDATE Controller SET No=2");
    ExpectRefused("admin", panel::kController.Password);
    panel_.Run("UPDATE Controller SET No=1");
    EXPECT_EQ(Answer("admin", panel::kController.Password), kAccepted);
}

TEST_F(Login, LooksOnlyAtTheFirstRowOfAName)
{
    AddWebUser("twice", PasswordDigest("first"));
    AddWebUser("twice", PasswordDigest("second"));
    EXPECT_EQ(Answer("twice", "first"), kAccepted);
    ExpectRefused("twice", "second");
}

TEST_F(Login, SeesAChangeOfThePanelAtOnce)
{
    ExpectRefused("newcomer", "welcome");
    AddWebUser("newcomer", PasswordDigest("welcome"));
    EXPECT_EQ(Answer("newcomer", "welcome"), kAccepted);
    panel_.Run("DELETE FROM WebUser WHERE ID='newcomer'");
    ExpectRefused("newcomer", "welcome");
}

// Missing tables and databases

TEST_F(Login, FallsThroughToTheWebUsersWithoutAControllerTable)
{
    panel_.Run("DROP TABLE Controller");
    ExpectRefused("admin", panel::kController.Password);
    EXPECT_EQ(Answer("admin", panel::kWebAdmin.Password), kAccepted);
    EXPECT_EQ(Answer("operator", panel::kOperator.Password), kAccepted);
    EXPECT_EQ(agent_.CountInLog(":DataManager.cpp:"), 0U);
}

TEST_F(Login, RefusesEveryWebUserWithoutAWebUserTable)
{
    panel_.Run("DROP TABLE WebUser");
    ExpectRefused("operator", panel::kOperator.Password);
    ExpectRefused("admin", panel::kWebAdmin.Password);
    EXPECT_EQ(Answer("admin", panel::kController.Password), kAccepted);
    EXPECT_EQ(agent_.CountInLog(":DataManager.cpp:"), 0U);
}

TEST_F(Login, AcceptsAWebUserWithoutAnyRightWhenTheRoleTableIsMissing)
{
    panel_.Run("DROP TABLE UserRoleTable");
    ManagementClient &client = LogIn(panel::kOperator);
    EXPECT_EQ(panel_.Calls(), std::vector<panel::Call>({AuditCall(15107, "operator")}));
    EXPECT_EQ(Allowed(client), Words());
    ExpectUnprotectedCommandsWork(client);
    EXPECT_EQ(agent_.CountInLog(":DataManager.cpp:"), 0U);
}

TEST_F(Login, RefusesEverybodyWhileTheDatabaseCannotBeOpened)
{
    const std::filesystem::path database = panel_.Paths().MainDatabase;
    const std::filesystem::path away = database.string() + ".away";
    std::filesystem::rename(database, away);
    std::filesystem::create_directory(database);
    ExpectRefused("admin", panel::kController.Password);
    EXPECT_EQ(agent_.CountMessages("DataManager.cpp", "CheckPassword", "sqlite3_open fail"), 1U);
    std::filesystem::remove(database);
    // SQLite opens a file that is not there, and finds no table in it.
    ExpectRefused("admin", panel::kController.Password);
    EXPECT_EQ(agent_.CountMessages("DataManager.cpp", "CheckPassword", "sqlite3_open fail"), 1U);
    std::filesystem::rename(away, database);
    EXPECT_EQ(Answer("admin", panel::kController.Password), kAccepted);
}

// Lengths and bytes

TEST_F(Login, CutsANameAt32Bytes)
{
    const std::string name(32, 'n');
    AddWebUser(name, PasswordDigest("pass"));
    EXPECT_EQ(Answer(name, "pass"), kAccepted);
    EXPECT_EQ(Answer(name + "m", "pass"), kAccepted);
    EXPECT_EQ(panel_.Calls().back(), AuditCall(15107, name));
    EXPECT_EQ(Answer(name + std::string(900, 'm'), "pass"), kAccepted);
    ExpectRefused(name.substr(1), "pass");
    const std::string tooLong(33, 'l');
    AddWebUser(tooLong, PasswordDigest("pass"));
    ExpectRefused(tooLong, "pass");
}

TEST_F(Login, CutsAPasswordAt68Bytes)
{
    const std::string password(68, 'p');
    AddWebUser("tester", PasswordDigest(password));
    EXPECT_EQ(Answer("tester", password), kAccepted);
    EXPECT_EQ(Answer("tester", password + "q"), kAccepted);
    EXPECT_EQ(Answer("tester", password + std::string(900, 'q')), kAccepted);
    ExpectRefused("tester", password.substr(1));
    AddWebUser("longer", PasswordDigest(password + "p"));
    ExpectRefused("longer", password + "p");
}

TEST_F(Login, TakesAPasswordOfAnyBytes)
{
    std::string high;
    for (int code = 0x80; code < 0xC0; ++code)
        high += static_cast<char>(code);
    const std::array<std::string, 8> passwords = {
        "two words", "a=b?c", "=x", "O'Neill", "'; DROP TABLE WebUser; --", "x\r", "%s%n%d", high};
    for (std::size_t i = 0; i < passwords.size(); ++i) {
        const std::string user = "user" + std::to_string(i);
        AddWebUser(user, PasswordDigest(passwords[i]));
        EXPECT_EQ(Answer(user, passwords[i]), kAccepted) << passwords[i];
    }
}

TEST_F(Login, KeepsACarriageReturnInThePassword)
{
    AddWebUser("tester", PasswordDigest("x\r"));
    EXPECT_EQ(Answer("tester", "x\r"), kAccepted);
    ExpectRefused("tester", "x");
    ExpectRefused("admin", std::string(panel::kController.Password) + "\r");
}

TEST_F(Login, RefusesANameThatWouldLeaveItsLiteral)
{
    for (const char *name : {"'", "admin'--", "' OR '1'='1", "admin' OR 1=1 --", "'''",
                             "x'; DROP TABLE WebUser; --", "admin'"})
        ExpectRefused(name, panel::kController.Password);
    // The name is cut between the two quotes.
    ExpectRefused(std::string(31, 'x') + "''", "x");
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) > 0 FROM WebUser"), "1");
}

TEST_F(Login, TellsThePanelTheVeryBytesOfAName)
{
    struct Case
    {
        std::string Sent;
        std::string Stored;
    };
    const std::vector<Case> cases = {
        {"two  words ", "two  words "},
        {"O''Brien", "O'Brien"}, // only a doubled quote passes, and the session's name keeps both
        {"''", "'"},
        {"$(touch /tmp/ran)", "$(touch /tmp/ran)"},
        {"`touch /tmp/ran`", "`touch /tmp/ran`"},
        {";touch /tmp/ran;", ";touch /tmp/ran;"},
        {"|touch /tmp/ran", "|touch /tmp/ran"},
        {">/tmp/ran", ">/tmp/ran"},
        {"''$(touch /tmp/ran)''", "'$(touch /tmp/ran)'"},
        {"''; touch /tmp/ran; ''", "'; touch /tmp/ran; '"},
        {"back\\slash\\", "back\\slash\\"},
        {"\"double\"", "\"double\""},
        {"$HOME", "$HOME"},
        {"*", "*"},
        {"~", "~"},
        {"#comment", "#comment"},
        {"!history", "!history"},
        {"-n", "-n"},
        {"--", "--"},
        {"%s%d%n", "%s%d%n"},
        {"{a,b}", "{a,b}"},
        {"tab\tend\r", "tab\tend\r"},
        {"Zo\xC3\xAB", "Zo\xC3\xAB"},
        {"\xFF\xFE\x80", "\xFF\xFE\x80"},
        {"\x01\x1B[31m\x7F", "\x01\x1B[31m\x7F"},
        {"=a=b?", "=a=b?"},
    };
    ManagementClient &client = Connect();
    for (const Case &c : cases) {
        AddWebUser(c.Stored, PasswordDigest("pass"));
        EXPECT_EQ(client.Ask("Login?Password=pass&Username=" + c.Sent), kAccepted) << c.Sent;
        EXPECT_EQ(panel_.Calls().back(), AuditCall(15107, c.Sent)) << c.Sent;
    }
    EXPECT_EQ(panel_.Calls().size(), cases.size());
    EXPECT_FALSE(std::filesystem::exists("/tmp/ran"));
}

TEST_F(Login, TellsThePanelTheClientsAddress)
{
    ManagementClient client(panel::kPanelAddress);
    EXPECT_EQ(client.Login("admin", "admin1234"), kAccepted);
    panel::Call call = AuditCall(15107);
    call[2] = panel::kPanelAddress;
    EXPECT_EQ(panel_.Calls(), std::vector<panel::Call>({call}));
    client.Reset();
}

// Rights

TEST_F(Login, GivesWebUsersTheRightsOfTheirRoles)
{
    const Words everything = ProtectedWords();
    const Words views = RightsOf({{3, 0}, {4, 0}, {5, 0}, {6, 0}, {10, 0}, {11, 0}, {41, 0}});
    const std::vector<std::pair<panel::SampleLogin, Words>> cases = {
        {panel::kOperator, everything},
        {panel::kLowerCase, everything},
        {panel::kViewer, views},
        {panel::kWebAdmin, views},
        {panel::kGuard, RightsOf({{41, 0}, {1, 24}})},
        {panel::kClerk, RightsOf({{3, 0}, {3, 1}, {4, 0}, {4, 1}})},
        {panel::kOdd, RightsOf({{5, 0}})},
        {panel::kNobody, {}},
    };
    ManagementClient &client = Connect();
    for (const auto &[login, rights] : cases) {
        EXPECT_EQ(client.Login(login.Id, login.Password), kAccepted) << login.Id;
        EXPECT_EQ(Allowed(client), rights) << login.Id;
    }
}

TEST_F(Login, LogsEveryCommandThatLacksItsRight)
{
    ManagementClient &client = LogIn(panel::kNobody);
    for (const std::string &word : ProtectedWords()) {
        // The right is asked for before anything of the request is read.
        EXPECT_EQ(client.Ask(word + "?UserNo=1&Nonsense=1"), word + "Response?Result=9");
        EXPECT_TRUE(agent_.WaitForMessage(kSource, word, "Authority fail")) << word;
    }
    EXPECT_EQ(agent_.CountInLog("Authority fail"), ProtectedWords().size());
    EXPECT_EQ(agent_.CountInLog("Invalid Token"), 0U);
    ExpectUnprotectedCommandsWork(client);
    EXPECT_EQ(panel_.Calls().size(), 1U) << "only the login is told to the panel";
    EXPECT_TRUE(panel_.Journal().empty());
}

/// Each pair of form and authority on its own; the authorities are those that mean something for
/// some form, and their neighbours.
class LoginRole : public Login, public testing::WithParamInterface<int>
{};

TEST_P(LoginRole, GivesForEachRowWhatItMeansAndNoMore)
{
    const int form = GetParam();
    // Without its command tool the panel is told of nothing, and the logins go faster.
    std::filesystem::remove(panel_.Paths().CommandTool);
    AddWebUser("tester", PasswordDigest("pass"));
    ManagementClient &client = Connect();
    for (const int authority : {-1, 0, 1, 2, 3, 4, 5, 7, 8, 15, 23, 24, 25, 26, 255}) {
        SetRole({{form, authority}});
        ASSERT_EQ(client.Login("tester", "pass"), kAccepted);
        EXPECT_EQ(Allowed(client), RightsOf({{form, authority}})) << authority;
    }
    panel_.Run("UPDATE UserRoleTable SET Authority=NULL WHERE UserRole=77");
    ASSERT_EQ(client.Login("tester", "pass"), kAccepted);
    EXPECT_EQ(Allowed(client), RightsOf({{form, 0}})) << "NULL counts as 0";
}

INSTANTIATE_TEST_SUITE_P(Form, LoginRole,
                         testing::Values(0, 1, 2, 3, 4, 5, 6, 7, 9, 10, 11, 12, 24, 40, 41, 42));

TEST_F(Login, AddsUpTheRowsOfARole)
{
    AddWebUser("tester", PasswordDigest("pass"));
    ManagementClient &client = Connect();
    const std::vector<std::vector<std::pair<int, int>>> roles = {
        {{3, 0}, {3, 2}},
        {{3, 2}, {3, 0}, {3, 0}},
        {{3, 1}, {4, 2}, {41, 0}},
        {{10, 0}, {10, 3}, {11, 0}, {11, 2}},
        {{1, 24}, {1, 25}, {1, 0}},
        {{5, 1}, {5, 2}, {6, 1}, {6, 2}, {41, 3}, {11, 2}}, // rights that no command asks for
        {},
    };
    for (const auto &rows : roles) {
        SetRole(rows);
        ASSERT_EQ(client.Login("tester", "pass"), kAccepted);
        EXPECT_EQ(Allowed(client), RightsOf(rows));
    }
}

TEST_F(Login, KeepsTheRightsOfTheMomentOfLogin)
{
    AddWebUser("tester", PasswordDigest("pass"));
    SetRole({{41, 0}});
    ManagementClient &client = Connect();
    ASSERT_EQ(client.Login("tester", "pass"), kAccepted);
    SetRole({{5, 0}});
    EXPECT_EQ(Allowed(client), RightsOf({{41, 0}}));
    ASSERT_EQ(client.Login("tester", "pass"), kAccepted);
    EXPECT_EQ(Allowed(client), RightsOf({{5, 0}}));
}

// Several logins

TEST_F(Login, TakesTheRightsAwayWhenALaterLoginFails)
{
    ManagementClient &client = LogIn(panel::kController);
    ASSERT_EQ(Allowed(client), ProtectedWords());
    for (const char *line :
         {"Login?Username=admin&Password=wrong", "Login?", "Login?Username=x'&Password=y"}) {
        EXPECT_EQ(client.Ask(line), kRefused) << line;
        EXPECT_EQ(Allowed(client), Words()) << line;
        ExpectUnprotectedCommandsWork(client);
    }
    ASSERT_EQ(client.Login("admin", "admin1234"), kAccepted);
    EXPECT_EQ(Allowed(client), ProtectedWords());
}

TEST_F(Login, ChangesTheUserOfASession)
{
    ManagementClient &client = LogIn(panel::kController);
    ASSERT_EQ(client.Login(panel::kGuard.Id, panel::kGuard.Password), kAccepted);
    EXPECT_EQ(Allowed(client), RightsOf({{41, 0}, {1, 24}}));
    const std::size_t calls = panel_.Calls().size();
    ASSERT_EQ(client.Login(panel::kOperator.Id, panel::kOperator.Password), kAccepted);
    EXPECT_EQ(client.Ask("DelCardInfo?CardNo=1"), "DelCardInfoResponse?Result=0");
    EXPECT_EQ(panel_.Calls(calls), std::vector<panel::Call>({AuditCall(15107, "operator"),
                                                             AuditCall(10402, "operator")}));
}

TEST_F(Login, KeepsSessionsApart)
{
    ManagementClient &controller = LogIn(panel::kController);
    ManagementClient &viewer = LogIn(panel::kViewer);
    ManagementClient &stranger = Connect();
    EXPECT_EQ(viewer.Login("viewer", "wrong"), kRefused);
    EXPECT_EQ(Allowed(controller), ProtectedWords());
    EXPECT_EQ(Allowed(viewer), Words());
    stranger.SendLine("Heartbeat?");
    EXPECT_EQ(stranger.Login("viewer", "wrong"), kRefused) << "the only line that is answered";
}

} // namespace
} // namespace nimbra::test
