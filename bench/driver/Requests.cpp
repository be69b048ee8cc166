#include "bench/driver/Bench.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <random>
#include <stdexcept>

namespace nimbra::bench {

namespace {

constexpr int kUsers = 1000;
constexpr Bound kCostBound{1.10, false};
constexpr Bound kListBound{0.9, true};

struct Request
{
    const char *Name;
    const char *Text;
    int Batch; ///< how many are sent at once, at the least
    bool IsChange;
};

constexpr Request kRequests[] = {
    {"Heartbeat?", "Heartbeat?\n", 1000, false},
    {"GetDoorInfo?", "GetDoorInfo?DoorNo=1\n", 30, false},
    {"GetUserInfoEx?", "GetUserInfoEx?\n", 30, false},
    {"AddUserInfo?",
     "AddUserInfo?FirstName=Ada&LastName=Bench&PhoneNumber=555-0100&Email=ada@example.com"
     "&Ada=1&ThreatLevel=2\n",
     5, true},
};

std::size_t CountLines(const std::string &text)
{
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

void MeasureCosts(const Plan &plan, Pair *pair, Report *report)
{
    for (const Request &request : kRequests) {
        const auto reset = [&request] {
            if (request.IsChange)
                ResetUsers(kUsers);
        };
        const std::size_t lines = CountLines(pair->CommonAnswer(request.Text, reset));
        Rounds rounds;
        pair->Run(plan.Work.RequestRounds, [&](bool isAgent, Station &station) {
            reset();
            rounds.Add(isAgent,
                       station.CostOf(request.Text, request.Batch * plan.Work.RequestScale, lines));
        });
        report->Figures.push_back(rounds.Take("Requests", request.Name, "us", kCostBound));
    }
}

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
    std::size_t found = 0;
    for (std::size_t count = 0; (count = fread(bytes.data(), 1, bytes.size(), pipe)) > 0;)
        found += CountLines(std::string(bytes.data(), count));
    if (pclose(pipe) != 0 || found != static_cast<std::size_t>(rows))
        throw std::runtime_error("sqlite3 has not printed the events");
    return rows / (Now() - begin);
}

void MeasureList(const Plan &plan, Pair *pair, Report *report)
{
    const int rows = plan.Work.ListEvents;
    const std::string request = "GetEventLogEx?Limit=" + std::to_string(rows) + "\n";
    const std::size_t lines = CountLines(pair->CommonAnswer(request, [] {}));
    if (lines != static_cast<std::size_t>(rows) + 1)
        throw std::runtime_error("not all events are listed");
    Rounds againstBaseline;
    Rounds againstShell;
    pair->Run(plan.Work.ListRounds, [&](bool isAgent, Station &station) {
        const double begin = Now();
        station.Asking.Flood(request, 1, lines);
        const double rate = rows / (Now() - begin);
        againstBaseline.Add(isAgent, rate);
        if (isAgent) {
            againstShell.Add(true, rate);
            againstShell.Add(false, ShellRate(rows));
        }
    });
    const std::string name = "GetEventLogEx?Limit=" + std::to_string(rows);
    report->Figures.push_back(againstBaseline.Take("Event list", name, "rows/s", kListBound));
    report->Figures.push_back(
        againstShell.Take("Event list", "the same, sqlite3 shell as baseline", "rows/s"));
}

void MeasureRoundTrips(const Plan &plan, Pair *pair, Report *report)
{
    constexpr int kBlock = 10;
    std::mt19937 random(1);
    // Long enough for the session to have gone back to its looking once a millisecond, and at any
    // place between two looks.
    std::uniform_real_distribution<double> pause(0.001, 0.003);
    std::array<std::vector<double>, 2> times;
    pair->Run(plan.Work.RoundTrips / kBlock, [&](bool isAgent, Station &station) {
        for (int i = 0; i < kBlock; ++i) {
            Sleep(pause(random));
            const double begin = Now();
            static_cast<void>(station.Asking.Ask("Heartbeat?\n"));
            times[isAgent ? 0 : 1].push_back((Now() - begin) * 1e6);
        }
    });
    for (const auto &[name, share] : {std::pair("p50", 0.50), std::pair("p99", 0.99)}) {
        const double agent = Quantile(times[0], share);
        const double baseline = Quantile(times[1], share);
        report->Figures.push_back({"Round trip",
                                   std::string("Heartbeat?, ") + name,
                                   "us",
                                   agent,
                                   baseline,
                                   agent / baseline,
                                   {}});
    }
}

} // namespace

void MeasureRequests(const Plan &plan, Report *report)
{
    LayOut(plan, plan.Work.ListEvents, kUsers);
    Pair pair(plan);
    MeasureCosts(plan, &pair, report);
    MeasureList(plan, &pair, report);
    MeasureRoundTrips(plan, &pair, report);
}

void MeasureTables(const Plan &plan, Report *report)
{
    constexpr Request kGrowing[] = {{"GetUserInfo?", "GetUserInfo?UserNo=50\n", 100, false},
                                    {"GetUserInfoEx?", "GetUserInfoEx?\n", 20, false},
                                    {"GetEventLogEx?", "GetEventLogEx?\n", 20, false},
                                    {"AddUserInfo?", kRequests[3].Text, 5, true}};
    for (const Request &request : kGrowing)
        report->Tables.push_back({request.Name, "us of processor time a request", {}});
    for (const int rows : plan.Work.TableRows) {
        LayOut(plan, rows, rows);
        Pair pair(plan);
        for (std::size_t i = 0; i < std::size(kGrowing); ++i) {
            const Request &request = kGrowing[i];
            const auto reset = [&request, rows] {
                if (request.IsChange)
                    ResetUsers(rows);
            };
            const std::size_t lines = CountLines(pair.CommonAnswer(request.Text, reset));
            Rounds rounds;
            pair.Run((plan.Work.RequestRounds + 1) / 2, [&](bool isAgent, Station &station) {
                reset();
                rounds.Add(isAgent, station.CostOf(request.Text,
                                                   request.Batch * plan.Work.RequestScale, lines));
            });
            report->Tables[i].Points.push_back({rows, rounds.Take("", request.Name, "us")});
        }
    }
}

} // namespace nimbra::bench
