#include "endurance/Run.h"
#include "simulator/cloud/CloudServer.h"
#include "simulator/panel/SampleData.h"

#include <exception>
#include <iterator>
#include <optional>

namespace nimbra::endurance {

namespace {

using std::chrono::seconds;
using test::ManagementClient;

constexpr char kNoAnswer[] = "(no answer)";

/// A random number below `limit`.
unsigned Below(std::minstd_rand &random, unsigned limit)
{
    return static_cast<unsigned>(random() >> 4U) % limit;
}

/// One client's session: each response is timed and checked.
class Scenario
{
public:
    /// Connects and sends Hello. A burst of clients fills the listener's queue of ten. With SYN
    /// cookies the kernel then resets a connection that sends before it is accepted, and TCP
    /// retries at growing intervals. So a client without a response within some seconds connects
    /// again.
    Scenario(Run &run, unsigned number) : run_(run), number_(number)
    {
        const test::Stopwatch watch;
        for (client_.emplace(); client_->Ask("Hello?", seconds(4)) == kNoAnswer;
             client_.emplace()) {
            if (watch.Seconds() > 60) {
                run_.Check(false, "no response to Hello?");
                return;
            }
            run_.Count("connections tried again");
        }
    }

    [[nodiscard]] ManagementClient &Client() { return *client_; }

    std::string Ask(const std::string &request)
    {
        const test::Stopwatch watch;
        std::string answer = client_->Ask(request);
        run_.Took(request, watch.Seconds());
        return answer;
    }

    void Expect(const std::string &request, const std::string &expected)
    {
        run_.CheckEqual(Ask(request), expected, request);
    }

    /// Sends a request whose response is only Result=0.
    void ExpectDone(const std::string &request)
    {
        Expect(request, request.substr(0, request.find('?')) + "Response?Result=0");
    }

    void ExpectGreeting()
    {
        const std::string answer = Ask("Hello?");
        run_.Check(answer.rfind("HelloResponse?Result=0&Key=", 0) == 0, "Hello? -> " + answer);
    }

    void LogIn() { ExpectDone("Login?Username=admin&Password=admin1234"); }

    /// Sends a request whose response never changes.
    void ExpectKnown(unsigned choice)
    {
        const auto known =
            std::next(run_.Known().begin(), choice % static_cast<unsigned>(run_.Known().size()));
        const test::Stopwatch watch;
        const std::vector<std::string> answer = client_->AskList(known->first);
        run_.Took(known->first, watch.Seconds());
        run_.Check(answer == known->second, known->first + " -> " + answer[0]);
    }

    /// Changes the client's own user and reads it.
    void ChangeUser(unsigned round)
    {
        const std::string user = std::to_string(OwnUser(number_));
        const std::string name = "Name" + std::to_string(round);
        ExpectDone("SetUserInfo?UserNo=" + user + "&LastName=" + name);
        Expect("GetUserInfo?UserNo=" + user,
               "GetUserInfoResponse?Result=0&UserNo=" + user + "&FirstName=&MiddleName=&LastName=" +
                   name + "&PhoneNumber=&CellPhone=&Email=&Ada=0&Exempt=0&ThreatLevel=0");
    }

    /// Adds a user, searches for it and deletes it.
    void AddUser(unsigned round)
    {
        const std::string name = "C" + std::to_string(number_) + "R" + std::to_string(round) + "E";
        ExpectDone("AddUserInfo?LastName=" + name);
        const std::vector<std::string> found = client_->AskList("GetUserInfoEx?LastName=" + name);
        const bool isOne = found.size() == 2 && found[1].rfind("UserNo=", 0) == 0;
        run_.Check(isOne, name + " is not found once: " + found[0]);
        if (isOne)
            ExpectDone("DelUserInfo?" + found[1].substr(0, found[1].find('&')));
    }

    /// Uploads a user image of random size and downloads it.
    void ExchangeImage(std::minstd_rand &random)
    {
        const std::string user = std::to_string(OwnUser(number_));
        const std::string name = "endurance" + user + ".jpg";
        std::string bytes(1 + Below(random, 20000), '\0');
        for (char &byte : bytes)
            byte = static_cast<char>(random() >> 8U);
        client_->SendLine("SetUserImage?UserNo=" + user + "&FileName=" + name +
                          "&Size=" + std::to_string(bytes.size()));
        client_->Send(bytes);
        run_.CheckEqual(client_->ReadLine().value_or(kNoAnswer), "SetUserImageResponse?Result=0",
                        "SetUserImage?");
        Expect("GetUserImage?UserNo=" + user, "GetUserImageResponse?Result=0&FileName=" + name +
                                                  "&Size=" + std::to_string(bytes.size()));
        run_.Check(client_->ReadBytes(bytes.size()) == bytes, name + " differs after the download");
    }

private:
    Run &run_;
    unsigned number_;
    std::optional<ManagementClient> client_;
};

/// Logs in, then reads and changes all kinds of data for some time.
void Good(Run &run, unsigned number)
{
    std::minstd_rand random(number + 1);
    for (unsigned round = 1; !run.IsOver();) {
        Scenario scenario(run, number);
        scenario.LogIn();
        for (unsigned requests = 10 + Below(random, 40); requests > 0 && !run.IsOver();
             --requests, ++round) {
            switch (Below(random, 10)) {
            case 0:
                scenario.ChangeUser(round);
                break;
            case 1:
                scenario.AddUser(round);
                break;
            case 2:
                scenario.ExchangeImage(random);
                break;
            case 3:
                scenario.ExpectDone("SetAuxOutput?Port=" + std::to_string(1 + number % 4) +
                                    "&Control=" + std::to_string(round % 2));
                break;
            case 4:
                scenario.ExpectDone("Heartbeat?");
                break;
            default:
                scenario.ExpectKnown(Below(random, 1000));
            }
            run.Pause(milliseconds(100 + Below(random, 900)));
        }
        run.Count("sessions of good clients");
    }
}

/// Sends lines and receives responses in pieces, with pauses.
void Slow(Run &run, unsigned number)
{
    Scenario scenario(run, number);
    scenario.LogIn();
    while (!run.IsOver()) {
        // A line has at least 4 seconds after the one before it.
        scenario.ExpectDone("Heartbeat?");
        for (const char *piece : {"GetThr", "eatLe", "vel", "?\n"}) {
            scenario.Client().Send(piece);
            run.Pause(milliseconds(300));
        }
        run.CheckEqual(scenario.Client().ReadLine().value_or(kNoAnswer),
                       run.Known().at("GetThreatLevel?")[0], "GetThreatLevel? in pieces");
        scenario.Client().SendLine("GetEventCodeEx?");
        for (const std::string &row : run.Known().at("GetEventCodeEx?")) {
            run.CheckEqual(scenario.Client().ReadLine().value_or(kNoAnswer), row,
                           "row read slowly");
            run.Pause(milliseconds(60));
        }
        run.Count("slow exchanges");
    }
}

/// Sends half a line, which times out, and goes on.
void HalfLine(Run &run, unsigned number)
{
    Scenario scenario(run, number);
    scenario.LogIn();
    while (!run.IsOver()) {
        scenario.Client().Send("GetThreat");
        run.Pause(seconds(6));
        if (run.IsOver())
            return;
        scenario.Client().SendLine("Level?");
        // If the agent had kept the half, the first response would be that to the whole line.
        scenario.ExpectDone("Heartbeat?");
        run.Count("halves of lines lost");
    }
}

/// Requests a list and resets the connection instead of reading it.
void Resetting(Run &run, unsigned number)
{
    while (!run.IsOver()) {
        Scenario scenario(run, number);
        scenario.LogIn();
        scenario.Client().SendLine("GetEventLogEx?Limit=50");
        scenario.Client().Reset();
        run.Count("connections reset");
        run.Pause(seconds(2));
    }
}

/// Sends invalid input and checks that valid requests are still answered.
void Hostile(Run &run, unsigned number)
{
    std::minstd_rand random(number + 1000);
    while (!run.IsOver()) {
        Scenario scenario(run, number);
        for (unsigned lines = 20; lines > 0 && !run.IsOver(); --lines) {
            std::string junk(Below(random, 3000), '\0');
            for (char &byte : junk)
                byte = static_cast<char>(random() >> 8U);
            // The input must not hold a command by chance.
            for (char &byte : junk)
                byte = byte == '?' ? '!' : byte;
            scenario.Client().Send(junk + "\n");
            scenario.Expect("Login?Username=admin' OR '1'='1&Password=$(reboot)",
                            "LoginResponse?Result=1");
            scenario.ExpectGreeting();
            run.Count("hostile lines", 2);
            run.Pause(milliseconds(300));
        }
    }
}

/// Connects and stays silent until the agent closes the connection.
void Idle(Run &run, unsigned number)
{
    while (!run.IsOver()) {
        Scenario scenario(run, number);
        const test::Stopwatch watch;
        while (!run.IsOver() && !scenario.Client().IsClosedByPeer(milliseconds(100)) &&
               watch.Seconds() < 60)
            continue;
        if (run.IsOver())
            return;
        // The limit is in whole seconds of the clock, from the start of the session, which may be
        // up to a second later than this client's.
        run.Check(watch.Seconds() > 9 && watch.Seconds() < 60,
                  "a silent session ended after " + std::to_string(watch.Seconds()) + " s");
        run.Count("silent sessions ended");
    }
}

/// Connects through the cloud server while it runs. Its responses must be correct.
void Remote(Run &run, unsigned /*number*/)
{
    while (!run.IsOver()) {
        try {
            ManagementClient client("127.0.0.1", simulator::CloudServer::Ports().Client,
                                    seconds(1));
            std::string answer = client.Login("admin", "admin1234");
            for (unsigned round = 0; answer != kNoAnswer && round < 8 && !run.IsOver(); ++round) {
                run.Check(answer == "LoginResponse?Result=0" ||
                              answer == run.Known().at("GetThreatLevel?")[0],
                          "remotely -> " + answer);
                run.Count("answers to remote clients");
                run.Pause(seconds(1));
                answer = client.Ask("GetThreatLevel?");
            }
        } catch (const std::exception &) {
            run.Count("remote clients without a server");
        }
        run.Pause(seconds(1));
    }
}

} // namespace

const std::vector<Role> &Clients()
{
    static const std::vector<Role> clients = {
        {"good", Good, 22},          {"slow", Slow, 5},       {"half-line", HalfLine, 5},
        {"resetting", Resetting, 6}, {"hostile", Hostile, 5}, {"idle", Idle, 4},
        {"remote", Remote, 3}};
    return clients;
}

} // namespace nimbra::endurance
