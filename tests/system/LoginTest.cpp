// Login: the controller account, the web users and the rights of their roles, and the audit
// entries.

#include "simulator/panel/SamplePanel.h"
#include "simulator/panel/Sqlite.h"
#include "support/AgentTest.h"
#include "support/Matchers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

using panel::PasswordDigest;

constexpr char kAccepted[] = "LoginResponse?Result=0";
constexpr char kRefused[] = "LoginResponse?Result=1";
constexpr char kSource[] = "ClientWorker.cpp";

using Words = std::set<std::string>;

/// The commands that each row (FormIndex, Authority) of the role table allows. Other rows allow
/// none.
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

/// The commands that several rows of the role table allow together.
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
/// without keys and change only the threat level.
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
        EXPECT_THAT(header, StartsWith(word + "Response?Result="));
        const std::size_t count = header.rfind("&Count=");
        for (int rows = count == std::string::npos ? 0 : std::stoi(header.substr(count + 7));
             rows > 0; --rows)
            EXPECT_TRUE(client.ReadLine());
        if (header != word + "Response?Result=9")
            allowed.insert(word);
    }
    return allowed;
}

/// Shows that commands that need no right are served.
void ExpectUnprotectedCommandsWork(ManagementClient &client)
{
    EXPECT_THAT(client.Ask("Hello?"), IsGreeting());
    for (const std::string word : {"Heartbeat", "SetEvent"})
        EXPECT_EQ(client.Ask(word + "?"), word + "Response?Result=0");
    for (const std::string line :
         {"GetEventLog?EventNo=1", "GetEventLogEx?Limit=1", "GetEventCode?Code=10001",
          "GetEventCodeEx?Limit=1", "GetLiveVideoInfo?DoorNo=1",
          "GetPlayVideoInfo?VideoTag=1&EventTime=2026-01-01 12:00:00"}) {
        const std::string header = client.AskList(line)[0];
        const std::string word = line.substr(0, line.find('?'));
        EXPECT_THAT(header, StartsWith(word + "Response?Result=0&"));
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

    /// Replaces the rows of the role of the test.
    void SetRole(const std::vector<std::pair<int, int>> &rows)
    {
        std::string sql = "DELETE FROM UserRoleTable WHERE UserRole=" + std::to_string(kRole);
        for (const auto &[form, authority] : rows)
            sql += "; INSERT INTO UserRoleTable (UserRole, FormIndex, Authority) VALUES (" +
                   std::to_string(kRole) + ", " + std::to_string(form) + ", " +
                   std::to_string(authority) + ")";
        panel_.Run(sql);
    }

    /// The answer to a login in a session that is used for logins only.
    std::string Answer(const std::string &user, const std::string &password)
    {
        if (tries_ == nullptr)
            tries_ = &Connect();
        return tries_->Login(user, password);
    }

    /// Shows that a login is refused, logged, and not audited.
    void ExpectRefused(const std::string &user, const std::string &password)
    {
        const std::size_t calls = panel_.Calls().size();
        const std::size_t messages = Failures();
        EXPECT_EQ(Answer(user, password), kRefused) << user;
        EXPECT_TRUE(agent_.WaitForMessage(kSource, "Login", "CheckPassword fail", messages + 1))
            << user;
        EXPECT_THAT(panel_.Calls(), SizeIs(calls)) << user;
    }

    std::size_t Failures() { return agent_.CountMessages(kSource, "Login", "CheckPassword fail"); }

    /// A role that no user of the sample panel has.
    static constexpr int kRole = 77;

private:
    ManagementClient *tries_ = nullptr;
};

// Accounts

TEST_F(Login, ControllerHasEveryRight)
{
    ManagementClient &client = LogIn(panel::kController);
    EXPECT_THAT(panel_.Calls(), ElementsAre(AuditCall(15107)));
    EXPECT_EQ(Allowed(client), ProtectedWords());
    EXPECT_EQ(Failures(), 0U);
}

TEST_F(Login, RefusesWrongNameOrPassword)
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

TEST_F(Login, RefusesEmptyNameOrPassword)
{
    ExpectRefused("", "");
    ExpectRefused("admin", "");
    ExpectRefused("", "admin1234");
    ManagementClient &client = Connect();
    for (const char *line : {"Login?", "Login?Username=admin", "Login?Password=admin1234",
                             "Login?Username", "Login?Username=admin&Password"})
        EXPECT_EQ(client.Ask(line), kRefused) << line;
}

TEST_F(Login, ComparesEmptyPasswordLikeAnyOther)
{
    AddWebUser("open", PasswordDigest(""));
    EXPECT_EQ(Answer("open", ""), kAccepted);
    ExpectRefused("open", "x");
    AddWebUser("", PasswordDigest(""));
    EXPECT_EQ(Connect().Ask("Login?"), kAccepted);
    EXPECT_EQ(panel_.Calls().back(), AuditCall(15107, ""));
}

TEST_F(Login, AcceptsWordAndKeysInAnyCaseAndOrder)
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

TEST_F(Login, RefusesStoredDigestAsPassword)
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

TEST_F(Login, RefusesAccountWithoutStoredPassword)
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

TEST_F(Login, TriesControllerBeforeWebUserOfSameName)
{
    EXPECT_EQ(Allowed(LogIn(panel::kController)), ProtectedWords());
    EXPECT_EQ(Allowed(LogIn(panel::kWebAdmin)), Allowed(LogIn(panel::kViewer)));
    ExpectRefused("admin", "neither");
    // Same name and same password: the controller's rights.
    panel_.Run("UPDATE WebUser SET Password=(SELECT Password FROM Controller) WHERE ID='admin'");
    EXPECT_EQ(Allowed(LogIn(panel::kController)), ProtectedWords());
    ExpectRefused("admin", panel::kWebAdmin.Password);
}

TEST_F(Login, UsesControllerRowOneOnly)
{
    panel_.Run("UPDATE Controller SET No=2");
    ExpectRefused("admin", panel::kController.Password);
    panel_.Run("UPDATE Controller SET No=1");
    EXPECT_EQ(Answer("admin", panel::kController.Password), kAccepted);
}

TEST_F(Login, UsesFirstRowOfNameOnly)
{
    AddWebUser("twice", PasswordDigest("first"));
    AddWebUser("twice", PasswordDigest("second"));
    EXPECT_EQ(Answer("twice", "first"), kAccepted);
    ExpectRefused("twice", "second");
}

TEST_F(Login, SeesChangeByPanelAtOnce)
{
    ExpectRefused("newcomer", "welcome");
    AddWebUser("newcomer", PasswordDigest("welcome"));
    EXPECT_EQ(Answer("newcomer", "welcome"), kAccepted);
    panel_.Run("DELETE FROM WebUser WHERE ID='newcomer'");
    ExpectRefused("newcomer", "welcome");
}

// Missing tables and databases

TEST_F(Login, UsesWebUsersWithoutControllerTable)
{
    panel_.Run("DROP TABLE Controller");
    ExpectRefused("admin", panel::kController.Password);
    EXPECT_EQ(Answer("admin", panel::kWebAdmin.Password), kAccepted);
    EXPECT_EQ(Answer("operator", panel::kOperator.Password), kAccepted);
    EXPECT_EQ(agent_.CountInLog(":DataManager.cpp:"), 0U);
}

TEST_F(Login, RefusesEveryWebUserWithoutTable)
{
    panel_.Run("DROP TABLE WebUser");
    ExpectRefused("operator", panel::kOperator.Password);
    ExpectRefused("admin", panel::kWebAdmin.Password);
    EXPECT_EQ(Answer("admin", panel::kController.Password), kAccepted);
    EXPECT_EQ(agent_.CountInLog(":DataManager.cpp:"), 0U);
}

TEST_F(Login, GrantsNoRightsWithoutRoleTable)
{
    panel_.Run("DROP TABLE UserRoleTable");
    ManagementClient &client = LogIn(panel::kOperator);
    EXPECT_THAT(panel_.Calls(), ElementsAre(AuditCall(15107, "operator")));
    EXPECT_EQ(Allowed(client), Words());
    ExpectUnprotectedCommandsWork(client);
    EXPECT_EQ(agent_.CountInLog(":DataManager.cpp:"), 0U);
}

TEST_F(Login, RefusesEveryoneWhileDatabaseCannotBeOpened)
{
    const std::filesystem::path database = panel_.Paths().MainDatabase;
    const std::filesystem::path away = database.string() + ".away";
    std::filesystem::rename(database, away);
    std::filesystem::create_directory(database);
    ExpectRefused("admin", panel::kController.Password);
    EXPECT_EQ(agent_.CountMessages("DataManager.cpp", "CheckPassword", "sqlite3_open fail"), 1U);
    std::filesystem::remove(database);
    // SQLite opens a missing file, and finds no table in it.
    ExpectRefused("admin", panel::kController.Password);
    EXPECT_EQ(agent_.CountMessages("DataManager.cpp", "CheckPassword", "sqlite3_open fail"), 1U);
    std::filesystem::rename(away, database);
    EXPECT_EQ(Answer("admin", panel::kController.Password), kAccepted);
}

// Lengths and bytes

TEST_F(Login, CutsNameAt32Bytes)
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

TEST_F(Login, CutsPasswordAt68Bytes)
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

TEST_F(Login, AuditsClientAddress)
{
    ManagementClient client(panel::kPanelAddress);
    EXPECT_EQ(client.Login("admin", "admin1234"), kAccepted);
    panel::Call call = AuditCall(15107);
    call[2] = panel::kPanelAddress;
    EXPECT_THAT(panel_.Calls(), ElementsAre(call));
    client.Reset();
}

// Rights

TEST_F(Login, WebUsersHaveRightsOfTheirRoles)
{
    const std::vector<std::pair<panel::SampleLogin, Words>> cases = {
        {panel::kOperator, ProtectedWords()},
        {panel::kGuard, RightsOf({{41, 0}, {1, 24}})},
        {panel::kNobody, {}},
    };
    ManagementClient &client = Connect();
    for (const auto &[login, rights] : cases) {
        EXPECT_EQ(client.Login(login.Id, login.Password), kAccepted) << login.Id;
        EXPECT_EQ(Allowed(client), rights) << login.Id;
    }
}

TEST_F(Login, LogsEveryCommandWithoutRight)
{
    ManagementClient &client = LogIn(panel::kNobody);
    for (const std::string &word : ProtectedWords()) {
        // The right is checked before the keys are read.
        EXPECT_EQ(client.Ask(word + "?UserNo=1&Nonsense=1"), word + "Response?Result=9");
        EXPECT_TRUE(agent_.WaitForMessage(kSource, word, "Authority fail")) << word;
    }
    EXPECT_EQ(agent_.CountInLog("Authority fail"), ProtectedWords().size());
    EXPECT_EQ(agent_.CountInLog("Invalid Token"), 0U);
    ExpectUnprotectedCommandsWork(client);
    EXPECT_THAT(panel_.Calls(), SizeIs(1)) << "only the login is audited";
    EXPECT_THAT(panel_.Journal(), IsEmpty());
}

TEST_F(Login, NullAuthorityOfRoleCountsAsZero)
{
    AddWebUser("tester", PasswordDigest("pass"));
    SetRole({{3, 2}, {41, 0}});
    panel_.Run("UPDATE UserRoleTable SET Authority=NULL WHERE UserRole=77 AND FormIndex=3");
    ManagementClient &client = Connect();
    ASSERT_EQ(client.Login("tester", "pass"), kAccepted);
    EXPECT_EQ(Allowed(client), RightsOf({{3, 0}, {41, 0}}));
}

TEST_F(Login, KeepsRightsOfTimeOfLogin)
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

TEST_F(Login, RemovesRightsWhenLaterLoginFails)
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

TEST_F(Login, ChangesUserOfSession)
{
    ManagementClient &client = LogIn(panel::kController);
    ASSERT_EQ(client.Login(panel::kGuard.Id, panel::kGuard.Password), kAccepted);
    EXPECT_EQ(Allowed(client), RightsOf({{41, 0}, {1, 24}}));
    const std::size_t calls = panel_.Calls().size();
    ASSERT_EQ(client.Login(panel::kOperator.Id, panel::kOperator.Password), kAccepted);
    EXPECT_EQ(client.Ask("DelCardInfo?CardNo=1"), "DelCardInfoResponse?Result=0");
    EXPECT_THAT(panel_.Calls(calls),
                ElementsAre(AuditCall(15107, "operator"), AuditCall(10402, "operator")));
}

TEST_F(Login, KeepsSessionsSeparate)
{
    ManagementClient &controller = LogIn(panel::kController);
    ManagementClient &viewer = LogIn(panel::kViewer);
    ManagementClient &other = Connect();
    EXPECT_EQ(viewer.Login("viewer", "wrong"), kRefused);
    EXPECT_EQ(Allowed(controller), ProtectedWords());
    EXPECT_EQ(Allowed(viewer), Words());
    other.SendLine("Heartbeat?");
    EXPECT_EQ(other.Login("viewer", "wrong"), kRefused) << "the only line that is answered";
}

} // namespace
} // namespace nimbra::test
