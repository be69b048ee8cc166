// Upload and download of user images.

#include "support/CommandTest.h"
#include "support/Files.h"
#include "support/WithoutDatabases.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

namespace nimbra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace fs = std::filesystem;

constexpr char kUploadDone[] = "SetUserImageResponse?Result=0";
constexpr char kUploadFails[] = "SetUserImageResponse?Result=1";
constexpr char kUploadNotOpened[] = "SetUserImageResponse?Result=2";
constexpr char kUploadShort[] = "SetUserImageResponse?Result=3";
constexpr char kDownloadNotOpened[] = "GetUserImageResponse?Result=2";
constexpr char kHandlers[] = "ClientWorker.cpp";

constexpr std::size_t kLarge = std::size_t{3} * 1024 * 1024;

/// Bytes of all values, including line feeds and zeros; different ones for each `seed`.
std::string ImageBytes(std::size_t size, unsigned seed = 1)
{
    std::minstd_rand random(seed);
    std::string bytes(size, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random() >> 8U);
    return bytes;
}

std::string UploadLine(int userNo, const std::string &name, std::size_t size)
{
    return "SetUserImage?UserNo=" + std::to_string(userNo) + "&FileName=" + name +
           "&Size=" + std::to_string(size);
}

/// The answer line of a download.
std::string DownloadAnswer(const std::string &name, std::size_t size)
{
    return "GetUserImageResponse?Result=0&FileName=" + name + "&Size=" + std::to_string(size);
}

class UserImage : public CommandTest
{
protected:
    [[nodiscard]] fs::path PathOf(const std::string &name) const
    {
        return panel_.Paths().Images / name;
    }

    [[nodiscard]] std::string StoredName(int userNo) const
    {
        return panel_.Value("SELECT ImageFile FROM User WHERE No=" + std::to_string(userNo));
    }

    void StoreName(int userNo, const std::string &name) const
    {
        panel_.Run("UPDATE User SET ImageFile='" + name + "' WHERE No=" + std::to_string(userNo));
    }

    /// Shows that an image is sent completely, and that nothing is audited.
    void ExpectDownload(int userNo, const std::string &name, const std::string &bytes)
    {
        const std::size_t calls = panel_.Calls().size();
        EXPECT_EQ(Ask("GetUserImage?UserNo=" + std::to_string(userNo)),
                  DownloadAnswer(name, bytes.size()));
        EXPECT_TRUE(client_->ReadBytes(bytes.size()) == bytes) << name;
        ExpectInStep();
        EXPECT_THAT(panel_.Calls(calls), IsEmpty());
    }

    /// Shows that both sides are at the start of a line.
    void ExpectInStep() { EXPECT_EQ(Ask("Heartbeat?"), "HeartbeatResponse?Result=0"); }

    /// Shows that an upload is stored, recorded, journalled and audited, and that no other file or
    /// row changes.
    void ExpectUpload(int userNo, const std::string &name, const std::string &bytes)
    {
        std::map<std::string, std::string> files = panel_.Files();
        std::vector<std::string> journal = panel_.Journal();
        const std::size_t calls = panel_.Calls().size();
        const std::string others = "SELECT No, ImageFile FROM User WHERE No IS NOT " +
                                   std::to_string(userNo) + " ORDER BY No";
        const std::vector<Row> rows = panel_.Rows(others);
        EXPECT_EQ(client_->Upload(userNo, name, bytes), kUploadDone) << name;
        EXPECT_THAT(panel_.Calls(calls), ElementsAre(AuditCall(10303)));
        files[PathOf(name)] = bytes;
        EXPECT_TRUE(panel_.Files() == files) << name;
        EXPECT_EQ(panel_.Rows(others), rows);
        journal.push_back("UPDATE User SET ImageFile='" + name +
                          "' WHERE No=" + std::to_string(userNo));
        EXPECT_EQ(panel_.Journal(), journal);
    }

    /// Saves the state that an upload could change, for ExpectUnchanged.
    void SaveState()
    {
        files_ = panel_.Files();
        database_ = TestPanel::Dump(panel_.Paths().MainDatabase);
        calls_ = panel_.Calls().size();
    }

    /// Shows that no file, row or journal entry has changed since SaveState, and that nothing was
    /// audited.
    void ExpectUnchanged()
    {
        EXPECT_TRUE(panel_.Files() == files_);
        EXPECT_EQ(TestPanel::Dump(panel_.Paths().MainDatabase), database_);
        EXPECT_THAT(panel_.Calls(calls_), IsEmpty());
    }

private:
    std::map<std::string, std::string> files_;
    std::vector<std::string> database_;
    std::size_t calls_ = 0;
};

class UserImageDownload : public UserImage
{};

class UserImageUpload : public UserImage
{};

TEST_F(UserImageDownload, SendsWholeFile)
{
    ExpectDownload(1, "user0001.jpg", ReadFile(PathOf("user0001.jpg")));
    ExpectDownload(2, "user0002.png", ReadFile(PathOf("user0002.png")));
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, kLarge}) {
        const std::string bytes = ImageBytes(size);
        WriteFile(PathOf("user0001.jpg"), bytes);
        ExpectDownload(1, "user0001.jpg", bytes);
    }
}

TEST_F(UserImageDownload, SendsImageWithoutWaitingForAcknowledgementOfItsHeader)
{
    // A client's system delays an acknowledgement by 40 ms, but not on a new connection.
    double fastest = 1;
    for (int download = 0; download < 20; ++download) {
        const Stopwatch watch;
        ASSERT_THAT(Ask("GetUserImage?UserNo=2"), StartsWith("GetUserImageResponse?Result=0"));
        ASSERT_FALSE(client_->ReadBytes(fs::file_size(PathOf("user0002.png"))).empty());
        if (download >= 10)
            fastest = std::min(fastest, watch.Seconds());
    }
    EXPECT_LT(fastest, 0.03);
}

TEST_F(UserImageDownload, EmptyFileHasSizeZeroAndNoBytes)
{
    ExpectDownload(6, "empty.jpg", "");
}

TEST_F(UserImageDownload, NeedsNameOfMoreThan4Characters)
{
    ASSERT_TRUE(fs::exists(PathOf("a.jp")));
    ExpectFails("GetUserImage?UserNo=3"); // a.jp
    ExpectDownload(4, "a.jpg", ReadFile(PathOf("a.jpg")));
    for (const char *name : {"", "a", "a.j", "...."}) {
        StoreName(3, name);
        ExpectFails("GetUserImage?UserNo=3");
    }
    panel_.Run("UPDATE User SET ImageFile=NULL WHERE No=3");
    ExpectFails("GetUserImage?UserNo=3");
}

TEST_F(UserImageDownload, FailsForUnknownUser)
{
    for (const char *keys : {"UserNo=99", "UserNo=-1", "UserNo=0", "UserNo", "", "CardNo=1"})
        ExpectFails(std::string("GetUserImage?") + keys);
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(UserImageDownload, RefusesMissingFileWithoutBytes)
{
    ExpectRefused("GetUserImage?UserNo=5", 2, "fopen fail");
    ExpectInStep();
}

TEST_F(UserImageDownload, RefusesFileThatIsNotRegular)
{
    fs::create_directory(PathOf("directory.jpg"));
    ASSERT_EQ(mkfifo(PathOf("fifo.jpg").c_str(), 0644), 0);
    for (const char *name : {"directory.jpg", "fifo.jpg"}) {
        StoreName(1, name);
        EXPECT_EQ(Ask("GetUserImage?UserNo=1"), kDownloadNotOpened) << name;
        ExpectInStep();
    }
    EXPECT_TRUE(agent_.WaitForMessage(kHandlers, "GetUserImage", "fopen fail", 2));
}

TEST_F(UserImageDownload, RefusesNameOutsideImageDirectory)
{
    WriteFile("/nimbra/web/webroot/secret.jpg", "secret");
    WriteFile("/nimbra/secret.jpg", "secret");
    fs::create_directory(PathOf("sub"));
    WriteFile(PathOf("sub/secret.jpg"), "secret");
    for (const char *name : {"../secret.jpg", "/nimbra/secret.jpg", "sub/secret.jpg"}) {
        StoreName(1, name);
        ExpectRefused("GetUserImage?UserNo=1", 2, "fopen fail");
    }
    ExpectInStep();
}

TEST_F(UserImageUpload, KeepsNameUnchanged)
{
    for (const std::string &name :
         {std::string("100%s%n.png"), std::string("Zo\xC3\xAB.jpg"), std::string(255, 'n')}) {
        ExpectUpload(2, name, "image of " + name);
        EXPECT_EQ(StoredName(2), name);
        ExpectDownload(2, name, "image of " + name);
    }
}

TEST_F(UserImageUpload, StoresImageOfAnySize)
{
    for (const std::size_t size : {std::size_t{1}, std::size_t{65537}, kLarge}) {
        const std::string bytes = ImageBytes(size);
        ExpectUpload(7, "seven.jpg", bytes);
        EXPECT_EQ(StoredName(7), "seven.jpg");
        ExpectDownload(7, "seven.jpg", bytes);
    }
}

TEST_F(UserImageUpload, ReplacesImageOfOneUserOnly)
{
    ExpectUpload(1, "user0001.jpg", ImageBytes(1000, 2));
    // The old file is kept when the name changes.
    ExpectUpload(1, "renamed.jpg", ImageBytes(1000, 3));
    EXPECT_TRUE(ReadFile(PathOf("user0001.jpg")) == ImageBytes(1000, 2));
    ExpectUpload(12, "twelve.jpg", ImageBytes(10, 4));
}

TEST_F(UserImageUpload, AcceptsNameTooShortForDownload)
{
    ExpectUpload(8, "b", "B");
    EXPECT_EQ(StoredName(8), "b");
    ExpectFails("GetUserImage?UserNo=8");
}

TEST_F(UserImageUpload, SucceedsForUnknownUser)
{
    ExpectUpload(4711, "nobody.jpg", "nobody's");
    ExpectUpload(0, "zero.jpg", "nobody's either");
    const std::size_t calls = panel_.Calls().size();
    client_->SendLine("SetUserImage?FileName=none.jpg&Size=4");
    client_->Send("none");
    EXPECT_EQ(client_->ReadLine(), kUploadDone);
    EXPECT_EQ(panel_.Journal().back(), "UPDATE User SET ImageFile='none.jpg' WHERE No=0");
    EXPECT_THAT(panel_.Calls(calls), ElementsAre(AuditCall(10303)));
    EXPECT_EQ(panel_.Value("SELECT COUNT(*) FROM User"), "12");
}

TEST_F(UserImageUpload, ReadsKeysInAnyCaseAndOrderAndLogsOthers)
{
    client_->SendLine("setuserimage?SIZE=5&Colour=red&filename=keys.jpg&userno=2&Size=3x");
    client_->Send("abc");
    EXPECT_EQ(client_->ReadLine(), kUploadDone);
    EXPECT_EQ(ReadFile(PathOf("keys.jpg")), "abc");
    EXPECT_EQ(StoredName(2), "keys.jpg");
    EXPECT_EQ(agent_.CountMessages(kHandlers, "SetUserImage", "Invalid Token: Colour"), 1U);

    EXPECT_EQ(Ask("GETUSERIMAGE?FileName=x&USERNO=2"), DownloadAnswer("keys.jpg", 3));
    EXPECT_EQ(client_->ReadBytes(3), "abc");
    EXPECT_EQ(agent_.CountMessages(kHandlers, "GetUserImage", "Invalid Token: FileName"), 1U);
}

TEST_F(UserImageUpload, RefusesSizeBelowOne)
{
    SaveState();
    std::size_t count = 0;
    for (const char *size : {"&Size=0", "&Size=-1", "", "&Size=many"}) {
        EXPECT_EQ(Ask(std::string("SetUserImage?UserNo=1&FileName=user0001.jpg") + size),
                  kUploadShort)
            << size;
        EXPECT_TRUE(agent_.WaitForMessage(kHandlers, "SetUserImage", "RecvBuffer fail", ++count));
        ExpectInStep();
    }
    // The empty name takes the next pair as its value.
    EXPECT_EQ(Ask("SetUserImage?UserNo=1&FileName=&Size=4"), kUploadShort);
    ExpectUnchanged();
}

TEST_F(UserImageUpload, TimesOutAfter5SecondsWithoutBytes)
{
    SaveState();
    const Stopwatch watch;
    EXPECT_EQ(Ask(UploadLine(1, "user0001.jpg", 10)), kUploadShort);
    EXPECT_GT(watch.Seconds(), 3.9);
    EXPECT_LT(watch.Seconds(), 9);
    EXPECT_TRUE(agent_.WaitForMessage(kHandlers, "SetUserImage", "RecvBuffer fail"));
    ExpectUnchanged();
    ExpectInStep();
}

TEST_F(UserImageUpload, TimesOutAfter5SecondsWhenPeerStopsSending)
{
    SaveState();
    const std::string bytes = ImageBytes(100000);
    client_->SendLine(UploadLine(1, "user0001.jpg", bytes.size()));
    const Stopwatch watch;
    client_->Send(bytes.substr(1));
    EXPECT_EQ(client_->ReadLine(), kUploadShort);
    EXPECT_GT(watch.Seconds(), 3.9);
    EXPECT_LT(watch.Seconds(), 9);
    EXPECT_TRUE(agent_.WaitForMessage(kHandlers, "SetUserImage", "RecvBuffer fail"));
    ExpectUnchanged();
    ExpectInStep();
    // Late bytes are not part of any image.
    client_->Send("late\n");
    ExpectInStep();
    ExpectUnchanged();
}

TEST_F(UserImageUpload, KeepsOldImageWhenClientDisconnects)
{
    ManagementClient closing = LoggedIn();
    ManagementClient resetting = LoggedIn();
    SaveState();
    const std::string bytes = ImageBytes(100000);
    for (ManagementClient *client : {&closing, &resetting}) {
        client->SendLine(UploadLine(1, "user0001.jpg", bytes.size()));
        client->Send(bytes.substr(50000));
    }
    closing.Close();
    resetting.Reset();
    EXPECT_TRUE(agent_.WaitForMessage(kHandlers, "SetUserImage", "RecvBuffer fail", 2));
    ExpectUnchanged();
}

TEST_F(UserImageUpload, TakesMemoryOnlyAsBytesArrive)
{
    SaveState();
    const std::size_t before = agent_.ResidentKiB();
    std::size_t largest = 0;
    const Stopwatch watch;
    client_->SendLine(UploadLine(1, "user0001.jpg", 2147483647));
    client_->Send(ImageBytes(100000));
    ASSERT_TRUE(WaitUntil([&] {
        largest = std::max(largest, agent_.ResidentKiB());
        return agent_.CountMessages(kHandlers, "SetUserImage", "RecvBuffer fail") == 1;
    }));
    EXPECT_EQ(client_->ReadLine(), kUploadShort);
    EXPECT_GT(watch.Seconds(), 3.9);
    EXPECT_LT(largest, before + std::size_t{64} * 1024);
    ExpectUnchanged();
    ExpectInStep();
}

TEST_F(UserImageUpload, EndsAtAnnouncedSizeAndRestIsNextRequest)
{
    client_->Send(UploadLine(1, "four.jpg", 4) + "\nABCDHeartbeat?\n" +
                  UploadLine(2, "five.jpg", 5) + "\nEFGH\nHeart");
    EXPECT_EQ(client_->ReadLine(), kUploadDone);
    EXPECT_EQ(client_->ReadLine(), "HeartbeatResponse?Result=0");
    EXPECT_EQ(client_->ReadLine(), kUploadDone);
    client_->Send("beat?\n");
    EXPECT_EQ(client_->ReadLine(), "HeartbeatResponse?Result=0");
    EXPECT_EQ(ReadFile(PathOf("four.jpg")), "ABCD");
    EXPECT_EQ(ReadFile(PathOf("five.jpg")), "EFGH\n");
}

TEST_F(UserImageUpload, AcceptsPiecesWithPauses)
{
    const std::string bytes = ImageBytes(5000);
    const std::string all = UploadLine(9, "pieces.jpg", bytes.size()) + "\n" + bytes;
    // About 30 pauses of 50 milliseconds: within the limits of a line and of an image.
    for (std::size_t sent = 0, step = 1; sent < all.size(); sent += step, step = step * 4 / 3 + 1) {
        client_->Send(all.substr(sent, step));
        std::this_thread::sleep_for(milliseconds(50));
    }
    EXPECT_EQ(client_->ReadLine(), kUploadDone);
    ExpectDownload(9, "pieces.jpg", bytes);
}

TEST_F(UserImageDownload, AcceptsSlowReader)
{
    const std::string bytes = ImageBytes(kLarge);
    WriteFile(PathOf("user0001.jpg"), bytes);
    EXPECT_EQ(Ask("GetUserImage?UserNo=1"), DownloadAnswer("user0001.jpg", bytes.size()));
    std::string received;
    while (received.size() < kLarge) {
        // About 30 pauses of 50 milliseconds: within the limit of an image.
        std::this_thread::sleep_for(milliseconds(50));
        const std::string piece =
            client_->ReadBytes(std::min(kLarge / 30, kLarge - received.size()));
        ASSERT_THAT(piece, Not(IsEmpty()));
        received += piece;
    }
    EXPECT_TRUE(received == bytes);
    ExpectInStep();
}

TEST_F(UserImageDownload, GivesUpAfter5SecondsWhenNotRead)
{
    // More than the socket buffers hold.
    const std::string bytes = ImageBytes(std::size_t{32} * 1024 * 1024);
    WriteFile(PathOf("user0001.jpg"), bytes);
    const Stopwatch watch;
    client_->SendLine("GetUserImage?UserNo=1");
    client_->SendLine("AddUserInfo?LastName=Afterwards");
    ASSERT_TRUE(WaitUntil([&] {
        return panel_.Value("SELECT COUNT(*) FROM User WHERE LastName='Afterwards'") == "1";
    }));
    EXPECT_GT(watch.Seconds(), 3.9);
    EXPECT_LT(watch.Seconds(), 9);
    EXPECT_EQ(client_->ReadLine(), DownloadAnswer("user0001.jpg", bytes.size()));
    // The first part of the image, followed by the next answer.
    const std::string answer = "AddUserInfoResponse?Result=0\n";
    std::string received;
    ASSERT_TRUE(WaitUntil([&] {
        received += client_->ReadBytes(65536, milliseconds(50));
        return received.ends_with(answer);
    }));
    received.resize(received.size() - answer.size());
    EXPECT_LT(received.size(), bytes.size());
    EXPECT_TRUE(received == bytes.substr(0, received.size()));
    ExpectInStep();
}

TEST_F(UserImageUpload, RefusesNameOutsideImageDirectory)
{
    fs::create_directory(PathOf("sub"));
    SaveState();
    std::size_t count = 0;
    for (const char *name : {"..", "../x.jpg", "/tmp/owned.jpg", "sub/x.jpg"}) {
        EXPECT_EQ(client_->Upload(1, name, "evil"), kUploadNotOpened) << name;
        EXPECT_TRUE(agent_.WaitForMessage(kHandlers, "SetUserImage", "fopen fail", ++count));
        ExpectInStep();
    }
    // A missing name.
    client_->SendLine("SetUserImage?UserNo=1&Size=4");
    client_->Send("evil");
    EXPECT_EQ(client_->ReadLine(), kUploadNotOpened);
    ExpectUnchanged();
}

TEST_F(UserImageUpload, RefusesNameOfUnfinishedUpload)
{
    SaveState();
    EXPECT_EQ(client_->Upload(1, ".upload-a1B2c3", "image"), kUploadNotOpened);
    EXPECT_TRUE(agent_.WaitForMessage(kHandlers, "SetUserImage", "fopen fail"));
    ExpectUnchanged();
    ExpectUpload(1, ".upload-a1B2c34", "image");
}

TEST_F(UserImageUpload, ReplacesSymbolicLinkAndKeepsModeOfFile)
{
    WriteFile("/nimbra/web/webroot/shared.jpg", "shared");
    fs::create_symlink("/nimbra/web/webroot/shared.jpg", PathOf("linked.jpg"));
    ExpectUpload(1, "linked.jpg", "own image");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(PathOf("linked.jpg"))));
    EXPECT_EQ(ReadFile("/nimbra/web/webroot/shared.jpg"), "shared");

    fs::permissions(PathOf("linked.jpg"), fs::perms(0640));
    ExpectUpload(1, "linked.jpg", "newer image");
    EXPECT_EQ(fs::status(PathOf("linked.jpg")).permissions(), fs::perms(0640));
}

TEST(UnfinishedUpload, IsRemovedAtStart)
{
    const TestPanel panel;
    const fs::path images = panel.Paths().Images;
    WriteFile(images / ".upload-a1B2c3", "half an image");
    WriteFile(images / ".upload-a1B2c34", "another file");
    fs::create_directory(images / ".upload-folder");
    auto files = panel.Files();
    ASSERT_EQ(files.erase(images / ".upload-a1B2c3"), 1U);
    Agent agent;
    EXPECT_TRUE(panel.Files() == files);
    EXPECT_TRUE(fs::is_directory(images / ".upload-folder"));
    EXPECT_EQ(agent.End(), 0);
}

TEST_F(UserImageUpload, RefusesFileThatCannotBeCreated)
{
    fs::create_directory(PathOf("directory.jpg"));
    SaveState();
    std::size_t count = 0;
    for (const std::string &name : {std::string("directory.jpg"), std::string(256, 'n')}) {
        EXPECT_EQ(client_->Upload(1, name, "image"), kUploadNotOpened);
        EXPECT_TRUE(agent_.WaitForMessage(kHandlers, "SetUserImage", "fopen fail", ++count));
    }
    ExpectUnchanged();

    fs::rename(panel_.Paths().Images, "/nimbra/images-away");
    EXPECT_EQ(client_->Upload(1, "user0001.jpg", "image"), kUploadNotOpened);
    EXPECT_EQ(Ask("GetUserImage?UserNo=1"), kDownloadNotOpened);
    fs::rename("/nimbra/images-away", panel_.Paths().Images);
    ExpectUnchanged();
    ExpectUpload(1, "user0001.jpg", "image");
}

TEST_F(UserImageUpload, KeepsFileWhenNameCannotBeStored)
{
    panel_.Run("CREATE TRIGGER Refuse BEFORE UPDATE ON User BEGIN"
               " SELECT RAISE(ABORT, 'refused'); END");
    const auto database = TestPanel::Dump(panel_.Paths().MainDatabase);
    const std::size_t calls = panel_.Calls().size();
    std::map<std::string, std::string> files = panel_.Files();
    EXPECT_EQ(client_->Upload(1, "new.jpg", "new image"), kUploadFails);
    // A name whose quote would end the SQL literal.
    EXPECT_EQ(client_->Upload(1, "o'neill.jpg", "quoted image"), kUploadFails);
    EXPECT_TRUE(agent_.WaitForMessage(kHandlers, "SetUserImage", "SetUserImage fail", 2));
    EXPECT_EQ(agent_.CountMessages("DataManager.cpp", "SetUserImage", "sqlite3_exec fail"), 2U);
    files[PathOf("new.jpg")] = "new image";
    files[PathOf("o'neill.jpg")] = "quoted image";
    EXPECT_TRUE(panel_.Files() == files);
    EXPECT_EQ(TestPanel::Dump(panel_.Paths().MainDatabase), database);
    EXPECT_THAT(panel_.Calls(calls), IsEmpty());
    ExpectInStep();
}

TEST_F(UserImageUpload, KeepsFileWhenDatabaseCannotBeOpened)
{
    {
        const WithoutDatabases withoutDatabases(panel_);
        EXPECT_EQ(client_->Upload(1, "new.jpg", "new image"), kUploadFails);
        EXPECT_EQ(agent_.CountMessages("DataManager.cpp", "SetUserImage", "sqlite3_open fail"), 1U);
    }
    EXPECT_EQ(ReadFile(PathOf("new.jpg")), "new image");
    EXPECT_EQ(StoredName(1), "user0001.jpg");
    ExpectNeedsDatabase("GetUserImage?UserNo=1");
}

TEST_F(UserImageUpload, LeavesOldFileToItsReaders)
{
    const std::string old = ReadFile(PathOf("user0001.jpg"));
    std::ifstream reader(PathOf("user0001.jpg"), std::ios::binary);
    ASSERT_TRUE(reader.is_open());
    EXPECT_EQ(client_->Upload(1, "user0001.jpg", ImageBytes(kLarge)), kUploadDone);
    EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(reader), {}) == old);
    EXPECT_TRUE(ReadFile(PathOf("user0001.jpg")) == ImageBytes(kLarge));
}

TEST_F(UserImageUpload, KeepsOneWholeImageOfConcurrentUploads)
{
    constexpr unsigned kClients = 4;
    SaveState();
    std::vector<std::thread> clients;
    for (unsigned i = 0; i < kClients; ++i)
        clients.emplace_back([i] {
            ManagementClient client = LoggedIn();
            for (int round = 0; round < 5; ++round)
                EXPECT_EQ(client.Upload(1, "shared.jpg", ImageBytes(200000 + i, i)), kUploadDone);
        });
    for (std::thread &client : clients)
        client.join();
    const std::string seen = ReadFile(PathOf("shared.jpg"));
    ASSERT_GE(seen.size(), 200000U);
    EXPECT_TRUE(seen == ImageBytes(seen.size(), static_cast<unsigned>(seen.size() - 200000)));
    EXPECT_THAT(panel_.Journal(), SizeIs(5 * kClients));
    fs::remove(PathOf("shared.jpg"));
    for (const auto &entry : fs::directory_iterator(panel_.Paths().Images))
        EXPECT_THAT(entry.path().filename().string(), Not(StartsWith(".upload"))) << entry.path();
}

TEST_F(UserImageUpload, NeedsRightToChangeUsers)
{
    panel_.Run("INSERT INTO WebUser (ID, Password, UserRole) SELECT 'changer', Password, 88"
               " FROM WebUser WHERE ID='operator';"
               "INSERT INTO UserRoleTable (UserRole, FormIndex, Authority) VALUES (88, 3, 2)");
    // This user may view and add.
    client_.emplace(LoggedIn(panel::kClerk));
    ExpectRefused("SetUserImage?UserNo=1&FileName=new.jpg&Size=4&Unknown=1", 9, "Authority fail");
    EXPECT_EQ(agent_.CountInLog("Invalid Token"), 0U);
    EXPECT_FALSE(fs::exists(PathOf("new.jpg")));
    // The agent does not wait for the bytes: the next input is a line.
    ExpectInStep();

    client_.emplace(LoggedIn({"changer", panel::kOperator.Password}));
    const std::size_t calls = panel_.Calls().size();
    EXPECT_EQ(client_->Upload(1, "new.jpg", "four"), kUploadDone);
    EXPECT_THAT(panel_.Calls(calls), ElementsAre(AuditCall(10303, "changer")));
    ExpectRefused("GetUserImage?UserNo=1", 9, "Authority fail");
}

TEST_F(UserImage, NeedsLogin)
{
    SaveState();
    ManagementClient other;
    other.SendLine("GetUserImage?UserNo=1");
    other.SendLine(UploadLine(1, "user0001.jpg", 4));
    other.Send("evil\n");
    EXPECT_EQ(other.Ask("Login?Username=x&Password=y"), "LoginResponse?Result=1");
    EXPECT_EQ(agent_.CountInLog("(): Invalid Message"), 3U);
    ExpectUnchanged();
}

TEST_F(UserImage, TransfersCloseTheirDescriptors)
{
    const auto transfer = [&] {
        EXPECT_EQ(client_->Upload(1, "user0001.jpg", ImageBytes(1000)), kUploadDone);
        EXPECT_EQ(client_->Upload(1, "../x", ImageBytes(1000)), kUploadNotOpened);
        EXPECT_EQ(Ask("SetUserImage?Size=0"), kUploadShort);
        EXPECT_EQ(Ask("GetUserImage?UserNo=5"), kDownloadNotOpened);
        ExpectDownload(1, "user0001.jpg", ImageBytes(1000));
    };
    transfer();
    const std::size_t before = agent_.Descriptors();
    for (int i = 0; i < 20; ++i)
        transfer();
    EXPECT_EQ(agent_.Descriptors(), before);
}

} // namespace
} // namespace nimbra::test
