#include "support/Terminal.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

namespace nimbra::test {

namespace {

termios ModesOf(int terminal)
{
    termios modes = {};
    tcgetattr(terminal, &modes);
    return modes;
}

} // namespace

Terminal::Terminal(const std::vector<std::string> &command)
{
    const winsize size = {50, 200, 0, 0};
    int master = -1;
    int slave = -1;
    if (openpty(&master, &slave, nullptr, nullptr, &size) != 0)
        throw std::system_error(errno, std::generic_category(), "openpty");
    master_ = Descriptor(master);
    slave_ = Descriptor(slave);
    fcntl(master, F_SETFD, FD_CLOEXEC);
    fcntl(master, F_SETFL, O_NONBLOCK);
    before_ = ModesOf(slave);
    std::vector<std::string> words = command;
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        login_tty(slave);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
}

Terminal::~Terminal()
{
    if (!status_ && pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

const std::string &Terminal::Output()
{
    std::array<char, 4096> bytes;
    ssize_t count = 0;
    while ((count = read(master_.Get(), bytes.data(), bytes.size())) > 0)
        output_.append(bytes.data(), static_cast<std::size_t>(count));
    return output_;
}

bool Terminal::WaitFor(const std::string &text, milliseconds limit)
{
    return WaitUntil(
        [this, &text] {
            const std::size_t found = Output().find(text, searched_);
            if (found == std::string::npos)
                return false;
            searched_ = found + text.size();
            return true;
        },
        limit);
}

void Terminal::Type(const std::string &keys) const
{
    static_cast<void>(!write(master_.Get(), keys.data(), keys.size()));
}

void Terminal::Signal(int signal) const
{
    kill(pid_, signal);
}

std::optional<int> Terminal::WaitForExit(milliseconds limit)
{
    static_cast<void>(WaitUntil(
        [this] {
            static_cast<void>(Output()); // a full terminal would hold the program up
            int status = 0;
            if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_)
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
            return status_.has_value();
        },
        limit));
    static_cast<void>(Output());
    return status_;
}

bool Terminal::HasEcho() const
{
    return (ModesOf(slave_.Get()).c_lflag & ECHO) != 0;
}

bool Terminal::IsAsBefore() const
{
    const termios now = ModesOf(slave_.Get());
    return now.c_iflag == before_.c_iflag && now.c_oflag == before_.c_oflag &&
           now.c_cflag == before_.c_cflag && now.c_lflag == before_.c_lflag;
}

} // namespace nimbra::test
