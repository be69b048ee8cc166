#include "nimbractl/Shell.h"

#include "nimbractl/Signals.h"
#include "nimbractl/SplitWords.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>

#include <readline/history.h>
#include <readline/readline.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nimbra::ctl {

namespace {

using Clock = std::chrono::steady_clock;

/// How often the panel hears of a shell that waits; it takes 10 seconds of silence for the end.
constexpr std::chrono::milliseconds kKeepAlive(4000);

constexpr int kHistoryLines = 1000;

constexpr char kShellHelp[] =
    "Commands are those of nimbractl, without its name: doors list, users show 7. Quotes work as "
    "in a\nshell of the system. help NAME shows more about a command; exit, quit or Ctrl-D end "
    "the shell,\nCtrl-C gives up a line or a command.";

std::unique_ptr<CLI::App> MakeApp(Context &context)
{
    auto app = std::make_unique<CLI::App>("The commands of this shell", "");
    PrepareApp(*app, "");
    AddOutputOption(*app, context.Options);
    AddAllCommands(*app, context);
    app->footer(kShellHelp);
    return app;
}

/// The last word is begun, the others are complete: what it may become.
std::vector<std::string> Completions(Context &context, const std::vector<std::string> &words,
                                     const std::string &begun)
{
    const std::unique_ptr<CLI::App> app = MakeApp(context);
    const CLI::App *at = app.get();
    for (const std::string &word : words)
        for (const CLI::App *child : at->get_subcommands([](const CLI::App *) { return true; }))
            if (child->get_name() == word) {
                at = child;
                break;
            }
    std::vector<std::string> candidates;
    for (const CLI::App *child : at->get_subcommands([](const CLI::App *) { return true; }))
        candidates.push_back(child->get_name());
    if (words.empty())
        candidates.insert(candidates.end(), {"help", "exit", "quit"});
    for (const CLI::Option *option : at->get_options())
        for (const std::string &name : option->get_lnames())
            candidates.push_back("--" + name);
    if (at != app.get())
        candidates.emplace_back("--output");
    candidates.erase(std::remove_if(candidates.begin(), candidates.end(),
                                    [&begun](const std::string &candidate) {
                                        return candidate.rfind(begun, 0) != 0 ||
                                               (begun.empty() && candidate[0] == '-');
                                    }),
                     candidates.end());
    return candidates;
}

/// Where the shell keeps its history; empty when there is no place for it.
std::string HistoryFile()
{
    const char *state = std::getenv("XDG_STATE_HOME");
    const char *home = std::getenv("HOME");
    std::filesystem::path directory;
    if (state != nullptr && *state == '/')
        directory = state;
    else if (home != nullptr && *home == '/')
        directory = std::filesystem::path(home) / ".local/state";
    else
        return "";
    directory /= "nimbractl";
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    return error ? "" : (directory / "history").string();
}

/// The line editor. Its callbacks know no object, so there is one at a time.
class LineEditor
{
public:
    LineEditor(Context &context, std::string prompt)
        : context_(context), prompt_(std::move(prompt)), historyFile_(HistoryFile())
    {
        only = this;
        rl_readline_name = "nimbractl";
        rl_catch_signals = 0;
        rl_attempted_completion_function = Complete;
        rl_completer_quote_characters = "'\"";
        using_history();
        stifle_history(kHistoryLines);
        if (!historyFile_.empty())
            read_history(historyFile_.c_str());
        Show();
    }
    ~LineEditor()
    {
        Hide();
        only = nullptr;
    }
    LineEditor(const LineEditor &) = delete;
    LineEditor &operator=(const LineEditor &) = delete;

    /// Shows the prompt and takes the terminal over, or gives it back as it was.
    void Show()
    {
        rl_callback_handler_install(prompt_.c_str(), TakeLine);
        isShown_ = true;
    }
    void Hide()
    {
        if (isShown_)
            rl_callback_handler_remove();
        isShown_ = false;
    }

    /// Takes in what was typed.
    static void ReadInput() { rl_callback_read_char(); }
    /// Forgets the line that was begun.
    void GiveUpLine()
    {
        rl_free_line_state();
        rl_callback_sigcleanup();
        Hide();
        std::fputs("^C\n", rl_outstream);
        Show();
    }
    /// The line that is complete; empty text for the end of input.
    [[nodiscard]] bool HasLine() const { return isComplete_; }
    [[nodiscard]] std::optional<std::string> TakeCompleteLine()
    {
        isComplete_ = false;
        return std::exchange(line_, std::nullopt);
    }

    /// Keeps a line for later, unless it may hold a password.
    void Remember(const std::string &line) const
    {
        const HIST_ENTRY *last = history_get(history_base + history_length - 1);
        if (line.empty() || line[0] == ' ' || strcasestr(line.c_str(), "password") != nullptr ||
            (last != nullptr && line == last->line))
            return;
        add_history(line.c_str());
        if (historyFile_.empty())
            return;
        const mode_t before = umask(077);
        write_history(historyFile_.c_str());
        umask(before);
    }

private:
    static void TakeLine(char *line)
    {
        only->isComplete_ = true;
        only->line_.reset();
        if (line != nullptr)
            only->line_ = line;
        std::free(line); // NOLINT(cppcoreguidelines-no-malloc): readline has allocated it
        only->Hide();
    }

    static char **Complete(const char *text, int start, int)
    {
        std::vector<std::string> words;
        try {
            words = SplitWords(std::string(rl_line_buffer, static_cast<std::size_t>(start)));
        } catch (const WrongUsage &) {
            rl_attempted_completion_over = 1;
            return nullptr;
        }
        // A photograph is a file of this machine: readline completes those by itself.
        const bool isFile = words.size() == 4 && words[0] == "users" && words[1] == "photo";
        rl_attempted_completion_over = isFile ? 0 : 1;
        if (isFile)
            return nullptr;
        only->completions_ = Completions(only->context_, words, text);
        return rl_completion_matches(text, NextCompletion);
    }

    static char *NextCompletion(const char *, int state)
    {
        static std::size_t next;
        next = state == 0 ? 0 : next + 1;
        return next < only->completions_.size() ? strdup(only->completions_[next].c_str())
                                                : nullptr;
    }

    static LineEditor *only;

    Context &context_;
    const std::string prompt_;
    const std::string historyFile_;
    std::vector<std::string> completions_;
    std::optional<std::string> line_;
    bool isComplete_ = false;
    bool isShown_ = false;
};

LineEditor *LineEditor::only = nullptr;

/// Keeps the session alive while nobody asks for anything.
class Heart
{
public:
    explicit Heart(Context &context) : context_(context) {}

    /// Milliseconds until the next beat.
    [[nodiscard]] int UntilNext() const
    {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(next_ - Clock::now());
        return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    }
    /// Beats if it is time. A panel that is gone is only told of by the next command.
    void Beat()
    {
        if (UntilNext() > 0)
            return;
        next_ = Clock::now() + kKeepAlive;
        try {
            if (isBeating_)
                context_.Panel.Get().KeepAlive();
        } catch (const client::ConnectionError &) {
            isBeating_ = false;
        }
    }
    /// A command has been done: the session is alive again.
    void Restart()
    {
        isBeating_ = true;
        next_ = Clock::now() + kKeepAlive;
    }

private:
    Context &context_;
    Clock::time_point next_ = Clock::now() + kKeepAlive;
    bool isBeating_ = true;
};

enum class Order
{
    Done,
    Exit
};

/// Does what a line says. Its status is added to `*status` when it is none of success.
Order Obey(Context &context, const std::string &line, int *status)
{
    std::vector<std::string> words;
    try {
        words = SplitWords(line);
    } catch (const WrongUsage &error) {
        std::fprintf(stderr, "nimbractl: %s\n", error.what());
        *status = kWrongUsage;
        return Order::Done;
    }
    if (words.empty() || words[0][0] == '#')
        return Order::Done;
    if (words[0] == "exit" || words[0] == "quit")
        return Order::Exit;
    if (words[0] == "help") {
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    const Format format = context.Options.Output;
    const std::unique_ptr<CLI::App> app = MakeApp(context);
    const int result = RunCommandLine(*app, context, words);
    context.Options.Output = format;
    if (result != kDone && result != kInterrupted)
        *status = result;
    return Order::Done;
}

/// A shell on a terminal.
class InteractiveShell
{
public:
    explicit InteractiveShell(Context &context)
        : context_(context), heart_(context), editor_(context, context.Options.Host + "> ")
    {}

    int Run()
    {
        int status = kDone;
        for (;;) {
            if (signals_.Wait(STDIN_FILENO, heart_.UntilNext()))
                LineEditor::ReadInput();
            HandleSignal();
            heart_.Beat();
            if (!editor_.HasLine())
                continue;
            const std::optional<std::string> line = editor_.TakeCompleteLine();
            if (!line)
                std::printf("\n");
            if (!line || Do(*line, &status) == Order::Exit)
                break;
        }
        return status;
    }

private:
    Order Do(const std::string &line, int *status)
    {
        editor_.Remember(line);
        signals_.Open();
        isInterrupted_ = false;
        context_.Panel.IsCancelled = [this] { return HasInterrupt(); };
        const Order order = Obey(context_, line, status);
        context_.Panel.IsCancelled = nullptr;
        signals_.Close();
        heart_.Restart();
        if (order == Order::Done)
            editor_.Show();
        return order;
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

    /// At the prompt.
    void HandleSignal()
    {
        const int signal = SignalCatcher::Take();
        if (signal == SIGINT) {
            editor_.GiveUpLine();
        } else if (signal != 0) {
            editor_.Hide();
            signals_.PassOn(signal);
            editor_.Show(); // continued after a stop
        }
    }

    Context &context_;
    const SignalCatcher signals_{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
    Heart heart_;
    LineEditor editor_;
    bool isInterrupted_ = false;
};

/// Commands from a file or a pipe.
int RunScript(Context &context)
{
    const SignalCatcher noSignals({});
    Heart heart(context);
    int status = kDone;
    std::string input;
    for (bool isOpen = true; isOpen;) {
        if (noSignals.Wait(STDIN_FILENO, heart.UntilNext())) {
            std::array<char, 4096> bytes;
            const ssize_t count = read(STDIN_FILENO, bytes.data(), bytes.size());
            isOpen = count > 0;
            input.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
            if (!isOpen && !input.empty())
                input += '\n';
        }
        heart.Beat();
        for (std::size_t end = 0; (end = input.find('\n')) != std::string::npos;) {
            const std::string line = input.substr(0, end);
            input.erase(0, end + 1);
            if (Obey(context, line, &status) == Order::Exit)
                return status;
            heart.Restart();
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
