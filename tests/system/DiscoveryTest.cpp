// The discovery responder, probed from a second host on the network segment of the panel.

#include "support/Agent.h"
#include "support/DiscoveryProbe.h"
#include "support/Files.h"
#include "support/Sanitized.h"
#include "support/TestPanel.h"
#include "support/TestSocket.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

namespace nimbra::test {

namespace {

std::string AnswerTo(const std::string &key)
{
    return "ScanResponse?Result=0&Key=" + key +
           "&MacAddr=00:1A:2B:3C:4D:5E&ModelName=Dogwood 64&PrivateAddr=192.168.77.10"
           "&PrivatePort=9000\n";
}

class Discovery : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(WaitUntil(IsDiscoveryOpen)); }

    /// Whether the agent answers a probe. All earlier datagrams have then been read.
    [[nodiscard]] bool IsServing() const { return probe_.Ask("Scan?Key=999") == AnswerTo("999"); }

    TestPanel panel_;
    Agent agent_;
    DiscoveryProbe probe_;
};

TEST_F(Discovery, AnswersProbeWithPanelIdentity)
{
    EXPECT_EQ(probe_.Ask("Scan?Key=1234"), AnswerTo("1234"));
    EXPECT_TRUE(agent_.WaitForLog(AnswerTo("1234").substr(0, 40)));
    EXPECT_TRUE(agent_.WaitForLog("Scan?Key=1234"));
}

TEST_F(Discovery, AnswersBroadcastProbe)
{
    probe_.Broadcast("Scan?Key=77\n");
    EXPECT_EQ(probe_.Receive(), AnswerTo("77"));
}

TEST_F(Discovery, BroadcastsAnswerForAnySourcePort)
{
    probe_.Send("Scan?Key=6");
    auto answer = probe_.ReceiveAnswer();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->To, "255.255.255.255");
    DiscoveryProbe::SendFromAnotherPort("Scan?Key=7");
    answer = probe_.ReceiveAnswer();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->Text, AnswerTo("7"));
    EXPECT_EQ(answer->To, "255.255.255.255");
    // The socket that sends is bound to no port.
    EXPECT_NE(answer->FromPort, 9701);
    EXPECT_NE(answer->FromPort, 9702);
}

TEST_F(Discovery, FindsWordInAnyCaseAnywhere)
{
    EXPECT_EQ(probe_.Ask("sCaN?kEy=5"), AnswerTo("5"));
    EXPECT_EQ(probe_.Ask("HelloScan?Key=9"), AnswerTo("9"));
}

TEST_F(Discovery, ReadsKeyAsDecimalNumber)
{
    EXPECT_EQ(probe_.Ask("Scan?Key=-3"), AnswerTo("-3"));
    EXPECT_EQ(probe_.Ask("Scan?Key=12abc"), AnswerTo("12"));
    EXPECT_EQ(probe_.Ask("Scan?Key=1&Key=2"), AnswerTo("2"));
}

TEST_F(Discovery, DoesNotAnswerProbeWithoutUsableKey)
{
    const std::vector<std::string> probes = {"Scan?",     "Scan?Key=0", "Scan?Key=abc",
                                             "Scan?Key=", "Scan?Key",   "Scan?Key=5&Key=0"};
    for (const std::string &text : probes)
        probe_.Send(text);
    EXPECT_TRUE(IsServing());
    // A logged datagram has no line feed, so the message follows on the same line.
    EXPECT_EQ(agent_.CountInLog(":ScanManager.cpp:"), probes.size());
    EXPECT_EQ(agent_.CountInLog("ProcScan(): Key Error"), probes.size());
}

TEST_F(Discovery, LogsAndSkipsUnknownKey)
{
    EXPECT_EQ(probe_.Ask("Scan?Foo=1&Key=2"), AnswerTo("2"));
    EXPECT_TRUE(agent_.WaitForLog(":ScanManager.cpp:"));
    EXPECT_EQ(agent_.CountInLog("ProcScan(): Invalid Token: Foo"), 1U);
}

TEST_F(Discovery, ReadsKeysAfterFirstQuestionMark)
{
    probe_.Send("a?Scan?Key=9");
    EXPECT_TRUE(IsServing());
    EXPECT_EQ(agent_.CountInLog("ProcScan(): Invalid Token: Scan?Key"), 1U);
    EXPECT_EQ(agent_.CountInLog("ProcScan(): Key Error"), 1U);
}

TEST_F(Discovery, IgnoresEmptyDatagram)
{
    probe_.Send("");
    EXPECT_TRUE(IsServing());
    EXPECT_EQ(agent_.CountInLog(":ScanManager.cpp:"), 0U);
}

TEST_F(Discovery, LogsDatagramWithoutWord)
{
    probe_.Send("Hello");
    probe_.Send("Scan");
    EXPECT_TRUE(IsServing());
    EXPECT_EQ(agent_.CountMessages("ScanManager.cpp", "Process", "Invalid Message"), 2U);
}

TEST_F(Discovery, ReadsShortDatagramWithoutTailOfLongerOne)
{
    EXPECT_EQ(probe_.Ask("Scan?Key=1&Rest=" + std::string(500, '7')), AnswerTo("1"));
    EXPECT_EQ(probe_.Ask("Scan?Key=2"), AnswerTo("2"));
    probe_.Send("Scan?Key=");
    EXPECT_TRUE(IsServing());
    EXPECT_EQ(agent_.CountInLog("Key Error"), 1U);
}

TEST_F(Discovery, AcceptsDatagramOf1023BytesAndCutsLongerOne)
{
    const std::string start = "Scan?Pad=";
    const auto probeOf = [&start](std::size_t size) {
        const std::string end = "&Key=31";
        return start + std::string(size - start.size() - end.size(), 'x') + end;
    };
    EXPECT_EQ(probe_.Ask(probeOf(1023)), AnswerTo("31"));
    EXPECT_EQ(probe_.Ask(probeOf(1024)), AnswerTo("3"));
}

TEST_F(Discovery, ReadsDatagramUpToFirstZeroByte)
{
    EXPECT_EQ(probe_.Ask(std::string("Scan?Key=4\0&Key=5", 17)), AnswerTo("4"));
}

TEST_F(Discovery, SurvivesRandomDatagrams)
{
    ASSERT_TRUE(IsServing());
    const std::size_t before = agent_.ResidentKiB();
    std::mt19937 random(20261121);
    for (int i = 0; i < 10000; ++i) {
        std::string datagram(random() % 1400 + 1, '\0');
        for (char &c : datagram)
            c = static_cast<char>(random());
        if (i % 4 == 0)
            datagram = "Scan?" + datagram;
        probe_.Send(datagram);
        // The log is read meanwhile, so that the agent does not block on its output.
        if (i % 100 == 0)
            static_cast<void>(agent_.Log());
    }
    // Answers to the random datagrams may still arrive.
    EXPECT_TRUE(WaitUntil([this] {
        probe_.Send("Scan?Key=424242");
        const auto answer = probe_.Receive(milliseconds(500));
        static_cast<void>(agent_.Log());
        return answer == AnswerTo("424242");
    }));
    EXPECT_LT(agent_.ResidentKiB(), before + 4096);
}

TEST_F(Discovery, EndsQuickly)
{
    ASSERT_TRUE(IsServing());
    const Stopwatch watch;
    EXPECT_EQ(agent_.End(), 0);
    // A sanitizer on a busy machine takes longer.
    EXPECT_LT(watch.Seconds(), kIsSanitized ? 9 : 4);
}

TEST(DiscoveryPort, IsRetriedEverySecondUntilFree)
{
    const TestPanel panel;
    std::optional<TestSocket> holder(SOCK_DGRAM);
    ASSERT_TRUE(holder->Bind("0.0.0.0", 9701));
    const Stopwatch watch;
    Agent agent;
    const DiscoveryProbe probe;
    const std::size_t descriptors = agent.Descriptors();
    EXPECT_TRUE(agent.WaitForMessage("ScanManager.cpp", "OpenSocket", "bind fail", 4));
    // The first attempt may be at the end of a second.
    EXPECT_GE(watch.Seconds(), 2);
    EXPECT_LT(watch.Seconds(), 10);
    // A failed attempt leaves no descriptor open; an attempt may be in progress now.
    EXPECT_LE(agent.Descriptors(), descriptors + 1);
    holder.reset();
    ASSERT_TRUE(WaitUntil(IsDiscoveryOpen));
    const std::size_t failures = agent.CountInLog("bind fail");
    EXPECT_EQ(probe.Ask("Scan?Key=9"), AnswerTo("9"));
    EXPECT_EQ(agent.CountInLog("bind fail"), failures);
}

TEST(DiscoveryModel, IsEmptyForUnknownModel)
{
    const TestPanel panel;
    TestPanel::Run(panel.Paths().NetworkDatabase, "UPDATE Network SET Model=5");
    Agent agent;
    const DiscoveryProbe probe;
    ASSERT_TRUE(WaitUntil(IsDiscoveryOpen));
    EXPECT_EQ(probe.Ask("Scan?Key=1"),
              "ScanResponse?Result=0&Key=1&MacAddr=00:1A:2B:3C:4D:5E&ModelName="
              "&PrivateAddr=192.168.77.10&PrivatePort=9000\n");
}

} // namespace

} // namespace nimbra::test
