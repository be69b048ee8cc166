#include "data/Database.h"

#include "data/SqlText.h"
#include "support/CapturedOutput.h"
#include "support/Matchers.h"
#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"

#include <climits>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>

namespace nimbra {
namespace {

using test::CapturedOutput;
using test::IsLogLine;
using test::Stopwatch;
using test::TemporaryDirectory;
using ::testing::ElementsAre;

constexpr char kSource[] = "DataManager.cpp";

/// The panel's connection to a database file.
class Panel
{
public:
    explicit Panel(const std::string &path)
    {
        EXPECT_EQ(sqlite3_open(path.c_str(), &handle_), SQLITE_OK);
    }
    ~Panel() { sqlite3_close(handle_); }
    Panel(const Panel &) = delete;
    Panel &operator=(const Panel &) = delete;

    void Run(const char *sql) const
    {
        EXPECT_EQ(sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(handle_);
    }

private:
    sqlite3 *handle_ = nullptr;
};

class DatabaseTest : public ::testing::Test
{
protected:
    DatabaseTest() { panel_.Run("CREATE TABLE Door (No INTEGER, Name TEXT)"); }

    /// The number of rows, read through a separate connection.
    [[nodiscard]] std::int32_t Rows() const
    {
        Database database(path_.c_str(), kSource);
        return database.FirstNumber(SqlText("SELECT COUNT(*) FROM Door"));
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.Path("Nimbra.db");
    Panel panel_{path_};
};

TEST_F(DatabaseTest, OpensFile)
{
    const CapturedOutput output;
    const Database database(path_.c_str(), kSource);
    EXPECT_TRUE(database.IsOpen());
    EXPECT_EQ(output.Text(), "");
}

TEST_F(DatabaseTest, LogsCallerWhenFileCannotBeOpened)
{
    const CapturedOutput output;
    const Database directory(directory_.Path().c_str(), kSource);
    const int line = __LINE__ - 1;
    const Database missing(directory_.Path("none/Nimbra.db").c_str(), "ConfigManager.cpp");
    EXPECT_FALSE(directory.IsOpen());
    EXPECT_FALSE(missing.IsOpen());
    EXPECT_THAT(output.Log(),
                ElementsAre(IsLogLine(LogSite{kSource, line, __func__}, "sqlite3_open fail"),
                            IsLogLine("ConfigManager.cpp", __func__, "sqlite3_open fail")));
}

TEST_F(DatabaseTest, OpensFileCloseOnExec)
{
    Database database(path_.c_str(), kSource);
    EXPECT_EQ(database.Execute(SqlText("INSERT INTO Door VALUES (1, 'a')")), SQLITE_OK);
    int found = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry, gone) != path_)
            continue;
        ++found;
        const int descriptor = std::stoi(entry.path().filename());
        EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    }
    EXPECT_GE(found, 2) << "the panel's connection and the agent's";
}

TEST_F(DatabaseTest, ClosesFileOnDestruction)
{
    const auto count = [this] {
        int found = 0;
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            if (std::filesystem::read_symlink(entry, gone) == path_)
                ++found;
        }
        return found;
    };
    const int before = count();
    for (int i = 0; i < 3; ++i) {
        Database database(path_.c_str(), kSource);
        Statement row(database, SqlText("SELECT No FROM Door"));
        EXPECT_FALSE(row.Step());
        EXPECT_EQ(count(), before + 1);
    }
    EXPECT_EQ(count(), before);
}

TEST_F(DatabaseTest, RunsStatements)
{
    Database database(path_.c_str(), kSource);
    EXPECT_EQ(database.Execute(SqlText("INSERT INTO Door VALUES (%d, '%s')", 3, "Front")),
              SQLITE_OK);
    EXPECT_EQ(database.Execute("INSERT INTO Door VALUES (4, 'Back')"), SQLITE_OK);
    EXPECT_EQ(database.Execute(SqlText("UPDATE Door SET No=5 WHERE No=100")), SQLITE_OK);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT SUM(No) FROM Door")), 7);
}

TEST_F(DatabaseTest, ReturnsResultCodeOfFailedStatement)
{
    const CapturedOutput output;
    Database database(path_.c_str(), kSource);
    EXPECT_EQ(database.Execute(SqlText("INSERT INTO Nothing VALUES (1)")), SQLITE_ERROR);
    EXPECT_EQ(database.Execute(SqlText("nonsense")), SQLITE_ERROR);
    panel_.Run("CREATE UNIQUE INDEX Single ON Door (No)");
    EXPECT_EQ(database.Execute(SqlText("INSERT INTO Door VALUES (1, '')")), SQLITE_OK);
    EXPECT_EQ(database.Execute(SqlText("INSERT INTO Door VALUES (1, '')")), SQLITE_CONSTRAINT);
    EXPECT_EQ(output.Text(), "");
}

TEST_F(DatabaseTest, NeverRunsRefusedStatement)
{
    Database database(path_.c_str(), kSource);
    panel_.Run("INSERT INTO Door VALUES (1, 'a'), (2, 'b')");
    const SqlText unsafe("DELETE FROM Door; SELECT '%s'", "'");
    EXPECT_EQ(database.Execute(unsafe), SQLITE_ERROR);
    SqlText cut("DELETE FROM Door");
    cut.Append("%s", std::string(2000, ' ').c_str());
    EXPECT_STREQ(cut.Get(), "DELETE FROM Door");
    EXPECT_EQ(database.Execute(cut), SQLITE_ERROR);
    Statement query(database, cut);
    EXPECT_FALSE(query.Step());
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT COUNT(*) FROM Door")), 2);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT 7").Append(unsafe)), 0);
}

TEST_F(DatabaseTest, ReturnsFirstNumberOfFirstRow)
{
    Database database(path_.c_str(), kSource);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT MAX(No) FROM Door")), 0) << "NULL";
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT No FROM Door")), 0) << "no row";
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT No FROM Nothing")), 0) << "no such table";
    EXPECT_EQ(database.FirstNumber(SqlText()), 0) << "no statement";
    panel_.Run("INSERT INTO Door VALUES (9, 'a'), (4, 'b')");
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT No, Name FROM Door")), 9);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT MAX(No) FROM Door")), 9);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT COUNT(*) FROM Door")), 2);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT -5")), -5);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT %d", INT_MIN)), INT_MIN);
}

TEST_F(DatabaseTest, ConvertsNumberAsSqliteDoes)
{
    Database database(path_.c_str(), kSource);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT '12abc'")), 12);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT 'abc'")), 0);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT ''")), 0);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT 3.9")), 3);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT 4294967301")), 5);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT -4294967297")), -1);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT 2147483648")), INT_MIN);
}

TEST_F(DatabaseTest, StepsThroughRowsOfQuery)
{
    panel_.Run("INSERT INTO Door VALUES (1, 'Front'), (2, NULL), (NULL, '')");
    Database database(path_.c_str(), kSource);
    Statement row(database, SqlText("SELECT No, Name FROM Door ORDER BY rowid"));
    std::int32_t number = -1;
    FixedText<8> name;
    ASSERT_TRUE(row.Step());
    row.Read(&number, &name);
    EXPECT_EQ(number, 1);
    EXPECT_STREQ(name.Get(), "Front");
    ASSERT_TRUE(row.Step());
    row.Read(&number, &name);
    EXPECT_EQ(number, 2);
    EXPECT_STREQ(name.Get(), "");
    ASSERT_TRUE(row.Step());
    row.Read(&number, &name);
    EXPECT_EQ(number, 0);
    EXPECT_STREQ(name.Get(), "");
    EXPECT_FALSE(row.Step());
}

TEST_F(DatabaseTest, ContinuesAtColumnAfterLastRead)
{
    Database database(path_.c_str(), kSource);
    Statement row(database, SqlText("SELECT 1, 'two', 3, 'four' UNION ALL SELECT 5, 'six', 7, ''"));
    std::int32_t first = -1;
    FixedText<4> second;
    std::int32_t third = -1;
    ASSERT_TRUE(row.Step());
    row.Read(&first);
    row.Read(&second, &third);
    EXPECT_EQ(first, 1);
    EXPECT_STREQ(second.Get(), "two");
    EXPECT_EQ(third, 3);
    ASSERT_TRUE(row.Step()) << "with a column left";
    row.Read(&first, &second);
    EXPECT_EQ(first, 5) << "each row is read from its first column on";
    EXPECT_STREQ(second.Get(), "six");
}

TEST_F(DatabaseTest, ReadsColumnsOfEveryTypeAsNumbers)
{
    Database database(path_.c_str(), kSource);
    Statement row(database, SqlText("SELECT 42, '7 doors', 2.5, NULL, 4294967301"));
    ASSERT_TRUE(row.Step());
    std::int32_t numbers[5] = {};
    for (std::int32_t &number : numbers)
        row.Read(&number);
    EXPECT_THAT(numbers, ::testing::ElementsAre(42, 7, 2, 0, 5));
    std::int32_t missing = -1;
    row.Read(&missing);
    EXPECT_EQ(missing, 0) << "no such column";
}

TEST_F(DatabaseTest, ReadsColumnsOfEveryTypeAsTexts)
{
    Database database(path_.c_str(), kSource);
    Statement row(database, SqlText("SELECT 42, 2.5, x'4142', NULL, 'O''Brien', 'a longer text',"
                                    " '%s'",
                                    "\xc3\xa9\xff"));
    ASSERT_TRUE(row.Step());
    std::vector<std::string> texts;
    for (int column = 0; column < 8; ++column) {
        FixedText<8> text("(text)");
        row.Read(&text);
        texts.emplace_back(text.Get());
    }
    EXPECT_THAT(texts, ::testing::ElementsAre("42", "2.5", "AB", "", "O'Brien", "a longer",
                                              "\xc3\xa9\xff", ""));
}

TEST_F(DatabaseTest, LogsNothingWhenQueryFails)
{
    const CapturedOutput output;
    Database database(path_.c_str(), kSource);
    Statement row(database, SqlText("SELECT Phone FROM Door"));
    EXPECT_FALSE(row.Step());
    EXPECT_FALSE(row.Step());
    Statement late(database, SqlText("SELECT No FROM Door OFFSET 10"));
    EXPECT_FALSE(late.Step());
    EXPECT_EQ(output.Text(), "");
}

TEST_F(DatabaseTest, FailsOnFileThatIsNotADatabase)
{
    const std::string path = directory_.Path("text");
    std::FILE *file = std::fopen(path.c_str(), "we");
    ASSERT_NE(file, nullptr);
    for (int i = 0; i < 200; ++i)
        std::fputs("This is no database.\n", file);
    std::fclose(file);
    Database database(path.c_str(), kSource);
    ASSERT_TRUE(database.IsOpen()) << "the content is read later";
    EXPECT_EQ(database.Execute(SqlText("CREATE TABLE A (B)")), SQLITE_NOTADB);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT 1 FROM sqlite_master")), 0);
}

TEST_F(DatabaseTest, WaitsUntilPanelUnlocksDatabase)
{
    panel_.Run("INSERT INTO Door VALUES (1, 'a')");
    Database database(path_.c_str(), kSource);
    panel_.Run("BEGIN EXCLUSIVE");
    std::atomic<bool> isUnlocked = false;
    std::thread panel([&] {
        std::this_thread::sleep_for(test::milliseconds(300));
        isUnlocked = true;
        panel_.Run("COMMIT");
    });
    EXPECT_EQ(database.Execute(SqlText("INSERT INTO Door VALUES (2, 'b')")), SQLITE_OK);
    EXPECT_TRUE(isUnlocked);
    EXPECT_FALSE(database.IsLocked());
    panel.join();
}

TEST_F(DatabaseTest, ChangeFailsAfter3SecondsWhenDatabaseStaysLocked)
{
    Database database(path_.c_str(), kSource);
    panel_.Run("BEGIN EXCLUSIVE");
    const Stopwatch watch;
    EXPECT_EQ(database.Execute(SqlText("INSERT INTO Door VALUES (2, 'b')")), SQLITE_BUSY);
    EXPECT_GE(watch.Seconds(), 2.9);
    EXPECT_LT(watch.Seconds(), 6.0);
    EXPECT_TRUE(database.IsLocked());
    panel_.Run("COMMIT");
    EXPECT_EQ(Rows(), 0);
}

TEST_F(DatabaseTest, QueryFailsAfter3SecondsWhenDatabaseStaysLocked)
{
    panel_.Run("INSERT INTO Door VALUES (1, 'a')");
    // The schema has been read, so only the step waits.
    Database database(path_.c_str(), kSource);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT COUNT(*) FROM Door")), 1);
    panel_.Run("BEGIN EXCLUSIVE");
    const Stopwatch watch;
    Statement row(database, SqlText("SELECT No FROM Door"));
    EXPECT_FALSE(row.Step());
    EXPECT_GE(watch.Seconds(), 2.9);
    EXPECT_LT(watch.Seconds(), 6.0);
    panel_.Run("COMMIT");
}

TEST_F(DatabaseTest, DistinguishesLockedDatabaseFromMissingRow)
{
    {
        Database database(path_.c_str(), kSource);
        EXPECT_EQ(database.FirstNumber(SqlText("SELECT MAX(No) FROM Door")), 0);
        EXPECT_FALSE(database.IsLocked());
        panel_.Run("BEGIN EXCLUSIVE");
        EXPECT_EQ(database.FirstNumber(SqlText("SELECT MAX(No) FROM Door")), 0);
        EXPECT_TRUE(database.IsLocked());
        panel_.Run("COMMIT");
    }
    Database database(path_.c_str(), kSource);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT No FROM Door")), 0);
    EXPECT_FALSE(database.IsLocked()) << "no row";
}

TEST_F(DatabaseTest, ReportsNoLockOnOtherFailures)
{
    Database database(path_.c_str(), kSource);
    EXPECT_FALSE(database.IsLocked());
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT No FROM Nothing")), 0);
    EXPECT_FALSE(database.IsLocked());
    EXPECT_EQ(database.Execute(SqlText("nonsense")), SQLITE_ERROR);
    EXPECT_FALSE(database.IsLocked());
}

} // namespace
} // namespace nimbra
