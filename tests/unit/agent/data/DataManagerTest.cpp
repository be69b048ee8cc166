#include "data/DataManager.h"

#include "data/LockTime.h"
#include "data/RowBytes.h"
#include "data/WriteLock.h"
#include "simulator/panel/SamplePanel.h"
#include "support/CapturedOutput.h"
#include "support/Matchers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <list>
#include <ostream>
#include <string>
#include <thread>

namespace nimbra {
namespace {

using test::IsLogLine;
using ::testing::ElementsAre;

std::string Hash(const std::string &text)
{
    return DataManager::HashPassword(text.c_str()).Get();
}

TEST(DataManager, GetInstanceAlwaysReturnsSameObject)
{
    ASSERT_NE(DataManager::GetInstance(), nullptr);
    EXPECT_EQ(DataManager::GetInstance(), DataManager::GetInstance());
}

TEST(DataManager, HashesPasswordsWithSha256InUpperCase)
{
    EXPECT_EQ(Hash(""), "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
    EXPECT_EQ(Hash("abc"), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    EXPECT_EQ(Hash("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248D6A61D20638B8E5C026930C3E6039A33CE45964FF2167F6ECEDD419DB06C1");
    EXPECT_EQ(Hash(std::string(1000000, 'a')),
              "CDC76E5C9914FB9281A1C7E284D73E67F1809A48A497200E046D39CCC7112CD0");
}

TEST(DataManager, HashesEveryByteOfPassword)
{
    EXPECT_NE(Hash("secret"), Hash("secret\r"));
    EXPECT_NE(Hash("secret"), Hash("Secret"));
    EXPECT_NE(Hash("secret"), Hash("secret "));
    EXPECT_EQ(Hash("\xff"), "A8100AE6AA1940D0B663BB31CD466142EBBDBD5187131B92D93818987832EB89");
}

/// A method of DataManager, called for a record of the sample panel.
struct Method
{
    const char *Name;
    bool (*Call)(DataManager &);
};

void PrintTo(const Method &method, std::ostream *stream)
{
    *stream << method.Name;
}

/// Queries a list; the filter, or the page, lets all of it through.
template <auto List, class Filter, class Record>
bool HasRows(DataManager &data)
{
    Filter filter;
    RowList<Record> rows;
    return (data.*List)(&filter, &rows);
}

constexpr Method kLists[] = {
    {"GetEventLogEx", HasRows<&DataManager::GetEventLogEx, EventFilter, EventInfo>},
    {"GetEventCodeEx", HasRows<&DataManager::GetEventCodeEx, EventCodeFilter, EventCodeInfo>},
    {"GetDoorInfoEx", HasRows<&DataManager::GetDoorInfoEx, DoorFilter, DoorInfo>},
    {"GetUserInfoEx", HasRows<&DataManager::GetUserInfoEx, UserFilter, UserInfo>},
    {"GetCardFormatEx", HasRows<&DataManager::GetCardFormatEx, Paging, CardFormatInfo>},
    {"GetCardInfoEx", HasRows<&DataManager::GetCardInfoEx, CardFilter, CardInfo>},
    {"GetAccessLevelEx",
     [](DataManager &data) {
         Paging page;
         RowList<AccessLevelInfo> rows;
         return data.GetAccessLevelEx(0, &page, &rows);
     }},
    {"GetThreatInfoEx", HasRows<&DataManager::GetThreatInfoEx, Paging, ThreatInfo>},
};

/// Changes the first record, or adds one.
template <auto Change, class Record>
bool IsChanged(DataManager &data)
{
    return (data.*Change)(Record());
}

constexpr Method kChanges[] = {
    {"SetUserInfo", IsChanged<&DataManager::SetUserInfo, UserInfo>},
    {"AddUserInfo", IsChanged<&DataManager::AddUserInfo, UserInfo>},
    {"DelUserInfo", IsChanged<&DataManager::DelUserInfo, UserInfo>},
    {"SetUserImage", IsChanged<&DataManager::SetUserImage, UserImage>},
    {"SetCardInfo", IsChanged<&DataManager::SetCardInfo, CardInfo>},
    {"AddCardInfo", IsChanged<&DataManager::AddCardInfo, CardInfo>},
    {"DelCardInfo", IsChanged<&DataManager::DelCardInfo, CardInfo>},
    {"SetCardAccessLevel", IsChanged<&DataManager::SetCardAccessLevel, CardAccessLevel>},
    {"SetThreatLevel", [](DataManager &data) { return data.SetThreatLevel(1); }},
};

/// Takes all the memory that the rows of all lists may take.
class AllRowBytes
{
public:
    AllRowBytes()
    {
        const std::string row(RowBytes::kLongestRow, 'r');
        // A list begins with a small block, for which there may still be room.
        while (lists_.emplace_back().Append(row))
            while (lists_.back().Append(row))
                continue;
    }

private:
    std::list<RowBytes> lists_;
};

/// Holds the lock around changes for another session.
class OtherChange
{
public:
    OtherChange() { isHeld_.get_future().wait(); }
    ~OtherChange()
    {
        isOver_.set_value();
        thread_.join();
    }
    OtherChange(const OtherChange &) = delete;
    OtherChange &operator=(const OtherChange &) = delete;

private:
    std::promise<void> isHeld_;
    std::promise<void> isOver_;
    std::thread thread_{[this] {
        const LockTime request;
        const WriteLock lock("DataManager.cpp");
        isHeld_.set_value();
        isOver_.get_future().wait();
    }};
};

/// On a sample panel, at the paths of a real one.
class DataManagerMethod : public ::testing::TestWithParam<Method>
{
protected:
    DataManagerMethod() { panel::CreatePanel("", {.Size = {}, .CommandTool = "/bin/true"}); }
    /// Removes the panel: other tests may run in the same sandbox.
    ~DataManagerMethod() override
    {
        const panel::PanelPaths paths("");
        for (const std::filesystem::path &directory :
             {paths.Databases, paths.Ifconfig.parent_path(), paths.CommandTool.parent_path(),
              paths.Images.parent_path(), paths.CallLog.parent_path()})
            std::filesystem::remove_all(directory);
    }

    /// Calls the method as a request does, with 100 ms for locks; returns its result.
    static bool Call()
    {
        const LockTime request;
        LockTime::SpendSince(LockTime::Clock::now() - std::chrono::milliseconds(2900));
        return GetParam().Call(*DataManager::GetInstance());
    }

    /// Expects that a call fails with one log line while the obstacle lives, and succeeds then.
    template <class Obstacle>
    static void ExpectFailureDuring(const char *message)
    {
        {
            const Obstacle obstacle;
            const test::CapturedOutput output;
            EXPECT_FALSE(Call());
            EXPECT_THAT(output.Log(),
                        ElementsAre(IsLogLine("DataManager.cpp", GetParam().Name, message)));
        }
        EXPECT_TRUE(Call());
    }
};

std::string NameOf(const ::testing::TestParamInfo<Method> &method)
{
    return method.param.Name;
}

using ListMethod = DataManagerMethod;

TEST_P(ListMethod, FailsWhileListsTakeAllMemory)
{
    ExpectFailureDuring<AllRowBytes>("RowList full");
}

INSTANTIATE_TEST_SUITE_P(Each, ListMethod, ::testing::ValuesIn(kLists), NameOf);

using ChangeMethod = DataManagerMethod;

TEST_P(ChangeMethod, FailsWhileAnotherChangeLasts)
{
    ExpectFailureDuring<OtherChange>("sqlite3_exec fail");
}

INSTANTIATE_TEST_SUITE_P(Each, ChangeMethod, ::testing::ValuesIn(kChanges), NameOf);

} // namespace
} // namespace nimbra
