// Hostile clients: SQL and shell injection, paths outside the image directory, and random lines.

#include "simulator/panel/SamplePanel.h"
#include "support/CommandTest.h"
#include "support/Files.h"
#include "support/Matchers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr std::size_t kNameSize = 32;
constexpr std::size_t kDescriptionSize = 64;

/// Texts that would end their SQL literal: each holds a quote that is not doubled. The unit tests
/// of SqlText have every placement of quotes.
constexpr const char *kEnding[] = {
    "'", "' OR '1'='1", "'; DROP TABLE User;--", "\\'' OR '1'='1", "a''b'", "$(touch /tmp/owned)'",
};

/// Unusual texts that stay in their SQL literal; `''` is a quote in it.
constexpr const char *kOdd[] = {
    "''",
    "O''Neill",
    "''; DROP TABLE User;--",
    "\\",
    "\"; DROP TABLE User;--\"",
    "$(touch /tmp/owned)",
    ";touch /tmp/owned;",
    "%s%s%s%s%n%n%n%99999d",
    "_%_",
    "=Hello=Login=",
    "\xFF\xFE\x80\xC3",
    "crlf\r",
};

/// The value of a literal: each doubled quote is one quote.
std::string Undoubled(std::string text)
{
    for (std::size_t at = 0; (at = text.find("''", at)) != std::string::npos; ++at)
        text.erase(at, 1);
    return text;
}

std::string Filled(std::string pattern, const std::string &text)
{
    for (std::size_t at = 0; (at = pattern.find('@', at)) != std::string::npos; at += text.size())
        pattern.replace(at, 1, text);
    return pattern;
}

/// A text that ends its literal when it is cut to `size` bytes, between two doubled quotes.
std::string EndingWhenCut(std::size_t size)
{
    return std::string(size - 1, 'a') + "''; DROP TABLE User;--";
}

/// Every text that ends the literal of a field of this size.
std::vector<std::string> EndingTexts(std::size_t size)
{
    std::vector<std::string> texts(std::begin(kEnding), std::end(kEnding));
    texts.push_back(EndingWhenCut(size));
    return texts;
}

class HostileInput : public CommandTest
{
protected:
    /// The whole content of the panel, except the journal files of SQLite.
    struct State
    {
        std::vector<std::string> Main;
        std::vector<std::string> Log;
        std::vector<std::string> Network;
        std::map<std::string, std::string> Files;
        std::vector<panel::Call> Calls;

        bool operator==(const State &) const = default;
    };

    [[nodiscard]] State CurrentState() const
    {
        const panel::PanelPaths &paths = panel_.Paths();
        return {TestPanel::Dump(paths.MainDatabase), TestPanel::Dump(paths.LogDatabase),
                TestPanel::Dump(paths.NetworkDatabase), panel_.Files(), panel_.Calls()};
    }

    /// Restores the databases to their content at the start of the test.
    void Restore() const
    {
        WriteFile(panel_.Paths().MainDatabase, main_);
        WriteFile(panel_.Paths().LogDatabase, log_);
        std::filesystem::remove(panel_.Paths().CallLog);
    }

    /// Shows that a request with each of the texts in place of "@" fails, and that nothing has
    /// changed.
    void ExpectNoEffect(const std::string &request, const std::vector<std::string> &texts)
    {
        SCOPED_TRACE(request);
        const std::string command = CommandOf(request);
        const State before = CurrentState();
        const std::size_t fails =
            agent_.CountMessages("ClientWorker.cpp", command, command + " fail");
        for (const std::string &text : texts)
            EXPECT_EQ(Ask(Filled(request, text)), command + "Response?Result=1") << text;
        EXPECT_TRUE(agent_.WaitForMessage("ClientWorker.cpp", command, command + " fail",
                                          fails + texts.size()));
        EXPECT_TRUE(CurrentState() == before);
    }

    const std::string main_ = ReadFile(panel_.Paths().MainDatabase);
    const std::string log_ = ReadFile(panel_.Paths().LogDatabase);
};

/// A text key by which a list is filtered.
struct Filter
{
    const char *Request; ///< "@" is replaced by the text
    std::size_t Size;
    /// A query that counts the matches of the text.
    const char *Count;
    bool IsInLog = false;
};

constexpr char kNothing[] = "SELECT 0";

constexpr Filter kFilters[] = {
    {"GetEventLogEx?DeviceName=@", kNameSize,
     "SELECT COUNT(*) FROM Log WHERE DeviceName LIKE '%@%'", true},
    {"GetEventLogEx?UserName=@", kNameSize, "SELECT COUNT(*) FROM Log WHERE UserName LIKE '%@%'",
     true},
    {"GetEventLogEx?EventDesc=@", kDescriptionSize, "ATTACH",
     true}, // counted in the other database
    {"GetEventCodeEx?Desc=@", kDescriptionSize,
     "SELECT COUNT(*) FROM EventCode WHERE Name LIKE '%@%'"},
    {"GetDoorInfoEx?Name=@", kNameSize,
     "SELECT COUNT(*) FROM Door WHERE Disable=0 AND Name LIKE '%@%'"},
    {"GetUserInfoEx?FirstName=@", kNameSize,
     "SELECT COUNT(*) FROM User WHERE FirstName LIKE '%@%'"},
    {"GetUserInfoEx?MiddleName=@", kNameSize,
     "SELECT COUNT(*) FROM User WHERE MiddleName LIKE '%@%'"},
    {"GetUserInfoEx?LastName=@", kNameSize, "SELECT COUNT(*) FROM User WHERE LastName LIKE '%@%'"},
    {"GetUserInfoEx?PhoneNumber=@", kNameSize, kNothing}, // there is no such column
    {"GetUserInfoEx?CellPhone=@", kNameSize,
     "SELECT COUNT(*) FROM User WHERE CellPhone LIKE '%@%'"},
    {"GetUserInfoEx?Email=@", kNameSize, "SELECT COUNT(*) FROM User WHERE Email LIKE '%@%'"},
};

/// Changes with a text key each.
constexpr const char *kChanges[] = {
    "SetUserInfo?UserNo=1&LastName=L&FirstName=@",
    "SetUserInfo?UserNo=1&LastName=L&MiddleName=@",
    "SetUserInfo?UserNo=1&LastName=@",
    "SetUserInfo?UserNo=1&LastName=L&PhoneNumber=@",
    "SetUserInfo?UserNo=1&LastName=L&CellPhone=@",
    "SetUserInfo?UserNo=1&LastName=L&Email=@",
    "AddUserInfo?LastName=L&FirstName=@",
    "AddUserInfo?LastName=L&MiddleName=@",
    "AddUserInfo?LastName=@",
    "AddUserInfo?LastName=L&PhoneNumber=@",
    "AddUserInfo?LastName=L&CellPhone=@",
    "AddUserInfo?LastName=L&Email=@",
    "SetCardInfo?CardNo=1&UserNo=1&FormatNo=1&CardNumber=@",
    "AddCardInfo?UserNo=1&FormatNo=1&CardNumber=@",
};

/// A change with all its text keys, and the columns of their texts.
struct WholeChange
{
    const char *Request;
    const char *Stored;
    const char *Table;
    std::size_t RowsBefore; ///< how many rows of the table are replaced
    int EventCode;
};

constexpr WholeChange kWholeChanges[] = {
    {"SetUserInfo?UserNo=1&FirstName=@&MiddleName=@&LastName=@&PhoneNumber=@&CellPhone=@&Email=@",
     "SELECT FirstName, MiddleName, LastName, Phone, CellPhone, Email FROM User WHERE No=1", "User",
     1, 10303},
    {"AddUserInfo?FirstName=@&MiddleName=@&LastName=@&PhoneNumber=@&CellPhone=@&Email=@",
     "SELECT FirstName, MiddleName, LastName, Phone, CellPhone, Email FROM User WHERE No=13",
     "User", 0, 10301},
    {"SetCardInfo?CardNo=1&UserNo=1&FormatNo=1&CardNumber=@", "SELECT CardNo FROM Card WHERE No=1",
     "Card", 1, 10403},
    {"AddCardInfo?UserNo=1&FormatNo=1&CardNumber=@", "SELECT CardNo FROM Card WHERE No=17", "Card",
     0, 10401},
};

/// Requests with a number in place of "@", followed by a hostile text. The number 4711 names
/// nothing that exists. One key of each command, and keys of other kinds.
constexpr const char *kNumbers[] = {
    "SetEvent?Enable=@",
    "GetEventLog?EventNo=@",
    "GetEventLogEx?EventNo=@",
    "GetEventCode?Code=@",
    "GetEventCodeEx?Code=@",
    "GetLiveVideoInfo?DoorNo=@",
    "GetPlayVideoInfo?VideoTag=@",
    "GetDoorInfo?DoorNo=@",
    "GetDoorInfoEx?DoorNo=@",
    "GetUserInfo?UserNo=@",
    "GetUserInfoEx?UserNo=@",
    "SetUserInfo?LastName=L&UserNo=@",
    "AddUserInfo?LastName=L&Ada=@",
    "DelUserInfo?UserNo=@",
    "GetUserImage?UserNo=@",
    "GetCardFormat?FormatNo=@",
    "GetCardFormatEx?Offset=@",
    "GetCardInfo?CardNo=@",
    "GetCardInfoEx?UserNo=@",
    "SetCardInfo?UserNo=1&FormatNo=1&CardNumber=1&CardNo=@",
    "AddCardInfo?FormatNo=1&CardNumber=1&UserNo=@",
    "DelCardInfo?CardNo=@",
    "GetAccessLevel?SelectType=@",
    "GetAccessLevelEx?SelectType=@",
    "GetCardAccessLevel?CardNo=@",
    "SetCardAccessLevel?AccessLevelNo=1&CardNo=@",
    "GetThreatInfo?Level=@",
    "GetThreatInfoEx?Offset=@",
    "GetDoorLock?Port=@",
    "GetAuxOutput?Port=@",
    "SetAuxOutput?Port=1&Control=@",
    "SetThreatLevel?ThreatLevel=@",
    "GetEventLogEx?FromTime=@",
    "SetCardInfo?CardNo=1&UserNo=1&FormatNo=1&CardNumber=1&ActDate=@",
    "SetAuxOutput?Control=1&Port=@",
    "GetUserInfoEx?Limit=@",
};

constexpr const char *kAfterNumbers[] = {
    "' OR 1=1;--",
    ") OR (1=1); DROP TABLE User;--",
    "$(touch /tmp/owned);touch /tmp/owned",
};

TEST_F(HostileInput, EndingTextsDoNotLeaveFilter)
{
    for (const Filter &filter : kFilters)
        ExpectNoEffect(filter.Request, EndingTexts(filter.Size));
}

TEST_F(HostileInput, OddTextsInFilterFindTheirMatches)
{
    TestPanel::Run(panel_.Paths().LogDatabase,
                   "UPDATE Log SET DeviceName=NULL WHERE EventCode NOT IN (SELECT 10001)");
    const State before = CurrentState();
    for (const Filter &filter : kFilters) {
        for (const char *text : kOdd) {
            const std::string request = Filled(filter.Request, text);
            SCOPED_TRACE(request);
            std::string query = filter.Count;
            std::string file = filter.IsInLog ? panel_.Paths().LogDatabase.string()
                                              : panel_.Paths().MainDatabase.string();
            if (query == "ATTACH") {
                // The codes whose descriptions hold the text and that have events.
                file = panel_.Paths().MainDatabase;
                query = "SELECT COUNT(*) FROM EventCode WHERE Name LIKE '%@%' AND EventCode IN"
                        " (10001, 10101, 10102, 10003, 10005, 10105, 10104, 12001, 12002, 15107,"
                        " 11415, 10303, 20001, 10103)";
            }
            const bool isFound = TestPanel::Rows(file, Filled(query, text)).at(0).at(0) != "0";
            const std::vector<std::string> answer = AskList(request);
            EXPECT_EQ(answer.size() > 1, isFound);
            EXPECT_THAT(answer[0], StartsWith(CommandOf(request) +
                                              "Response?Result=" + (isFound ? "0&" : "1")));
        }
        EXPECT_TRUE(CurrentState() == before) << filter.Request;
    }
}

TEST_F(HostileInput, EndingTextsDoNotLeaveStatement)
{
    for (const char *request : kChanges)
        ExpectNoEffect(request, EndingTexts(kNameSize));
}

TEST_F(HostileInput, OddTextsInChangeAreStoredUnchanged)
{
    Restore();
    const State before = CurrentState();
    std::vector<std::string> old = before.Main;
    std::sort(old.begin(), old.end());
    for (const WholeChange &change : kWholeChanges)
        for (const std::string text : kOdd) {
            const std::string request = Filled(change.Request, text);
            SCOPED_TRACE(request);
            ASSERT_LE(text.size(), kNameSize);
            EXPECT_EQ(Ask(request), CommandOf(request) + "Response?Result=0");
            const std::vector<Row> stored = panel_.Rows(change.Stored);
            ASSERT_THAT(stored, SizeIs(1));
            EXPECT_EQ(stored[0], Row(stored[0].size(), Undoubled(text)));
            State after = CurrentState();
            ASSERT_THAT(after.Calls, ElementsAre(AuditCall(change.EventCode)));

            // One row of the table and one of the journal have changed; the journal holds the text
            // as sent.
            std::vector<std::string> gone;
            std::vector<std::string> come;
            std::sort(after.Main.begin(), after.Main.end());
            std::set_difference(old.begin(), old.end(), after.Main.begin(), after.Main.end(),
                                std::back_inserter(gone));
            std::set_difference(after.Main.begin(), after.Main.end(), old.begin(), old.end(),
                                std::back_inserter(come));
            const std::string table = std::string(change.Table) + ": ";
            const std::string journal = "DBQueryInfo: ";
            EXPECT_EQ(gone.size(), change.RowsBefore);
            ASSERT_THAT(come, SizeIs(2));
            EXPECT_THAT(come[0], StartsWith(std::min(table, journal)));
            EXPECT_THAT(come[1], StartsWith(std::max(table, journal)));
            EXPECT_THAT(panel_.Journal().at(0), HasSubstr("'" + text + "'"));
            EXPECT_EQ(after.Log.size(), before.Log.size() + 1); // the audit entry
            EXPECT_EQ(after.Network, before.Network);
            EXPECT_TRUE(after.Files == before.Files);
            Restore();
        }
}

TEST_F(HostileInput, TextsAfterNumberAreIgnored)
{
    for (const char *request : kNumbers) {
        const auto ask = [&](const std::string &value) {
            Restore();
            std::vector<std::string> answer = AskList(Filled(request, value));
            State state = CurrentState();
            // The audit entry holds the current time.
            state.Log.clear();
            return std::pair(std::move(answer), std::move(state));
        };
        const auto plain = ask("4711");
        EXPECT_THAT(plain.first[0], StartsWith(CommandOf(request) + "Response?Result="));
        for (const char *text : kAfterNumbers)
            EXPECT_TRUE(ask(std::string("4711") + text) == plain) << request << ' ' << text;
    }
}

TEST_F(HostileInput, TextsAfterDoorNumberDoNotReachShell)
{
    const State before = CurrentState();
    std::vector<panel::Call> calls;
    for (const char *text :
         {";touch /tmp/owned", "$(touch /tmp/owned)", " locked; touch /tmp/owned"})
        for (const std::string keys :
             {"Port=1@&Control=0", "Control=0@&Port=1", "Port=1&Control=0&@=1"}) {
            EXPECT_EQ(Ask("SetDoorLock?" + Filled(keys, text)), "SetDoorLockResponse?Result=0");
            calls.push_back({"door", "1", "locked"});
            calls.push_back(AuditCall(11213));
        }
    EXPECT_EQ(panel_.Calls(before.Calls.size()), calls);
    EXPECT_TRUE(panel_.Files() == before.Files);
}

TEST_F(HostileInput, AccessLevelListsHoldNumbersOnly)
{
    for (const std::string text : {"1); DROP TABLE User;--", "1' 2'", "'", "$(touch /tmp/owned)",
                                   "1,(SELECT 7) 2", "-- 3"}) {
        const std::string request =
            "SetCardAccessLevel?CardNo=1&SelectType=1&AccessLevelNo=" + text;
        SCOPED_TRACE(request);
        Restore();
        State before = CurrentState();
        EXPECT_EQ(Ask(request), "SetCardAccessLevelResponse?Result=0");
        const auto rows =
            panel_.Rows("SELECT AccessLevelNo, typeof(AccessLevelNo) FROM CardAccessLevel"
                        " WHERE CardNo=1 ORDER BY No");
        std::size_t at = 0;
        for (std::size_t begin = 0; begin < text.size(); ++at) {
            const std::size_t end = std::min(text.find(' ', begin), text.size());
            const std::string item = text.substr(begin, end - begin);
            ASSERT_LT(at, rows.size());
            EXPECT_EQ(rows[at], Row({std::to_string(std::atoi(item.c_str())), "integer"}));
            begin = end + 1;
        }
        EXPECT_EQ(rows.size(), at);
        EXPECT_TRUE(panel_.Files() == before.Files);
        EXPECT_THAT(panel_.Calls(), ElementsAre(AuditCall(10403)));
        EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM User"), "12");
    }
}

TEST_F(HostileInput, ImageNamesDoNotLeaveStatementOrDirectory)
{
    std::vector<std::string> names(std::begin(kEnding), std::end(kEnding));
    names.insert(names.end(), std::begin(kOdd), std::end(kOdd));
    for (const char *path : {"..", ".", "../owned", "/tmp/owned", "../../../../tmp/owned",
                             "x/../../owned", "'/../owned", "../';DROP TABLE User;--"})
        names.emplace_back(path);
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        Restore();
        State expected = CurrentState();
        const bool isPath = name.find('/') != std::string::npos || name == "." || name == "..";
        const bool isEnding = Undoubled(name).find('\'') != std::string::npos &&
                              std::find(std::begin(kOdd), std::end(kOdd), name) == std::end(kOdd);
        const std::string answer = client_->Upload(1, name, "evil");
        EXPECT_EQ(answer, std::string("SetUserImageResponse?Result=") + (isPath     ? "2"
                                                                         : isEnding ? "1"
                                                                                    : "0"));
        // The file is written before its name is stored.
        if (!isPath)
            expected.Files[panel_.Paths().Images / name] = "evil";
        EXPECT_TRUE(panel_.Files() == expected.Files);
        if (isPath || isEnding)
            EXPECT_TRUE(CurrentState() == expected);
        else
            EXPECT_EQ(panel_.Value("SELECT ImageFile FROM User WHERE No=1"), Undoubled(name));
    }
}

TEST_F(HostileInput, LoginNamesAndPasswordsGrantNothing)
{
    const State before = CurrentState();
    ManagementClient other;
    std::vector<std::string> names(std::begin(kEnding), std::end(kEnding));
    names.insert(names.end(), std::begin(kOdd), std::end(kOdd));
    for (const char *name : {"admin'--", "admin' OR '1'='1", "admin'/*", "' UNION SELECT ''--",
                             "admin''--", "ad''min", "%", "admin\\", "admin;", "admin\r", "adm_n"})
        names.emplace_back(name);
    names.push_back(EndingWhenCut(kNameSize));
    std::size_t count = 0;
    for (const std::string &name : names) {
        EXPECT_EQ(other.Login(name, panel::kController.Password), "LoginResponse?Result=1") << name;
        EXPECT_EQ(other.Login(panel::kController.Id, name), "LoginResponse?Result=1") << name;
        count += 2;
    }
    EXPECT_TRUE(agent_.WaitForMessage("ClientWorker.cpp", "Login", "CheckPassword fail", count));
    EXPECT_TRUE(CurrentState() == before);
    other.SendLine("GetUserInfo?UserNo=1");
    EXPECT_EQ(other.Login(panel::kController.Id, panel::kController.Password),
              "LoginResponse?Result=0");
}

TEST_F(HostileInput, UserNamesReachCommandToolAsOneArgument)
{
    std::vector<std::string> names(std::begin(kOdd), std::end(kOdd));
    for (const char *name : {"a b", " leading", "-n", "$HOME", "''\"''\"''$(touch /tmp/owned)"})
        names.emplace_back(name);
    const auto files = panel_.Files();
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        ASSERT_LE(name.size(), kNameSize);
        Restore();
        panel_.Run("INSERT INTO WebUser (ID, Password, UserRole) VALUES ('" + name + "', '" +
                   panel::PasswordDigest("sesame") + "', 1)");
        EXPECT_EQ(client_->Login(name, "sesame"), "LoginResponse?Result=0");
        EXPECT_THAT(panel_.Calls(), ElementsAre(AuditCall(15107, name)));
    }
    EXPECT_EQ(Ask("SetUserInfo?UserNo=1&LastName=L"), "SetUserInfoResponse?Result=0");
    EXPECT_THAT(panel_.Calls(1), ElementsAre(AuditCall(10303, names.back())));
    EXPECT_TRUE(panel_.Files() == files);
}

TEST_F(HostileInput, EmptyUserNameIsEmptyArgument)
{
    panel_.Run("INSERT INTO WebUser (ID, Password, UserRole) VALUES ('', '" +
               panel::PasswordDigest("sesame") + "', 1)");
    const std::size_t calls = panel_.Calls().size();
    EXPECT_EQ(Ask("Login?Password=sesame"), "LoginResponse?Result=0");
    EXPECT_THAT(panel_.Calls(calls), ElementsAre(AuditCall(15107, "")));
}

TEST_F(HostileInput, PasswordsDoNotReachSqlOrShell)
{
    for (const std::string password : kEnding) {
        panel_.Run("UPDATE WebUser SET Password='" + panel::PasswordDigest(password) +
                   "' WHERE ID='operator'");
        EXPECT_EQ(client_->Login(panel::kOperator.Id, password), "LoginResponse?Result=0")
            << password;
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/owned"));
}

/// Whether a client logs in before it sends random lines.
enum class Login : bool
{
    No,
    Yes
};

/// Makes random lines: requests, damaged requests, and random bytes.
class LineMaker
{
public:
    LineMaker(unsigned seed, Login login) : random_(seed), login_(login) {}

    /// A line with its line feed. Before a login, some lines are logins with random names.
    std::string Next()
    {
        std::string line;
        switch (Below(4)) {
        case 0:
            line = Bytes(Below(1200));
            break;
        case 1:
            line = Bytes(Below(20)) + Word() + Bytes(Below(200));
            break;
        default:
            line = Word();
            for (std::size_t pairs = Below(8); pairs > 0; --pairs)
                line += Key() + (Below(10) == 0 ? "" : "=") + Value() + (Below(10) == 0 ? "" : "&");
        }
        std::replace(line.begin(), line.end(), '\n', ' ');
        return line + "\n";
    }

private:
    std::size_t Below(std::size_t limit) { return random_() % limit; }

    template <std::size_t N>
    std::string OneOf(const char *const (&texts)[N])
    {
        return texts[Below(N)];
    }

    std::string Bytes(std::size_t count)
    {
        std::string bytes(count, '\0');
        for (char &byte : bytes)
            byte = static_cast<char>(random_() >> 8U);
        return bytes;
    }

    /// The commands that pause or wait for bytes are left out: they have their own tests.
    std::string Word()
    {
        static constexpr const char *kBeforeLogin[] = {
            "Login?", "Hello?", "login?", "Heartbeat?", "GetUserInfo?", "?", "Login"};
        static constexpr const char *kAfterLogin[] = {"Hello?",
                                                      "SetEvent?",
                                                      "GetEventLog?",
                                                      "GetEventLogEx?",
                                                      "GetEventCode?",
                                                      "GetEventCodeEx?",
                                                      "GetLiveVideoInfo?",
                                                      "GetPlayVideoInfo?",
                                                      "GetDoorInfo?",
                                                      "GetDoorInfoEx?",
                                                      "GetUserInfo?",
                                                      "GetUserInfoEx?",
                                                      "SetUserInfo?",
                                                      "AddUserInfo?",
                                                      "DelUserInfo?",
                                                      "GetUserImage?",
                                                      "GetCardFormat?",
                                                      "GetCardFormatEx?",
                                                      "GetCardInfo?",
                                                      "GetCardInfoEx?",
                                                      "SetCardInfo?",
                                                      "AddCardInfo?",
                                                      "DelCardInfo?",
                                                      "GetAccessLevel?",
                                                      "GetAccessLevelEx?",
                                                      "GetCardAccessLevel?",
                                                      "SetCardAccessLevel?",
                                                      "GetThreatInfo?",
                                                      "GetThreatInfoEx?",
                                                      "GetDoorLock?",
                                                      "GetAuxOutput?",
                                                      "GetThreatLevel?",
                                                      "gEtUsErInFo?",
                                                      "NoSuchCommand?"};
        return login_ == Login::Yes ? OneOf(kAfterLogin) : OneOf(kBeforeLogin);
    }

    std::string Key()
    {
        static constexpr const char *kKeys[] = {
            "Username",   "Password",  "UserNo",     "FirstName",   "LastName", "MiddleName",
            "Email",      "CardNo",    "CardNumber", "FormatNo",    "ActDate",  "ExpDate",
            "Offset",     "Limit",     "DoorNo",     "Name",        "FromTime", "ToTime",
            "DeviceName", "EventDesc", "EventTime",  "SelectType",  "Code",     "AccessLevelNo",
            "LevelNo",    "VideoTag",  "Level",      "PhoneNumber", "",         "Size"};
        return OneOf(kKeys);
    }

    std::string Value()
    {
        switch (Below(6)) {
        case 0:
            return std::to_string(static_cast<int>(random_()));
        case 1:
            return std::to_string(Below(20));
        case 2:
            return OneOf(kEnding);
        case 3:
            return OneOf(kOdd);
        case 4:
            return Bytes(Below(300));
        default:
            return "";
        }
    }

    std::mt19937 random_;
    Login login_;
};

/// Sends random lines and reads the answers. After every 20 lines the agent must be in step again.
void SendRandomLines(unsigned seed, std::size_t lines, Login login)
{
    SCOPED_TRACE(seed);
    const bool isLoggedIn = login == Login::Yes;
    ManagementClient client = isLoggedIn ? LoggedIn() : ManagementClient();
    LineMaker maker(seed, login);
    for (std::size_t sent = 1; sent <= lines; ++sent) {
        client.Send(maker.Next());
        if (sent % 20 != 0)
            continue;
        // The line feed ends the rest of a line that was too long.
        client.Send(isLoggedIn ? "\nHeartbeat?\n" : "\nHello?\n");
        std::string answer;
        while (answer != "(none)" && !answer.starts_with(isLoggedIn ? "Heartbeat" : "Hello"))
            answer = client.ReadLine().value_or("(none)");
        ASSERT_NE(answer, "(none)") << sent;
    }
}

TEST_F(HostileInput, RandomLinesDoNotStopAgent)
{
    const std::vector<Row> schema =
        panel_.Rows("SELECT name, sql FROM sqlite_master ORDER BY name");
    const auto files = panel_.Files();
    std::vector<std::thread> clients;
    for (unsigned seed = 1; seed <= 4; ++seed)
        clients.emplace_back(SendRandomLines, seed, 500, seed % 2 == 0 ? Login::Yes : Login::No);
    for (std::thread &client : clients)
        client.join();

    EXPECT_TRUE(agent_.IsRunning());
    EXPECT_EQ(panel_.Rows("SELECT name, sql FROM sqlite_master ORDER BY name"), schema);
    EXPECT_EQ(panel_.Value("PRAGMA integrity_check"), "ok");
    EXPECT_TRUE(panel_.Files() == files);
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM Door"), "8");
    client_.emplace(LoggedIn());
    EXPECT_EQ(Ask("GetCardFormat?FormatNo=1"),
              "GetCardFormatResponse?Result=0&FormatNo=1&Name=26-bit Wiegand&Default=1");
}

TEST_F(HostileInput, EndlessLineIsReadInPiecesWithoutAnswer)
{
    ManagementClient client;
    for (int i = 0; i < 4; ++i)
        client.Send(std::string(65536, 'x'));
    EXPECT_THAT(client.Ask("\nHello?"), IsGreeting());
}

} // namespace
} // namespace nimbra::test
