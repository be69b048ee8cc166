// nimbractl: finds panels and talks to one.

#include "nimbractl/Context.h"
#include "nimbractl/Fields.h"
#include "nimbractl/Shell.h"

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

namespace nimbra::ctl {

namespace {

constexpr char kCommandFooter[] =
    "nimbractl --help tells the options that all commands have: --host, --user, --output, ...";

constexpr char kFooter[] =
    "The password is read from the file of --password-file, else from the environment variable\n"
    "NIMBRA_PASSWORD, else asked for on the terminal. It goes over the network in clear.\n"
    "\n"
    "Output: tables are for people; json and csv have the protocol's names of the fields. Lists\n"
    "are fetched page by page and written as they come. Times are UTC, in and out. NO_COLOR and\n"
    "outputs that are no terminal are respected.\n"
    "\n"
    "Exit status:\n"
    "  0  done\n"
    "  1  refused or failed by the panel, or nothing was found (the protocol does not tell apart)\n"
    "  2  wrong usage; a value that the protocol cannot carry; a file that cannot be used\n"
    "  3  the panel cannot be reached, or stopped responding\n"
    "\n"
    "Environment: NIMBRA_HOST, NIMBRA_PORT, NIMBRA_USER, NIMBRA_PASSWORD, NIMBRA_CLOCK_OFFSET,\n"
    "NO_COLOR.\n"
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
        ->option_text("HOST (Env:NIMBRA_HOST)");
    app.add_option("--port", settings.Port, "The panel's port")
        ->envname("NIMBRA_PORT")
        ->transform(IsNumber(1, 65535))
        ->option_text("PORT (Env:NIMBRA_PORT) [9000]");
    app.add_option("--user", settings.User, "The name to log in with")
        ->envname("NIMBRA_USER")
        ->option_text("NAME (Env:NIMBRA_USER)");
    app.add_option("--password-file", settings.PasswordFile,
                   "File whose first line is the password, - for standard input")
        ->option_text("FILE");
    app.add_option("--timeout", settings.TimeoutSeconds,
                   "Seconds to wait for a connection and for a response")
        ->transform(IsNumber(1, 3600))
        ->option_text("SECONDS [15]");
    app.add_option("--clock-offset", settings.ClockOffset,
                   "How far the panel's standard time is ahead of UTC, such as +02:00; found out "
                   "from the event log where it matters")
        ->envname("NIMBRA_CLOCK_OFFSET")
        ->check([](const std::string &text) {
            return ParseClockOffset(text) ? std::string()
                                          : "\"" + text + "\" is no offset such as +02:00";
        })
        ->option_text("OFFSET (Env:NIMBRA_CLOCK_OFFSET)");
    AddOutputOption(app, settings);
}

int Run(int argc, char **argv)
{
    Context context;
    CLI::App app("Finds Nimbra panels, and talks to one: doors, events, users, cards and more",
                 "nimbractl");
    PrepareApp(app, kCommandFooter);
    app.set_version_flag("--version", "nimbractl " NIMBRA_VERSION);
    AddConnectionOptions(app, context.Options);
    AddAllCommands(app, context);
    int shellStatus = kDone;
    app.add_subcommand("shell",
                       "Ask for commands and do them, with history and completion, in one session "
                       "that is kept alive. Commands are those of nimbractl, without its name")
        ->callback([&context, &shellStatus] {
            context.Action = [&context, &shellStatus] { shellStatus = RunShell(context); };
        });
    app.footer(kFooter); // late: a command takes over what is there when it is added
    app.set_help_all_flag("--help-all", "Print the help of all commands and exit");
    const int status =
        RunCommandLine(app, context, std::vector<std::string>(argv + 1, argv + argc));
    return status != kDone ? status : shellStatus;
}

} // namespace

} // namespace nimbra::ctl

int main(int argc, char **argv)
{
    try {
        return nimbra::ctl::Run(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbractl: %s\n", error.what());
        return nimbra::ctl::kWrongUsage;
    }
}
