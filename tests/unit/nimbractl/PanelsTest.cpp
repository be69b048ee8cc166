// The configuration file of panels.

#include "nimbractl/Panels.h"

#include "nimbractl/Errors.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace nimbra::ctl {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

/// Reads a file with this content, and returns names and values.
std::vector<std::pair<std::string, std::map<std::string, std::string>>>
Read(const test::TemporaryDirectory &directory, const std::string &content)
{
    test::WriteFile(directory.Path("config"), content);
    std::vector<std::pair<std::string, std::map<std::string, std::string>>> panels;
    for (const ConfiguredPanel &panel : ReadPanels(directory.Path("config")))
        panels.emplace_back(panel.Name, panel.Values);
    return panels;
}

/// Returns the complaint about a file with this content, without the directory.
std::string SettingError(const std::string &content)
{
    const test::TemporaryDirectory directory;
    try {
        static_cast<void>(Read(directory, content));
        return "none";
    } catch (const LocalFailure &failure) {
        return std::string(failure.what()).substr(directory.Path().size() + 1);
    }
}

TEST(Panels, HaveTheValuesOfTheirSectionAndTheCommonOnes)
{
    const test::TemporaryDirectory directory;
    EXPECT_THAT(
        Read(directory, "# all panels\n"
                        "user = operator\n"
                        "timeout=010\n"
                        "\n"
                        "[front]\n"
                        "host=192.168.77.10\n"
                        "[back.yard]\n"
                        "host = fd00::1, [x] # the new one\n"
                        "user=\"guard\"\n"
                        "port=9520\n"
                        "clock-offset=+02:00\n"),
        ElementsAre(
            Pair("front", ElementsAre(Pair("host", "192.168.77.10"), Pair("timeout", "10"),
                                      Pair("user", "operator"))),
            Pair("back.yard",
                 ElementsAre(Pair("clock-offset", "+02:00"), Pair("host", "fd00::1, [x]"),
                             Pair("port", "9520"), Pair("timeout", "10"), Pair("user", "guard")))));
    EXPECT_THAT(Read(directory, ""), IsEmpty());
}

TEST(Panels, RelativePasswordFileIsInTheDirectoryOfTheFile)
{
    const test::TemporaryDirectory directory;
    EXPECT_THAT(
        Read(directory, "[a]\nhost=x\npassword-file=a pass\n[b]\nhost=y\npassword-file=/etc/b\n"),
        ElementsAre(Pair("a", ElementsAre(Pair("host", "x"),
                                          Pair("password-file", directory.Path("a pass")))),
                    Pair("b", ElementsAre(Pair("host", "y"), Pair("password-file", "/etc/b")))));
}

TEST(Panels, FaultNamesThePanelAndTheSetting)
{
    EXPECT_EQ(SettingError("[a]\nuser=x\n"), "config, [a]: the host is missing.");
    EXPECT_EQ(SettingError("[a]\nhost=x\n[b]\n"), "config, [b]: the host is missing.");
    EXPECT_EQ(SettingError("[a]\nhost=x\npassword=secret\n"),
              "config, [a]: there is no setting \"password\"; they are host, port, user, "
              "password-file, timeout, clock-offset.");
    EXPECT_EQ(SettingError("colour=red\n"),
              "config: there is no setting \"colour\"; they are host, port, user, password-file, "
              "timeout, clock-offset.");
    EXPECT_EQ(SettingError("[a]\nhost=x\nport=0\n"),
              "config, [a]: port: 0 is not within 1 and 65535.");
    EXPECT_EQ(SettingError("[a]\nhost=x\ntimeout=soon\n"),
              "config, [a]: timeout: \"soon\" is no whole number of 32 bits.");
    EXPECT_EQ(SettingError("[a]\nhost=x\nclock-offset=noon\n"),
              "config, [a]: clock-offset: \"noon\" is no offset such as +02:00.");
    EXPECT_EQ(SettingError("[a]\nhost=\n"), "config, [a]: host: the value is empty.");
    EXPECT_EQ(SettingError("[a]\nhost=x\nhost=y\n"), "config, [a]: host is there twice.");
    EXPECT_EQ(SettingError("[a,b]\nhost=x\n"),
              "config, [a,b]: a panel's name cannot hold a comma.");
}

TEST(Panels, FileThatCannotBeReadIsAFailure)
{
    const test::TemporaryDirectory directory;
    EXPECT_THROW(static_cast<void>(ReadPanels(directory.Path("none"))), LocalFailure);
    EXPECT_THROW(static_cast<void>(ReadPanels(directory.Path())), LocalFailure);
    EXPECT_THROW(static_cast<void>(ReadPanels("")), LocalFailure);
}

TEST(Panels, OptionsOfTheCommandLineOverruleTheFile)
{
    const ConfiguredPanel panel{"front",
                                {{"host", "h"},
                                 {"port", "9520"},
                                 {"user", "u"},
                                 {"password-file", "/p"},
                                 {"timeout", "3"},
                                 {"clock-offset", "+01:00"}}};
    Settings settings;
    ApplyPanel(panel, {}, settings);
    EXPECT_EQ(settings.Panel, "front");
    EXPECT_EQ(settings.Host, "h");
    EXPECT_EQ(settings.Port, 9520);
    EXPECT_EQ(settings.User, "u");
    EXPECT_EQ(settings.PasswordFile, "/p");
    EXPECT_TRUE(settings.MustPasswordFileBePrivate);
    EXPECT_EQ(settings.TimeoutSeconds, 3);
    EXPECT_EQ(settings.ClockOffset, "+01:00");

    Settings given;
    given.User = "me";
    given.PasswordFile = "-";
    ApplyPanel(panel, {"--user", "--password-file", "--output"}, given);
    EXPECT_EQ(given.User, "me");
    EXPECT_EQ(given.PasswordFile, "-");
    EXPECT_FALSE(given.MustPasswordFileBePrivate);
    EXPECT_EQ(given.Host, "h");
}

} // namespace

} // namespace nimbra::ctl
