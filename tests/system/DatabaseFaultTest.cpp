// Databases that are locked by the panel, missing or damaged.

#include "simulator/panel/Sqlite.h"
#include "support/CommandTest.h"
#include "support/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace nimbra::test {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::Eq;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace fs = std::filesystem;

/// Longer than any wait for a lock, for any number of statements of a request.
constexpr milliseconds kVeryLong = seconds(60);

/// Locks a database, as a panel does that writes to it.
class Lock
{
public:
    explicit Lock(const fs::path &file, const std::string &kind = "EXCLUSIVE") : database_(file)
    {
        database_.Run("BEGIN " + kind);
    }
    ~Lock() { database_.Run("COMMIT"); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

private:
    panel::SqliteFile database_;
};

class LockedDatabase : public CommandTest
{
protected:
    /// Sends a request while the file is locked, and unlocks it after two seconds.
    [[nodiscard]] std::string AskLockedForTwoSeconds(const fs::path &file,
                                                     const std::string &request)
    {
        {
            const Lock lock(file);
            client_->SendLine(request);
            EXPECT_TRUE(client_->IsSilent(seconds(2))) << request;
        }
        return client_->ReadLine(kVeryLong).value_or("(no answer)");
    }

    /// Shows that a request fails after three seconds of a lock, changes nothing, and succeeds when
    /// it is sent again.
    void ExpectFailsWhileLocked(const fs::path &file, const std::string &request)
    {
        SCOPED_TRACE(request);
        const std::string command = CommandOf(request);
        const std::vector<std::string> before = TestPanel::Dump(file);
        const std::size_t calls = panel_.Calls().size();
        {
            const Lock lock(file);
            const Stopwatch watch;
            EXPECT_EQ(client_->Ask(request, kVeryLong), command + "Response?Result=1");
            EXPECT_GT(watch.Seconds(), 2.9);
            EXPECT_LT(watch.Seconds(), 15);
        }
        EXPECT_TRUE(agent_.WaitForMessage("ClientWorker.cpp", command, command + " fail"));
        EXPECT_EQ(TestPanel::Dump(file), before);
        EXPECT_THAT(panel_.Calls(calls), IsEmpty());
        EXPECT_THAT(Ask(request), StartsWith(command + "Response?Result=0"));
    }

    const fs::path main_ = panel_.Paths().MainDatabase;
    const fs::path log_ = panel_.Paths().LogDatabase;
};

TEST_F(LockedDatabase, ChangeIsDelayedBy2SecondLock)
{
    const std::size_t calls = panel_.Calls().size();
    EXPECT_EQ(AskLockedForTwoSeconds(main_, "AddUserInfo?LastName=Patient"),
              "AddUserInfoResponse?Result=0");
    EXPECT_EQ(panel_.Value("SELECT No FROM User WHERE LastName='Patient'"), "13");
    ASSERT_THAT(panel_.Journal(), SizeIs(1));
    EXPECT_THAT(panel_.Journal()[0], HasSubstr("'Patient'"));
    EXPECT_THAT(panel_.Calls(calls), ElementsAre(AuditCall(10301)));
}

/// A list of access levels that is long enough to lock the database during the change.
constexpr int kLongList = 450;

std::string LongListRequest()
{
    std::string request = "SetCardAccessLevel?CardNo=1&SelectType=1&AccessLevelNo=1";
    for (int i = 1; i < kLongList; ++i)
        request += " 1";
    return request;
}

class LockDuringChange : public LockedDatabase
{
protected:
    /// Sends the long request and returns after some of its statements.
    void StartLongRequest()
    {
        ASSERT_EQ(Levels(), 1);
        // Each insert takes some milliseconds, so that the request lasts until the test locks the
        // database.
        panel_.Run("CREATE TRIGGER Slow AFTER INSERT ON CardAccessLevel BEGIN"
                   " SELECT COUNT(*) FROM EventCode a, EventCode b, EventCode c WHERE"
                   " a.EventCode + b.EventCode + c.EventCode < 0; END");
        client_->SendLine(LongListRequest());
        ASSERT_TRUE(WaitUntil([&] { return Levels() > 5; }));
    }

    [[nodiscard]] int Levels() const
    {
        return std::stoi(panel_.Value("SELECT COUNT(*) FROM CardAccessLevel WHERE CardNo=1"));
    }

    [[nodiscard]] int JournalledInserts() const
    {
        return std::stoi(panel_.Value("SELECT COUNT(*) FROM DBQueryInfo WHERE QueryData LIKE"
                                      " 'INSERT INTO CardAccessLevel%'"));
    }
};

TEST_F(LockDuringChange, RestOfChangeIsDelayedBy2SecondLock)
{
    StartLongRequest();
    {
        const Lock lock(main_);
        EXPECT_TRUE(client_->IsSilent(seconds(2)));
    }
    EXPECT_EQ(client_->ReadLine(kVeryLong), "SetCardAccessLevelResponse?Result=0");
    EXPECT_EQ(Levels(), kLongList);
    EXPECT_EQ(JournalledInserts(), kLongList);
    EXPECT_EQ(panel_.Value("SELECT COUNT(DISTINCT Idseq) FROM DBQueryInfo"),
              std::to_string(kLongList + 2));
}

TEST_F(LockDuringChange, ChangeStopsAtStatementBlockedByLongLock)
{
    StartLongRequest();
    const std::size_t calls = panel_.Calls().size();
    {
        const Lock lock(main_);
        EXPECT_EQ(client_->ReadLine(kVeryLong), "SetCardAccessLevelResponse?Result=1");
    }
    EXPECT_LT(Levels(), kLongList);
    // The lock stopped a statement or its journal entry.
    EXPECT_LE(JournalledInserts(), Levels());
    EXPECT_GE(JournalledInserts(), Levels() - 1);
    EXPECT_THAT(panel_.Calls(calls), IsEmpty());
    client_.emplace(LoggedIn());
    EXPECT_EQ(Ask("SetCardAccessLevel?CardNo=1&SelectType=1&AccessLevelNo=2 3"),
              "SetCardAccessLevelResponse?Result=0");
    EXPECT_EQ(Levels(), 2);
}

TEST_F(LockedDatabase, ReadIsDelayedBy2SecondLock)
{
    EXPECT_EQ(AskLockedForTwoSeconds(main_, "GetCardFormat?FormatNo=1"),
              "GetCardFormatResponse?Result=0&FormatNo=1&Name=26-bit Wiegand&Default=1");
}

TEST_F(LockedDatabase, LoginIsDelayedBy2SecondLock)
{
    EXPECT_EQ(AskLockedForTwoSeconds(main_, "Login?Username=operator&Password=operate!1"),
              "LoginResponse?Result=0");
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
}

TEST_F(LockedDatabase, UpdateFailsAfter3Seconds)
{
    ExpectFailsWhileLocked(main_, "SetUserInfo?UserNo=1&LastName=Late");
    EXPECT_EQ(agent_.CountMessages("DataManager.cpp", "SetUserInfo", "sqlite3_exec fail"), 1U);
}

TEST_F(LockedDatabase, InsertFailsAfter3Seconds)
{
    ExpectFailsWhileLocked(main_, "AddUserInfo?LastName=Late");
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM User"), "13");
}

TEST_F(LockedDatabase, CardChangeFailsWhenNumberCannotBeLookedUp)
{
    ExpectFailsWhileLocked(main_, "AddCardInfo?UserNo=3&FormatNo=1&CardNumber=777001");
    ExpectFailsWhileLocked(main_, "SetCardInfo?CardNo=7&UserNo=3&FormatNo=1&CardNumber=777002");
}

TEST_F(LockedDatabase, DeleteFailsAfter3Seconds)
{
    ExpectFailsWhileLocked(main_, "DelUserInfo?UserNo=1");
}

TEST_F(LockedDatabase, SetThreatLevelFailsAfter3Seconds)
{
    ExpectFailsWhileLocked(main_, "SetThreatLevel?ThreatLevel=4");
}

TEST_F(LockedDatabase, ReadFailsAfter3Seconds)
{
    ExpectFailsWhileLocked(main_, "GetUserInfo?UserNo=1");
}

TEST_F(LockedDatabase, ListFailsAfter3Seconds)
{
    ExpectFailsWhileLocked(main_, "GetUserInfoEx?Limit=1");
}

TEST_F(LockedDatabase, LoginFailsAfter3Seconds)
{
    const std::size_t calls = panel_.Calls().size();
    {
        const Lock lock(main_);
        const Stopwatch watch;
        EXPECT_EQ(client_->Ask("Login?Username=operator&Password=operate!1", kVeryLong),
                  "LoginResponse?Result=1");
        EXPECT_GT(watch.Seconds(), 2.9);
    }
    EXPECT_TRUE(agent_.WaitForMessage("ClientWorker.cpp", "Login", "CheckPassword fail"));
    EXPECT_THAT(panel_.Calls(calls), IsEmpty());
    // The session is still logged in, but has no rights.
    ExpectRefused("GetThreatLevel?", 9, "Authority fail");
    EXPECT_EQ(client_->Login(panel::kOperator.Id, panel::kOperator.Password),
              "LoginResponse?Result=0");
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
}

TEST_F(LockedDatabase, OnlyEventLogFailsWhileLogDatabaseIsLocked)
{
    {
        const Lock lock(log_);
        EXPECT_THAT(Ask("GetUserInfo?UserNo=1"), StartsWith("GetUserInfoResponse?Result=0&"));
        EXPECT_EQ(Ask("GetEventCode?Code=10101"),
                  "GetEventCodeResponse?Result=0&Code=10101&Desc=Door opened");
    }
    EXPECT_THAT(AskLockedForTwoSeconds(log_, "GetEventLog?EventNo=1"),
                StartsWith("GetEventLogResponse?Result=0&"));
    ExpectFailsWhileLocked(log_, "GetEventLog?EventNo=1");
}

TEST_F(LockedDatabase, ReadSucceedsWhilePanelPreparesChange)
{
    const Lock lock(main_, "IMMEDIATE");
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
    EXPECT_THAT(Ask("GetUserInfo?UserNo=1"), StartsWith("GetUserInfoResponse?Result=0&"));
}

TEST_F(LockedDatabase, OtherSessionsAreServedMeanwhile)
{
    ManagementClient other = LoggedIn();
    const Lock lock(main_);
    client_->SendLine("SetUserInfo?UserNo=1&LastName=Late");
    EXPECT_TRUE(client_->IsSilent(milliseconds(300)));
    EXPECT_EQ(other.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    EXPECT_EQ(other.Ask("SetEvent?Enable=1"), "SetEventResponse?Result=0");
    EXPECT_TRUE(client_->IsSilent(milliseconds(0)));
    EXPECT_EQ(client_->ReadLine(), "SetUserInfoResponse?Result=1");
}

/// A kind of damage to a database.
struct Damage
{
    const char *Name;
    void (*Break)(const fs::path &file);
};

constexpr Damage kDamages[] = {
    {"Missing", [](const fs::path &file) { fs::remove(file); }},
    {"Empty", [](const fs::path &file) { fs::resize_file(file, 0); }},
    {"Truncated", [](const fs::path &file) { fs::resize_file(file, 1500); }},
    {"NotADatabase",
     [](const fs::path &file) { WriteFile(file, std::string(20000, 'x') + "no database\n"); }},
    {"ZeroBytes", [](const fs::path &file) { WriteFile(file, std::string(20000, '\0')); }},
    {"Directory",
     [](const fs::path &file) {
         fs::remove(file);
         fs::create_directory(file);
     }},
};

void PrintTo(const Damage &damage, std::ostream *stream)
{
    *stream << damage.Name;
}

std::string NameOf(const ::testing::TestParamInfo<Damage> &info)
{
    return info.param.Name;
}

/// Keeps the content of a database file and restores it atomically, as a panel does.
class Backup
{
public:
    explicit Backup(fs::path file) : file_(std::move(file)), content_(ReadFile(file_)) {}

    void Restore() const
    {
        const fs::path fresh = file_.string() + ".fresh";
        WriteFile(fresh, content_);
        if (fs::is_directory(file_))
            fs::remove(file_);
        fs::rename(fresh, file_);
    }

private:
    fs::path file_;
    std::string content_;
};

constexpr const char *kNeedLog[] = {"GetEventLog?EventNo=1", "GetEventLogEx?"};

constexpr const char *kNeedMain[] = {
    "GetEventCode?Code=10001",
    "GetEventCodeEx?",
    "GetLiveVideoInfo?DoorNo=1",
    "GetPlayVideoInfo?VideoTag=1",
    "GetDoorInfo?DoorNo=1",
    "GetDoorInfoEx?",
    "GetUserInfo?UserNo=1",
    "GetUserInfoEx?",
    "SetUserInfo?UserNo=1&LastName=L",
    "AddUserInfo?LastName=L",
    "DelUserInfo?UserNo=12",
    "GetUserImage?UserNo=6",
    "GetCardFormat?FormatNo=1",
    "GetCardFormatEx?",
    "GetCardInfo?CardNo=1",
    "GetCardInfoEx?",
    "SetCardInfo?CardNo=1&UserNo=1&FormatNo=1&CardNumber=1",
    "AddCardInfo?UserNo=1&FormatNo=1&CardNumber=2",
    "DelCardInfo?CardNo=2",
    "GetAccessLevel?LevelNo=1",
    "GetAccessLevelEx?",
    "GetCardAccessLevel?CardNo=1",
    "SetCardAccessLevel?CardNo=1&SelectType=1&AccessLevelNo=1",
    "GetThreatInfo?Level=1",
    "GetThreatInfoEx?",
    "GetThreatLevel?",
    "SetThreatLevel?ThreatLevel=1",
    "GetDoorLock?Port=1",
    "GetAuxOutput?Port=1",
};

constexpr const char *kNeedNone[] = {
    "Heartbeat?",
    "SetEvent?Enable=1",
    "SetAuxOutput?Port=1&Control=1",
    "SetDoorLock?Port=1&Control=0",
};

class BrokenDatabase : public CommandTest, public ::testing::WithParamInterface<Damage>
{
protected:
    template <std::size_t N>
    void ExpectServed(const char *const (&requests)[N])
    {
        for (const char *request : requests)
            EXPECT_THAT(AskList(request)[0], StartsWith(CommandOf(request) + "Response?Result=0"))
                << request;
    }

    template <std::size_t N>
    void ExpectFail(const char *const (&requests)[N])
    {
        const std::size_t calls = panel_.Calls().size();
        for (const char *request : requests) {
            EXPECT_EQ(Ask(request), CommandOf(request) + "Response?Result=1");
            EXPECT_TRUE(agent_.WaitForMessage("ClientWorker.cpp", CommandOf(request),
                                              CommandOf(request) + " fail"));
        }
        EXPECT_THAT(panel_.Calls(calls), IsEmpty());
    }

    const Backup main_{panel_.Paths().MainDatabase};
    const Backup log_{panel_.Paths().LogDatabase};
    const Backup network_{panel_.Paths().NetworkDatabase};
};

TEST_P(BrokenDatabase, MainDatabaseFailsItsCommandsUntilRestored)
{
    const fs::path file = panel_.Paths().MainDatabase;
    GetParam().Break(file);
    const std::string broken = fs::is_regular_file(file) ? ReadFile(file) : "";
    ExpectFail(kNeedMain);
    ExpectFail(kNeedLog);
    ManagementClient other;
    EXPECT_EQ(other.Login(panel::kController.Id, panel::kController.Password),
              "LoginResponse?Result=1");
    // The agent does not change the damaged file.
    EXPECT_EQ(fs::is_regular_file(file) ? ReadFile(file) : "", broken);
    ExpectServed(kNeedNone);

    main_.Restore();
    ExpectServed(kNeedMain);
    ExpectServed(kNeedLog);
    EXPECT_EQ(other.Login(panel::kController.Id, panel::kController.Password),
              "LoginResponse?Result=0");
}

TEST_P(BrokenDatabase, LogDatabaseFailsOnlyEventLog)
{
    GetParam().Break(panel_.Paths().LogDatabase);
    ExpectFail(kNeedLog);
    ExpectServed(kNeedMain);
    ExpectServed(kNeedNone);
    log_.Restore();
    ExpectServed(kNeedLog);
}

TEST_P(BrokenDatabase, NetworkDatabaseFailsNoCommand)
{
    GetParam().Break(panel_.Paths().NetworkDatabase);
    ExpectServed(kNeedMain);
    ExpectServed(kNeedLog);
    ExpectServed(kNeedNone);
}

INSTANTIATE_TEST_SUITE_P(Each, BrokenDatabase, ::testing::ValuesIn(kDamages), NameOf);

class StartWithBrokenDatabase : public ::testing::TestWithParam<Damage>
{
protected:
    /// Shows that an agent that starts with the damaged file serves no client until the file is
    /// restored.
    void ExpectServesOnlyWhenRestored(const fs::path &file)
    {
        const Backup backup(file);
        GetParam().Break(file);
        Agent::Options options;
        options.WaitUntilServing = false;
        Agent agent(options);
        // Long enough for a second attempt.
        EXPECT_FALSE(agent.WaitForLog(", Port: 9000", milliseconds(4500)));
        EXPECT_TRUE(agent.IsRunning());
        backup.Restore();
        ASSERT_TRUE(agent.WaitForLog(", Port: 9000"));
        ManagementClient client = LoggedIn();
        EXPECT_EQ(client.Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
    }

    TestPanel panel_;
};

TEST_P(StartWithBrokenDatabase, AgentWaitsForMainDatabase)
{
    ExpectServesOnlyWhenRestored(panel_.Paths().MainDatabase);
}

TEST_P(StartWithBrokenDatabase, AgentWaitsForNetworkDatabase)
{
    ExpectServesOnlyWhenRestored(panel_.Paths().NetworkDatabase);
}

TEST_P(StartWithBrokenDatabase, AgentServesOtherCommandsWithoutLogDatabase)
{
    const Backup backup(panel_.Paths().LogDatabase);
    GetParam().Break(panel_.Paths().LogDatabase);
    Agent agent;
    ManagementClient client = LoggedIn();
    EXPECT_EQ(client.Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
    EXPECT_EQ(client.Ask("GetEventLog?EventNo=1"), "GetEventLogResponse?Result=1");
    backup.Restore();
    EXPECT_THAT(client.Ask("GetEventLog?EventNo=1"), StartsWith("GetEventLogResponse?Result=0&"));
}

INSTANTIATE_TEST_SUITE_P(Each, StartWithBrokenDatabase, ::testing::ValuesIn(kDamages), NameOf);

class DamagedDatabase : public CommandTest
{};

// Reads of the remaining part may succeed; all others fail.
TEST_F(DamagedDatabase, TruncatedFileIsServedAsFarAsReadable)
{
    for (const fs::path &file : {panel_.Paths().MainDatabase, panel_.Paths().LogDatabase}) {
        const Backup backup(file);
        const std::uintmax_t size = fs::file_size(file);
        for (std::uintmax_t eighths = 1; eighths < 8; ++eighths) {
            backup.Restore();
            fs::resize_file(file, size * eighths / 8);
            std::vector<std::string> requests(std::begin(kNeedLog), std::end(kNeedLog));
            requests.insert(requests.end(), std::begin(kNeedMain), std::end(kNeedMain));
            for (const std::string &request : requests) {
                const std::string answer = AskList(request)[0];
                const std::string lead = CommandOf(request) + "Response?Result=";
                EXPECT_THAT(answer, AnyOf(StartsWith(lead + "0"), Eq(lead + "1")));
            }
        }
        backup.Restore();
    }
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
    EXPECT_THAT(AskList("GetEventLogEx?"), SizeIs(26));
}

TEST_F(DamagedDatabase, OverwrittenPagesDoNotStopAgent)
{
    const fs::path file = panel_.Paths().MainDatabase;
    const Backup backup(file);
    const std::string intact = ReadFile(file);
    for (std::size_t page = 0; page * 4096 < intact.size(); ++page) {
        backup.Restore();
        std::string damaged = intact;
        for (std::size_t i = page * 4096 + (page == 0 ? 100 : 0);
             i < intact.size() && i < (page + 1) * 4096; ++i)
            damaged[i] = static_cast<char>(damaged[i] ^ static_cast<char>(i * 31 + page));
        WriteFile(file, damaged);
        for (const char *request : {"GetUserInfoEx?", "GetCardInfoEx?", "GetDoorInfoEx?",
                                    "GetEventCodeEx?", "AddUserInfo?LastName=L"}) {
            const std::string answer = AskList(request)[0];
            EXPECT_THAT(answer, StartsWith(CommandOf(request) + "Response?Result="));
        }
    }
    backup.Restore();
    EXPECT_EQ(Ask("GetThreatLevel?"), "GetThreatLevelResponse?Result=0&ThreatLevel=1");
}

} // namespace
} // namespace nimbra::test
