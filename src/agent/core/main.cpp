#include "base/PanelConstants.h"
#include "base/Wait.h"
#include "core/CloudDevice.h"
#include "data/Database.h"

#include <csignal>
#include <cstdio>
#include <initializer_list>

#include <fcntl.h>
#include <unistd.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace nimbra {

namespace {

constexpr unsigned kRetrySeconds = 3;
constexpr char kRule[] = "----------------------------------------";

/// Fills the standard descriptors that the caller left closed: no database or socket may get one,
/// the log would be written into it.
void HoldStandardDescriptors()
{
    int descriptor = 0;
    do
        descriptor = open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor > STDERR_FILENO)
        close(descriptor);
}

void ConfigureMemory()
{
#ifdef __GLIBC__ // other C libraries have one heap, and no such settings
    // One heap for all threads: what one session has freed serves the next. Large blocks, such as
    // those of lists and images, go back to the system as soon as they are freed.
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
    Database::ConfigureSqlite();
}

void PrintBanner(const char *program)
{
    std::putchar('\n');
    std::printf("%s\n%s %s\n%s\n", kRule, program, kVersion, kRule);
}

void SetSignals()
{
    // SIGABRT is ignored like the rest; panels rely on it.
    for (const int ignored : {SIGCHLD, SIGPIPE, SIGABRT, SIGUSR1, SIGUSR2})
        std::signal(ignored, SIG_IGN);
    // Calls that a signal interrupts go on. TSan's signal() would end them.
    struct sigaction action = {};
    action.sa_handler = [](int) { CloudDevice::RequestQuit(); };
    action.sa_flags = SA_RESTART;
    for (const int quit : {SIGINT, SIGQUIT, SIGTERM})
        sigaction(quit, &action, nullptr);
}

/// Tries to start until it succeeds; false when the program was asked to end before.
bool StartServices()
{
    for (;;) {
        CloudDevice *device = CloudDevice::GetInstance();
        if (device->Init()) {
            if (device->Start())
                return true;
            device->Stop();
        }
        PauseSeconds(kRetrySeconds);
        if (CloudDevice::IsQuitRequested())
            return false;
    }
}

} // namespace

} // namespace nimbra

int main(int argc, char **argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    nimbra::HoldStandardDescriptors();
    nimbra::ConfigureMemory();
    nimbra::PrintBanner(argc > 0 ? argv[0] : "");
    nimbra::SetSignals();
    if (nimbra::CloudDevice::IsQuitRequested() || !nimbra::StartServices())
        return 0;
    nimbra::CloudDevice::GetInstance()->Run();
    nimbra::CloudDevice::GetInstance()->Stop();
    return 0;
}
