// Full disks, page by page: for the databases and for the user images.

#include "support/Agent.h"
#include "support/Files.h"
#include "support/ManagementClient.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
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

using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace fs = std::filesystem;

constexpr std::size_t kPage = 4096;

/// A small file system mounted over a directory, with the files of the directory.
class SmallDisk
{
public:
    /// Throws std::runtime_error if it cannot be mounted.
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

    /// Leaves exactly `pages` pages free.
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

/// The most pages that a change needs: its journal file, and a new page of each table and index.
constexpr std::size_t kEnoughPages = 16;

TEST_F(DiskFull, DatabaseChangesFailCompletelyAndReadsSucceed)
{
    const SmallDisk disk(panel_.Paths().MainDatabase.parent_path(), "1m");
    std::size_t refused = 0;
    std::size_t done = 0;
    std::size_t missing = 0;
    for (std::size_t pages = 0; pages <= kEnoughPages; ++pages) {
        // Two changes of different length.
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
    // A change that is missing from the journal is logged.
    EXPECT_EQ(agent_.CountMessages("DataManager.cpp", "AddDBQueryInfo", "sqlite3_exec fail"),
              missing);
    disk.Empty();
    EXPECT_EQ(client_.Ask("AddUserInfo?LastName=Spacious"), "AddUserInfoResponse?Result=0");
    EXPECT_EQ(Count("DBQueryInfo", "QueryData LIKE '%Spacious%'"), "1");
}

TEST_F(DiskFull, UploadKeepsOldImageUntilThereIsSpace)
{
    const SmallDisk disk(panel_.Paths().Images, "1m");
    const fs::path file = panel_.Paths().Images / "user0001.jpg";
    constexpr std::size_t kPages = 20;
    std::string stored = ReadFile(file);
    ASSERT_THAT(stored, Not(IsEmpty()));
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
    EXPECT_THAT(panel_.Journal(), SizeIs(2));
}

} // namespace
} // namespace nimbra::test
