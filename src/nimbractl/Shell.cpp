#include "nimbractl/Shell.h"

#include "nimbractl/LineEditor.h"
#include "nimbractl/Signals.h"
#include "nimbractl/SplitWords.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>

#include <unistd.h>

namespace nimbra::ctl {

namespace {

using Clock = std::chrono::steady_clock;

/// The interval of heartbeats while the shell waits; the panel ends a session after 10 seconds.
constexpr std::chrono::milliseconds kKeepAlive(4000);

constexpr char kShellHelp[] =
    "Commands are those of nimbractl, without its name: doors list, users show 7. Quotes work as "
    "in a shell of the system. help NAME shows the help of a command; exit, quit or Ctrl-D end the "
    "shell, Ctrl-C gives up a line or a command.";

std::unique_ptr<CLI::App> MakeApp(Context &context)
{
    auto app = std::make_unique<CLI::App>("The commands of this shell", "");
    PrepareApp(*app, "");
    AddOutputOption(*app, context.Options);
    AddAllCommands(*app, context);
    app->footer(kShellHelp);
    return app;
}

Completion CompleteInShell(Context &context, const std::vector<std::string> &words)
{
    const bool isHelp = words.size() > 1 && words[0] == "help";
    const std::unique_ptr<CLI::App> app = MakeApp(context);
    Completion completion =
        Complete(*app, std::vector<std::string>(words.begin() + (isHelp ? 1 : 0), words.end()));
    if (words.size() == 1)
        for (const std::string word : {"help", "exit", "quit"})
            if (word.starts_with(words[0]))
                completion.Candidates.push_back(word);
    return completion;
}

/// Keeps the session alive while no command runs.
class KeepAliveTimer
{
public:
    explicit KeepAliveTimer(Context &context) : context_(context) {}

    /// Returns the milliseconds until the next heartbeat.
    [[nodiscard]] int UntilNext() const
    {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(next_ - Clock::now());
        return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    }
    /// Sends a heartbeat when it is due. A panel that is gone is reported by the next command.
    void SendIfDue()
    {
        if (UntilNext() > 0)
            return;
        next_ = Clock::now() + kKeepAlive;
        try {
            if (isSending_)
                context_.Panel.Get().KeepAlive();
        } catch (const client::ConnectionError &) {
            isSending_ = false;
        }
    }
    /// To be called after a command, which opens a session that has ended.
    void Restart()
    {
        isSending_ = true;
        next_ = Clock::now() + kKeepAlive;
    }

private:
    Context &context_;
    Clock::time_point next_ = Clock::now() + kKeepAlive;
    bool isSending_ = true;
};

enum class Next
{
    ReadLine,
    Exit
};

/// Runs the command of a line. Stores its status in `*status` when it fails.
Next RunLine(Context &context, const std::string &line, int *status)
{
    std::vector<std::string> words;
    try {
        words = SplitWords(line);
    } catch (const WrongUsage &error) {
        WriteError(context, error.what());
        *status = kWrongUsage;
        return Next::ReadLine;
    }
    if (words.empty() || words[0][0] == '#')
        return Next::ReadLine;
    if (words[0] == "exit" || words[0] == "quit")
        return Next::Exit;
    if (words[0] == "help") {
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    const OutputOptions output = context.Options.Output;
    const std::unique_ptr<CLI::App> app = MakeApp(context);
    const int result = RunCommandLine(*app, context, words);
    context.Options.Output = output;
    if (result != kDone && result != kInterrupted)
        *status = result;
    return Next::ReadLine;
}

/// A shell on a terminal.
class InteractiveShell
{
public:
    explicit InteractiveShell(Context &context)
        : context_(context), timer_(context),
          editor_((context.Options.Panel.empty() ? context.Options.Host : context.Options.Panel) +
                      "> ",
                  {[this] { return WaitForInput(); },
                   [&context](const std::vector<std::string> &words) {
                       return CompleteInShell(context, words);
                   }})
    {}

    int Run()
    {
        int status = kDone;
        for (;;) {
            std::string line;
            const LineEditor::Outcome outcome = editor_.ReadLine(&line);
            if (outcome == LineEditor::Outcome::End) {
                std::printf("\n");
                return status;
            }
            if (outcome == LineEditor::Outcome::GivenUp)
                std::printf("^C\n");
            else if (Run(line, &status) == Next::Exit)
                return status;
        }
    }

private:
    Next Run(const std::string &line, int *status)
    {
        editor_.Remember(line);
        signals_.Open();
        isInterrupted_ = false;
        context_.Panel.IsCancelled = [this] { return HasInterrupt(); };
        const Next next = RunLine(context_, line, status);
        context_.Panel.IsCancelled = nullptr;
        signals_.Close();
        timer_.Restart();
        return next;
    }

    /// While a command runs: whether it is to be given up.
    [[nodiscard]] bool HasInterrupt()
    {
        const int signal = SignalCatcher::Take();
        if (signal != 0 && signal != SIGINT)
            signals_.PassOn(signal);
        isInterrupted_ = isInterrupted_ || signal == SIGINT;
        return isInterrupted_;
    }

    /// At the prompt: returns false when the line is to be given up.
    [[nodiscard]] bool WaitForInput()
    {
        for (;;) {
            const bool isReadable = signals_.Wait(STDIN_FILENO, timer_.UntilNext());
            timer_.SendIfDue();
            const int signal = SignalCatcher::Take();
            if (signal == SIGINT)
                return false;
            if (signal != 0) {
                editor_.Suspend();
                signals_.PassOn(signal);
                editor_.Resume(); // continued after a stop
            }
            if (isReadable)
                return true;
        }
    }

    Context &context_;
    const SignalCatcher signals_{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
    KeepAliveTimer timer_;
    LineEditor editor_;
    bool isInterrupted_ = false;
};

/// Commands from a file or a pipe.
int RunScript(Context &context)
{
    const SignalCatcher noSignals({});
    KeepAliveTimer timer(context);
    int status = kDone;
    std::string input;
    for (bool isOpen = true; isOpen;) {
        if (noSignals.Wait(STDIN_FILENO, timer.UntilNext())) {
            std::array<char, 4096> bytes{};
            const ssize_t count = read(STDIN_FILENO, bytes.data(), bytes.size());
            isOpen = count > 0;
            input.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
            if (!isOpen && !input.empty())
                input += '\n';
        }
        timer.SendIfDue();
        for (std::size_t end = 0; (end = input.find('\n')) != std::string::npos;) {
            std::string line = input.substr(0, end);
            if (line.ends_with('\r'))
                line.pop_back();
            input.erase(0, end + 1);
            ++context.ScriptLine;
            if (RunLine(context, line, &status) == Next::Exit)
                return status;
            timer.Restart();
        }
    }
    return status;
}

} // namespace

int RunShell(Context &context)
{
    static_cast<void>(context.Panel.Get());
    if (isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0)
        return InteractiveShell(context).Run();
    return RunScript(context);
}

} // namespace nimbra::ctl
