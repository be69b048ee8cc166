// nimbractl and events as they arrive: following across a lost connection, times, watching doors.

#include "support/Agent.h"
#include "support/FakePanel.h"
#include "support/Files.h"
#include "support/NimbractlTest.h"
#include "support/Terminal.h"
#include "support/TestPanel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <functional>
#include <numeric>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace nimbra::test {

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

/// Adds events of a code to the log, which is the panel's own.
void AddEvents(int first, int last)
{
    for (int number = first; number <= last; ++number)
        TestPanel::Run(panel::PanelPaths("/").LogDatabase,
                       "INSERT INTO Log (No, Date, Type, Port, DeviceName, EventCode) VALUES (" +
                           std::to_string(number) + ", " + std::to_string(std::time(nullptr)) +
                           ", 2, 1, 'Front Entrance', 10001)");
}

/// The numbers of the events in lines of JSON.
std::vector<int> Numbers(const std::string &lines)
{
    std::vector<int> numbers;
    std::istringstream input(lines);
    for (std::string line; std::getline(input, line);)
        numbers.push_back(nlohmann::json::parse(line).value("EventNo", 0));
    return numbers;
}

/// nimbractl with its output in /tmp/followed and its errors in /tmp/errors, in a thread.
class Follower
{
public:
    explicit Follower(const std::vector<std::string> &arguments)
    {
        std::vector<std::string> command = {"sh", "-c",
                                            "exec \"$@\" > /tmp/followed 2> /tmp/errors", "sh"};
        const std::vector<std::string> ctl = CtlCommand(arguments);
        command.insert(command.end(), ctl.begin(), ctl.end());
        thread_ = std::thread([this, command] { status_ = RunProgram(command).Status; });
    }
    ~Follower() { static_cast<void>(WaitForExit()); }
    Follower(const Follower &) = delete;
    Follower &operator=(const Follower &) = delete;

    [[nodiscard]] int WaitForExit()
    {
        if (thread_.joinable())
            thread_.join();
        return status_;
    }

private:
    std::thread thread_;
    int status_ = -1;
};

TEST(NimbractlFollow, NeitherMissesNorRepeatsEventsAcrossALostConnection)
{
    const TestPanel panel;
    std::optional<Agent> agent(std::in_place);
    AddEvents(1001, 1005);
    Follower follower({"events", "follow", "--after", "1000", "--no-logins", "--count", "60",
                       "--interval", "0.1", "-o", "jsonl"});
    EXPECT_TRUE(
        WaitUntil([] { return ReadFile("/tmp/followed").find("1005") != std::string::npos; }));
    std::thread producer([] {
        for (int number = 1101; number <= 1120; ++number) {
            AddEvents(number, number);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    agent->Signal(SIGKILL);
    EXPECT_EQ(agent->WaitForExit(), -SIGKILL);
    agent.reset();
    producer.join();
    EXPECT_TRUE(WaitUntil(
        [] { return ReadFile("/tmp/errors").find("Trying again.") != std::string::npos; }));
    AddEvents(1201, 1220);
    agent.emplace();
    EXPECT_TRUE(WaitUntil([] {
        return ReadFile("/tmp/errors").find("The panel responds again.") != std::string::npos;
    }));
    AddEvents(1301, 1315);
    EXPECT_EQ(follower.WaitForExit(), 0);
    std::vector<int> expected;
    for (const auto &[first, last] :
         {std::pair{1001, 1005}, {1101, 1120}, {1201, 1220}, {1301, 1315}})
        for (int number = first; number <= last; ++number)
            expected.push_back(number);
    // Logins of the follower have numbers between these.
    EXPECT_EQ(Numbers(ReadFile("/tmp/followed")), expected);
}

/// The value behind a key of a request; 0 without one.
int ValueOf(const std::string &line, const std::string &key)
{
    const std::size_t at = line.find(key + "=");
    return at == std::string::npos ? 0 : std::stoi(line.substr(at + key.size() + 1));
}

/// A panel with events 1 to `newest`, newest first, and a test that refuses some of the requests.
/// The test looks at `asked`, the number of requests for events so far, and may change `newest`.
class EventPanel
{
public:
    using Refuses = std::function<bool(const std::string &line, int asked, int *newest)>;

    EventPanel(int newest, Refuses refuses)
        : newest_(newest), refuses_(std::move(refuses)), panel_([this](const std::string &line) {
              return line.rfind("GetEventLogEx?", 0) == 0 ? Answer(line) : "";
          })
    {}

    /// Follows the events until `count` are written; returns their numbers and the errors.
    [[nodiscard]] std::pair<std::vector<int>, std::string> Follow(int count) const
    {
        Follower follower({"--port", std::to_string(panel_.Port()), "events", "follow", "--count",
                           std::to_string(count), "--interval", "0.1", "-o", "jsonl"});
        EXPECT_EQ(follower.WaitForExit(), 0);
        return {Numbers(ReadFile("/tmp/followed")), ReadFile("/tmp/errors")};
    }

private:
    std::string Answer(const std::string &line)
    {
        if (refuses_(line, asked_++, &newest_))
            return "GetEventLogExResponse?Result=1\n";
        const int offset = ValueOf(line, "Offset");
        const int count = std::min(ValueOf(line, "Limit"), newest_ - offset);
        if (count < 1)
            return "GetEventLogExResponse?Result=1\n";
        std::string answer =
            "GetEventLogExResponse?Result=0&Total=100000&Offset=" + std::to_string(offset) +
            "&Count=" + std::to_string(count) + "\n";
        for (int i = 0; i < count; ++i)
            answer += "EventNo=" + std::to_string(newest_ - offset - i) + "\n";
        return answer;
    }

    int newest_;
    int asked_ = 0;
    Refuses refuses_;
    FakePanel panel_;
};

std::vector<int> Range(int first, int last)
{
    std::vector<int> numbers(static_cast<std::size_t>(last - first + 1));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

TEST(NimbractlFollow, ReadsEventsAgainWhenALaterPageFails)
{
    std::atomic<int> refused = 0; // the panel has a thread of its own
    const EventPanel panel(100, [&refused](const std::string &line, int asked, int *newest) {
        if (asked == 1)
            *newest = 160;
        return ValueOf(line, "Offset") > 30 && ++refused == 1;
    });
    const auto &[numbers, errors] = panel.Follow(60);
    EXPECT_EQ(numbers, Range(101, 160));
    EXPECT_EQ(refused, 2);
    EXPECT_THAT(errors, HasSubstr("The panel does not return the list. Trying again."));
}

TEST(NimbractlFollow, BeginsBehindNewestEventWhenTheLogIsLockedAtFirst)
{
    const EventPanel panel(100, [](const std::string &, int asked, int *newest) {
        *newest += asked == 3 ? 2 : 0;
        return asked < 2;
    });
    const auto &[numbers, errors] = panel.Follow(2);
    EXPECT_EQ(numbers, Range(101, 102));
    EXPECT_THAT(errors, HasSubstr("The panel does not return the list. Trying again."));
}

TEST(NimbractlFollow, BeginsAnewWhenTheLogDoes)
{
    const EventPanel panel(100, [](const std::string &, int asked, int *newest) {
        if (asked == 1)
            *newest = 101;
        if (asked == 2)
            *newest = 3;
        return false;
    });
    const auto &[numbers, errors] = panel.Follow(4);
    EXPECT_EQ(numbers, (std::vector<int>{101, 1, 2, 3}));
    EXPECT_THAT(errors, HasSubstr("The event log begins anew."));
}

using NimbractlEvents = NimbractlTest;

TEST_F(NimbractlEvents, FollowCountsOnlyShownEventsAsPast)
{
    AddEvents(1001, 1003);
    const ProgramResult result =
        RunCtl({"events", "follow", "--no-logins", "--last", "3", "--count", "3", "-o", "jsonl"});
    EXPECT_EQ(result.Status, 0);
    EXPECT_EQ(Numbers(result.Output), Range(1001, 1003));
}

TEST_F(NimbractlEvents, FollowBeginsAfterAKnownEventOldestFirst)
{
    const ProgramResult result =
        RunCtl({"events", "follow", "--after", "55", "--count", "4", "-o", "jsonl"});
    EXPECT_EQ(result.Status, 0);
    EXPECT_EQ(Numbers(result.Output), (std::vector<int>{56, 57, 58, 59}));
    ExpectCtlFails({"events", "follow", "--after", "55", "--last", "4"}, 2, "--last");
}

TEST_F(NimbractlEvents, LoginsAreLeftOutAndTheLimitCountsWhatIsShown)
{
    const nlohmann::json some =
        CtlJson({"events", "list", "--no-logins", "--limit", "5", "--offset", "1"});
    ASSERT_EQ(some.size(), 5U);
    const std::vector<Row> expected =
        TestPanel::Rows(panel::PanelPaths("/").LogDatabase,
                        "SELECT No FROM Log WHERE EventCode<>15107 ORDER BY No DESC LIMIT 5 "
                        "OFFSET 1");
    EXPECT_EQ(RowsOf(some, {"EventNo"}), expected);
    ExpectCtlFails({"events", "list", "--no-logins", "--code", "15107"}, 1, "no such events");
}

TEST_F(NimbractlEvents, TimesAreReadInSeveralForms)
{
    const auto numbers = [](std::vector<std::string> range) {
        range.insert(range.begin(),
                     {"events", "list", "--no-logins", "--fields", "EventNo", "-o", "csv"});
        return RunCtl(range).Output;
    };
    AddEvents(2001, 2001);
    const std::string iso =
        numbers({"--from", "2026-01-01T01:30:00Z", "--to", "2026-01-01T01:36Z"});
    EXPECT_EQ(iso, "EventNo\n59\n58\n57\n56\n");
    EXPECT_EQ(iso, numbers({"--from", "2026-01-01 01:30", "--to", "2026-01-01 01:36:00"}));
    for (const char *from : {"today", "-1h", "-5m", "-1d", "yesterday"})
        EXPECT_EQ(numbers({"--from", from}), "EventNo\n2001\n") << from;
    ExpectCtlFails({"events", "list", "--from", "2026-02-01", "--to", "2026-01-31"}, 2,
                   "--from is later than --to.");
    for (const char *bad : {"-1x", "-h", "tomorrow", "2026-01-01Z", "--1h"})
        ExpectCtlFails({"events", "list", "--from=" + std::string(bad)}, 2, "is no time");
}

TEST_F(NimbractlEvents, LocalTimesAreThoseOfThisMachine)
{
    const std::vector<std::string> environment = {"TZ=XYZ-5:30", "NIMBRA_HOST=127.0.0.1",
                                                  "NIMBRA_USER=admin", "NIMBRA_PASSWORD=admin1234"};
    const ProgramResult result =
        RunProgram(CtlCommand({"events", "list", "--local", "--from", "2026-01-01 07:00", "--to",
                               "2026-01-01 07:06", "--fields", "EventNo,EventTime", "-o", "csv"},
                              environment));
    const std::vector<Row> rows =
        TestPanel::Rows(panel::PanelPaths("/").LogDatabase,
                        "SELECT No || ',' || datetime(Date + 19800, 'unixepoch') FROM Log WHERE "
                        "No BETWEEN 56 AND 59 ORDER BY No DESC");
    std::string expected = "EventNo,EventTime\n";
    for (const Row &row : rows)
        expected += row[0] + "\n";
    EXPECT_EQ(result.Output, expected);
    const ProgramResult shown = RunProgram(CtlCommand(
        {"events", "show", "59", "--local", "--fields", "EventNo,EventTime", "-o", "csv"},
        environment));
    EXPECT_EQ(shown.Output, "EventNo,EventTime\n" + rows[0][0] + "\n");
}

TEST_F(NimbractlEvents, CardsAreFoundByTheirCardNumber)
{
    const std::string number = panel_.Value("SELECT CardNo FROM Card WHERE No=2");
    const nlohmann::json cards = CtlJson({"cards", "list", "--card-number", number});
    EXPECT_EQ(RowsOf(cards, {"CardNo"}),
              panel_.Rows("SELECT No FROM Card WHERE CardNo='" + number + "' ORDER BY No"));
    ExpectCtlFails({"cards", "list", "--card-number", "no-such"}, 1, "no such cards");
}

TEST_F(NimbractlEvents, WatchShowsDoorsAndEventsAgainAndChangesNothing)
{
    const std::vector<std::string> before = TestPanel::Dump(panel_.Paths().MainDatabase);
    const ProgramResult result =
        RunCtl({"doors", "watch", "--count", "2", "--interval", "0.2", "--events", "3"});
    EXPECT_EQ(result.Status, 0);
    std::size_t doors = 0;
    for (std::size_t at = 0; (at = result.Output.find("Server Room", at)) != std::string::npos;
         ++at)
        ++doors;
    EXPECT_GE(doors, 2U) << result.Output;
    EXPECT_THAT(result.Output, HasSubstr("Remote login"));
    EXPECT_THAT(result.Output, Not(HasSubstr("\033")));
    EXPECT_EQ(TestPanel::Dump(panel_.Paths().MainDatabase), before);

    Terminal terminal(CtlCommand({"doors", "watch", "--interval", "0.2"}));
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(terminal.WaitFor("\033[H\033[2J")) << terminal.Output();
    terminal.Type("\x03");
    EXPECT_EQ(terminal.WaitForExit(), -SIGINT);
    EXPECT_TRUE(terminal.IsAsBefore());
}

/// Runs doors watch once on a terminal with so many lines; returns what it shows.
std::string WatchOnTerminal(int lines, const std::string &events)
{
    std::vector<std::string> command = {
        "sh", "-c", "stty rows " + std::to_string(lines) + " cols 200 && exec \"$@\"", "sh"};
    const std::vector<std::string> watch =
        CtlCommand({"doors", "watch", "--count", "1", "--events", events});
    command.insert(command.end(), watch.begin(), watch.end());
    Terminal terminal(command);
    EXPECT_EQ(terminal.WaitForExit(), 0);
    return terminal.Output();
}

TEST_F(NimbractlEvents, WatchFitsTheHeightOfTheTerminal)
{
    const auto linesOf = [](const std::string &text) {
        return std::count(text.begin(), text.end(), '\n');
    };
    const std::ptrdiff_t doors =
        std::stoi(panel_.Value("SELECT COUNT(*) FROM Door WHERE Disable=0"));
    // The last line is the cursor's.
    const int all = static_cast<int>(doors) + 10 + 4;
    EXPECT_EQ(linesOf(WatchOnTerminal(all, "10")), all - 1);
    EXPECT_EQ(linesOf(WatchOnTerminal(all, "1000")), all - 1);
    const std::string fewerEvents = WatchOnTerminal(all - 3, "10");
    EXPECT_EQ(linesOf(fewerEvents), all - 4);
    EXPECT_THAT(fewerEvents, Not(HasSubstr("do not fit")));
    const std::string fewerDoors = WatchOnTerminal(12, "10");
    EXPECT_EQ(linesOf(fewerDoors), 11);
    EXPECT_THAT(fewerDoors,
                HasSubstr("\nDoors that do not fit on the terminal: " + std::to_string(doors - 2)));
    EXPECT_THAT(WatchOnTerminal(1, "2"),
                HasSubstr("Doors that do not fit on the terminal: " + std::to_string(doors)));
}

TEST_F(NimbractlEvents, WatchReportsAMissingRight)
{
    const ProgramResult refused = RunProgram(
        CtlCommand({"doors", "watch", "--count", "1"},
                   {"NIMBRA_HOST=127.0.0.1", "NIMBRA_USER=nobody", "NIMBRA_PASSWORD=nothing00"}));
    EXPECT_EQ(refused.Status, 1);
    EXPECT_THAT(refused.Output, HasSubstr("(GetDoorInfoEx: Result=9)"));
    panel_.Run("DELETE FROM Door");
    const ProgramResult result = RunCtl({"doors", "watch", "--count", "1", "--events", "1"});
    EXPECT_EQ(result.Status, 0);
    EXPECT_THAT(result.Output, HasSubstr("The panel has no such doors"));
    EXPECT_THAT(result.Output, HasSubstr("Remote login"));
}

TEST_F(NimbractlEvents, WatchAndFollowEndWhenThePanelIsNotReachedAtFirst)
{
    ExpectCtlFails({"--port", "9099", "doors", "watch"}, 3, "Cannot connect to");
    ExpectCtlFails({"--port", "9099", "events", "follow", "--after", "0"}, 3, "Cannot connect to");
}

TEST_F(NimbractlEvents, IntervalsAreChecked)
{
    for (const char *interval : {"nan", "0", "-1", "inf", "3601", "x", "1x"}) {
        const std::string fault = "\"" + std::string(interval) + "\" is not within 0.1 and 3600";
        ExpectCtlFails({"events", "follow", "--interval", interval}, 2, fault);
        ExpectCtlFails({"doors", "watch", "--interval", interval}, 2, fault);
        ExpectCtlFails({"discover", "--wait", interval}, 2, fault);
    }
}

TEST_F(NimbractlEvents, TerminalShowsTheNewestPage)
{
    // The terminal has 50 rows.
    Terminal terminal(CtlCommand({"events", "list"}));
    EXPECT_TRUE(terminal.WaitFor("The newest 47 events; --limit NUMBER shows more"))
        << terminal.Output();
    EXPECT_EQ(terminal.WaitForExit(), 0);
    const std::string &page = terminal.Output();
    EXPECT_EQ(std::count(page.begin(), page.end(), '\n'), 49);
    const std::string all = RunCtl({"events", "list"}).Output;
    EXPECT_GT(std::count(all.begin(), all.end(), '\n'), 60);
}

} // namespace

} // namespace nimbra::test
