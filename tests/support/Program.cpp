#include "support/Program.h"

#include "simulator/sandbox/SystemCall.h"
#include "support/Files.h"

#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nimbra::test {

namespace {

constexpr uid_t kUnprivileged = 65534;

/// In the child: becomes a user without rights, if the namespace has one.
void GiveUpRights()
{
    const bool isOther =
        setgroups(0, nullptr) == 0 && setgid(kUnprivileged) == 0 && setuid(kUnprivileged) == 0;
    // EINVAL, EPERM: the user namespace holds one user only, who has no rights outside of it.
    if ((!isOther && errno != EINVAL && errno != EPERM) || chdir("/") != 0)
        _exit(127);
}

ProgramResult Run(const std::vector<std::string> &command, bool isUnprivileged)
{
    sandbox::Pipe output = sandbox::MakePipe();
    std::vector<std::string> words = command;
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (isUnprivileged)
            GiveUpRights();
        dup2(output.WriteEnd.Get(), STDOUT_FILENO);
        dup2(output.WriteEnd.Get(), STDERR_FILENO);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    output.WriteEnd.Close();
    ProgramResult result{};
    std::array<char, 4096> bytes{};
    ssize_t count = 0;
    while ((count = read(output.ReadEnd.Get(), bytes.data(), bytes.size())) > 0)
        result.Output.append(bytes.data(), static_cast<std::size_t>(count));
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
        throw std::system_error(errno, std::generic_category(), command.at(0));
    result.Status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

} // namespace

ProgramResult RunProgram(const std::vector<std::string> &command)
{
    return Run(command, false);
}

ProgramResult RunUnprivileged(const std::vector<std::string> &command)
{
    return Run(command, true);
}

void ReplaceProgram(const std::string &path, const std::string &script)
{
    std::filesystem::remove(path);
    WriteFile(path, "#!/bin/sh\n" + script);
    std::filesystem::permissions(path, std::filesystem::perms(0755));
}

} // namespace nimbra::test
