#include "endurance/Run.h"
#include "simulator/cloud/CloudServer.h"
#include "simulator/panel/Sqlite.h"
#include "support/DiscoveryProbe.h"

#include <exception>
#include <set>

namespace nimbra::endurance {

namespace {

using simulator::CloudServer;
using simulator::Reply;
using std::chrono::seconds;

/// A cloud server that first works, then does not answer, answers badly or refuses, and then stops.
void FlappingCloud(Run &run, unsigned /*number*/)
{
    const CloudServer::Answer manners[] = {
        [](const std::string &) { return Reply{}; },
        [](const std::string &) {
            return Reply{"", {}, true};
        },
        [](const std::string &) { return Reply{"HeartBeatResponse?Result=3\n"}; },
        [](const std::string &) { return Reply{"Nonsense\n"}; },
    };
    for (std::size_t turn = 0; !run.IsOver(); ++turn) {
        {
            CloudServer server;
            run.Pause(seconds(8));
            server.SetAnswer(manners[turn % std::size(manners)]);
            run.Pause(seconds(4));
            run.Count("heartbeats", server.Count("HeartBeat?"));
            run.Count("registrations", server.Count("SetDeviceInfo?"));
        }
        run.Count("stops of the cloud server");
        run.Pause(seconds(3));
    }
}

/// Bursts of valid and invalid probes. Each valid one must be answered.
void ProbeBursts(Run &run, unsigned /*number*/)
{
    constexpr int kProbes = 40;
    const test::DiscoveryProbe probe;
    for (int burst = 1; !run.IsOver(); ++burst) {
        std::set<std::string> missing;
        for (int i = 1; i <= kProbes; ++i) {
            const std::string key = std::to_string(burst % 10000 * 100 + i);
            missing.insert(key);
            probe.Send("Scan?Key=" + key + "\n");
            probe.Send("Scan?Key=no\n");
            probe.Send("junk\n");
        }
        while (!missing.empty()) {
            const std::string answer = probe.Receive().value_or("");
            if (answer.empty())
                break;
            const std::size_t begin = answer.find("&Key=") + 5;
            missing.erase(answer.substr(begin, answer.find('&', begin) - begin));
        }
        run.Check(missing.empty(), std::to_string(missing.size()) + " probes without an answer");
        run.Count("probes answered", kProbes - missing.size());
        run.Pause(seconds(4));
    }
}

/// Runs statements as one transaction. One that fails, because a reader does not end in time, is
/// rolled back: otherwise the database would stay locked.
void RunTransaction(panel::SqliteFile &file, const std::string &sql)
{
    file.Run("BEGIN IMMEDIATE");
    try {
        file.Run(sql + "; COMMIT");
    } catch (const std::exception &) {
        file.Run("ROLLBACK");
        throw;
    }
}

/// The panel's own software: writes both databases and empties the journal.
void PanelSoftware(Run &run, unsigned /*number*/)
{
    panel::SqliteFile main(run.Panel().Paths().MainDatabase);
    panel::SqliteFile log(run.Panel().Paths().LogDatabase);
    for (unsigned turn = 1; !run.IsOver(); ++turn) {
        try {
            RunTransaction(main,
                           "UPDATE RelayStatus SET RelayOn=IFNULL(RelayOn, 0) + 1 WHERE Type=1; "
                           "UPDATE WebUser SET Name='Turn " +
                               std::to_string(turn) + "' WHERE ID='nobody'");
            RunTransaction(log, "INSERT INTO Log (Date, EventCode) VALUES (" +
                                    std::to_string(turn) +
                                    ", 10101); DELETE FROM Log WHERE No > 1000");
            if (turn % 100 == 0)
                main.Run("DELETE FROM DBQueryInfo");
            run.Count("transactions of the panel", 2);
        } catch (const std::exception &error) {
            run.Check(false, error.what());
        }
        run.Pause(milliseconds(100));
    }
}

} // namespace

const std::vector<Role> &Environment()
{
    static const std::vector<Role> environment = {
        {"cloud", FlappingCloud, 1}, {"discovery", ProbeBursts, 1}, {"panel", PanelSoftware, 1}};
    return environment;
}

} // namespace nimbra::endurance
