// The client library: against panels that do what real ones do rarely, and against a real agent.

#include "support/AgentTest.h"
#include "support/FakePanel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nimbra-client/PanelClock.h>
#include <nimbra-client/Session.h>

namespace nimbra::test {

namespace {

using client::Record;
using client::Request;
using client::Session;

client::SessionOptions OptionsFor(const FakePanel &panel)
{
    client::SessionOptions options;
    options.Host = "127.0.0.1";
    options.Port = panel.Port();
    return options;
}

TEST(ClientSession, SendsALineAgainThatThePanelHasProvablyLost)
{
    int losses = 0;
    FakePanel panel([&losses](const std::string &line) {
        if (!line.starts_with("SetThreatLevel?") || ++losses == 1)
            return "";
        return "SetThreatLevelResponse?Result=0\n";
    });
    Session session(OptionsFor(panel));
    EXPECT_EQ(session.Execute(Request("SetThreatLevel").Number("ThreatLevel", 2)).Result, 0);
    EXPECT_EQ(panel.Lines(), (std::vector<std::string>{"Hello?", "SetThreatLevel?ThreatLevel=2",
                                                       "Hello?", "SetThreatLevel?ThreatLevel=2"}));
}

TEST(ClientSession, DoesNotRepeatALineThatIsAnsweredLate)
{
    FakePanel panel([](const std::string &line) {
        if (!line.starts_with("GetThreatLevel?"))
            return "";
        std::this_thread::sleep_for(std::chrono::milliseconds(3500));
        return "GetThreatLevelResponse?Result=0&ThreatLevel=3\n";
    });
    Session session(OptionsFor(panel));
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(session.Execute(Request("GetThreatLevel")).Header.Number("ThreatLevel"), 3);
    EXPECT_EQ(panel.Count("GetThreatLevel?"), 2U);
}

TEST(ClientSession, DistinguishesResponsesOfHeartbeatsAndRequests)
{
    FakePanel panel([](const std::string &line) {
        return line.starts_with("GetThreatLevel?")
                   ? "GetThreatLevelResponse?Result=0&ThreatLevel=3\n"
                   : "";
    });
    Session session(OptionsFor(panel));
    for (int i = 0; i < 20; ++i) {
        session.KeepAlive();
        EXPECT_EQ(session.Execute(Request("GetThreatLevel")).Result, 0);
        session.KeepAlive();
        EXPECT_EQ(session.Execute(Request("Heartbeat")).Result, 0);
    }
    EXPECT_EQ(panel.Count("Hello?"), 1U);
}

TEST(ClientSession, FailsWhenHeartbeatsAreNotAnswered)
{
    FakePanel panel([](const std::string &line) { return line == "Heartbeat?" ? "\n" : ""; });
    Session session(OptionsFor(panel));
    const auto beat = [&session] {
        for (int i = 0; i < 10; ++i)
            session.KeepAlive();
    };
    EXPECT_THROW(beat(), client::ConnectionError);
}

/// Lists all events, two a page; returns the result.
int ListEvents(Session &session, std::vector<int> *numbers)
{
    client::ListOptions options;
    options.PageSize = 2;
    return session.List(
        Request("GetEventLogEx"),
        [numbers](const Record &event) {
            numbers->push_back(event.Number("EventNo"));
            return true;
        },
        options);
}

TEST(ClientSession, EventsThatArriveMeanwhileAreNotListedTwice)
{
    // Between the two pages an event is added in front, so that 9 moves to the second page, which
    // begins with the last row of the first one.
    FakePanel panel([](const std::string &line) -> std::optional<std::string> {
        if (line == "GetEventLogEx?Limit=2")
            return "GetEventLogExResponse?Result=0&Total=100000&Offset=0&Count=2\n"
                   "EventNo=10&EventTime=x\nEventNo=9&EventTime=x\n";
        if (line == "GetEventLogEx?Offset=1&Limit=3")
            return "GetEventLogExResponse?Result=0&Total=100000&Offset=1&Count=3\n"
                   "EventNo=10&EventTime=x\nEventNo=9&EventTime=x\nEventNo=8&EventTime=x\n";
        if (line == "GetEventLogEx?Offset=3&Limit=3")
            return "GetEventLogExResponse?Result=0&Total=100000&Offset=3&Count=1\n"
                   "EventNo=8&EventTime=x\n";
        return line.starts_with("GetEventLogEx?") ? "GetEventLogExResponse?Result=1\n" : "";
    });
    Session session(OptionsFor(panel));
    std::vector<int> numbers;
    EXPECT_EQ(ListEvents(session, &numbers), 0);
    EXPECT_EQ(numbers, (std::vector<int>{10, 9, 8}));
}

TEST(ClientSession, EventListReturnsResultOfFailedLaterPage)
{
    // As after the end of the list, but the panel only keeps its database locked.
    FakePanel panel([](const std::string &line) -> std::optional<std::string> {
        if (line == "GetEventLogEx?Limit=2")
            return "GetEventLogExResponse?Result=0&Total=100000&Offset=0&Count=2\n"
                   "EventNo=10&EventTime=x\nEventNo=9&EventTime=x\n";
        return line.starts_with("GetEventLogEx?") ? "GetEventLogExResponse?Result=1\n" : "";
    });
    Session session(OptionsFor(panel));
    std::vector<int> numbers;
    EXPECT_EQ(ListEvents(session, &numbers), 1);
    EXPECT_EQ(numbers, (std::vector<int>{10, 9}));
}

TEST(ClientSession, ListReturnsResultOfFailedLaterPage)
{
    FakePanel panel([](const std::string &line) -> std::optional<std::string> {
        if (line == "GetDoorInfoEx?Limit=1")
            return "GetDoorInfoExResponse?Result=0&Total=2&Offset=0&Count=1\n"
                   "DoorNo=1&Name=x&Status=0\n";
        return line.starts_with("GetDoorInfoEx?") ? "GetDoorInfoExResponse?Result=1\n" : "";
    });
    Session session(OptionsFor(panel));
    int rows = 0;
    client::ListOptions options;
    options.PageSize = 1;
    EXPECT_EQ(
        session.List(
            Request("GetDoorInfoEx"), [&rows](const Record &) { return ++rows > 0; }, options),
        1);
    EXPECT_EQ(rows, 1);
    EXPECT_THROW(static_cast<void>(
                     session.List(Request("GetDoorInfo"), [](const Record &) { return true; })),
                 client::RequestError);
}

TEST(ClientSession, CanBeUsedAfterCancellation)
{
    FakePanel panel([](const std::string &line) -> std::optional<std::string> {
        if (line.starts_with("GetThreatLevel?"))
            return "GetThreatLevelResponse?Result=0&ThreatLevel=3\n";
        return line.starts_with("GetCardFormatEx?")
                   ? "GetCardFormatExResponse?Result=0&Total=2&Offset=0&Count=2\n"
                   : "";
    });
    std::atomic<bool> isCancelled = false;
    client::SessionOptions options = OptionsFor(panel);
    options.IsCancelled = [&isCancelled] { return isCancelled.load(); };
    Session session(options);
    std::thread canceller([&panel, &isCancelled] {
        EXPECT_TRUE(WaitUntil([&panel] { return panel.Count("GetCardFormatEx?") == 1; }));
        isCancelled = true;
    });
    EXPECT_THROW(static_cast<void>(session.Execute(Request("GetCardFormatEx"))),
                 client::CancelledError);
    canceller.join();
    isCancelled = false;
    EXPECT_EQ(session.Execute(Request("GetThreatLevel")).Header.Number("ThreatLevel"), 3);
}

/// A panel whose clock is not on UTC.
class ClientOnPanel : public AgentTest
{
protected:
    ClientOnPanel() : AgentTest({}, "XYZ+3:30") { options_.Host = "127.0.0.1"; }

    client::SessionOptions options_;
};

TEST_F(ClientOnPanel, MeasuresClockOffsetOfPanel)
{
    Session session(options_);
    ASSERT_EQ(session.Login("admin", "admin1234"), 0);
    EXPECT_EQ(client::MeasureClockOffset(session), std::chrono::minutes(-210));
    const panel::PanelPaths paths("/");
    TestPanel::Run(paths.LogDatabase, "DELETE FROM Log");
    EXPECT_EQ(client::MeasureClockOffset(session), std::nullopt);
}

TEST_F(ClientOnPanel, ReopensSessionThatHasEndedAfterSilence)
{
    Session session(options_);
    EXPECT_EQ(session.Login("admin", "wrong"), 1);
    ASSERT_EQ(session.Login("admin", "admin1234"), 0);
    std::this_thread::sleep_for(std::chrono::seconds(16));
    EXPECT_EQ(session.Execute(Request("GetThreatLevel")).Result, 0);
    EXPECT_EQ(panel_.Calls().size(), 2U); // two logins
}

TEST_F(ClientOnPanel, ContinuesAfterUploadWithoutRight)
{
    Session session(options_);
    ASSERT_EQ(session.Login("guard", "guard2468"), 0);
    const std::vector<char> bytes(1000000, 'x');
    EXPECT_EQ(session.UploadUserImage(7, "user0007.png", bytes), 9);
    EXPECT_EQ(session.Execute(Request("GetDoorInfo").Number("DoorNo", 1)).Result, 0);
    for (const char *name : {"a.b", "a/b.png", "it's.png", ".upload-Zz0189"})
        EXPECT_THROW(static_cast<void>(session.UploadUserImage(7, name, bytes)),
                     client::RequestError)
            << name;
    for (const char *name :
         {".upload-abc12", ".upload-abc1234", ".upload-abc.12", "xupload-abc123"})
        EXPECT_EQ(session.UploadUserImage(7, name, bytes), 9) << name;
    EXPECT_THROW(static_cast<void>(session.UploadUserImage(7, "user.png", {})),
                 client::RequestError);
}

} // namespace

} // namespace nimbra::test
