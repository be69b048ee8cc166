// A fleet: panels with their agents, and one cloud server that is stopped and started again. Prints
// how often they try to connect, and when all of them are served again.

#include "simulator/fleet/FleetPanel.h"
#include "simulator/fleet/FleetServer.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <limits>
#include <list>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace nimbra::simulator {

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

/// A panel that was registering when the server was started again tries again after 30 seconds; one
/// whose client has disconnected keeps the session for 15.
constexpr seconds kLimit{60};

/// Long enough for a moment between two heartbeats.
constexpr seconds kNotes{4};

double SecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Throws std::runtime_error with what was waited for when it does not come in time.
void WaitFor(const std::string &what, const std::function<bool()> &condition)
{
    const Clock::time_point start = Clock::now();
    while (!condition()) {
        if (Clock::now() - start > kLimit)
            throw std::runtime_error("waited in vain: " + what);
        std::this_thread::sleep_for(milliseconds(50));
    }
}

void Require(bool condition, const std::string &what)
{
    if (!condition)
        throw std::runtime_error(what);
}

/// Sleeps until the middle of the clock's next second: the agents try again when a second begins.
void SleepToMiddleOfSecond()
{
    using std::chrono::system_clock;
    const auto second = std::chrono::time_point_cast<seconds>(system_clock::now());
    std::this_thread::sleep_until(second + milliseconds(1500));
}

/// What an agent holds.
struct Holding
{
    std::size_t Descriptors = std::numeric_limits<std::size_t>::max();
    std::size_t Threads = std::numeric_limits<std::size_t>::max();

    [[nodiscard]] static Holding Of(const FleetPanel &panel)
    {
        return {panel.Descriptors(), panel.Threads()};
    }
    void TakeIn(const Holding &other)
    {
        Descriptors = std::min(Descriptors, other.Descriptors);
        Threads = std::min(Threads, other.Threads);
    }
    /// An agent that has ended holds nothing, and is not at rest.
    [[nodiscard]] bool IsWithin(const Holding &rest) const
    {
        return Threads > 0 && Descriptors <= rest.Descriptors && Threads <= rest.Threads;
    }
};

class Fleet
{
public:
    Fleet(int panels, const fs::path &programs) : number_(panels)
    {
        for (int number = 1; number <= panels; ++number)
            panels_.emplace_back(number, programs);
        server_.Start();
    }

    void AwaitService(const char *when)
    {
        const Clock::time_point start = Clock::now();
        const auto all = static_cast<std::size_t>(number_);
        WaitFor("registrations", [&] { return server_.Registered() == all; });
        const double registered = SecondsSince(start);
        WaitFor("heartbeats", [&] { return server_.SendingHeartbeats() == all; });
        std::printf("%s: all %d panels have registered after %.1f s, all send heartbeats after "
                    "%.1f s\n",
                    when, number_, registered, SecondsSince(start));
    }

    void ShowRelays(const char *when)
    {
        const int answered = server_.Relay(number_, kLimit);
        std::printf("%s: %d of %d panels serve a session through the relay\n", when, answered,
                    number_);
        Require(answered == number_, "a panel serves no session through the relay");
    }

    /// Notes what the agents hold between two heartbeats.
    void NoteRest()
    {
        const Clock::time_point start = Clock::now();
        rest_.assign(panels_.size(), {});
        while (Clock::now() - start < kNotes) {
            auto rest = rest_.begin();
            for (const FleetPanel &panel : panels_)
                (rest++)->TakeIn(Holding::Of(panel));
            std::this_thread::sleep_for(milliseconds(100));
        }
    }

    /// Waits until no agent holds more than at rest.
    void AwaitRest(const char *when)
    {
        WaitFor("the end of the sessions", [this] {
            return std::equal(panels_.begin(), panels_.end(), rest_.begin(),
                              [](const FleetPanel &panel, const Holding &rest) {
                                  return Holding::Of(panel).IsWithin(rest);
                              });
        });
        std::size_t most = 0;
        for (const FleetPanel &panel : panels_)
            most = std::max(most, panel.ResidentKiB());
        std::printf("%s: every agent has its %zu descriptors and %zu threads, the largest %zu "
                    "KiB\n",
                    when, rest_.front().Descriptors, rest_.front().Threads, most);
        Require(largest_ == 0 || most < largest_ + NIMBRA_AGENT_MAY_GROW_KIB, "an agent has grown");
        largest_ = most;
    }

    void ShowHeartbeats(seconds duration)
    {
        const std::size_t beats = server_.Heartbeats();
        const std::uint64_t connections = Connections();
        const std::uint64_t bytes = Bytes();
        std::this_thread::sleep_for(duration);
        const auto beaten = static_cast<double>(server_.Heartbeats() - beats);
        const double perPanel = 1.0 / static_cast<double>(duration.count()) / number_;
        std::printf("server there: %.2f heartbeats and %.2f connections a second and panel, %.0f "
                    "bytes a heartbeat\n",
                    beaten * perPanel, static_cast<double>(Connections() - connections) * perPanel,
                    static_cast<double>(Bytes() - bytes) / beaten);
    }

    /// Stops the server for a time, and counts what the panels try meanwhile.
    void ShowAbsence(seconds duration)
    {
        server_.Stop();
        SleepToMiddleOfSecond();
        std::vector<std::uint64_t> before = EachConnections();
        const std::uint64_t first = Connections();
        const std::uint64_t bytes = Bytes();
        std::uint64_t mostOfPanel = 0;
        std::uint64_t mostOfFleet = 0;
        for (seconds second{0}; second < duration; ++second) {
            SleepToMiddleOfSecond();
            std::uint64_t all = 0;
            const std::vector<std::uint64_t> now = EachConnections();
            for (std::size_t i = 0; i < now.size(); ++i) {
                mostOfPanel = std::max(mostOfPanel, now[i] - before[i]);
                all += now[i] - before[i];
            }
            mostOfFleet = std::max(mostOfFleet, all);
            before = now;
        }
        const auto attempts = static_cast<double>(Connections() - first);
        const double mean = attempts / static_cast<double>(duration.count()) / number_;
        std::printf("server away for %d s: %.2f attempts a second and panel, at most %d; at most "
                    "%d of the fleet in a second; %.0f bytes an attempt\n",
                    static_cast<int>(duration.count()), mean, static_cast<int>(mostOfPanel),
                    static_cast<int>(mostOfFleet), static_cast<double>(Bytes() - bytes) / attempts);
        Require(mean > 0.5 && mean < 1.2, "attempts are not made once a second");
        Require(mostOfPanel <= 3, "a panel tries too often");
        server_.Start();
    }

    /// With an absence that was too short for ten failed heartbeats.
    void AwaitHeartbeats()
    {
        const Clock::time_point start = Clock::now();
        WaitFor("heartbeats", [this] {
            return server_.SendingHeartbeats() == static_cast<std::size_t>(number_);
        });
        std::printf("server back: all %d panels send heartbeats after %.1f s\n", number_,
                    SecondsSince(start));
    }

private:
    [[nodiscard]] std::vector<std::uint64_t> EachConnections() const
    {
        std::vector<std::uint64_t> each;
        for (const FleetPanel &panel : panels_)
            each.push_back(panel.Connections());
        return each;
    }
    [[nodiscard]] std::uint64_t Connections() const
    {
        std::uint64_t all = 0;
        for (const std::uint64_t connections : EachConnections())
            all += connections;
        return all;
    }
    [[nodiscard]] std::uint64_t Bytes() const
    {
        std::uint64_t all = 0;
        for (const FleetPanel &panel : panels_)
            all += panel.Bytes();
        return all;
    }

    int number_;
    std::list<FleetPanel> panels_;
    FleetServer server_;
    std::vector<Holding> rest_; ///< of each panel
    std::size_t largest_ = 0;
};

int Main(int argc, char **argv)
{
    CLI::App app(
        "Runs panels with their agents against one cloud server, which goes away and comes "
        "back,\nand prints how often they try to connect and when they are served again. "
        "Runs in\nnimbra-sandbox, as root. Fails if a panel stays without service or an "
        "agent keeps what it\nno longer needs.");
    int panels = 50;
    int away = 120;
    app.add_option("--panels", panels, "Number of panels")
        ->check(CLI::Range(1, kMostPanels))
        ->capture_default_str();
    app.add_option("--away", away, "Seconds without the server")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);

    // Ten failed heartbeats, each of which tries for 10 seconds, and the pauses between them.
    constexpr int kSecondsToRegister = 115;
    Fleet fleet(panels, fs::read_symlink("/proc/self/exe").parent_path());
    fleet.AwaitService("start");
    fleet.NoteRest();
    fleet.ShowRelays("start");
    fleet.AwaitRest("start");
    fleet.ShowHeartbeats(seconds(std::min(away, 30)));
    fleet.ShowAbsence(seconds(away));
    if (away >= kSecondsToRegister)
        fleet.AwaitService("server back");
    else
        fleet.AwaitHeartbeats();
    fleet.ShowRelays("server back");
    fleet.AwaitRest("server back");
    return 0;
}

} // namespace

} // namespace nimbra::simulator

int main(int argc, char **argv)
{
    try {
        return nimbra::simulator::Main(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbra-fleet: %s\n", error.what());
        return 1;
    }
}
