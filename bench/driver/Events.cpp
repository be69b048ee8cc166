#include "bench/driver/Clock.h"
#include "bench/driver/Pair.h"
#include "bench/driver/Panel.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>

namespace nimbra::bench {

namespace {

constexpr char kGroup[] = "Event list";
constexpr int kUsers = 1000;
constexpr Bound kAgainstBaseline{Bound::Side::AtLeast, 0.90};
constexpr Bound kAgainstShell{Bound::Side::AtLeast, 1.00};

/// Rows per second that the sqlite3 shell prints into a pipe for the statement of the event list.
double ShellRate(int rows)
{
    const std::string command =
        "sqlite3 -readonly /tmp/NimbraDB/NimbraLog.db "
        "\"ATTACH DATABASE '/tmp/NimbraDB/Nimbra.db' AS Nimbra; "
        "SELECT A.No, IFNULL(A.Date, 0), IFNULL(A.Type, 0), IFNULL(A.Port, 0), "
        "IFNULL(A.DeviceName, ''), IFNULL(A.EventCode, 0), IFNULL(B.Name, ''), "
        "IFNULL(A.CardNo, 0), IFNULL(A.UserNo, 0), IFNULL(A.UserName, ''), IFNULL(A.Res1, 0) "
        "FROM Log AS A JOIN Nimbra.EventCode AS B ON A.EventCode=B.EventCode "
        "ORDER BY A.No DESC LIMIT " +
        std::to_string(rows) + "\"";
    const double begin = Now();
    FILE *const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        throw std::runtime_error("sqlite3 cannot be run");
    std::array<char, 65536> bytes;
    std::ptrdiff_t found = 0;
    for (std::size_t count = 0; (count = fread(bytes.data(), 1, bytes.size(), pipe)) > 0;)
        found += std::count(bytes.data(), bytes.data() + count, '\n');
    if (pclose(pipe) != 0 || found != rows)
        throw std::runtime_error("sqlite3 has not printed the events");
    return rows / (Now() - begin);
}

} // namespace

void MeasureEvents(const Plan &plan, Report *report)
{
    const int rows = plan.Work.ListEvents;
    const std::string name = "GetEventLogEx?Limit=" + std::to_string(rows);
    const std::string request = name + "\n";
    CreatePanel(plan, rows, kUsers);
    Pair pair(plan);
    const std::string answer = pair.CommonAnswer(request, [] {});
    const auto lines = static_cast<std::size_t>(std::count(answer.begin(), answer.end(), '\n'));
    if (lines != static_cast<std::size_t>(rows) + 1)
        throw std::runtime_error("not all events are listed");
    Rounds againstBaseline;
    Rounds againstShell;
    pair.Run(plan.Work.ListRounds, [&](Role role, Station &station) {
        const double begin = Now();
        station.Asking.Flood(request, 1, lines);
        const double rate = rows / (Now() - begin);
        againstBaseline.Add(role, rate);
        if (role == Role::Agent) {
            againstShell.Add(Role::Agent, rate);
            againstShell.Add(Role::Reference, ShellRate(rows));
        }
    });
    report->Figures.push_back(
        againstBaseline.Take(kGroup, name + ", baseline", "rows/s", kAgainstBaseline));
    report->Figures.push_back(
        againstShell.Take(kGroup, name + ", sqlite3 shell", "rows/s", kAgainstShell));
}

} // namespace nimbra::bench
