#include "client/ImageFile.h"

#include "base/Descriptor.h"
#include "base/PanelConstants.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nimbra {

namespace {

/// What other programs of the panel may do with an image: read it.
constexpr mode_t kImageMode = 0644;

/// The largest size that a response can announce.
constexpr off_t kLargestImage = std::numeric_limits<std::int32_t>::max();

bool IsPlainName(std::string_view name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
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

} // namespace

bool ReadImageFile(std::string_view name, std::vector<char> *bytes)
{
    if (!IsPlainName(name))
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
    if (!IsPlainName(name))
        return false;
    const std::string path = PathOf(name);
    // Nothing is allocated after this: a failed allocation would leave the file behind.
    std::string temporary = PathOf(".upload-XXXXXX");
    const Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file.IsOpen())
        return false;
    if (WriteAll(file, bytes) && fchmod(file.Get(), kImageMode) == 0 && fsync(file.Get()) == 0 &&
        std::rename(temporary.c_str(), path.c_str()) == 0)
        return true;
    unlink(temporary.c_str());
    return false;
}

} // namespace nimbra
