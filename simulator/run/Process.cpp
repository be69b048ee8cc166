#include "simulator/run/Process.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nimbra::simulator {

[[noreturn]] static void Execute(const std::vector<std::string> &command,
                                 const std::vector<int> &descriptors, int output)
{
    for (const int descriptor : descriptors)
        fcntl(descriptor, F_SETFD, 0);
    if (output != 0)
        dup2(output, STDOUT_FILENO);
    setsid();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &argument : command)
        arguments.push_back(strdup(argument.c_str()));
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    std::perror(arguments[0]);
    constexpr int kCannotRun = 126;
    _exit(kCannotRun);
}

Process::Process(const std::vector<std::string> &command, const std::vector<int> &descriptors,
                 int output)
{
    const pid_t parent = getpid();
    process_ = fork();
    if (process_ == -1)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (process_ != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(1);
    Execute(command, descriptors, output);
}

Process::Process(Process &&other) noexcept
    : process_(std::exchange(other.process_, 0)), status_(other.status_)
{}

Process::~Process()
{
    Terminate();
    Wait();
}

void Process::Terminate() const
{
    if (process_ != 0)
        kill(process_, SIGTERM);
}

std::optional<int> Process::Reap(int flags)
{
    if (process_ == 0)
        return status_;
    int status = 0;
    const pid_t ended = waitpid(process_, &status, flags);
    if (ended == 0 || (ended == -1 && errno == EINTR))
        return std::nullopt;
    if (ended == process_)
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    process_ = 0;
    return status_;
}

int Process::Wait()
{
    for (;;) {
        if (const std::optional<int> status = Reap(0))
            return *status;
    }
}

std::optional<int> Process::Poll()
{
    return Reap(WNOHANG);
}

} // namespace nimbra::simulator
