#include "bench/driver/Pair.h"
#include "bench/driver/Panel.h"

#include <algorithm>
#include <iterator>

namespace nimbra::bench {

namespace {

constexpr int kUsers = 1000;
constexpr double kHighestCost = 1.10;
// The agent waits for a line with a poll; the baseline blocks in its first recv.
constexpr double kHighestCostOfHeartbeat = 1.25;

struct Request
{
    const char *Name;
    const char *Text;
    int Batch; ///< the least number that is sent at once
    bool IsChange;
    double HighestCost = kHighestCost; ///< the bound of the ratio to the baseline
};

constexpr Request kRequests[] = {
    {"Heartbeat?", "Heartbeat?\n", 1000, false, kHighestCostOfHeartbeat},
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
        pair->Run(plan.Work.RequestRounds, [&](Role role, Station &station) {
            reset();
            rounds.Add(role,
                       station.CostOf(request.Text, request.Batch * plan.Work.RequestScale, lines));
        });
        const Bound bound{Bound::Side::AtMost, request.HighestCost};
        report->Figures.push_back(rounds.Take("Requests", request.Name, "us", bound));
    }
}

} // namespace

void MeasureRequests(const Plan &plan, Report *report)
{
    CreatePanel(plan, 1000, kUsers);
    Pair pair(plan);
    MeasureCosts(plan, &pair, report);
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
        CreatePanel(plan, rows, rows);
        Pair pair(plan);
        for (std::size_t i = 0; i < std::size(kGrowing); ++i) {
            const Request &request = kGrowing[i];
            const auto reset = [&request, rows] {
                if (request.IsChange)
                    ResetUsers(rows);
            };
            const std::size_t lines = CountLines(pair.CommonAnswer(request.Text, reset));
            Rounds rounds;
            pair.Run((plan.Work.RequestRounds + 1) / 2, [&](Role role, Station &station) {
                reset();
                rounds.Add(role, station.CostOf(request.Text,
                                                request.Batch * plan.Work.RequestScale, lines));
            });
            report->Tables[i].Points.push_back({rows, rounds.Take("", request.Name, "us")});
        }
    }
}

} // namespace nimbra::bench
