// Disks without room, page by page: under the databases, and under the pictures.

#include "support/Agent.h"
#include "support/Files.h"
#include "support/ManagementClient.h"
#include "support/TestPanel.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace nimbra::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kPage = 4096;

/// A small disk of its own under a directory, with the files that stood there.
class SmallDisk
{
public:
    /// Throws std::runtime_error when it cannot be had.
    SmallDisk(const fs::path &directory, const std::string &size) : directory_(directory)
    {
        const fs::path saved = "/tmp/saved-" + directory.filename().string();
        fs::copy(directory, saved);
        if (mount("tmpfs", directory.c_str(), "tmpfs", 0, ("size=" + size).c_str()) != 0)
            throw std::runtime_error("no disk can be mounted on " + directory.string());
        fs::copy(saved, directory);
        fs::remove_all(saved);
    }
    ~SmallDisk() { umount2(directory_.c_str(), MNT_DETACH); }
    SmallDisk(const SmallDisk &) = delete;
    SmallDisk &operator=(const SmallDisk &) = delete;

    /// Leaves so many pages free and no more.
    void LeavePages(std::size_t pages) const
    {
        Empty();
        const Descriptor file(open(Filler().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        const std::string page(kPage, 'x');
        std::size_t written = 0;
        while (write(file.Get(), page.data(), page.size()) == static_cast<ssize_t>(page.size()))
            ++written;
        EXPECT_GE(written, pages);
        EXPECT_EQ(ftruncate(file.Get(), static_cast<off_t>((written - pages) * kPage)), 0);
    }
    void Empty() const { fs::remove(Filler()); }

private:
    [[nodiscard]] fs::path Filler() const { return directory_ / "filler"; }

    fs::path directory_;
};

class DiskFull : public ::testing::Test
{
protected:
    ~DiskFull() override
    {
        agent_.Signal(SIGTERM);
        client_.SendLine("Heartbeat?");
        EXPECT_TRUE(client_.IsClosedByPeer());
    }

    [[nodiscard]] std::string Count(const std::string &table, const std::string &condition) const
    {
        return panel_.Value("SELECT COUNT(*) FROM " + table + " WHERE " + condition);
    }

    TestPanel panel_;
    Agent agent_;
    ManagementClient client_ = LoggedIn();
};

/// What a change may need at most: its journal file, and a new page of each table and index.
constexpr std::size_t kEnoughPages = 16;

TEST_F(DiskFull, UnderTheDatabasesFailsChangesWholeAndServesReadings)
{
    const SmallDisk disk(panel_.Paths().MainDatabase.parent_path(), "1m");
    std::size_t refused = 0;
    std::size_t done = 0;
    std::size_t missing = 0;
    for (std::size_t pages = 0; pages <= kEnoughPages; ++pages) {
        // Two changes each, a small one and one that needs new pages.
        for (const std::string length : {"1", "32"}) {
            const std::string name = "P" + std::to_string(pages) + "L" + length;
            SCOPED_TRACE(name);
            disk.LeavePages(pages);
            const std::string answer = client_.Ask(
                "AddUserInfo?LastName=" + name + "&Email=" + std::string(std::stoul(length), 'e') +
                "&FirstName=" + name);
            const bool isJournalled =
                Count("DBQueryInfo", "QueryData LIKE '%''" + name + "''%'") == "1";
            if (answer == "AddUserInfoResponse?Result=0") {
                ++done;
                EXPECT_EQ(Count("User", "LastName='" + name + "'"), "1");
                missing += isJournalled ? 0U : 1U;
            } else {
                ++refused;
                EXPECT_EQ(answer, "AddUserInfoResponse?Result=1");
                EXPECT_EQ(Count("User", "LastName='" + name + "'"), "0");
                EXPECT_FALSE(isJournalled);
            }
            EXPECT_EQ(client_.Ask("GetThreatLevel?"),
                      "GetThreatLevelResponse?Result=0&ThreatLevel=1");
            EXPECT_EQ(panel_.Value("PRAGMA integrity_check"), "ok");
        }
    }
    EXPECT_GT(refused, 0U);
    EXPECT_GT(done, 0U);
    EXPECT_TRUE(
        agent_.WaitForMessage("DataManager.cpp", "AddUserInfo", "sqlite3_exec fail", refused));
    // A change that is not in the journal is told in the log.
    EXPECT_EQ(agent_.CountMessages("DataManager.cpp", "AddDBQueryInfo", "sqlite3_exec fail"),
              missing);
    disk.Empty();
    EXPECT_EQ(client_.Ask("AddUserInfo?LastName=Roomy"), "AddUserInfoResponse?Result=0");
    EXPECT_EQ(Count("DBQueryInfo", "QueryData LIKE '%Roomy%'"), "1");
}

TEST_F(DiskFull, UnderThePicturesKeepsTheOldOneAndTakesTheNewWhenThereIsRoom)
{
    const SmallDisk disk(panel_.Paths().Images, "1m");
    const fs::path file = panel_.Paths().Images / "user0001.jpg";
    constexpr std::size_t kPages = 20;
    std::string stored = ReadFile(file);
    ASSERT_FALSE(stored.empty());
    for (std::size_t pages = 0; pages <= kPages + 1; ++pages) {
        SCOPED_TRACE(pages);
        disk.LeavePages(pages);
        const std::string bytes(kPages * kPage, static_cast<char>('a' + pages));
        client_.SendLine("SetUserImage?UserNo=1&FileName=user0001.jpg&Size=" +
                         std::to_string(bytes.size()));
        client_.Send(bytes);
        const std::string answer = client_.ReadLine().value_or("(no answer)");
        if (pages >= kPages)
            stored = bytes;
        EXPECT_EQ(answer, pages >= kPages ? "SetUserImageResponse?Result=0"
                                          : "SetUserImageResponse?Result=2");
        EXPECT_TRUE(ReadFile(file) == stored);
        for (const auto &entry : fs::directory_iterator(panel_.Paths().Images))
            EXPECT_NE(entry.path().filename().string().front(), '.') << entry.path();
    }
    EXPECT_TRUE(agent_.WaitForMessage("ClientWorker.cpp", "SetUserImage", "fopen fail", kPages));
    EXPECT_EQ(panel_.Journal().size(), 2U);
}

} // namespace
} // namespace nimbra::test
