#include "support/CommandTest.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace nimbra::test {

namespace {

/// Outputs that are on, off, of another value and NULL; door relays of the same numbers say the
/// opposite, and door 4, with an inverted contact, has the number of an output.
constexpr char kOutputs[] = R"(
DELETE FROM RelayStatus;
UPDATE Door SET DoorContactState=1;
INSERT INTO RelayStatus (Type, No, RelayOn) VALUES
    (2, 1, 1), (2, 2, 0), (2, 3, 2), (2, 4, NULL), (2, 70, 1),
    (3, 1, 0), (3, 2, 1), (3, 5, 1), (1, 5, 1);
)";

class AuxOutput : public CommandTest
{
protected:
    AuxOutput() { panel_.Run(kOutputs); }
};

} // namespace

TEST_F(AuxOutput, GetAuxOutputTellsWhetherTheRelayIsOn)
{
    struct Output
    {
        int Port;
        int Status;
    };
    for (const Output output : {Output{1, 1}, {2, 0}, {3, 0}, {4, 0}, {70, 1}})
        EXPECT_EQ(Ask("GetAuxOutput?Port=" + std::to_string(output.Port)),
                  "GetAuxOutputResponse?Result=0&Status=" + std::to_string(output.Status));
}

TEST_F(AuxOutput, GetAuxOutputFailsWithoutARelay)
{
    ExpectFails("GetAuxOutput?Port=5");
    ExpectFails("GetAuxOutput?Port=-1");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(AuxOutput, GetAuxOutputReadsItsKeyAndAsksForPortZeroWithoutIt)
{
    ExpectReadsKeys("GetAuxOutput?Port=1");
    ExpectFails("GetAuxOutput?");
    panel_.Run("INSERT INTO RelayStatus VALUES (2, 0, 1)");
    EXPECT_EQ(Ask("GetAuxOutput?"), "GetAuxOutputResponse?Result=0&Status=1");
}

TEST_F(AuxOutput, SetAuxOutputRunsTheCommandToolAndThenAudits)
{
    struct Control
    {
        std::string Keys;
        panel::Call Command;
    };
    const std::vector<Control> controls = {{"Port=2&Control=5", {"auxout", "2", "on"}},
                                           {"Port=2&Control=1", {"auxout", "2", "on"}},
                                           {"pORT=2&CONTROL=-1", {"auxout", "2", "on"}},
                                           {"Control=0&Port=2&Unknown=1", {"auxout", "2", "off"}},
                                           {"Port=-5", {"auxout", "-5", "off"}},
                                           {"Port=-2147483648", {"auxout", "-2147483648", "off"}},
                                           {"", {"auxout", "0", "off"}}};
    for (const Control &control : controls) {
        SCOPED_TRACE(control.Keys);
        const std::size_t calls = panel_.Calls().size();
        EXPECT_EQ(Ask("SetAuxOutput?" + control.Keys), "SetAuxOutputResponse?Result=0");
        EXPECT_EQ(panel_.Calls(calls),
                  std::vector<panel::Call>({control.Command, AuditCall(11415)}));
    }
    EXPECT_EQ(agent_.CountMessages("ClientWorker.cpp", "SetAuxOutput", "Invalid Token: Unknown"),
              1U);
    EXPECT_EQ(panel_.Journal(), std::vector<std::string>());
}

TEST_F(AuxOutput, ASwitchedOutputReportsItself)
{
    EXPECT_EQ(Ask("SetAuxOutput?Port=2&Control=5"), "SetAuxOutputResponse?Result=0");
    EXPECT_EQ(Ask("GetAuxOutput?Port=2"), "GetAuxOutputResponse?Result=0&Status=1");
    EXPECT_EQ(Ask("SetAuxOutput?Port=2&Control=0"), "SetAuxOutputResponse?Result=0");
    EXPECT_EQ(Ask("GetAuxOutput?Port=2"), "GetAuxOutputResponse?Result=0&Status=0");
}

TEST_F(AuxOutput, SetAuxOutputDoesNotPause)
{
    double quickest = 10;
    for (int i = 0; i < 20; ++i) {
        const Stopwatch watch;
        EXPECT_EQ(Ask("SetAuxOutput?Port=1&Control=1"), "SetAuxOutputResponse?Result=0");
        quickest = std::min(quickest, watch.Seconds());
    }
    // With a pause none could be as quick, however slow the machine.
    EXPECT_LT(quickest, 1.0);
}

TEST_F(AuxOutput, ACommandToolThatFailsOrIsMissingDoesNotMatter)
{
    // The panel knows no output 99 and its tool says so.
    const std::size_t calls = panel_.Calls().size();
    EXPECT_EQ(Ask("SetAuxOutput?Port=99&Control=1"), "SetAuxOutputResponse?Result=0");
    EXPECT_EQ(panel_.Calls(calls),
              std::vector<panel::Call>({{"auxout", "99", "on"}, AuditCall(11415)}));
    std::filesystem::remove(panel_.Paths().CommandTool);
    EXPECT_EQ(Ask("SetAuxOutput?Port=1&Control=0"), "SetAuxOutputResponse?Result=0");
    EXPECT_EQ(panel_.Calls(calls).size(), 2U);
}

TEST_F(AuxOutput, SetAuxOutputNeedsNoDatabase)
{
    std::filesystem::rename(panel_.Paths().Databases, "/tmp/DatabasesAway");
    EXPECT_EQ(Ask("SetAuxOutput?Port=1&Control=1"), "SetAuxOutputResponse?Result=0");
    EXPECT_EQ(agent_.CountInLog("sqlite3_open fail"), 0U);
}

TEST_F(AuxOutput, EachCommandNeedsItsRight)
{
    ExpectNeedsRight("GetAuxOutput?Port=1", 1, 25);
    ExpectNeedsRight("SetAuxOutput?Port=1", 1, 25);
}

TEST_F(AuxOutput, GetAuxOutputFailsWithoutADatabaseOrItsTable)
{
    ExpectNeedsDatabase("GetAuxOutput?Port=1");
    EXPECT_EQ(Ask("GetAuxOutput?Port=1"), "GetAuxOutputResponse?Result=0&Status=1");
    panel_.Run("DROP TABLE RelayStatus");
    ExpectFails("GetAuxOutput?Port=1");
    EXPECT_EQ(agent_.CountInLog("sqlite3_exec fail"), 0U);
}

} // namespace nimbra::test
