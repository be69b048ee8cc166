#include "nimbractl/Password.h"

#include "base/Descriptor.h"
#include "nimbractl/Errors.h"
#include "nimbractl/Signals.h"

#include <cstdlib>

#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace nimbra::ctl {

namespace {

/// Reads a line byte by byte: the bytes after it are left to later readers.
std::string ReadLine(int file)
{
    std::string line;
    for (char c = '\0'; read(file, &c, 1) == 1 && c != '\n';)
        line += c;
    // A carriage return at the end is that of another system's text file.
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

/// Throws LocalFailure when others than the owner may read the file.
void RequirePrivate(const Descriptor &file, const std::string &name)
{
    struct stat status = {};
    if (file.IsOpen() && fstat(file.Get(), &status) == 0 && (status.st_mode & 077) != 0)
        throw LocalFailure("Others may use the file " + name +
                           ", which holds a password: chmod 600 makes it private.");
}

std::string FromFile(const std::string &name, bool mustBePrivate)
{
    const bool isInput = name == "-";
    const Descriptor file(isInput ? 0 : open(name.c_str(), O_RDONLY | O_CLOEXEC));
    if (mustBePrivate)
        RequirePrivate(file, name);
    std::string line = ReadLine(isInput ? STDIN_FILENO : file.Get());
    if (line.empty())
        throw LocalFailure("Cannot read a password from " + (isInput ? "standard input" : name) +
                           ".");
    return line;
}

/// The terminal, with its echo off while the object lives.
class SilentTerminal
{
public:
    SilentTerminal()
        : file_(Descriptor::AboveStandardInput(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)))
    {
        if (!file_.IsOpen() || tcgetattr(file_.Get(), &before_) != 0)
            throw WrongUsage("There is no terminal to ask for the password on: use --password-file "
                             "or the environment variable NIMBRA_PASSWORD.");
    }
    ~SilentTerminal() { EchoOn(); }
    SilentTerminal(const SilentTerminal &) = delete;
    SilentTerminal &operator=(const SilentTerminal &) = delete;

    [[nodiscard]] int Get() const { return file_.Get(); }
    void EchoOff() const
    {
        termios silent = before_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        silent.c_lflag |= ICANON | ISIG;
        tcsetattr(file_.Get(), TCSAFLUSH, &silent);
    }
    void EchoOn() const { tcsetattr(file_.Get(), TCSAFLUSH, &before_); }
    void Print(const std::string &text) const
    {
        static_cast<void>(!write(file_.Get(), text.data(), text.size()));
    }

private:
    Descriptor file_;
    termios before_ = {};
};

/// Reads a line, up to its line feed or the end of input.
std::string AskFor(const SilentTerminal &terminal, const std::string &prompt)
{
    const SignalCatcher signals({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP});
    terminal.EchoOff();
    terminal.Print(prompt);
    for (std::string line;;) {
        if (const int signal = SignalCatcher::Take(); signal != 0) {
            terminal.EchoOn();
            terminal.Print("\n");
            signals.PassOn(signal);
            // The program continues here only after a stop.
            terminal.EchoOff();
            terminal.Print(prompt);
            line.clear();
        }
        if (!signals.Wait(terminal.Get(), -1))
            continue;
        char c = '\n';
        if (read(terminal.Get(), &c, 1) <= 0 || c == '\n')
            return line;
        line += c;
    }
}

} // namespace

std::string GetPassword(const Settings &settings)
{
    if (!settings.PasswordFile.empty())
        return FromFile(settings.PasswordFile, settings.MustPasswordFileBePrivate);
    const char *variable = std::getenv("NIMBRA_PASSWORD");
    if (variable != nullptr && *variable != '\0')
        return variable;
    const SilentTerminal terminal;
    std::string password =
        AskFor(terminal, "Password of " + settings.User + " at " +
                             (settings.Panel.empty() ? settings.Host : settings.Panel) + ": ");
    terminal.Print("\n");
    if (password.empty())
        throw WrongUsage("No password was given.");
    return password;
}

} // namespace nimbra::ctl
