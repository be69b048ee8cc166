#include "bench/driver/Clock.h"
#include "bench/driver/Crowd.h"
#include "bench/driver/Panel.h"

#include <cstdlib>
#include <map>
#include <stdexcept>

namespace nimbra::bench {

namespace {

namespace fs = std::filesystem;

/// Until a server that listens has started all its threads.
constexpr double kSettlingSeconds = 2;

constexpr Bound kSessionMemory{Bound::Side::AtMost, 40, Bound::Subject::Agent};
constexpr Bound kProgramSize{Bound::Side::AtMost, 180, Bound::Subject::Agent};

/// What a server takes with a number of sessions.
struct Level
{
    Rounds Threads;
    Rounds Resident;
    Rounds Proportional;
    Rounds PrivateDirty;
};

struct Findings
{
    std::map<int, Level> Levels; ///< by the number of sessions
    Rounds Session;
};

void MeasureLife(const Plan &plan, Role role, Findings *findings)
{
    const ServerProgram &program = role == Role::Agent ? plan.Agent : plan.Baseline;
    const Server server(program);
    server.AwaitListening();
    Sleep(kSettlingSeconds);
    Crowd crowd(program.Port);
    double least = 0;
    for (const int count : plan.Work.MemorySessions) {
        crowd.GrowTo(static_cast<std::size_t>(count));
        crowd.AskAll("GetUserInfo?UserNo=1\n");
        const Memory memory = server.MemoryInUse();
        Level &level = findings->Levels[count];
        level.Threads.Add(role, static_cast<double>(server.Threads().size()));
        level.Resident.Add(role, memory.Resident);
        level.Proportional.Add(role, memory.Proportional);
        level.PrivateDirty.Add(role, memory.PrivateDirty);
        if (count == 0)
            least = memory.PrivateDirty;
        else if (count == plan.Work.MemorySessions.back())
            findings->Session.Add(role, (memory.PrivateDirty - least) / count);
    }
}

/// Size of a program without its symbols, in KiB.
double StrippedSize(const fs::path &program)
{
    const fs::path stripped = "/tmp/nimbra-bench-stripped";
    const std::string command = "strip -o " + stripped.string() + " '" + program.string() + "'";
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("strip has failed");
    const double size = static_cast<double>(fs::file_size(stripped)) / 1024;
    fs::remove(stripped);
    return size;
}

} // namespace

void MeasureMemory(const Plan &plan, Report *report)
{
    CreatePanel(plan, 1000, 1000);
    Findings findings;
    for (int turn = 0; turn < 2 * plan.Work.MemoryRounds; ++turn)
        MeasureLife(plan, RoleAt(turn), &findings);

    constexpr char kGroup[] = "Memory";
    auto &figures = report->Figures;
    for (const auto &[count, level] : findings.Levels) {
        const std::string sessions = std::to_string(count) + " sessions, ";
        figures.push_back(level.Threads.Take(kGroup, sessions + "threads", ""));
        figures.push_back(level.Resident.Take(kGroup, sessions + "resident", "KiB"));
        figures.push_back(level.Proportional.Take(kGroup, sessions + "proportional", "KiB"));
        figures.push_back(level.PrivateDirty.Take(kGroup, sessions + "private", "KiB"));
    }
    const std::string name =
        "a session of " + std::to_string(plan.Work.MemorySessions.back()) + ", private";
    figures.push_back(findings.Session.Take(kGroup, name, "KiB", kSessionMemory));
}

void MeasureSize(const Plan &plan, Report *report)
{
    Rounds size;
    size.Add(Role::Agent, StrippedSize(plan.Agent.Path));
    size.Add(Role::Reference, StrippedSize(plan.Baseline.Path));
    report->Figures.push_back(size.Take("Size", "stripped program", "KiB", kProgramSize));
}

} // namespace nimbra::bench
