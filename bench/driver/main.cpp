#include "bench/driver/Measure.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <sys/resource.h>
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

/// What other programs take of the machine: it says how far the figures can be trusted.
std::string Load()
{
    double load = 0;
    getloadavg(&load, 1);
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", load);
    return text;
}

std::string Machine()
{
    utsname name = {};
    uname(&name);
    std::string system = name.sysname;
    constexpr std::string_view kKey = "PRETTY_NAME=\"";
    std::ifstream release("/etc/os-release");
    for (std::string line; std::getline(release, line);)
        if (line.starts_with(kKey))
            system = line.substr(kKey.size(), line.size() - kKey.size() - 1);
    return std::to_string(std::thread::hardware_concurrency()) + " processors " + name.machine +
           ", " + system;
}

/// A part of the measurement, as --only names it.
struct Part
{
    const char *Name;
    void (*Measure)(const Plan &, Report *);
};

constexpr Part kParts[] = {
    {"methods", MeasureMethods}, {"requests", MeasureRequests}, {"events", MeasureEvents},
    {"latency", MeasureLatency}, {"idle", MeasureIdle},         {"memory", MeasureMemory},
    {"size", MeasureSize},       {"sessions", MeasureSessions}, {"tables", MeasureTables}};

/// Measures everything, or the parts with these names.
Report Measure(const Plan &plan, const std::vector<std::string> &only)
{
    Report report;
    report.Date = Today();
    report.Machine = Machine() + ", load " + Load() + " at the start";
    for (const Part &part : kParts) {
        if (!only.empty() && std::find(only.begin(), only.end(), part.Name) == only.end())
            continue;
        std::fprintf(stderr, "Measuring %s\n", part.Name);
        part.Measure(plan, &report);
    }
    report.Machine += " and " + Load() + " at the end";
    return report;
}

/// A thousand sessions take more descriptors than a process has by default; the servers inherit
/// the limit.
void RaiseDescriptorLimit()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 8192);
    setrlimit(RLIMIT_NOFILE, &limit);
}

Plan PlanOf(const Effort &work)
{
    // Both of the others keep nothing on disk.
    return {.Agent = {NIMBRA_AGENT_PATH, {}, 9000},
            .Baseline = {NIMBRA_BASELINE_PATH, {"9001"}, 9001},
            .Redis = {"/usr/bin/redis-server",
                      {"--port", "9002", "--bind", "127.0.0.1", "--save", "", "--appendonly", "no",
                       "--dir", "/tmp"},
                      9002},
            .Mosquitto = {"/usr/sbin/mosquitto",
                          {"-c", "/tmp/nimbra-bench-mosquitto.conf"},
                          9003,
                          ServerProgram::Errors::Drop},
            .Methods = NIMBRA_METHODS_PATH,
            .CommandTool = NIMBRA_COMMAND_TOOL_PATH,
            .CloudHost = NIMBRA_CLOUD_HOST,
            .Work = work};
}

int Main(int argc, char **argv)
{
    CLI::App app(
        "Measures the agent against a baseline in C, Redis and Mosquitto, on sample panels that\n"
        "it creates in the panel's own paths: to be run in a sandbox.");
    app.set_help_flag("-h,--help", "Print this help and exit");
    bool isQuick = false;
    bool isTiny = false;
    bool asJson = false;
    bool isCheck = false;
    std::vector<std::string> only;
    std::string directory;
    std::string document;
    std::vector<std::string> names;
    for (const Part &part : kParts)
        names.emplace_back(part.Name);
    auto *quick = app.add_flag("--quick", isQuick, "Fewer rounds, more noise");
    app.add_flag("--tiny", isTiny, "The fewest rounds: only shows that every line is filled")
        ->excludes(quick);
    app.add_flag("--json", asJson, "Print JSON, not a table");
    app.add_flag("--check", isCheck, "Exit with 2 when a bound does not hold");
    auto *parts = app.add_option("--only", only, "Measure only these parts, separated by commas")
                      ->delimiter(',')
                      ->check(CLI::IsMember(names));
    app.add_option("--output", directory, "Write the figures into files in this directory");
    app.add_option("--update-document", document, "Put the figures into this document")
        ->excludes(parts);
    CLI11_PARSE(app, argc, argv);

    const Effort work = isTiny ? TinyEffort() : isQuick ? QuickEffort() : FullEffort();
    try {
        RaiseDescriptorLimit();
        const Report report = Measure(PlanOf(work), only);
        if (!directory.empty())
            report.Write(directory);
        if (!document.empty())
            report.UpdateDocument(document);
        std::puts((asJson ? report.AsJson().dump(2) : report.AsText()).c_str());
        return isCheck && report.CountBroken() > 0 ? 2 : 0;
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
