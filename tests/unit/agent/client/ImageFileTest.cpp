#include "client/ImageFile.h"

#include "base/PanelConstants.h"
#include "support/Files.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nimbra {
namespace {

namespace fs = std::filesystem;

using Names = std::set<std::string>;

struct stat StatusOf(const std::string &path)
{
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

/// The panel's image directory, empty at first. The tests run in a sandbox that provides it.
class ImageFile : public ::testing::Test
{
protected:
    ImageFile() { fs::create_directories(directory_); }
    ~ImageFile() override { fs::remove_all(directory_.parent_path()); }

    [[nodiscard]] std::string PathOf(const std::string &name) const { return directory_ / name; }

    void Put(const std::string &name, const std::string &content) const
    {
        fs::create_directories(fs::path(PathOf(name)).parent_path());
        test::WriteFile(PathOf(name), content);
        ASSERT_TRUE(fs::exists(PathOf(name)));
    }

    /// The content that is read from an image; "(none)" when it cannot be read.
    static std::string Read(const std::string &name)
    {
        std::vector<char> bytes;
        return ReadImageFile(name, &bytes) ? std::string(bytes.begin(), bytes.end()) : "(none)";
    }

    static bool Write(const std::string &name, const std::string &content)
    {
        return WriteImageFile(name, {content.begin(), content.end()});
    }

    /// The names of all files in the directory.
    [[nodiscard]] Names Content() const
    {
        Names names;
        for (const auto &entry : fs::directory_iterator(directory_))
            names.insert(entry.path().filename());
        return names;
    }

    const fs::path directory_ = kImageDirectory;
};

TEST_F(ImageFile, IsReadCompletely)
{
    const std::string content = std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);
    Put("anna.png", content);
    EXPECT_EQ(Read("anna.png"), content);
}

TEST_F(ImageFile, IsReadWhenLargeOrEmpty)
{
    const std::string large(3000001, 'x');
    Put("large.jpg", large);
    Put("empty.jpg", "");
    EXPECT_TRUE(Read("large.jpg") == large);
    EXPECT_EQ(Read("empty.jpg"), "");
}

TEST_F(ImageFile, IsReadToItsEndWhenShorterThanItsSize)
{
    // A file of the kernel, whose size is that of a page.
    fs::create_symlink("/sys/kernel/uevent_seqnum", PathOf("short.png"));
    ASSERT_GT(fs::file_size(PathOf("short.png")), 1000U);
    EXPECT_THAT(Read("short.png"),
                testing::AllOf(testing::SizeIs(testing::Lt(100U)), testing::EndsWith("\n")));
}

TEST_F(ImageFile, ReplacesContentOfBuffer)
{
    Put("anna.png", "new");
    std::vector<char> bytes(1000, 'o');
    ASSERT_TRUE(ReadImageFile("anna.png", &bytes));
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "new");
}

TEST_F(ImageFile, CannotBeReadWhenMissing)
{
    EXPECT_EQ(Read("nobody.png"), "(none)");
    EXPECT_EQ(Read(std::string(256, 'x')), "(none)");
    EXPECT_EQ(Read(std::string(1024, 'x')), "(none)");
}

TEST_F(ImageFile, CannotBeReadWhenItIsDirectory)
{
    fs::create_directory(PathOf("folder.jpg"));
    EXPECT_EQ(Read("folder.jpg"), "(none)");
}

TEST_F(ImageFile, CannotBeReadWhenItsSizeExceeds31Bits)
{
    Put("huge.jpg", "");
    fs::resize_file(PathOf("huge.jpg"), std::uintmax_t{1} << 31U);
    EXPECT_EQ(Read("huge.jpg"), "(none)");
    fs::resize_file(PathOf("huge.jpg"), std::uintmax_t{1} << 40U);
    EXPECT_EQ(Read("huge.jpg"), "(none)");
}

TEST_F(ImageFile, NeverBlocksReaderWhenItIsPipe)
{
    ASSERT_EQ(mkfifo(PathOf("pipe.jpg").c_str(), 0600), 0);
    const test::Stopwatch watch;
    EXPECT_EQ(Read("pipe.jpg"), "(none)");
    EXPECT_LT(watch.Seconds(), 10.0);
}

TEST_F(ImageFile, CannotBeReadByNameWithPathParts)
{
    Put("anna.png", "anna");
    Put("folder/inside.png", "inside");
    Put("../outside.png", "outside");
    ASSERT_EQ(Read("anna.png"), "anna");
    for (const char *name : {"../outside.png", "folder/inside.png", "./anna.png", "/anna.png",
                             "//anna.png", "folder/../anna.png", "folder/../../outside.png",
                             "../user_img/anna.png", "anna.png/", "/", "./", "../", "", ".", ".."})
        EXPECT_EQ(Read(name), "(none)") << name;
}

TEST_F(ImageFile, CanHaveAnyOtherName)
{
    for (const std::string name :
         {"...", "..anna.png", "anna..png", ".hidden", "a b.png", "-n", "O'Brien.jpg", "$(id).jpg",
          "a\\b.png", "line\nfeed.png", "\xc3\xa9\xff.png", "%s%n.jpg", "*.jpg"}) {
        EXPECT_TRUE(Write(name, "image of " + name));
        EXPECT_EQ(Read(name), "image of " + name);
        EXPECT_EQ(test::ReadFile(PathOf(name)), "image of " + name);
    }
}

TEST_F(ImageFile, CanHaveNameAsLongAsFileSystemAllows)
{
    EXPECT_TRUE(Write(std::string(255, 'x'), "long"));
    EXPECT_EQ(Read(std::string(255, 'x')), "long");
    EXPECT_FALSE(Write(std::string(256, 'x'), "longer"));
    EXPECT_FALSE(Write(std::string(1024, 'x'), "longer"));
    EXPECT_EQ(Content(), Names{std::string(255, 'x')});
}

TEST_F(ImageFile, IsWrittenCompletely)
{
    const std::string content = std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);
    EXPECT_TRUE(Write("anna.png", content));
    EXPECT_EQ(test::ReadFile(PathOf("anna.png")), content);
    EXPECT_TRUE(Write("empty.jpg", ""));
    EXPECT_EQ(fs::file_size(PathOf("empty.jpg")), 0U);
    const std::string large(3000001, 'x');
    EXPECT_TRUE(Write("large.jpg", large));
    EXPECT_TRUE(test::ReadFile(PathOf("large.jpg")) == large);
    EXPECT_EQ(Content(), (Names{"anna.png", "empty.jpg", "large.jpg"}));
}

TEST_F(ImageFile, IsReplacedByImageOfSameName)
{
    EXPECT_TRUE(Write("anna.png", "the old and longer image"));
    EXPECT_TRUE(Write("anna.png", "the new one"));
    EXPECT_EQ(Read("anna.png"), "the new one");
    EXPECT_EQ(Content(), Names{"anna.png"});
}

TEST_F(ImageFile, IsReadableByOtherProgramsWhateverUmask)
{
    const mode_t before = umask(077);
    EXPECT_TRUE(Write("anna.png", "x"));
    umask(before);
    EXPECT_EQ(StatusOf(PathOf("anna.png")).st_mode & 07777U, 0644U);
}

TEST_F(ImageFile, KeepsModeWhenReplaced)
{
    for (const mode_t mode : {0600U, 0640U, 0664U, 0444U, 0777U}) {
        Put("anna.png", "old");
        ASSERT_EQ(chmod(PathOf("anna.png").c_str(), mode), 0);
        EXPECT_TRUE(Write("anna.png", "new"));
        EXPECT_EQ(StatusOf(PathOf("anna.png")).st_mode & 07777U, mode);
        EXPECT_EQ(test::ReadFile(PathOf("anna.png")), "new");
        fs::remove(PathOf("anna.png"));
    }
}

TEST_F(ImageFile, LosesSetUserIdWhenReplaced)
{
    Put("anna.png", "old");
    ASSERT_EQ(chmod(PathOf("anna.png").c_str(), 06755), 0);
    EXPECT_TRUE(Write("anna.png", "new"));
    EXPECT_EQ(StatusOf(PathOf("anna.png")).st_mode & 07777U, 0755U);
}

TEST_F(ImageFile, KeepsOwnerWhenReplaced)
{
    Put("anna.png", "old");
    // Root only; otherwise the owner is the agent's own before and after.
    [[maybe_unused]] const int given = chown(PathOf("anna.png").c_str(), 33, 34);
    const struct stat before = StatusOf(PathOf("anna.png"));
    EXPECT_TRUE(Write("anna.png", "new"));
    const struct stat after = StatusOf(PathOf("anna.png"));
    EXPECT_NE(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
}

TEST_F(ImageFile, ReplacesSymbolicLinkAndLeavesItsTarget)
{
    Put("../outside.png", "outside");
    ASSERT_EQ(chmod(PathOf("../outside.png").c_str(), 0600), 0);
    fs::create_symlink("../outside.png", PathOf("anna.png"));
    ASSERT_EQ(Read("anna.png"), "outside");
    EXPECT_TRUE(Write("anna.png", "new"));
    const struct stat status = StatusOf(PathOf("anna.png"));
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
    EXPECT_EQ(test::ReadFile(PathOf("anna.png")), "new");
    EXPECT_EQ(test::ReadFile(PathOf("../outside.png")), "outside");
    EXPECT_EQ(StatusOf(PathOf("../outside.png")).st_mode & 07777U, 0600U);
}

/// Names of the shape that unfinished uploads have.
constexpr const char *kUploadNames[] = {".upload-a1B2c3", ".upload-000000", ".upload-XXXXXX"};
/// Names that nearly have it.
constexpr const char *kOtherNames[] = {".upload-a1B2c",        ".upload-a1B2c34", ".upload-a1B2c_",
                                       ".upload-a1B2\xc3\xa9", "upload-a1B2c3",   ".Upload-a1B2c3",
                                       ".upload_a1B2c3",       ".upload-"};

TEST_F(ImageFile, CannotHaveNameOfUnfinishedUpload)
{
    for (const char *name : kUploadNames) {
        EXPECT_FALSE(Write(name, "image")) << name;
        Put(name, "left");
        EXPECT_EQ(Read(name), "(none)") << name;
        EXPECT_FALSE(Write(name, "image")) << name;
        EXPECT_EQ(test::ReadFile(PathOf(name)), "left");
    }
    for (const char *name : kOtherNames) {
        EXPECT_TRUE(Write(name, "image")) << name;
        EXPECT_EQ(Read(name), "image") << name;
    }
}

TEST_F(ImageFile, UnfinishedUploadsAreRemoved)
{
    for (const char *name : kUploadNames)
        Put(name, "left");
    for (const char *name : kOtherNames)
        Put(name, "image");
    Put("anna.png", "anna");
    RemoveUnfinishedUploads();
    Names kept(std::begin(kOtherNames), std::end(kOtherNames));
    kept.insert("anna.png");
    EXPECT_EQ(Content(), kept);
}

TEST_F(ImageFile, OnlyPlainFilesAreRemovedAsUnfinishedUploads)
{
    Put("../outside.png", "outside");
    fs::create_symlink("../outside.png", PathOf(".upload-linked"));
    fs::create_directory(PathOf(".upload-folder"));
    Put(".upload-folder/.upload-inside", "inside");
    ASSERT_EQ(mkfifo(PathOf(".upload-thePip").c_str(), 0600), 0);
    RemoveUnfinishedUploads();
    EXPECT_EQ(Content(), (Names{".upload-linked", ".upload-folder", ".upload-thePip"}));
    EXPECT_EQ(test::ReadFile(PathOf(".upload-folder/.upload-inside")), "inside");
    EXPECT_EQ(test::ReadFile(PathOf("../outside.png")), "outside");
}

TEST_F(ImageFile, MissingDirectoryHasNoUnfinishedUploads)
{
    fs::remove_all(directory_);
    RemoveUnfinishedUploads();
    EXPECT_FALSE(fs::exists(directory_));
}

TEST_F(ImageFile, CannotBeWrittenByNameWithPathParts)
{
    fs::create_directory(PathOf("folder"));
    Put("../outside.png", "outside");
    for (const char *name :
         {"../outside.png", "../new.png", "folder/new.png", "./new.png", "/new.png", "new.png/",
          "folder/", "folder/../new.png", "/", "", ".", ".."})
        EXPECT_FALSE(Write(name, "evil")) << name;
    EXPECT_EQ(Content(), Names{"folder"});
    EXPECT_TRUE(fs::is_empty(PathOf("folder")));
    EXPECT_FALSE(fs::exists(PathOf("../new.png")));
    EXPECT_EQ(test::ReadFile(PathOf("../outside.png")), "outside");
}

TEST_F(ImageFile, CannotBeWrittenOverDirectory)
{
    fs::create_directory(PathOf("folder.jpg"));
    EXPECT_FALSE(Write("folder.jpg", "x"));
    EXPECT_EQ(Content(), Names{"folder.jpg"});
}

TEST_F(ImageFile, CannotBeWrittenWithoutItsDirectory)
{
    fs::remove_all(directory_);
    EXPECT_FALSE(Write("anna.png", "x"));
    EXPECT_FALSE(fs::exists(directory_));
}

TEST_F(ImageFile, StaysUnchangedWhenNewContentDoesNotFit)
{
    EXPECT_TRUE(Write("anna.png", "old"));
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    rlimit small = before;
    small.rlim_cur = 100000;
    setrlimit(RLIMIT_FSIZE, &small);
    const bool isWritten = Write("anna.png", std::string(200000, 'x'));
    const bool isNewWritten = Write("new.png", std::string(200000, 'x'));
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_FALSE(isWritten);
    EXPECT_FALSE(isNewWritten);
    EXPECT_EQ(Read("anna.png"), "old");
    EXPECT_EQ(Content(), Names{"anna.png"});
}

TEST_F(ImageFile, ReadsAsOldOrNewContentWhileReplaced)
{
    const std::string first(200000, '1');
    const std::string second(70000, '2');
    ASSERT_TRUE(Write("anna.png", first));
    std::atomic<bool> areBothRead = false;
    std::atomic<bool> isDone = false;
    std::thread writer([&] {
        for (int i = 0; i < 100 || (!areBothRead && i < 100000); ++i)
            EXPECT_TRUE(Write("anna.png", i % 2 == 0 ? second : first));
        isDone = true;
    });
    int firsts = 0;
    int seconds = 0;
    while (!isDone) {
        const std::string content = Read("anna.png");
        EXPECT_TRUE(content == first || content == second) << content.size();
        ++(content == first ? firsts : seconds);
        areBothRead = firsts > 2 && seconds > 2;
    }
    writer.join();
    EXPECT_TRUE(areBothRead);
}

} // namespace
} // namespace nimbra
