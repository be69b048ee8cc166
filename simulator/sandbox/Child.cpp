#include "simulator/sandbox/Child.h"

#include "simulator/sandbox/SystemCall.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>

#include <sys/prctl.h>
#include <sys/wait.h>

namespace nimbra::sandbox {

/// The signals that are waited for and passed on.
static sigset_t AwaitedSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGCHLD, SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGUSR1, SIGUSR2})
        sigaddset(&set, number);
    return set;
}

static void Report(int descriptor, const std::string &failure)
{
    // When even this fails, the parent only sees that the child ended.
    [[maybe_unused]] const ssize_t written = write(descriptor, failure.data(), failure.size());
}

[[noreturn]] static void ExecuteCommand(const std::string &program,
                                        const std::vector<std::string> &command)
{
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &argument : command)
        arguments.push_back(strdup(argument.c_str()));
    arguments.push_back(nullptr);
    execv(program.c_str(), arguments.data());
    const int error = errno;
    std::fprintf(stderr, "nimbra-sandbox: %s: %s\n", program.c_str(), std::strerror(error));
    _exit(error == ENOENT ? kNotFound : kCannotRun);
}

[[noreturn]] static void RunAsChild(const std::string &program,
                                    const std::vector<std::string> &command,
                                    const std::function<void()> &prepare, pid_t parent,
                                    int failures)
{
    try {
        prepare();
    } catch (const std::exception &error) {
        Report(failures, error.what());
        _exit(kSandboxFailed);
    }
    // Set only now: becoming another user takes it away.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(kSandboxFailed);
    ExecuteCommand(program, command);
}

/// Passes signals on until the child has ended; gives its wait status.
static int AwaitEnd(pid_t child)
{
    const sigset_t awaited = AwaitedSignals();
    for (;;) {
        siginfo_t signal{};
        const int number = sigwaitinfo(&awaited, &signal);
        int status = 0;
        if (number == SIGCHLD && waitpid(child, &status, WNOHANG) == child)
            return status;
        // What the terminal sends, it sends to the command too.
        if (number > 0 && number != SIGCHLD && signal.si_code != SI_KERNEL)
            kill(child, number);
    }
}

/// Ends the processes that the command has left behind, which are children of this one by now.
static void EndLeftovers()
{
    const std::string list = "/proc/self/task/" + std::to_string(getpid()) + "/children";
    constexpr timespec kPause{0, 1'000'000};
    constexpr int kPauses = 5000;
    for (int pause = 0; pause < kPauses; ++pause) {
        std::ifstream children(list);
        for (pid_t child = 0; children >> child;)
            kill(child, SIGKILL);
        int last = 0;
        while ((last = waitpid(-1, nullptr, WNOHANG)) > 0) {
        }
        if (last == -1)
            return;
        nanosleep(&kPause, nullptr);
    }
}

static std::string ReadToEnd(int descriptor)
{
    std::string text;
    std::array<char, 512> buffer{};
    ssize_t length = 0;
    while ((length = read(descriptor, buffer.data(), buffer.size())) > 0)
        text.append(buffer.data(), static_cast<std::size_t>(length));
    return text;
}

Outcome RunChild(const std::string &program, const std::vector<std::string> &command,
                 Leftovers leftovers, const std::function<void()> &prepare)
{
    sigset_t before;
    const sigset_t awaited = AwaitedSignals();
    sigprocmask(SIG_BLOCK, &awaited, &before);
    if (leftovers == Leftovers::End)
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    Pipe failures = MakePipe();

    const pid_t self = getpid();
    const pid_t child = Check(fork(), "fork");
    if (child == 0) {
        sigprocmask(SIG_SETMASK, &before, nullptr);
        RunAsChild(program, command, prepare, self, failures.WriteEnd.Get());
    }
    failures.WriteEnd.Close();
    // The pipe closes when the command starts.
    const std::string failure = ReadToEnd(failures.ReadEnd.Get());
    const int status = AwaitEnd(child);
    if (leftovers == Leftovers::End)
        EndLeftovers();
    sigprocmask(SIG_SETMASK, &before, nullptr);
    if (!failure.empty())
        return {std::nullopt, failure};
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), ""};
}

} // namespace nimbra::sandbox
