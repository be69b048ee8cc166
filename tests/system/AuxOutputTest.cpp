#include "support/CommandTest.h"
#include "support/WithoutDatabases.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace nimbra::test {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// Outputs that are on, off, of another value and NULL. Door relays of the same numbers have the
/// opposite state, and door 4, with an inverted contact, has the number of an output.
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

TEST_F(AuxOutput, GetAuxOutputReturnsRelayState)
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

TEST_F(AuxOutput, GetAuxOutputFailsWithoutRelay)
{
    ExpectFails("GetAuxOutput?Port=5");
    ExpectFails("GetAuxOutput?Port=-1");
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(AuxOutput, GetAuxOutputReadsItsKeyAndDefaultsToPortZero)
{
    ExpectReadsKeys("GetAuxOutput?Port=1");
    ExpectFails("GetAuxOutput?");
    panel_.Run("INSERT INTO RelayStatus VALUES (2, 0, 1)");
    EXPECT_EQ(Ask("GetAuxOutput?"), "GetAuxOutputResponse?Result=0&Status=1");
}

TEST_F(AuxOutput, SetAuxOutputRunsCommandToolAndThenAudits)
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
        EXPECT_THAT(panel_.Calls(calls), ElementsAre(control.Command, AuditCall(11415)));
    }
    EXPECT_EQ(agent_.CountMessages("ClientWorker.cpp", "SetAuxOutput", "Invalid Token: Unknown"),
              1U);
    EXPECT_THAT(panel_.Journal(), IsEmpty());
}

TEST_F(AuxOutput, SwitchedOutputIsReported)
{
    EXPECT_EQ(Ask("SetAuxOutput?Port=2&Control=5"), "SetAuxOutputResponse?Result=0");
    EXPECT_EQ(Ask("GetAuxOutput?Port=2"), "GetAuxOutputResponse?Result=0&Status=1");
    EXPECT_EQ(Ask("SetAuxOutput?Port=2&Control=0"), "SetAuxOutputResponse?Result=0");
    EXPECT_EQ(Ask("GetAuxOutput?Port=2"), "GetAuxOutputResponse?Result=0&Status=0");
}

TEST_F(AuxOutput, SetAuxOutputDoesNotPause)
{
    double shortest = 10;
    for (int i = 0; i < 20; ++i) {
        const Stopwatch watch;
        EXPECT_EQ(Ask("SetAuxOutput?Port=1&Control=1"), "SetAuxOutputResponse?Result=0");
        shortest = std::min(shortest, watch.Seconds());
    }
    // With a pause, no request takes less than a second, also on a fast machine.
    EXPECT_LT(shortest, 1.0);
}

TEST_F(AuxOutput, CommandSucceedsWhenCommandToolFailsOrIsMissing)
{
    // The panel has no output 99: its tool fails.
    const std::size_t calls = panel_.Calls().size();
    EXPECT_EQ(Ask("SetAuxOutput?Port=99&Control=1"), "SetAuxOutputResponse?Result=0");
    EXPECT_THAT(panel_.Calls(calls),
                ElementsAre(panel::Call{"auxout", "99", "on"}, AuditCall(11415)));
    std::filesystem::remove(panel_.Paths().CommandTool);
    EXPECT_EQ(Ask("SetAuxOutput?Port=1&Control=0"), "SetAuxOutputResponse?Result=0");
    EXPECT_THAT(panel_.Calls(calls), SizeIs(2));
}

TEST_F(AuxOutput, SetAuxOutputNeedsNoDatabase)
{
    const WithoutDatabases withoutDatabases(panel_);
    EXPECT_EQ(Ask("SetAuxOutput?Port=1&Control=1"), "SetAuxOutputResponse?Result=0");
    EXPECT_EQ(agent_.CountInLog("sqlite3_open fail"), 0U);
}

TEST_F(AuxOutput, GetAuxOutputFailsWithoutDatabaseOrTable)
{
    ExpectNeedsDatabase("GetAuxOutput?Port=1");
    EXPECT_EQ(Ask("GetAuxOutput?Port=1"), "GetAuxOutputResponse?Result=0&Status=1");
    panel_.Run("DROP TABLE RelayStatus");
    ExpectFails("GetAuxOutput?Port=1");
    EXPECT_EQ(agent_.CountInLog("sqlite3_exec fail"), 0U);
}

} // namespace nimbra::test
