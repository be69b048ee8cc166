#include "client/ImageFile.h"

#include "base/Descriptor.h"
#include "base/PanelConstants.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nimbra {

namespace {

/// What other programs of the panel may do with a new image: read it.
constexpr mode_t kImageMode = 0644;
constexpr mode_t kPermissions = 0777;

/// An upload is written to a file whose name is this prefix and some letters and digits.
constexpr std::string_view kUploadPrefix = ".upload-";
constexpr std::string_view kUploadLetters = "XXXXXX";

/// The largest size that a response can announce.
constexpr off_t kLargestImage = std::numeric_limits<std::int32_t>::max();

bool IsLetterOrDigit(char character)
{
    return std::isalnum(static_cast<unsigned char>(character)) != 0;
}

bool IsUploadName(std::string_view name)
{
    return name.size() == kUploadPrefix.size() + kUploadLetters.size() &&
           name.starts_with(kUploadPrefix) &&
           std::all_of(name.begin() + kUploadPrefix.size(), name.end(), IsLetterOrDigit);
}

bool IsImageName(std::string_view name)
{
    return !name.empty() && name != "." && name != ".." &&
           name.find('/') == std::string_view::npos && !IsUploadName(name);
}

std::string PathOf(std::string_view name)
{
    return std::string(kImageDirectory) + "/" + std::string(name);
}

/// Reads up to the end of the file, or as many bytes as it had when it was opened.
bool ReadAll(const Descriptor &file, std::vector<char> *bytes)
{
    std::size_t count = 0;
    while (count < bytes->size()) {
        const ssize_t result = read(file.Get(), bytes->data() + count, bytes->size() - count);
        if (result < 0)
            return false;
        if (result == 0)
            break;
        count += static_cast<std::size_t>(result);
    }
    bytes->resize(count);
    return true;
}

bool WriteAll(const Descriptor &file, const std::vector<char> &bytes)
{
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t result = write(file.Get(), bytes.data() + written, bytes.size() - written);
        if (result < 1)
            return false;
        written += static_cast<std::size_t>(result);
    }
    return true;
}

/// Gives a new file the owner and mode of the image that it replaces, and to a new image its mode.
bool SetOwnerAndMode(const Descriptor &file, const std::string &path)
{
    struct stat old = {};
    if (lstat(path.c_str(), &old) != 0 || !S_ISREG(old.st_mode))
        return fchmod(file.Get(), kImageMode) == 0;
    // Without the right to give files away, the image belongs to the agent like a new one.
    [[maybe_unused]] const int given = fchown(file.Get(), old.st_uid, old.st_gid);
    return fchmod(file.Get(), old.st_mode & kPermissions) == 0;
}

/// Makes the names in the directory last through a power failure. A failure is not reported: the
/// image is in its place, and after a power failure it is the old one or the new one, whole.
void SyncDirectory()
{
    const Descriptor directory(open(kImageDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.IsOpen())
        fsync(directory.Get());
}

} // namespace

bool ReadImageFile(std::string_view name, std::vector<char> *bytes)
{
    if (!IsImageName(name))
        return false;
    // Non-blocking, so that a pipe in the directory cannot block the session.
    const Descriptor file(open(PathOf(name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size > kLargestImage)
        return false;
    bytes->resize(static_cast<std::size_t>(status.st_size));
    return ReadAll(file, bytes);
}

bool WriteImageFile(std::string_view name, const std::vector<char> &bytes)
{
    if (!IsImageName(name))
        return false;
    const std::string path = PathOf(name);
    // Nothing is allocated after this: a failed allocation would leave the file behind.
    std::string temporary = PathOf(std::string(kUploadPrefix).append(kUploadLetters));
    const Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file.IsOpen())
        return false;
    if (!WriteAll(file, bytes) || !SetOwnerAndMode(file, path) || fsync(file.Get()) != 0 ||
        std::rename(temporary.c_str(), path.c_str()) != 0) {
        unlink(temporary.c_str());
        return false;
    }
    SyncDirectory();
    return true;
}

void RemoveUnfinishedUploads()
{
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir(kImageDirectory), closedir);
    if (directory == nullptr)
        return;
    const int descriptor = dirfd(directory.get());
    while (const dirent *entry = readdir(directory.get())) {
        const char *name = entry->d_name;
        struct stat status = {};
        if (IsUploadName(name) && fstatat(descriptor, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(status.st_mode))
            unlinkat(descriptor, name, 0);
    }
}

} // namespace nimbra
