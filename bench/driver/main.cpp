#include "bench/driver/Measure.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <thread>

#include <sys/utsname.h>

namespace nimbra::bench {

namespace {

std::string Today()
{
    const std::time_t now = std::time(nullptr);
    char text[16];
    std::strftime(text, sizeof text, "%Y-%m-%d", std::localtime(&now));
    return text;
}

std::string Machine()
{
    utsname name = {};
    uname(&name);
    std::string system = name.sysname;
    std::ifstream release("/etc/os-release");
    for (std::string line; std::getline(release, line);)
        if (line.rfind("PRETTY_NAME=\"", 0) == 0)
            system = line.substr(13, line.size() - 14);
    // What others do on the machine meanwhile says how far the figures can be believed.
    double load = 0;
    getloadavg(&load, 1);
    char loadText[32];
    std::snprintf(loadText, sizeof loadText, "%.1f", load);
    return std::to_string(std::thread::hardware_concurrency()) + " processors " + name.machine +
           ", " + system + ", load " + loadText + " at the start";
}

/// Measures everything, or the one part of that name.
Report Measure(const Plan &plan, const std::string &only)
{
    Report report;
    report.Date = Today();
    report.Machine = Machine();
    const std::pair<const char *, void (*)(const Plan &, Report *)> parts[] = {
        {"methods", MeasureMethods},
        {"requests", MeasureRequests},
        {"sessions", MeasureSessions},
        {"tables", MeasureTables}};
    for (const auto &[name, measure] : parts) {
        if (!only.empty() && only != name)
            continue;
        std::fprintf(stderr, "Measuring %s\n", name);
        measure(plan, &report);
    }
    return report;
}

int Main(int argc, char **argv)
{
    CLI::App app(
        "Measures the agent against the baseline, side by side, on sample panels that it lays\n"
        "out in place: to be run in a sandbox. The status is 0, too, when a line is beyond\n"
        "its bound.");
    app.set_help_flag("-h,--help", "Print this help and exit");
    bool isQuick = false;
    bool isTiny = false;
    bool asJson = false;
    std::string only;
    std::string directory;
    std::string document;
    auto *quick = app.add_flag("--quick", isQuick, "A minute of it: fewer rounds");
    app.add_flag("--tiny", isTiny, "Seconds of it: only shows that every line comes")
        ->excludes(quick);
    app.add_flag("--json", asJson, "Print JSON, not a table");
    auto *part = app.add_option("--only", only, "One part: methods, requests, sessions or tables")
                     ->check(CLI::IsMember({"methods", "requests", "sessions", "tables"}));
    app.add_option("--output", directory, "Write the figures into files in this directory");
    app.add_option("--update-document", document, "Put the figures into this document")
        ->excludes(part);
    CLI11_PARSE(app, argc, argv);

    const Plan plan = {.Agent = {"agent", NIMBRA_AGENT_PATH, 9000},
                       .Baseline = {"baseline", NIMBRA_BASELINE_PATH, 9001},
                       .Methods = NIMBRA_METHODS_PATH,
                       .CommandTool = NIMBRA_COMMAND_TOOL_PATH,
                       .Work = isTiny    ? kTiny
                               : isQuick ? kQuick
                                         : kFull};
    try {
        const Report report = Measure(plan, only);
        if (!directory.empty())
            report.Write(directory);
        if (!document.empty())
            report.UpdateDocument(document);
        std::puts((asJson ? report.AsJson().dump(2) : report.AsText()).c_str());
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbra-bench: %s\n", error.what());
        return 1;
    }
}

} // namespace

} // namespace nimbra::bench

int main(int argc, char **argv)
{
    return nimbra::bench::Main(argc, argv);
}
