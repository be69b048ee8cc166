#include "core/ConfigManager.h"

#include "base/PanelConstants.h"
#include "base/Wait.h"
#include "support/CapturedOutput.h"
#include "support/Files.h"
#include "support/Matchers.h"

#include <gmock/gmock.h>
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
using test::IsLogLine;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr char kIfconfig[] = "/nimbra/bin/ifconfig";
constexpr char kInterface[] =
    "eth0      Link encap:Ethernet  HWaddr 00:1a:2b:3c:4d:5e  \n"
    "          inet addr:192.168.1.20  Bcast:192.168.1.255  Mask:255.255.255.0\n";

/// A panel that has only the sources of the configuration. The tests run in a sandbox that provides
/// its paths.
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

    /// A column of the only row of the Cloud table.
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

    /// The MAC address that is read from this output of ifconfig; "(none)" when that fails.
    [[nodiscard]] std::string MacIn(const std::string &text) const
    {
        PrintByIfconfig(text);
        return config_->ReadMacAddress() ? config_->MacAddr.Get() : "(none)";
    }

    ConfigManager *const config_ = ConfigManager::GetInstance();
};

TEST_F(ConfigManagerTest, GetInstanceAlwaysReturnsSameObject)
{
    EXPECT_EQ(ConfigManager::GetInstance(), config_);
}

TEST_F(ConfigManagerTest, StoresMacAddressInUpperCaseAndItsDigestAsDeviceId)
{
    ASSERT_TRUE(config_->ReadMacAddress());
    EXPECT_STREQ(config_->MacAddr.Get(), "00:1A:2B:3C:4D:5E");
    EXPECT_STREQ(config_->DeviceId.Get(), "7EEA0B498F9CC0F7FC6B3EFF0AAB3FA973A5E491");
}

TEST_F(ConfigManagerTest, RunsIfconfigForWiredInterface)
{
    test::WriteFile(kIfconfig, "#!/bin/sh\necho \"HWaddr $# $*\"\necho \"$1 HWaddr $#,$1\"\n");
    ASSERT_TRUE(config_->ReadMacAddress());
    EXPECT_STREQ(config_->MacAddr.Get(), "1");
    test::WriteFile(kIfconfig, "#!/bin/sh\necho \"HWaddr $#,$1\"\n");
    ASSERT_TRUE(config_->ReadMacAddress());
    EXPECT_STREQ(config_->MacAddr.Get(), "1,ETH0");
}

TEST_F(ConfigManagerTest, ReadsMacAddressAfterHwaddr)
{
    EXPECT_EQ(MacIn("x HWaddr 00:1a:2b:3c:4d:5e\n"), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(MacIn("x HWaddr 00:1A:2B:3C:4D:5E and more\n"), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(MacIn("x HWaddr 00:1a:2b:3c:4d:5e\r\n"), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(MacIn("x HWaddr 00:1a:2b:3c:4d:5e"), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(MacIn("x HWaddr    00:1a:2b:3c:4d:5e  \n"), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(MacIn("HWaddr a HWaddr b\n"), "A");
    EXPECT_EQ(MacIn("no address here\nx HWaddr aa\ny HWaddr bb\n"), "AA");
}

TEST_F(ConfigManagerTest, CutsMacAddressAfter32Bytes)
{
    EXPECT_EQ(MacIn("HWaddr " + std::string(31, 'a') + "\n"), std::string(31, 'A'));
    EXPECT_EQ(MacIn("HWaddr " + std::string(32, 'a') + "\n"), std::string(32, 'A'));
    const std::string deviceId = config_->DeviceId.Get();
    for (const std::size_t length : {33U, 5000U}) {
        EXPECT_EQ(MacIn("HWaddr " + std::string(length, 'a') + "\n"), std::string(32, 'A'));
        EXPECT_EQ(config_->DeviceId.Get(), deviceId);
    }
}

TEST_F(ConfigManagerTest, FailsWithoutMacAddress)
{
    for (const char *text : {"", "\n", "eth0 Link encap:Ethernet\n", "HWaddr \n", "HWaddr      \n",
                             "HWaddr\n", "x HWaddr \r\n", "HWaddr:00:1a:2b:3c:4d:5e\n",
                             "hwaddr 00:1a:2b:3c:4d:5e\n", "ether 00:1a:2b:3c:4d:5e\n"})
        EXPECT_EQ(MacIn(text), "(none)") << text;
    EXPECT_EQ(MacIn(std::string(2000, 'x') + "HWaddr 00:1a:2b:3c:4d:5e\n"), "(none)")
        << "beyond the limit of a line";
}

TEST_F(ConfigManagerTest, FailsWithoutIfconfig)
{
    fs::remove(kIfconfig);
    EXPECT_FALSE(config_->ReadMacAddress());
}

TEST_F(ConfigManagerTest, ReadsCloudSettings)
{
    ASSERT_TRUE(config_->ReadMacAddress());
    SetCloud("1, '10.1.2.3', 1234, 9000");
    ASSERT_TRUE(config_->ReadServerInfo());
    EXPECT_TRUE(config_->CloudEnable);
    EXPECT_EQ(config_->PrivatePort, 9000);
    EXPECT_EQ(Cloud("DeviceID"), config_->DeviceId.Get());
}

TEST_F(ConfigManagerTest, UsesBuiltInCloudEndpoint)
{
    SetCloud("1, '10.1.2.3', 1234, 9000");
    ASSERT_TRUE(config_->ReadServerInfo());
    EXPECT_STREQ(config_->CloudServerAddr.Get(), NIMBRA_CLOUD_HOST);
    EXPECT_EQ(config_->CloudServerPort, 9500);
}

TEST_F(ConfigManagerTest, TakesAnyNonzeroNumberAsEnabled)
{
    for (const char *enabled : {"1", "2", "-1", "'7x'"}) {
        SetCloud(std::string(enabled) + ", NULL, NULL, NULL");
        EXPECT_TRUE(config_->ReadServerInfo());
        EXPECT_TRUE(config_->CloudEnable) << enabled;
        EXPECT_EQ(config_->PrivatePort, 0);
    }
    for (const char *disabled : {"0", "NULL", "''", "'yes'"}) {
        SetCloud(std::string(disabled) + ", NULL, NULL, 5");
        EXPECT_TRUE(config_->ReadServerInfo());
        EXPECT_FALSE(config_->CloudEnable) << disabled;
        EXPECT_EQ(config_->PrivatePort, 5);
    }
}

TEST_F(ConfigManagerTest, FailsWithoutCloudRowButSetsCloudEndpoint)
{
    config_->CloudServerAddr.Clear();
    config_->CloudServerPort = 0;
    const CapturedOutput output;
    EXPECT_FALSE(config_->ReadServerInfo());
    EXPECT_STREQ(config_->CloudServerAddr.Get(), NIMBRA_CLOUD_HOST);
    EXPECT_EQ(config_->CloudServerPort, 9500);
    EXPECT_EQ(output.Text(), "");
}

TEST_F(ConfigManagerTest, FailsWhenCloudTableLacksColumn)
{
    Run(kMainDatabase, "ALTER TABLE Cloud DROP COLUMN DevicePort");
    Run(kMainDatabase, "INSERT INTO Cloud (Enabled) VALUES (1)");
    EXPECT_FALSE(config_->ReadServerInfo());
}

void ExpectOneLine(const CapturedOutput &output, const char *method, const char *message)
{
    EXPECT_THAT(output.Log(), ElementsAre(IsLogLine("ConfigManager.cpp", method, message)));
}

TEST_F(ConfigManagerTest, LogsErrorCodeWhenDeviceIdCannotBeWritten)
{
    Run(kMainDatabase, "DROP TABLE Cloud");
    const CapturedOutput output;
    EXPECT_FALSE(config_->ReadServerInfo());
    ExpectOneLine(output, "ReadServerInfo", "sqlite3_exec fail[1]");
}

TEST_F(ConfigManagerTest, LogsWhenMainDatabaseCannotBeOpened)
{
    fs::remove_all(fs::path(kMainDatabase).parent_path());
    const CapturedOutput output;
    EXPECT_FALSE(config_->ReadServerInfo());
    ExpectOneLine(output, "ReadServerInfo", "sqlite3_open fail");
}

TEST_F(ConfigManagerTest, LogsWhenNetworkDatabaseCannotBeOpened)
{
    fs::remove_all(fs::path(kNetworkDatabase).parent_path());
    const CapturedOutput output;
    EXPECT_FALSE(config_->ReadNetworkInfo());
    ExpectOneLine(output, "ReadNetworkInfo", "sqlite3_open fail");
}

TEST_F(ConfigManagerTest, NamesKnownModelsOnly)
{
    struct Case
    {
        const char *Model;
        const char *Name;
    };
    for (const Case &model :
         {Case{"1", "Alder 64"}, Case{"2", "Birch 64"}, Case{"3", "Cedar 64"},
          Case{"11", "Dogwood 64"}, Case{"0", ""}, Case{"-1", ""}, Case{"4", ""}, Case{"5", ""},
          Case{"6", ""}, Case{"7", ""}, Case{"8", ""}, Case{"9", ""}, Case{"10", ""},
          Case{"12", ""}, Case{"257", ""}, Case{"NULL", ""}}) {
        SetNetwork(std::string("'192.168.1.20', ") + model.Model + ", 64");
        EXPECT_TRUE(config_->ReadNetworkInfo());
        EXPECT_STREQ(config_->ModelName.Get(), model.Name) << model.Model;
        EXPECT_STREQ(config_->PrivateAddr.Get(), "192.168.1.20");
    }
}

TEST_F(ConfigManagerTest, AppendsAnySizeToModelName)
{
    SetNetwork("'', 11, -2147483648");
    EXPECT_TRUE(config_->ReadNetworkInfo());
    EXPECT_STREQ(config_->ModelName.Get(), "Dogwood -2147483648");
    SetNetwork("NULL, 1, NULL");
    EXPECT_TRUE(config_->ReadNetworkInfo());
    EXPECT_STREQ(config_->ModelName.Get(), "Alder 0");
    EXPECT_STREQ(config_->PrivateAddr.Get(), "");
}

TEST_F(ConfigManagerTest, CutsPanelAddressAfter32Bytes)
{
    SetNetwork("'" + std::string(33, '1') + "', 1, 4");
    EXPECT_TRUE(config_->ReadNetworkInfo());
    EXPECT_EQ(config_->PrivateAddr.View(), std::string(32, '1'));
}

TEST_F(ConfigManagerTest, FailsWithoutNetworkRowAndClearsModelName)
{
    SetNetwork("'', 1, 4");
    ASSERT_TRUE(config_->ReadNetworkInfo());
    Run(kNetworkDatabase, "DELETE FROM Network");
    const CapturedOutput output;
    EXPECT_FALSE(config_->ReadNetworkInfo());
    EXPECT_TRUE(config_->ModelName.IsEmpty());
    EXPECT_EQ(output.Text(), "");
}

TEST_F(ConfigManagerTest, FailsWithoutNetworkTableAndClearsModelName)
{
    SetNetwork("'', 1, 4");
    ASSERT_TRUE(config_->ReadNetworkInfo());
    Run(kNetworkDatabase, "DROP TABLE Network");
    EXPECT_FALSE(config_->ReadNetworkInfo());
    EXPECT_TRUE(config_->ModelName.IsEmpty());
}

TEST_F(ConfigManagerTest, PrintsLoadedConfiguration)
{
    SetCloud("1, '10.1.2.3', 1234, 9100");
    SetNetwork("'192.168.1.20', 11, 64");
    const CapturedOutput output;
    EXPECT_TRUE(config_->Load());
    EXPECT_EQ(output.Text(), "CloudEnable=1\n"
                             "CloudServerAddr=" NIMBRA_CLOUD_HOST "\n"
                             "CloudServerPort=9500\n"
                             "DeviceId=7EEA0B498F9CC0F7FC6B3EFF0AAB3FA973A5E491\n"
                             "MacAddr=00:1A:2B:3C:4D:5E\n"
                             "ModelName=Dogwood 64\n"
                             "PrivateAddr=192.168.1.20\n"
                             "PrivatePort=9100\n");
}

TEST_F(ConfigManagerTest, DisablesCloudForUnknownModel)
{
    SetCloud("1, '', 0, 9000");
    SetNetwork("'192.168.1.20', 5, 64");
    const CapturedOutput output;
    EXPECT_TRUE(config_->Load());
    EXPECT_FALSE(config_->CloudEnable);
    EXPECT_THAT(output.Text(), HasSubstr("CloudEnable=0\n"));
    EXPECT_THAT(output.Text(), HasSubstr("\nModelName=\n"));
}

TEST_F(ConfigManagerTest, PrintsNothingWhenLoadFails)
{
    const CapturedOutput output;
    EXPECT_FALSE(config_->Load()) << "no Cloud row";
    SetCloud("1, '', 0, 9000");
    EXPECT_FALSE(config_->Load()) << "no Network row";
    SetNetwork("'', 1, 4");
    fs::remove(kIfconfig);
    EXPECT_FALSE(config_->Load()) << "no address";
    EXPECT_EQ(output.Text(), "");
}

TEST_F(ConfigManagerTest, RecordsTimesOfCloudLink)
{
    SetCloud("1, '', 0, 9000");
    const std::time_t before = ClockSecond();
    config_->SetCommTime(true);
    EXPECT_GE(std::stol(Cloud("StartTime")), before);
    EXPECT_LE(std::stol(Cloud("StartTime")), ClockSecond());
    EXPECT_EQ(Cloud("CheckTime"), "NULL");
    Run(kMainDatabase, "UPDATE Cloud SET StartTime=1");
    config_->SetCommTime(false);
    EXPECT_GE(std::stol(Cloud("CheckTime")), before);
    EXPECT_LE(std::stol(Cloud("CheckTime")), ClockSecond());
    EXPECT_EQ(Cloud("StartTime"), "1");
}

TEST_F(ConfigManagerTest, LogsWhenTimeCannotBeRecorded)
{
    Run(kMainDatabase, "DROP TABLE Cloud");
    {
        const CapturedOutput output;
        config_->SetCommTime(true);
        ExpectOneLine(output, "SetCommTime", "sqlite3_exec fail");
    }
    fs::remove_all(fs::path(kMainDatabase).parent_path());
    const CapturedOutput output;
    config_->SetCommTime(false);
    ExpectOneLine(output, "SetCommTime", "sqlite3_open fail");
}

} // namespace
} // namespace nimbra
