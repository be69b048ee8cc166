// The discovery responder, probed from a second host on the panel's segment.

#include "support/Agent.h"
#include "support/DiscoveryProbe.h"
#include "support/Files.h"
#include "support/TestPanel.h"

#include <gtest/gtest.h>

#include <csignal>
#include <random>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nimbra::test {

namespace {

std::string AnswerTo(const std::string &key)
{
    return "ScanResponse?Result=0&Key=" + key +
           "&MacAddr=00:1A:2B:3C:4D:5E&ModelName=Dogwood 64&PrivateAddr=192.168.77.10"
           "&PrivatePort=9000\n";
}

/// Whether some socket of this host is bound to the probe port.
bool IsPortOpen()
{
    return ReadFile("/proc/net/udp").find(":25E5 ") != std::string::npos;
}

class Discovery : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(WaitUntil(IsPortOpen)); }

    /// Whether the agent answers a probe, which shows that all datagrams before it were read.
    [[nodiscard]] bool IsServing() const { return probe.Ask("Scan?Key=999") == AnswerTo("999"); }

    TestPanel panel;
    Agent agent;
    DiscoveryProbe probe;
};

TEST_F(Discovery, AnswersAProbeWithTheIdentityOfThePanel)
{
    EXPECT_EQ(probe.Ask("Scan?Key=1234"), AnswerTo("1234"));
    EXPECT_TRUE(agent.WaitForLog(AnswerTo("1234").substr(0, 40)));
    EXPECT_TRUE(agent.WaitForLog("Scan?Key=1234"));
}

TEST_F(Discovery, AnswersAProbeThatIsBroadcast)
{
    probe.Broadcast("Scan?Key=77\n");
    EXPECT_EQ(probe.Receive(), AnswerTo("77"));
}

TEST_F(Discovery, AnswersToEveryoneWhereverTheProbeCameFrom)
{
    probe.Send("Scan?Key=6");
    auto answer = probe.ReceiveAnswer();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->To, "255.255.255.255");
    DiscoveryProbe::SendFromAnotherPort("Scan?Key=7");
    answer = probe.ReceiveAnswer();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->Text, AnswerTo("7"));
    EXPECT_EQ(answer->To, "255.255.255.255");
}

TEST_F(Discovery, FindsTheWordInAnyCaseAndAnywhere)
{
    EXPECT_EQ(probe.Ask("sCaN?kEy=5"), AnswerTo("5"));
    EXPECT_EQ(probe.Ask("HelloScan?Key=9"), AnswerTo("9"));
}

TEST_F(Discovery, ReadsTheKeyAsADecimalNumber)
{
    EXPECT_EQ(probe.Ask("Scan?Key=-3"), AnswerTo("-3"));
    EXPECT_EQ(probe.Ask("Scan?Key=007"), AnswerTo("7"));
    EXPECT_EQ(probe.Ask("Scan?Key=12abc"), AnswerTo("12"));
    EXPECT_EQ(probe.Ask("Scan?Key=4294967297"), AnswerTo("1"));
    EXPECT_EQ(probe.Ask("Scan?Key=1&Key=2"), AnswerTo("2"));
}

TEST_F(Discovery, AnswersNoProbeWithoutAUsableKey)
{
    const std::string probes[] = {"Scan?",     "Scan?Key=0", "Scan?Key=abc",
                                  "Scan?Key=", "Scan?Key",   "Scan?Key=5&Key=0"};
    for (const std::string &text : probes)
        probe.Send(text);
    EXPECT_TRUE(IsServing());
    // A printed datagram has no line feed of its own, so the message stands behind it.
    EXPECT_EQ(agent.CountInLog(":ScanManager.cpp:"), std::size(probes));
    EXPECT_EQ(agent.CountInLog("ProcScan(): Key Error"), std::size(probes));
}

TEST_F(Discovery, LogsAndSkipsAKeyThatItDoesNotKnow)
{
    EXPECT_EQ(probe.Ask("Scan?Foo=1&Key=2"), AnswerTo("2"));
    EXPECT_TRUE(agent.WaitForLog(":ScanManager.cpp:"));
    EXPECT_EQ(agent.CountInLog("ProcScan(): Invalid Token: Foo"), 1U);
}

TEST_F(Discovery, ReadsTheKeysBehindTheFirstQuestionMark)
{
    probe.Send("a?Scan?Key=9");
    EXPECT_TRUE(IsServing());
    EXPECT_EQ(agent.CountInLog("ProcScan(): Invalid Token: Scan?Key"), 1U);
    EXPECT_EQ(agent.CountInLog("ProcScan(): Key Error"), 1U);
}

TEST_F(Discovery, SkipsAnEmptyDatagram)
{
    probe.Send("");
    EXPECT_TRUE(IsServing());
    EXPECT_EQ(agent.CountInLog(":ScanManager.cpp:"), 0U);
}

TEST_F(Discovery, LogsADatagramWithoutTheWord)
{
    probe.Send("Hello");
    probe.Send("Scan");
    EXPECT_TRUE(IsServing());
    EXPECT_EQ(agent.CountMessages("ScanManager.cpp", "Process", "Invalid Message"), 2U);
}

TEST_F(Discovery, ReadsAShortDatagramWithoutTheTailOfALongerOne)
{
    EXPECT_EQ(probe.Ask("Scan?Key=1&Rest=" + std::string(500, '7')), AnswerTo("1"));
    EXPECT_EQ(probe.Ask("Scan?Key=2"), AnswerTo("2"));
    probe.Send("Scan?Key=");
    EXPECT_TRUE(IsServing());
    EXPECT_EQ(agent.CountInLog("Key Error"), 1U);
}

TEST_F(Discovery, TakesADatagramOf1023BytesWholeAndCutsALongerOne)
{
    const std::string start = "Scan?Pad=";
    const auto probeOf = [&start](std::size_t size) {
        const std::string end = "&Key=31";
        return start + std::string(size - start.size() - end.size(), 'x') + end;
    };
    EXPECT_EQ(probe.Ask(probeOf(1023)), AnswerTo("31"));
    EXPECT_EQ(probe.Ask(probeOf(1024)), AnswerTo("3"));
}

TEST_F(Discovery, StopsReadingADatagramAtItsFirstZeroByte)
{
    EXPECT_EQ(probe.Ask(std::string("Scan?Key=4\0&Key=5", 17)), AnswerTo("4"));
}

TEST_F(Discovery, SurvivesAStormOfRandomDatagrams)
{
    ASSERT_TRUE(IsServing());
    const std::size_t before = agent.ResidentKiB();
    std::mt19937 random(20261121);
    for (int i = 0; i < 10000; ++i) {
        std::string datagram(random() % 1400 + 1, '\0');
        for (char &c : datagram)
            c = static_cast<char>(random());
        if (i % 4 == 0)
            datagram = "Scan?" + datagram;
        probe.Send(datagram);
        // Taken down as it comes, so that the agent is not held up by its output.
        if (i % 100 == 0)
            static_cast<void>(agent.Log());
    }
    // What the storm itself had answered is still on its way.
    EXPECT_TRUE(WaitUntil([this] {
        probe.Send("Scan?Key=424242");
        const auto answer = probe.Receive(milliseconds(500));
        static_cast<void>(agent.Log());
        return answer == AnswerTo("424242");
    }));
    EXPECT_LT(agent.ResidentKiB(), before + 4096);
}

TEST_F(Discovery, EndsWithinASecondOrTwo)
{
    ASSERT_TRUE(IsServing());
    const Stopwatch watch;
    EXPECT_EQ(agent.End(), 0);
    EXPECT_LT(watch.Seconds(), 4);
}

TEST(DiscoveryPort, TakenAtStartIsTriedEverySecondUntilItIsFree)
{
    const TestPanel panel;
    Descriptor taken(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(9701);
    ASSERT_EQ(bind(taken.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    const Stopwatch watch;
    Agent agent;
    const DiscoveryProbe probe;
    const std::size_t descriptors = agent.Descriptors();
    EXPECT_TRUE(agent.WaitForMessage("ScanManager.cpp", "OpenSocket", "bind fail", 4));
    // The first try may come at the end of a second.
    EXPECT_GE(watch.Seconds(), 2);
    EXPECT_LT(watch.Seconds(), 10);
    // Nothing is left open by a failed attempt, whichever moment of one this is.
    EXPECT_LE(agent.Descriptors(), descriptors + 1);
    taken.Close();
    ASSERT_TRUE(WaitUntil(IsPortOpen));
    const std::size_t failures = agent.CountInLog("bind fail");
    EXPECT_EQ(probe.Ask("Scan?Key=9"), AnswerTo("9"));
    EXPECT_EQ(agent.CountInLog("bind fail"), failures);
}

TEST(DiscoveryModel, IsEmptyForAPanelOfUnknownModel)
{
    const TestPanel panel;
    TestPanel::Run(panel.Paths().NetworkDatabase, "UPDATE Network SET Model=5");
    Agent agent;
    const DiscoveryProbe probe;
    ASSERT_TRUE(WaitUntil(IsPortOpen));
    EXPECT_EQ(probe.Ask("Scan?Key=1"),
              "ScanResponse?Result=0&Key=1&MacAddr=00:1A:2B:3C:4D:5E&ModelName="
              "&PrivateAddr=192.168.77.10&PrivatePort=9000\n");
}

} // namespace

} // namespace nimbra::test
