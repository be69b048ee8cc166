#include "data/LockTime.h"

#include "data/Database.h"
#include "data/SqlText.h"
#include "data/WriteLock.h"
#include "support/CapturedOutput.h"
#include "support/Matchers.h"
#include "support/TemporaryDirectory.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace nimbra {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::CapturedOutput;
using test::Stopwatch;

constexpr char kSourceName[] = "DataManager.cpp";

/// Waits for a lock until the lock time is spent.
void Spend()
{
    for (int attempt = 0; LockTime::Wait(attempt); ++attempt)
        continue;
}

TEST(LockTime, LastsThreeSeconds)
{
    const LockTime time;
    EXPECT_EQ(LockTime::Left(), seconds(3));
    EXPECT_FALSE(LockTime::IsSpent());
    const Stopwatch watch;
    Spend();
    EXPECT_GE(watch.Seconds(), 2.99);
    EXPECT_LT(watch.Seconds(), 4.5);
    EXPECT_TRUE(LockTime::IsSpent());
    EXPECT_EQ(LockTime::Left(), seconds(0));
}

TEST(LockTime, DoesNotWaitWhenSpent)
{
    const LockTime time;
    LockTime::SpendSince(LockTime::Clock::now() - seconds(10));
    const Stopwatch watch;
    EXPECT_FALSE(LockTime::Wait(0));
    EXPECT_FALSE(LockTime::Wait(1000));
    EXPECT_LT(watch.Seconds(), 1.0);
}

TEST(LockTime, WaitThatSpendsTheRestFails)
{
    const LockTime time;
    LockTime::SpendSince(LockTime::Clock::now() - milliseconds(2995));
    EXPECT_FALSE(LockTime::Wait(1000));
    EXPECT_TRUE(LockTime::IsSpent());
}

TEST(LockTime, BeginsWithShortWait)
{
    const LockTime time;
    EXPECT_TRUE(LockTime::Wait(0));
    EXPECT_GT(LockTime::Left(), seconds(2));
    EXPECT_LE(LockTime::Left(), seconds(3) - milliseconds(1));
}

TEST(LockTime, BelongsToFirstObjectOfThread)
{
    std::optional<LockTime> first(std::in_place);
    LockTime::SpendSince(LockTime::Clock::now() - seconds(2));
    {
        const LockTime second;
        EXPECT_LE(LockTime::Left(), seconds(1));
        LockTime::SpendSince(LockTime::Clock::now() - seconds(2));
    }
    EXPECT_TRUE(LockTime::IsSpent());
    std::thread([] {
        const LockTime other;
        EXPECT_FALSE(LockTime::IsSpent());
    }).join();
    EXPECT_TRUE(LockTime::IsSpent());
    first.reset();
    const LockTime next;
    EXPECT_EQ(LockTime::Left(), seconds(3));
}

TEST(LockTime, IsSpentOutsideRequest)
{
    EXPECT_EQ(LockTime::Left(), seconds(0));
    LockTime::SpendSince(LockTime::Clock::now() - seconds(1));
    EXPECT_FALSE(LockTime::Wait(0));
    EXPECT_TRUE(LockTime::IsSpent());
}

class LockTimeOfRequest : public ::testing::Test
{
protected:
    LockTimeOfRequest()
    {
        EXPECT_EQ(sqlite3_open(path_.c_str(), &panel_), SQLITE_OK);
        Run("CREATE TABLE Door (No INTEGER)");
        Run("INSERT INTO Door VALUES (7)");
    }
    ~LockTimeOfRequest() override { sqlite3_close(panel_); }

    void Run(const char *sql) const
    {
        EXPECT_EQ(sqlite3_exec(panel_, sql, nullptr, nullptr, nullptr), SQLITE_OK);
    }

    test::TemporaryDirectory directory_;
    std::string path_ = directory_.Path("Nimbra.db");
    sqlite3 *panel_ = nullptr;
};

TEST_F(LockTimeOfRequest, IsSharedByAllStatements)
{
    const LockTime request;
    Run("BEGIN EXCLUSIVE");
    const Stopwatch watch;
    Database first(path_.c_str(), kSourceName);
    EXPECT_EQ(first.FirstNumber(SqlText("SELECT No FROM Door")), 0);
    EXPECT_TRUE(first.IsLocked());
    EXPECT_GE(watch.Seconds(), 2.9);
    Database second(path_.c_str(), kSourceName);
    EXPECT_EQ(second.Execute(SqlText("DELETE FROM Door")), SQLITE_BUSY);
    EXPECT_TRUE(second.IsLocked());
    EXPECT_LT(watch.Seconds(), 4.5);
    Run("COMMIT");
    // The request has failed, so none of its later statements runs after the lock has ended.
    EXPECT_EQ(second.Execute(SqlText("DELETE FROM Door")), SQLITE_BUSY);
    EXPECT_EQ(first.FirstNumber(SqlText("SELECT No FROM Door")), 0);
    Statement row(first, SqlText("SELECT No FROM Door"));
    EXPECT_FALSE(row.Step());
}

TEST_F(LockTimeOfRequest, IsNewForNextRequest)
{
    {
        const LockTime request;
        Spend();
    }
    const LockTime request;
    Database database(path_.c_str(), kSourceName);
    EXPECT_EQ(database.FirstNumber(SqlText("SELECT No FROM Door")), 7);
    EXPECT_FALSE(database.IsLocked());
}

TEST_F(LockTimeOfRequest, IsLeftForNextStatementWhenNotSpent)
{
    const LockTime request;
    Database database(path_.c_str(), kSourceName);
    for (int i = 0; i < 2; ++i) {
        Run("BEGIN EXCLUSIVE");
        std::thread panel([this] {
            std::this_thread::sleep_for(milliseconds(400));
            Run("COMMIT");
        });
        EXPECT_EQ(database.FirstNumber(SqlText("SELECT No FROM Door")), 7);
        panel.join();
    }
    EXPECT_LT(LockTime::Left(), milliseconds(2400));
    EXPECT_FALSE(LockTime::IsSpent());
}

TEST(WriteLock, IsHeldByOneThreadAtATime)
{
    std::atomic<int> holders = 0;
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&holders] {
            for (int round = 0; round < 20; ++round) {
                const WriteLock lock(kSourceName);
                ASSERT_TRUE(lock.IsHeld());
                EXPECT_EQ(++holders, 1);
                std::this_thread::sleep_for(milliseconds(1));
                --holders;
            }
        });
    for (std::thread &thread : threads)
        thread.join();
}

/// Waits for a lock that another thread keeps, with one second of lock time left.
void ChangeTooLate()
{
    const LockTime request;
    LockTime::SpendSince(LockTime::Clock::now() - seconds(2));
    const Stopwatch watch;
    const WriteLock lock(kSourceName);
    EXPECT_FALSE(lock.IsHeld());
    EXPECT_GE(watch.Seconds(), 0.9);
    EXPECT_LT(watch.Seconds(), 2.5);
    EXPECT_TRUE(LockTime::IsSpent());
}

TEST(WriteLock, FailsAndLogsWhenLockTimeOfRequestIsSpent)
{
    const CapturedOutput output;
    std::optional<WriteLock> mine(std::in_place, kSourceName);
    std::thread(ChangeTooLate).join();
    EXPECT_THAT(output.Log(), ::testing::ElementsAre(test::IsLogLine(kSourceName, "ChangeTooLate",
                                                                     "sqlite3_exec fail")));
    mine.reset();
    const WriteLock next(kSourceName);
    EXPECT_TRUE(next.IsHeld());
}

} // namespace
} // namespace nimbra
