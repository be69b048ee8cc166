// The list of tables and columns that nimbra-panel-check looks for, against the statements that the
// agent runs for its commands.

#include "client/ClientWorker.h"
#include "core/ConfigManager.h"
#include "panel-check/Schema.h"
#include "simulator/panel/Sqlite.h"
#include "support/CommandTest.h"
#include "support/ManagementClient.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/socket.h>

namespace nimbra::test {

namespace {

using check::Column;
using check::RequiredTables;
using check::Table;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

/// Records what this process does with SQLite while it is on.
struct Recorder
{
    /// A statement and the file of its connection.
    using Statement = std::pair<std::string, std::string>;

    std::atomic<bool> IsOn = false;
    std::mutex Mutex;
    std::set<Statement> Statements;
    std::vector<std::string> Errors;
};

Recorder &TheRecorder()
{
    static auto *const recorder = new Recorder;
    return *recorder;
}

int RecordStatement(unsigned, void *connection, void *, void *text)
{
    Recorder &recorder = TheRecorder();
    if (recorder.IsOn) {
        const std::lock_guard lock(recorder.Mutex);
        recorder.Statements.emplace(sqlite3_db_filename(static_cast<sqlite3 *>(connection), "main"),
                                    static_cast<const char *>(text));
    }
    return 0;
}

int TraceConnection(sqlite3 *connection, char **, const sqlite3_api_routines *)
{
    return sqlite3_trace_v2(connection, SQLITE_TRACE_STMT, RecordStatement, connection);
}

void RecordError(void *, int, const char *message)
{
    Recorder &recorder = TheRecorder();
    if (recorder.IsOn) {
        const std::lock_guard lock(recorder.Mutex);
        recorder.Errors.emplace_back(message);
    }
}

/// Requests that together use every key that ends in a statement. They find the sample panel's
/// records, so that the statements that follow a found row run too.
constexpr std::array kRequests = {
    "Hello?",
    "Login?Username=operator&Password=operate!1",
    "Login?Username=admin&Password=admin1234",
    "Heartbeat?",
    "SetEvent?Enable=0",
    "GetEventLog?EventNo=1",
    "GetEventLogEx?Limit=1",
    "GetEventLogEx?EventNo=1&FromTime=2026-01-01 00:00:00&ToTime=2026-12-31 00:00:00&DeviceType=1&"
    "DevicePort=1&DeviceName=a&EventCode=1&EventDesc=a&CardNo=1&UserNo=1&UserName=a&VideoTag=1",
    "GetEventCode?Code=10001",
    "GetEventCodeEx?Code=10001&Desc=a",
    "GetLiveVideoInfo?DoorNo=1",
    "GetPlayVideoInfo?VideoTag=1&EventTime=2026-01-01 00:00:00",
    "GetDoorInfo?DoorNo=1",
    "GetDoorInfoEx?",
    "GetDoorInfoEx?DoorNo=1&Name=Front",
    "GetUserInfo?UserNo=1",
    "GetUserInfoEx?UserNo=1&FirstName=a&MiddleName=a&LastName=a&PhoneNumber=5&CellPhone=5&Email=a&"
    "Ada=1&Exempt=1&ThreatLevel=1",
    "SetUserInfo?UserNo=1&LastName=Archer",
    "AddUserInfo?LastName=Archer",
    "GetCardFormat?FormatNo=1",
    "GetCardFormatEx?",
    "GetCardInfo?CardNo=1",
    "GetCardInfoEx?UserNo=1",
    "SetCardInfo?CardNo=1&UserNo=1&FormatNo=1&CardNumber=987654",
    "AddCardInfo?UserNo=1&FormatNo=1&CardNumber=987655",
    "GetAccessLevel?LevelNo=1",
    "GetAccessLevelEx?SelectType=0",
    "GetCardAccessLevel?CardNo=1",
    "SetCardAccessLevel?CardNo=1&SelectType=1&AccessLevelNo=1",
    "DelCardInfo?CardNo=2",
    "DelUserInfo?UserNo=2",
    "GetThreatInfo?Level=1",
    "GetThreatInfoEx?",
    "GetThreatLevel?",
    "SetThreatLevel?ThreatLevel=1",
    "GetDoorLock?Port=1",
    "SetDoorLock?Port=1&Control=0",
    "GetAuxOutput?Port=1",
    "SetAuxOutput?Port=1&Control=0",
    "SetUserImage?UserNo=1&FileName=a.jpg&Size=1\nx",
    "GetUserImage?UserNo=1",
};

/// A sample panel with the optional columns, and the agent's code in this process.
class PanelSchema : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        // Before anything uses SQLite.
        ASSERT_EQ(sqlite3_config(SQLITE_CONFIG_LOG, &RecordError, nullptr), SQLITE_OK);
        ASSERT_EQ(sqlite3_auto_extension(reinterpret_cast<void (*)()>(&TraceConnection)),
                  SQLITE_OK);
    }

    /// Runs the start and every request, and records their statements.
    PanelSchema()
    {
        panel_.Run("ALTER TABLE User ADD COLUMN PhoneNumber TEXT");
        Recorder &recorder = TheRecorder();
        recorder.IsOn = true;
        ConfigManager *config = ConfigManager::GetInstance();
        EXPECT_TRUE(config->Load());
        config->SetCommTime(true);
        config->SetCommTime(false);
        ServeRequests();
        recorder.IsOn = false;
        statements_ = recorder.Statements;
    }

    /// Replaces the panel's databases by those of the list, without rows.
    void CreateListedTables() const
    {
        for (const auto &path : {panel_.Paths().MainDatabase, panel_.Paths().LogDatabase,
                                 panel_.Paths().NetworkDatabase})
            std::filesystem::remove(path);
        for (const Table &table : RequiredTables()) {
            std::string columns;
            for (const Column &column : table.Columns)
                columns += (columns.empty() ? "" : ", ") + std::string(column.Name);
            TestPanel::Run(table.Database,
                           std::string("CREATE TABLE ") + table.Name + " (" + columns + ")");
        }
    }

    /// The recorded statements that SQLite does not accept on the present databases.
    [[nodiscard]] std::vector<std::string> Refused() const
    {
        std::vector<std::string> refused;
        for (const auto &[file, text] : statements_) {
            panel::SqliteFile database(file);
            if (file == panel_.Paths().LogDatabase && !text.starts_with("ATTACH "))
                database.Run("ATTACH DATABASE '" + panel_.Paths().MainDatabase.string() +
                             "' AS Nimbra");
            try {
                const panel::SqliteStatement statement(database, text);
            } catch (const std::runtime_error &error) {
                refused.push_back(text + ": " + error.what());
            }
        }
        return refused;
    }

    TestPanel panel_;
    std::set<Recorder::Statement> statements_;

private:
    static void ServeRequests()
    {
        static auto *const ends = new EventCount;
        std::array<int, 2> sockets{};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()), 0);
        ClientWorker session(ends);
        ManagementClient client{Descriptor(sockets[1])};
        const int seen = ends->Get();
        session.Start(Descriptor(sockets[0]), "127.0.0.1", 1);
        std::vector<std::string> failed;
        for (const char *request : kRequests)
            if (!client.AskList(request)[0].starts_with(CommandOf(request) + "Response?Result=0"))
                failed.emplace_back(request);
        // All filters together match no row. A request that found none otherwise would leave out
        // statements.
        EXPECT_THAT(failed, ElementsAre(StartsWith("GetEventLogEx?EventNo="),
                                        StartsWith("GetUserInfoEx?UserNo=")));
        session.Stop();
        client.Close();
        static_cast<void>(ends->WaitPast(seen));
        EXPECT_FALSE(session.IsRunning());
    }
};

TEST_F(PanelSchema, RequestsUseEveryCommand)
{
    std::set<std::string> words;
    for (const std::string_view request : kRequests)
        words.emplace(request.substr(0, request.find('?') + 1));
    for (const ClientWorker::Command &command : ClientWorker::Commands())
        EXPECT_THAT(words, ::testing::Contains(command.Word));
}

TEST_F(PanelSchema, CoversEveryStatement)
{
    EXPECT_THAT(TheRecorder().Errors, IsEmpty()) << "on the sample panel";
    CreateListedTables();
    EXPECT_THAT(Refused(), IsEmpty());
}

TEST_F(PanelSchema, HasOnlyWhatStatementsName)
{
    CreateListedTables();
    for (const Table &table : RequiredTables())
        for (const Column &column : table.Columns) {
            const std::string change = std::string("ALTER TABLE ") + table.Name + " RENAME COLUMN ";
            TestPanel::Run(table.Database, change + column.Name + " TO Renamed");
            EXPECT_THAT(Refused(), ::testing::Not(IsEmpty())) << table.Name << '.' << column.Name;
            TestPanel::Run(table.Database, change + "Renamed TO " + column.Name);
        }
}

} // namespace

} // namespace nimbra::test
