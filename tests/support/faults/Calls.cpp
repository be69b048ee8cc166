// Replaces the functions of the C library and of SQLite that the agent calls. Each makes the real
// call unless a fault rule makes it fail. Functions with a 64-bit form for file offsets or times
// are replaced in that form.

#include "support/faults/FaultRules.h"

#include <sqlite3.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

using nimbra::faults::ClockSeconds;
using nimbra::faults::Point;
using nimbra::faults::RecordStatement;
using nimbra::faults::ShallFail;
using nimbra::faults::TakeError;

constexpr char kDatabases[] = "/tmp/NimbraDB/";
constexpr char kImages[] = "/nimbra/web/webroot/user_img/";

/// The name of the 64-bit form of a time function, which differs on 32-bit panels.
constexpr const char *TimeFunction(const char *name, const char *name32)
{
    return sizeof(long) == 4 ? name32 : name;
}

void *Find(const char *name)
{
    void *const found = dlsym(RTLD_NEXT, name);
    if (found == nullptr) {
        std::fprintf(stderr, "nimbra-faults: no function %s\n", name);
        _exit(EXIT_FAILURE);
    }
    return found;
}

/// The function that this library replaces under the same name.
template <auto Function>
auto Real(const char *name)
{
    static const auto real = reinterpret_cast<decltype(Function)>(Find(name));
    return real;
}

/// Whether the call that returns to `address` comes from SQLite itself, whose internal calls must
/// not be counted as the agent's.
bool IsFromSqlite(const void *address)
{
    Dl_info info = {};
    return dladdr(address, &info) != 0 && info.dli_fname != nullptr &&
           std::strstr(info.dli_fname, "libsqlite3") != nullptr;
}

bool StartsWith(const char *text, const char *prefix)
{
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

bool IsDatabaseFile(int descriptor)
{
    char link[32];
    char path[256] = "";
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
    return readlink(link, path, sizeof path - 1) > 0 && StartsWith(path, kDatabases);
}

Point SyncPoint(int descriptor)
{
    struct stat status = {};
    if (fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode))
        return Point::SyncDirectory;
    return IsDatabaseFile(descriptor) ? Point::SyncDatabaseFile : Point::Sync;
}

int SetStatusFlags(int descriptor, int command, void *argument)
{
    if ((command == F_GETFL || command == F_SETFL) && ShallFail(Point::StatusFlags))
        return -1;
    return Real<&fcntl>("fcntl64")(descriptor, command, argument);
}

int OpenFile(const char *path, int flags, mode_t mode)
{
    if ((StartsWith(path, kDatabases) && ShallFail(Point::OpenDatabaseFile)) ||
        (StartsWith(path, kImages) && ShallFail(Point::OpenImage)))
        return -1;
    return Real<&open>("open64")(path, flags, mode);
}

} // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept
{
    const bool isStream = (type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK)) == SOCK_STREAM;
    return ShallFail(isStream ? Point::StreamSocket : Point::DatagramSocket)
               ? -1
               : Real<&socket>("socket")(domain, type, protocol);
}

int setsockopt(int descriptor, int level, int option, const void *value, socklen_t size) noexcept
{
    if (level == SOL_SOCKET && ((option == SO_REUSEADDR && ShallFail(Point::ReuseAddress)) ||
                                (option == SO_BROADCAST && ShallFail(Point::Broadcast))))
        return -1;
    return Real<&setsockopt>("setsockopt")(descriptor, level, option, value, size);
}

int fcntl(int descriptor, int command, ...)
{
    std::va_list arguments;
    va_start(arguments, command);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    return SetStatusFlags(descriptor, command, argument);
}

int bind(int descriptor, const sockaddr *address, socklen_t size) noexcept
{
    int type = 0;
    socklen_t typeSize = sizeof type;
    getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &typeSize);
    return ShallFail(type == SOCK_STREAM ? Point::BindStream : Point::BindDatagram)
               ? -1
               : Real<&bind>("bind")(descriptor, address, size);
}

int listen(int descriptor, int backlog) noexcept
{
    return ShallFail(Point::Listen) ? -1 : Real<&listen>("listen")(descriptor, backlog);
}

int accept4(int descriptor, sockaddr *address, socklen_t *size, int flags)
{
    return ShallFail(Point::Accept) ? -1
                                    : Real<&accept4>("accept4")(descriptor, address, size, flags);
}

int connect(int descriptor, const sockaddr *address, socklen_t size)
{
    return ShallFail(Point::Connect) ? -1 : Real<&connect>("connect")(descriptor, address, size);
}

ssize_t send(int descriptor, const void *bytes, size_t count, int flags)
{
    return ShallFail(Point::Send) ? -1 : Real<&send>("send")(descriptor, bytes, count, flags);
}

ssize_t recv(int descriptor, void *bytes, size_t count, int flags)
{
    return ShallFail(Point::Receive) ? -1 : Real<&recv>("recv")(descriptor, bytes, count, flags);
}

ssize_t sendto(int descriptor, const void *bytes, size_t count, int flags, const sockaddr *address,
               socklen_t size)
{
    return ShallFail(Point::SendDatagram)
               ? -1
               : Real<&sendto>("sendto")(descriptor, bytes, count, flags, address, size);
}

ssize_t recvfrom(int descriptor, void *bytes, size_t count, int flags, sockaddr *address,
                 socklen_t *size)
{
    return ShallFail(Point::ReceiveDatagram)
               ? -1
               : Real<&recvfrom>("recvfrom")(descriptor, bytes, count, flags, address, size);
}

int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                   void *argument) noexcept
{
    const int error = TakeError(Point::CreateThread);
    return error != 0 ? error
                      : Real<&pthread_create>("pthread_create")(thread, attributes, body, argument);
}

FILE *popen(const char *command, const char *mode)
{
    return ShallFail(Point::OpenPipe) ? nullptr : Real<&popen>("popen")(command, mode);
}

int system(const char *command)
{
    return ShallFail(Point::RunShell) ? -1 : Real<&system>("system")(command);
}

int open(const char *path, int flags, ...)
{
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return OpenFile(path, flags, mode);
}

/// Called by a hardened program in place of open64.
int __open64_2(const char *path, int flags) // NOLINT(readability-identifier-naming): its name
{
    return OpenFile(path, flags, 0);
}

int mkostemp(char *path, int flags)
{
    return ShallFail(Point::CreateTemporary) ? -1 : Real<&mkostemp>("mkostemp64")(path, flags);
}

ssize_t write(int descriptor, const void *bytes, size_t count)
{
    return ShallFail(Point::Write) ? -1 : Real<&write>("write")(descriptor, bytes, count);
}

int fsync(int descriptor)
{
    return ShallFail(SyncPoint(descriptor)) ? -1 : Real<&fsync>("fsync")(descriptor);
}

int fdatasync(int descriptor)
{
    return ShallFail(Point::SyncDatabaseFile) ? -1 : Real<&fdatasync>("fdatasync")(descriptor);
}

int rename(const char *from, const char *to) noexcept
{
    return ShallFail(Point::Rename) ? -1 : Real<&rename>("rename")(from, to);
}

/// SQLite writes its files with pwrite.
ssize_t pwrite(int descriptor, const void *bytes, size_t count, off_t offset)
{
    return ShallFail(Point::WriteDatabaseFile)
               ? -1
               : Real<&pwrite>("pwrite64")(descriptor, bytes, count, offset);
}

int sqlite3_open(const char *path, sqlite3 **database)
{
    const int error = TakeError(Point::OpenDatabase);
    // A real failure also leaves a handle that must be closed.
    const int result =
        Real<&sqlite3_open>("sqlite3_open")(error != 0 ? "/no/such" : path, database);
    return error != 0 ? error : result;
}

int sqlite3_prepare_v2(sqlite3 *database, const char *sql, int size, sqlite3_stmt **statement,
                       const char **tail)
{
    const bool isAgentCall = !IsFromSqlite(__builtin_return_address(0));
    if (isAgentCall)
        RecordStatement(sql);
    const int error = isAgentCall ? TakeError(Point::PrepareStatement) : 0;
    if (error == 0)
        return Real<&sqlite3_prepare_v2>("sqlite3_prepare_v2")(database, sql, size, statement,
                                                               tail);
    *statement = nullptr;
    return error;
}

int sqlite3_step(sqlite3_stmt *statement)
{
    const bool isAgentCall = !IsFromSqlite(__builtin_return_address(0));
    const int error = isAgentCall ? TakeError(Point::StepStatement) : 0;
    return error != 0 ? error : Real<&sqlite3_step>("sqlite3_step")(statement);
}

int sqlite3_exec(sqlite3 *database, const char *sql, int (*callback)(void *, int, char **, char **),
                 void *argument, char **message)
{
    const bool isAgentCall = !IsFromSqlite(__builtin_return_address(0));
    if (isAgentCall)
        RecordStatement(sql);
    const int error = isAgentCall ? TakeError(Point::ExecuteStatement) : 0;
    return error != 0
               ? error
               : Real<&sqlite3_exec>("sqlite3_exec")(database, sql, callback, argument, message);
}

std::time_t time(std::time_t *result) noexcept
{
    const std::time_t now = Real<&time>(TimeFunction("time", "__time64"))(nullptr) + ClockSeconds();
    if (result != nullptr)
        *result = now;
    return now;
}

int gettimeofday(timeval *now, void *zone) noexcept
{
    const int result =
        Real<&gettimeofday>(TimeFunction("gettimeofday", "__gettimeofday64"))(now, zone);
    now->tv_sec += ClockSeconds();
    return result;
}

int clock_gettime(clockid_t clock, timespec *now) noexcept
{
    const int result =
        Real<&clock_gettime>(TimeFunction("clock_gettime", "__clock_gettime64"))(clock, now);
    if (clock == CLOCK_REALTIME)
        now->tv_sec += ClockSeconds();
    return result;
}

} // extern "C"
