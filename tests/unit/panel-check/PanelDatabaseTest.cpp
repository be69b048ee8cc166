#include "panel-check/PanelDatabase.h"

#include "support/Files.h"
#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace nimbra::check {
namespace {

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::Optional;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

struct Closer
{
    void operator()(sqlite3 *handle) const { sqlite3_close(handle); }
};
using Writer = std::unique_ptr<sqlite3, Closer>;

/// A database file in a directory of its own.
class PanelDatabaseTest : public ::testing::Test
{
protected:
    [[nodiscard]] Writer Open() const
    {
        sqlite3 *handle = nullptr;
        EXPECT_EQ(sqlite3_open(path_.c_str(), &handle), SQLITE_OK);
        return Writer(handle);
    }
    static void Run(const Writer &writer, const char *sql)
    {
        EXPECT_EQ(sqlite3_exec(writer.get(), sql, nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(writer.get());
    }
    [[nodiscard]] std::set<std::string> Names() const
    {
        std::set<std::string> names;
        for (const auto &entry : fs::directory_iterator(directory_.Path()))
            names.insert(entry.path().filename());
        return names;
    }

    test::TemporaryDirectory directory_;
    std::string path_ = directory_.Path("panel.db");
};

TEST_F(PanelDatabaseTest, ReadsNumbersOfEveryRow)
{
    Run(Open(), "CREATE TABLE T (No INTEGER); INSERT INTO T VALUES (3), (5)");
    PanelDatabase database(path_);
    EXPECT_EQ(database.Error(), "");
    EXPECT_THAT(database.Numbers("SELECT No FROM T ORDER BY No"), Optional(ElementsAre(3, 5)));
    EXPECT_THAT(database.Numbers("SELECT No FROM T WHERE No=4"), Optional(ElementsAre()));
}

TEST_F(PanelDatabaseTest, AcceptsOnlyExistingColumns)
{
    Run(Open(), "CREATE TABLE T (No INTEGER)");
    PanelDatabase database(path_);
    EXPECT_TRUE(database.Accepts("SELECT T.No FROM T"));
    EXPECT_FALSE(database.Accepts("SELECT T.Name FROM T"));
    EXPECT_FALSE(database.Accepts("SELECT 1 FROM U"));
}

TEST_F(PanelDatabaseTest, CannotChangeFile)
{
    Run(Open(), "CREATE TABLE T (No INTEGER)");
    PanelDatabase database(path_);
    EXPECT_EQ(database.Numbers("INSERT INTO T VALUES (1)"), std::nullopt);
    EXPECT_THAT(database.Numbers("SELECT COUNT(*) FROM T"), Optional(ElementsAre(0)));
}

TEST_F(PanelDatabaseTest, CreatesNoMissingFile)
{
    const PanelDatabase database(path_);
    EXPECT_THAT(database.Error(), StartsWith("cannot be read: "));
    EXPECT_THAT(Names(), ElementsAre());
}

TEST_F(PanelDatabaseTest, CreatesNoFileBesideWriteAheadLog)
{
    Run(Open(), "PRAGMA journal_mode=WAL; CREATE TABLE T (No INTEGER)");
    ASSERT_THAT(Names(), ElementsAre("panel.db"));
    PanelDatabase database(path_);
    EXPECT_THAT(database.Numbers("SELECT COUNT(*) FROM T"), Optional(ElementsAre(0)));
    EXPECT_THAT(Names(), ElementsAre("panel.db"));
}

TEST_F(PanelDatabaseTest, ReadsWriteAheadLogThatIsInUse)
{
    const Writer writer = Open();
    Run(writer, "PRAGMA journal_mode=WAL; CREATE TABLE T (No INTEGER)");
    {
        PanelDatabase database(path_);
        EXPECT_THAT(database.Numbers("SELECT COUNT(*) FROM T"), Optional(ElementsAre(0)));
    }
    EXPECT_THAT(Names(), UnorderedElementsAre("panel.db", "panel.db-wal", "panel.db-shm"));
}

TEST_F(PanelDatabaseTest, LeavesInterruptedChangesAlone)
{
    {
        const Writer writer = Open();
        Run(writer, "PRAGMA journal_mode=WAL; CREATE TABLE T (No INTEGER)");
        fs::copy_file(path_ + "-wal", path_ + ".copy");
    }
    fs::rename(path_ + ".copy", path_ + "-wal");
    EXPECT_EQ(PanelDatabase(path_).Error(), "holds a change that a power failure interrupted");
    EXPECT_THAT(Names(), UnorderedElementsAre("panel.db", "panel.db-wal"));
}

TEST_F(PanelDatabaseTest, LeavesInterruptedTransactionAlone)
{
    {
        // With a cache this small, the change reaches the file before its end.
        const Writer writer = Open();
        Run(writer, "CREATE TABLE T (No INTEGER, Text); INSERT INTO T VALUES (1, zeroblob(50000));"
                    "PRAGMA cache_size=1; BEGIN; UPDATE T SET Text=randomblob(50000)");
        fs::copy_file(path_, path_ + ".copy");
        fs::copy_file(path_ + "-journal", path_ + ".copied-journal");
    }
    fs::rename(path_ + ".copy", path_);
    fs::rename(path_ + ".copied-journal", path_ + "-journal");
    const std::string before = test::ReadFile(path_);
    EXPECT_EQ(PanelDatabase(path_).Error(), "holds a change that a power failure interrupted");
    EXPECT_EQ(test::ReadFile(path_), before);
    EXPECT_THAT(Names(), UnorderedElementsAre("panel.db", "panel.db-journal"));
}

TEST_F(PanelDatabaseTest, ReportsOtherFiles)
{
    test::WriteFile(path_, std::string(8192, 'x'));
    EXPECT_EQ(PanelDatabase(path_).Error(), "is not an SQLite database");
}

TEST_F(PanelDatabaseTest, ReportsDamage)
{
    Run(Open(), "CREATE TABLE T (No INTEGER); CREATE TABLE U (No INTEGER)");
    std::string bytes = test::ReadFile(path_);
    // The page of the schema, behind its header.
    bytes.replace(100, 100, std::string(100, '\x7f'));
    test::WriteFile(path_, bytes);
    EXPECT_EQ(PanelDatabase(path_).Error(), "is damaged");
}

TEST_F(PanelDatabaseTest, ReportsLock)
{
    const Writer writer = Open();
    Run(writer, "CREATE TABLE T (No INTEGER); BEGIN EXCLUSIVE");
    EXPECT_EQ(PanelDatabase(path_).Error(), "is locked by another program for more than 3 seconds");
}

} // namespace
} // namespace nimbra::check
