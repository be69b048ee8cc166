#include "client/ClientWorker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace nimbra {
namespace {

/// An independent copy of the commands, in the order in which a line is searched for them.
constexpr const char *kOrder[] = {
    "Hello",
    "Login",
    "Heartbeat",
    "SetEvent",
    "GetEventLog",
    "GetEventLogEx",
    "GetEventCode",
    "GetEventCodeEx",
    "GetLiveVideoInfo",
    "GetPlayVideoInfo",
    "GetDoorInfo",
    "GetDoorInfoEx",
    "GetUserInfo",
    "GetUserInfoEx",
    "SetUserInfo",
    "AddUserInfo",
    "DelUserInfo",
    "GetUserImage",
    "SetUserImage",
    "GetCardFormat",
    "GetCardFormatEx",
    "GetCardInfo",
    "GetCardInfoEx",
    "SetCardInfo",
    "AddCardInfo",
    "DelCardInfo",
    "GetAccessLevel",
    "GetAccessLevelEx",
    "GetCardAccessLevel",
    "SetCardAccessLevel",
    "GetThreatInfo",
    "GetThreatInfoEx",
    "GetDoorLock",
    "SetDoorLock",
    "GetAuxOutput",
    "SetAuxOutput",
    "GetThreatLevel",
    "SetThreatLevel",
};

/// The commands of one area, by the bit that each needs.
struct Area
{
    std::size_t Word;
    std::set<std::string> View;
    std::set<std::string> Add;
    std::set<std::string> Change;
};
const std::vector<Area> &Areas()
{
    static const std::vector<Area> areas = {
        {0,
         {"GetUserInfo", "GetUserInfoEx", "GetUserImage"},
         {"AddUserInfo"},
         {"SetUserInfo", "DelUserInfo", "SetUserImage"}},
        {1, {"GetCardFormat", "GetCardFormatEx"}, {}, {}},
        {2,
         {"GetCardInfo", "GetCardInfoEx", "GetCardAccessLevel"},
         {"AddCardInfo"},
         {"SetCardInfo", "DelCardInfo", "SetCardAccessLevel"}},
        {3, {"GetAccessLevel", "GetAccessLevelEx"}, {}, {}},
        {4, {"GetDoorInfo", "GetDoorInfoEx"}, {}, {}},
        {5, {"GetDoorLock"}, {}, {"SetDoorLock"}},
        {6, {"GetAuxOutput"}, {}, {"SetAuxOutput"}},
        {7, {"GetThreatInfo", "GetThreatInfoEx"}, {}, {}},
        {8, {"GetThreatLevel"}, {}, {"SetThreatLevel"}},
    };
    return areas;
}

/// The bit and the area that a command needs; bit 0 for a command without an area.
Right ExpectedRight(const std::string &name)
{
    for (const Area &area : Areas()) {
        const auto word = static_cast<AuthorityArea>(area.Word);
        if (area.View.count(name) != 0)
            return {word, 1};
        if (area.Add.count(name) != 0)
            return {word, 2};
        if (area.Change.count(name) != 0)
            return {word, 4};
    }
    return {AuthUsers, 0};
}

TEST(CommandTable, ListsEveryCommandInSearchOrder)
{
    std::vector<std::string> names;
    for (const ClientWorker::Command &command : ClientWorker::Commands())
        names.emplace_back(command.Name());
    EXPECT_THAT(names, ::testing::ElementsAreArray(kOrder));
}

TEST(CommandTable, EndsEachWordWithQuestionMark)
{
    for (const ClientWorker::Command &command : ClientWorker::Commands()) {
        const std::string_view word = command.Word;
        EXPECT_THAT(word, ::testing::EndsWith("?"));
        EXPECT_EQ(std::count(word.begin(), word.end(), '?'), 1) << word;
        EXPECT_EQ(std::string(command.Name()) + "?", word);
    }
}

TEST(CommandTable, RequiresRightOfEachCommand)
{
    for (const ClientWorker::Command &command : ClientWorker::Commands()) {
        const std::string name(command.Name());
        const Right expected = ExpectedRight(name);
        EXPECT_EQ(command.Needs.Bit, expected.Bit) << name;
        if (expected.Bit != 0) {
            EXPECT_EQ(command.Needs.Area, expected.Area) << name;
        }
    }
}

TEST(CommandTable, AllowsOnlyHelloAndLoginBeforeLogin)
{
    std::vector<std::string> open;
    for (const ClientWorker::Command &command : ClientWorker::Commands())
        if (!command.Needs.NeedsLogin)
            open.emplace_back(command.Name());
    EXPECT_THAT(open, ::testing::ElementsAre("Hello", "Login"));
}

TEST(CommandTable, HasSeparateHandlerForEachCommand)
{
    const auto commands = ClientWorker::Commands();
    for (std::size_t i = 0; i < commands.size(); ++i) {
        EXPECT_NE(commands[i].Handler, nullptr) << commands[i].Word;
        for (std::size_t j = 0; j < i; ++j)
            EXPECT_NE(commands[i].Handler, commands[j].Handler) << commands[i].Word;
    }
}

} // namespace
} // namespace nimbra
