#include "base/PanelConstants.h"
#include "panel-check/Checks.h"

#include <cstdio>
#include <ctime>
#include <string>

#include <getopt.h>

namespace nimbra::check {

namespace {

constexpr int kUsageError = 2;

constexpr char kUsage[] =
    "Usage: nimbra-panel-check [--json]\n"
    "\n"
    "Checks whether nimbra-agent can run on this panel: databases, programs, directories, ports,\n"
    "limits and clock. Run it before the agent, as the agent's user. It changes nothing, and of\n"
    "the panel's programs it runs only ifconfig.\n"
    "\n"
    "      --json     print the findings as JSON\n"
    "  -h, --help     print this help and exit\n"
    "      --version  print the version and exit\n"
    "\n"
    "Each line is a finding: ok, warning (the agent works) or fail, with what to do.\n"
    "Exit status: 0 if nothing failed, 1 if something failed, 2 for a wrong command line.\n";

Report RunChecks()
{
    Report report;
    const std::time_t now = std::time(nullptr);
    CheckUser(&report);
    CheckDatabases(&report);
    CheckShell(&report);
    CheckIfconfig(&report);
    CheckCommandTool(&report);
    CheckImageDirectory(&report);
    CheckPorts(&report);
    CheckDescriptors(&report);
    CheckClock(now, &report);
    CheckTimeZone(now, &report);
    return report;
}

/// Prints the text; false when that fails, so that nobody takes half a report for a whole one.
bool Print(const std::string &text)
{
    return std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
}

int Main(int argc, char **argv)
{
    enum Choice : int
    {
        Help = 'h',
        Json = 256,
        Version
    };
    static constexpr option kOptions[] = {{"json", no_argument, nullptr, Json},
                                          {"help", no_argument, nullptr, Help},
                                          {"version", no_argument, nullptr, Version},
                                          {nullptr, 0, nullptr, 0}};
    bool isJson = false;
    for (int choice = 0; (choice = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
        switch (choice) {
        case Json:
            isJson = true;
            break;
        case Help:
            return Print(kUsage) ? 0 : 1;
        case Version:
            return Print(std::string("nimbra-panel-check ") + kVersion + "\n") ? 0 : 1;
        default:
            std::fputs(kUsage, stderr);
            return kUsageError;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "nimbra-panel-check: unexpected argument \"%s\"\n", argv[optind]);
        std::fputs(kUsage, stderr);
        return kUsageError;
    }
    const Report report = RunChecks();
    const bool isPrinted = Print(isJson ? report.ToJson() : report.ToText());
    if (!isPrinted)
        std::perror("nimbra-panel-check");
    return isPrinted && !report.HasFailures() ? 0 : 1;
}

} // namespace

} // namespace nimbra::check

int main(int argc, char **argv)
{
    return nimbra::check::Main(argc, argv);
}
