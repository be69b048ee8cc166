// nimbractl: finds panels and manages them.

#include "nimbractl/Completion.h"
#include "nimbractl/Context.h"
#include "nimbractl/Fields.h"
#include "nimbractl/ManualPage.h"
#include "nimbractl/Panels.h"
#include "nimbractl/Shell.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

namespace nimbra::ctl {

namespace {

constexpr char kCommandFooter[] =
    "nimbractl --help shows the options that all commands have: --host, --user, --output, ...";

constexpr char kFooter[] =
    "The password is read from the file of --password-file, else from the environment variable "
    "NIMBRA_PASSWORD, else from the terminal. It is sent over the network in clear text.\n"
    "\n"
    "--panel NAME takes host, port, user, password-file, timeout and clock-offset from the section "
    "[NAME] of ~/.config/nimbractl/config. Options of the command line overrule the file, the file "
    "overrules the environment.\n"
    "\n"
    "Output: tables are for people; json, jsonl and csv have the protocol's field names, and "
    "numbers in place of words. Lists are requested page by page and written as they arrive. Times "
    "are UTC, in input "
    "and output, unless --local is given. A table has colours and cut columns on a terminal only; "
    "NO_COLOR is respected.\n"
    "\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  the panel refused or failed, or found nothing (the protocol has one code for these)\n"
    "  2  wrong usage, a value that the protocol cannot carry, or a file that cannot be used\n"
    "  3  the panel cannot be reached or stopped responding\n"
    "  130  interrupted, as by Ctrl-C\n"
    "\n"
    "Environment: NIMBRA_HOST, NIMBRA_PORT, NIMBRA_USER, NIMBRA_PASSWORD, NIMBRA_CLOCK_OFFSET, "
    "XDG_CONFIG_HOME, XDG_STATE_HOME, NO_COLOR, COLUMNS.\n"
    "\n"
    "Examples:\n"
    "  nimbractl discover\n"
    "  nimbractl --host 192.168.77.10 --user operator doors list\n"
    "  nimbractl --host 192.168.77.10 --user operator users set 7 --last-name \"O'Brien\"\n"
    "  nimbractl --host 192.168.77.10 --user operator events list --from 2026-01-31 -o csv";

void AddConnectionOptions(CLI::App &app, Settings &settings)
{
    app.add_option("--host", settings.Host, "The panel's address or name")
        ->envname("NIMBRA_HOST")
        ->option_text("HOST");
    app.add_option("--port", settings.Port, "The panel's port")
        ->envname("NIMBRA_PORT")
        ->transform(IsNumber(1, 65535))
        ->option_text("PORT [9000]");
    app.add_option("--user", settings.User, "The name to log in with")
        ->envname("NIMBRA_USER")
        ->option_text("NAME");
    app.add_option("--password-file", settings.PasswordFile,
                   "File whose first line is the password, - for standard input")
        ->option_text("FILE");
    app.add_option("--timeout", settings.TimeoutSeconds,
                   "Seconds to wait for a connection and for a response")
        ->transform(IsNumber(1, 3600))
        ->option_text("SECONDS [15]");
    app.add_option("--clock-offset", settings.ClockOffset,
                   "How far the panel's standard time is ahead of UTC, such as +02:00; measured "
                   "with the event log where it matters")
        ->envname("NIMBRA_CLOCK_OFFSET")
        ->check([](const std::string &text) {
            return ParseClockOffset(text) ? std::string()
                                          : "\"" + text + "\" is no offset such as +02:00";
        })
        ->option_text("OFFSET");
}

int Run(const std::vector<std::string> &words)
{
    Context context;
    CLI::App app("Finds Nimbra panels and manages one: doors, events, users, cards and more",
                 "nimbractl");
    PrepareApp(app, kCommandFooter);
    app.set_version_flag("--version", "nimbractl " NIMBRA_VERSION, "Print the version and exit");
    AddConnectionOptions(app, context.Options);
    AddPanelOptions(app, context);
    AddOutputOption(app, context.Options);
    AddAllCommands(app, context);
    app.add_subcommand("shell",
                       "Read commands and run them in one session, which is kept alive, with "
                       "history and completion. Commands are those of nimbractl, without its name")
        ->callback([&context] {
            context.Action = [&context] { return RunShell(context); };
            context.MayTakePanels = false;
        });
    app.footer(kFooter); // late: a command takes the footer that exists when it is added
    app.set_help_all_flag("--help-all", "Print the help of all commands and exit");
    // These two are for the completion functions of shells and for the manual page; the help does
    // not list them.
    if (!words.empty() && words[0] == "complete") {
        PrintCompletion(app, {words.begin() + 1, words.end()});
        return kDone;
    }
    if (words == std::vector<std::string>{"manual-page"}) {
        PrintManualPage(app);
        return kDone;
    }
    return RunCommandLine(app, context, words);
}

} // namespace

} // namespace nimbra::ctl

int main(int argc, char **argv)
{
    // Texts of panels are UTF-8, also where the locale says nothing of it.
    if (std::setlocale(LC_CTYPE, "") == nullptr || MB_CUR_MAX == 1)
        std::setlocale(LC_CTYPE, "C.UTF-8");
    try {
        return nimbra::ctl::Run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbractl: %s\n", error.what());
        return nimbra::ctl::kWrongUsage;
    }
}
