#include "core/ConfigManager.h"

#include "base/PanelConstants.h"
#include "base/Wait.h"
#include "support/CapturedOutput.h"
#include "support/Files.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace nimbra {
namespace {

namespace fs = std::filesystem;

using test::CapturedOutput;
using test::LogLine;

constexpr char kIfconfig[] = "/nimbra/bin/ifconfig";
constexpr char kInterface[] =
    "eth0      Link encap:Ethernet  HWaddr 00:1a:2b:3c:4d:5e  \n"
    "          inet addr:192.168.1.20  Bcast:192.168.1.255  Mask:255.255.255.0\n";

/// A panel that has only what the configuration is read from; the tests run in a sandbox that has
/// its paths to give.
class ConfigManagerTest : public ::testing::Test
{
protected:
    ConfigManagerTest()
    {
        fs::create_directories(fs::path(kIfconfig).parent_path());
        fs::create_directories(fs::path(kMainDatabase).parent_path());
        PrintByIfconfig(kInterface);
        Run(kMainDatabase, "CREATE TABLE Cloud (Enabled INTEGER, ServerIP TEXT, Port INTEGER, "
                           "DevicePort INTEGER, DeviceID TEXT, StartTime INTEGER, "
                           "CheckTime INTEGER)");
        Run(kNetworkDatabase, "CREATE TABLE Network (IPAddress TEXT, Model INTEGER, Type INTEGER)");
    }
    ~ConfigManagerTest() override
    {
        fs::remove_all("/nimbra/bin");
        fs::remove_all(fs::path(kMainDatabase).parent_path());
    }

    static void PrintByIfconfig(const std::string &text)
    {
        test::WriteFile("/nimbra/bin/output", text);
        test::WriteFile(kIfconfig, "#!/bin/sh\ncat /nimbra/bin/output\n");
        chmod(kIfconfig, 0755);
    }

    static void Run(const char *file, const std::string &sql)
    {
        sqlite3 *handle = nullptr;
        ASSERT_EQ(sqlite3_open(file, &handle), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(handle);
        sqlite3_close(handle);
    }

    /// A column of the one row of the Cloud table.
    static std::string Cloud(const std::string &column)
    {
        sqlite3 *handle = nullptr;
        EXPECT_EQ(sqlite3_open(kMainDatabase, &handle), SQLITE_OK);
        sqlite3_stmt *row = nullptr;
        sqlite3_prepare_v2(handle, ("SELECT IFNULL(" + column + ", 'NULL') FROM Cloud").c_str(), -1,
                           &row, nullptr);
        std::string value = "(no row)";
        if (sqlite3_step(row) == SQLITE_ROW)
            value = reinterpret_cast<const char *>(sqlite3_column_text(row, 0));
        sqlite3_finalize(row);
        sqlite3_close(handle);
        return value;
    }

    static void SetCloud(const std::string &values)
    {
        Run(kMainDatabase, "DELETE FROM Cloud; INSERT INTO Cloud (Enabled, ServerIP, Port, "
                           "DevicePort) VALUES (" +
                               values + ")");
    }
    static void SetNetwork(const std::string &values)
    {
        Run(kNetworkDatabase, "DELETE FROM Network; INSERT INTO Network VALUES (" + values + ")");
    }

    /// The address that is read from what ifconfig prints; "(none)" when that fails.
    std::string MacIn(const std::string &text) const
    {
        PrintByIfconfig(text);
        return Config->ReadMacAddress() ? Config->MacAddr.Get() : "(none)";
    }

    ConfigManager *const Config = ConfigManager::GetInstance();
};

TEST_F(ConfigManagerTest, IsOneForTheProcess)
{
    EXPECT_EQ(ConfigManager::GetInstance(), Config);
}

TEST_F(ConfigManagerTest, KeepsTheAddressInUpperCaseAndItsDigestAsTheIdentity)
{
    ASSERT_TRUE(Config->ReadMacAddress());
    EXPECT_STREQ(Config->MacAddr.Get(), "00:1A:2B:3C:4D:5E");
    EXPECT_STREQ(Config->DeviceId.Get(), "7EEA0B498F9CC0F7FC6B3EFF0AAB3FA973A5E491");
}

TEST_F(ConfigManagerTest, AsksForTheWiredInterface)
{
    test::WriteFile(kIfconfig, "#!/bin/sh\necho \"HWaddr $# $*\"\necho \"$1 HWaddr $#,$1\"\n");
    ASSERT_TRUE(Config->ReadMacAddress());
    EXPECT_STREQ(Config->MacAddr.Get(), "1");
    test::WriteFile(kIfconfig, "#!/bin/sh\necho \"HWaddr $#,$1\"\n");
    ASSERT_TRUE(Config->ReadMacAddress());
    EXPECT_STREQ(Config->MacAddr.Get(), "1,ETH0");
}

TEST_F(ConfigManagerTest, ReadsTheWordBehindTheMark)
{
    EXPECT_EQ(MacIn("x HWaddr 00:1a:2b:3c:4d:5e\n"), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(MacIn("x HWaddr 00:1A:2B:3C:4D:5E and more\n"), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(MacIn("x HWaddr 00:1a:2b:3c:4d:5e\r\n"), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(MacIn("x HWaddr 00:1a:2b:3c:4d:5e"), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(MacIn("x HWaddr    00:1a:2b:3c:4d:5e  \n"), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(MacIn("HWaddr a HWaddr b\n"), "A");
    EXPECT_EQ(MacIn("no address here\nx HWaddr aa\ny HWaddr bb\n"), "AA");
}

TEST_F(ConfigManagerTest, CutsAnAddressThatIsTooLong)
{
    EXPECT_EQ(MacIn("HWaddr " + std::string(31, 'a') + "\n"), std::string(31, 'A'));
    EXPECT_EQ(MacIn("HWaddr " + std::string(32, 'a') + "\n"), std::string(32, 'A'));
    EXPECT_EQ(MacIn("HWaddr " + std::string(33, 'a') + "\n"), std::string(32, 'A'));
    EXPECT_EQ(MacIn("HWaddr " + std::string(5000, 'a') + "\n"), std::string(32, 'A'));
}

TEST_F(ConfigManagerTest, FailsWithoutAnAddress)
{
    for (const char *text : {"", "\n", "eth0 Link encap:Ethernet\n", "HWaddr \n", "HWaddr      \n",
                             "HWaddr\n", "x HWaddr \r\n", "HWaddr:00:1a:2b:3c:4d:5e\n",
                             "hwaddr 00:1a:2b:3c:4d:5e\n", "ether 00:1a:2b:3c:4d:5e\n"})
        EXPECT_EQ(MacIn(text), "(none)") << text;
    EXPECT_EQ(MacIn(std::string(2000, 'x') + "HWaddr 00:1a:2b:3c:4d:5e\n"), "(none)")
        << "beyond the bound of a line";
}

TEST_F(ConfigManagerTest, FailsWithoutIfconfig)
{
    fs::remove(kIfconfig);
    EXPECT_FALSE(Config->ReadMacAddress());
}

TEST_F(ConfigManagerTest, ReadsTheCloudSettings)
{
    ASSERT_TRUE(Config->ReadMacAddress());
    SetCloud("1, '10.1.2.3', 1234, 9000");
    ASSERT_TRUE(Config->ReadServerInfo());
    EXPECT_TRUE(Config->CloudEnable);
    EXPECT_EQ(Config->PrivatePort, 9000);
    EXPECT_EQ(Cloud("DeviceID"), Config->DeviceId.Get());
}

TEST_F(ConfigManagerTest, FixesTheEndpointOfTheCloud)
{
    SetCloud("1, '10.1.2.3', 1234, 9000");
    ASSERT_TRUE(Config->ReadServerInfo());
    EXPECT_STREQ(Config->CloudServerAddr.Get(), NIMBRA_CLOUD_HOST);
    EXPECT_EQ(Config->CloudServerPort, 9500);
}

TEST_F(ConfigManagerTest, TakesAnyNumberButZeroAsEnabled)
{
    for (const char *enabled : {"1", "2", "-1", "'7x'"}) {
        SetCloud(std::string(enabled) + ", NULL, NULL, NULL");
        EXPECT_TRUE(Config->ReadServerInfo());
        EXPECT_TRUE(Config->CloudEnable) << enabled;
        EXPECT_EQ(Config->PrivatePort, 0);
    }
    for (const char *disabled : {"0", "NULL", "''", "'yes'"}) {
        SetCloud(std::string(disabled) + ", NULL, NULL, 5");
        EXPECT_TRUE(Config->ReadServerInfo());
        EXPECT_FALSE(Config->CloudEnable) << disabled;
        EXPECT_EQ(Config->PrivatePort, 5);
    }
}

TEST_F(ConfigManagerTest, FailsWithoutARowOfCloudSettingsButFixesTheEndpoint)
{
    Config->CloudServerAddr.Clear();
    Config->CloudServerPort = 0;
    const CapturedOutput output;
    EXPECT_FALSE(Config->ReadServerInfo());
    EXPECT_STREQ(Config->CloudServerAddr.Get(), NIMBRA_CLOUD_HOST);
    EXPECT_EQ(Config->CloudServerPort, 9500);
    EXPECT_EQ(output.Text(), "");
}

TEST_F(ConfigManagerTest, FailsOnACloudTableThatLacksWhatIsRead)
{
    Run(kMainDatabase, "ALTER TABLE Cloud DROP COLUMN DevicePort");
    Run(kMainDatabase, "INSERT INTO Cloud (Enabled) VALUES (1)");
    EXPECT_FALSE(Config->ReadServerInfo());
}

void ExpectOne(const CapturedOutput &output, const char *method, const char *message)
{
    const std::vector<LogLine> log = output.Log();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_EQ(log[0].Source, "ConfigManager.cpp");
    EXPECT_EQ(log[0].Method, method);
    EXPECT_EQ(log[0].Message, message);
}

TEST_F(ConfigManagerTest, LogsTheCodeOfAnIdentityThatCannotBeWritten)
{
    Run(kMainDatabase, "DROP TABLE Cloud");
    const CapturedOutput output;
    EXPECT_FALSE(Config->ReadServerInfo());
    ExpectOne(output, "ReadServerInfo", "sqlite3_exec fail[1]");
}

TEST_F(ConfigManagerTest, LogsAMainDatabaseThatCannotBeOpened)
{
    fs::remove_all(fs::path(kMainDatabase).parent_path());
    const CapturedOutput output;
    EXPECT_FALSE(Config->ReadServerInfo());
    ExpectOne(output, "ReadServerInfo", "sqlite3_open fail");
}

TEST_F(ConfigManagerTest, LogsANetworkDatabaseThatCannotBeOpened)
{
    fs::remove_all(fs::path(kNetworkDatabase).parent_path());
    const CapturedOutput output;
    EXPECT_FALSE(Config->ReadNetworkInfo());
    ExpectOne(output, "ReadNetworkInfo", "sqlite3_open fail");
}

TEST_F(ConfigManagerTest, NamesTheModels)
{
    struct Case
    {
        const char *Model;
        const char *Name;
    };
    for (const Case &edition :
         {Case{"1", "Alder 64"}, Case{"2", "Birch 64"}, Case{"3", "Cedar 64"},
          Case{"11", "Dogwood 64"}, Case{"0", ""}, Case{"-1", ""}, Case{"4", ""}, Case{"5", ""},
          Case{"6", ""}, Case{"7", ""}, Case{"8", ""}, Case{"9", ""}, Case{"10", ""},
          Case{"12", ""}, Case{"257", ""}, Case{"NULL", ""}}) {
        SetNetwork(std::string("'192.168.1.20', ") + edition.Model + ", 64");
        EXPECT_TRUE(Config->ReadNetworkInfo());
        EXPECT_STREQ(Config->ModelName.Get(), edition.Name) << edition.Model;
        EXPECT_STREQ(Config->PrivateAddr.Get(), "192.168.1.20");
    }
}

TEST_F(ConfigManagerTest, NamesAnySizeOfAModel)
{
    SetNetwork("'', 11, -2147483648");
    EXPECT_TRUE(Config->ReadNetworkInfo());
    EXPECT_STREQ(Config->ModelName.Get(), "Dogwood -2147483648");
    SetNetwork("NULL, 1, NULL");
    EXPECT_TRUE(Config->ReadNetworkInfo());
    EXPECT_STREQ(Config->ModelName.Get(), "Alder 0");
    EXPECT_STREQ(Config->PrivateAddr.Get(), "");
}

TEST_F(ConfigManagerTest, CutsAnAddressOfThePanelThatIsTooLong)
{
    SetNetwork("'" + std::string(33, '1') + "', 1, 4");
    EXPECT_TRUE(Config->ReadNetworkInfo());
    EXPECT_EQ(Config->PrivateAddr.View(), std::string(32, '1'));
}

TEST_F(ConfigManagerTest, FailsWithoutANetworkRowAndForgetsTheModel)
{
    SetNetwork("'', 1, 4");
    ASSERT_TRUE(Config->ReadNetworkInfo());
    Run(kNetworkDatabase, "DELETE FROM Network");
    const CapturedOutput output;
    EXPECT_FALSE(Config->ReadNetworkInfo());
    EXPECT_TRUE(Config->ModelName.IsEmpty());
    EXPECT_EQ(output.Text(), "");
}

TEST_F(ConfigManagerTest, FailsWithoutANetworkTableAndForgetsTheModel)
{
    SetNetwork("'', 1, 4");
    ASSERT_TRUE(Config->ReadNetworkInfo());
    Run(kNetworkDatabase, "DROP TABLE Network");
    EXPECT_FALSE(Config->ReadNetworkInfo());
    EXPECT_TRUE(Config->ModelName.IsEmpty());
}

TEST_F(ConfigManagerTest, PrintsWhatItLoads)
{
    SetCloud("1, '10.1.2.3', 1234, 9100");
    SetNetwork("'192.168.1.20', 11, 64");
    const CapturedOutput output;
    EXPECT_TRUE(Config->Load());
    EXPECT_EQ(output.Text(), "CloudEnable=1\n"
                             "CloudServerAddr=" NIMBRA_CLOUD_HOST "\n"
                             "CloudServerPort=9500\n"
                             "DeviceId=7EEA0B498F9CC0F7FC6B3EFF0AAB3FA973A5E491\n"
                             "MacAddr=00:1A:2B:3C:4D:5E\n"
                             "ModelName=Dogwood 64\n"
                             "PrivateAddr=192.168.1.20\n"
                             "PrivatePort=9100\n");
}

TEST_F(ConfigManagerTest, DisablesTheCloudForAnUnknownModel)
{
    SetCloud("1, '', 0, 9000");
    SetNetwork("'192.168.1.20', 5, 64");
    const CapturedOutput output;
    EXPECT_TRUE(Config->Load());
    EXPECT_FALSE(Config->CloudEnable);
    EXPECT_NE(output.Text().find("CloudEnable=0\n"), std::string::npos);
    EXPECT_NE(output.Text().find("\nModelName=\n"), std::string::npos);
}

TEST_F(ConfigManagerTest, PrintsNothingOfALoadThatFails)
{
    const CapturedOutput output;
    EXPECT_FALSE(Config->Load()) << "no Cloud row";
    SetCloud("1, '', 0, 9000");
    EXPECT_FALSE(Config->Load()) << "no Network row";
    SetNetwork("'', 1, 4");
    fs::remove(kIfconfig);
    EXPECT_FALSE(Config->Load()) << "no address";
    EXPECT_EQ(output.Text(), "");
}

TEST_F(ConfigManagerTest, RecordsTheTimesOfTheCloudLink)
{
    SetCloud("1, '', 0, 9000");
    const std::time_t before = ClockSecond();
    Config->SetCommTime(true);
    EXPECT_GE(std::stol(Cloud("StartTime")), before);
    EXPECT_LE(std::stol(Cloud("StartTime")), ClockSecond());
    EXPECT_EQ(Cloud("CheckTime"), "NULL");
    Run(kMainDatabase, "UPDATE Cloud SET StartTime=1");
    Config->SetCommTime(false);
    EXPECT_GE(std::stol(Cloud("CheckTime")), before);
    EXPECT_LE(std::stol(Cloud("CheckTime")), ClockSecond());
    EXPECT_EQ(Cloud("StartTime"), "1");
}

TEST_F(ConfigManagerTest, OnlyLogsATimeThatCannotBeRecorded)
{
    Run(kMainDatabase, "DROP TABLE Cloud");
    {
        const CapturedOutput output;
        Config->SetCommTime(true);
        ExpectOne(output, "SetCommTime", "sqlite3_exec fail");
    }
    fs::remove_all(fs::path(kMainDatabase).parent_path());
    const CapturedOutput output;
    Config->SetCommTime(false);
    ExpectOne(output, "SetCommTime", "sqlite3_open fail");
}

} // namespace
} // namespace nimbra
