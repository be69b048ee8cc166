// The event log: one event, the filtered and paged list, and SetEvent.

#include "simulator/panel/Sqlite.h"
#include "support/CommandTest.h"
#include "support/Files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <ctime>
#include <filesystem>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace nimbra::test {
namespace {

using ::testing::HasSubstr;
using ::testing::SizeIs;

namespace fs = std::filesystem;

/// The total of every list, whatever the log holds.
constexpr std::size_t kTotal = 100000;

/// Seconds since 1970 in the format of the protocol, in UTC.
std::string TimeText(std::time_t seconds)
{
    char text[32];
    std::tm utc = {};
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", gmtime_r(&seconds, &utc));
    return text;
}

/// The pairs of an event: a row of a list.
std::string Pairs(const panel::SampleEvent &event)
{
    return "EventNo=" + std::to_string(event.No) + "&EventTime=" + TimeText(event.Date) +
           "&DeviceType=" + std::to_string(event.Type) +
           "&DevicePort=" + std::to_string(event.Port) + "&DeviceName=" + event.DeviceName +
           "&EventCode=" + std::to_string(event.EventCode) + "&EventDesc=" + event.EventDesc +
           "&CardNo=" + std::to_string(event.CardNo) + "&UserNo=" + std::to_string(event.UserNo) +
           "&UserName=" + event.UserName + "&VideoTag=" + std::to_string(event.VideoTag);
}

std::string Answer(const panel::SampleEvent &event)
{
    return "GetEventLogResponse?Result=0&" + Pairs(event);
}

class EventLog : public CommandTest
{
protected:
    explicit EventLog(int events = 60, const std::string &timeZone = "UTC0")
        : CommandTest(Size(events), timeZone)
    {}

    static panel::PanelSize Size(int events)
    {
        panel::PanelSize size;
        size.Events = events;
        return size;
    }

    void RunOnLog(const std::string &sql) const { TestPanel::Run(panel_.Paths().LogDatabase, sql); }

    /// Adds a row; other columns are NULL.
    void AddEvent(const std::string &columns, const std::string &values) const
    {
        RunOnLog("INSERT INTO Log (" + columns + ") VALUES (" + values + ")");
    }

    /// The expected list rows of the events for which a condition holds, newest first. The log is L
    /// and the event codes are C in the condition.
    [[nodiscard]] std::vector<std::string> Select(const std::string &condition) const
    {
        panel::SqliteFile log(panel_.Paths().LogDatabase);
        log.Run("ATTACH '" + panel_.Paths().MainDatabase.string() + "' AS Panel");
        panel::SqliteStatement rows(
            log, "SELECT 'EventNo=' || L.No || '&EventTime=' ||"
                 " strftime('%Y-%m-%d %H:%M:%S', IFNULL(L.Date, 0), 'unixepoch') ||"
                 " '&DeviceType=' || IFNULL(L.Type, 0) || '&DevicePort=' || IFNULL(L.Port, 0) ||"
                 " '&DeviceName=' || IFNULL(L.DeviceName, '') || '&EventCode=' || L.EventCode ||"
                 " '&EventDesc=' || substr(IFNULL(C.Name, ''), 1, 64) ||"
                 " '&CardNo=' || IFNULL(L.CardNo, 0) || '&UserNo=' || IFNULL(L.UserNo, 0) ||"
                 " '&UserName=' || IFNULL(L.UserName, '') || '&VideoTag=' || IFNULL(L.Res1, 0)"
                 " FROM Log L, Panel.EventCode C"
                 " WHERE C.EventCode = L.EventCode AND (" +
                     condition + ") ORDER BY L.No DESC");
        std::vector<std::string> lines;
        while (rows.Step())
            lines.push_back(rows.Row()[0]);
        return lines;
    }

    /// Shows that a list has these rows, on one page from the start.
    void ExpectRows(const std::string &keys, const std::vector<std::string> &rows)
    {
        EXPECT_EQ(AskList("GetEventLogEx?" + keys + (keys.empty() ? "" : "&") + "Limit=100000"),
                  ListAnswer("GetEventLogEx", kTotal, 0, rows))
            << keys;
    }
};

// One event

TEST_F(EventLog, GetEventLogReturnsEveryField)
{
    for (const int no : {1, 2, 30, 60}) {
        panel::SampleEvent event = panel::ExpectedEvent(no);
        event.EventDesc = event.EventDesc.substr(0, 64);
        EXPECT_EQ(Ask("GetEventLog?EventNo=" + std::to_string(no)), Answer(event));
    }
    ExpectReadsKeys("GetEventLog?EventNo=7");
}

TEST_F(EventLog, GetEventLogFailsForUnknownNumber)
{
    for (const char *keys : {"EventNo=1000", "EventNo=0", "EventNo=-1", "", "EventCode=10001"})
        ExpectFails(std::string("GetEventLog?") + keys);
}

TEST_F(EventLog, NullColumnsReadAsEmptyAndZero)
{
    AddEvent("No, EventCode", "500, 10001");
    AddEvent("No, EventCode", "501, 20002"); // a code whose name is NULL
    panel::SampleEvent event = {};
    event.No = 500;
    event.EventCode = 10001;
    event.EventDesc = "Access granted";
    EXPECT_EQ(Ask("GetEventLog?EventNo=500"), Answer(event));
    ExpectRows("EventNo=500", {Pairs(event)});
    event.No = 501;
    event.EventCode = 20002;
    event.EventDesc = "";
    EXPECT_EQ(Ask("GetEventLog?EventNo=501"), Answer(event));
    ExpectRows("EventNo=501", {Pairs(event)});
}

TEST_F(EventLog, EventsOfUnknownCodeAreLeftOut)
{
    const std::vector<std::string> before = Select("1");
    AddEvent("No, EventCode", "500, 99999");
    AddEvent("No, Date", "501, 1767225600");
    ExpectFails("GetEventLog?EventNo=500");
    ExpectFails("GetEventLog?EventNo=501");
    ExpectFails("GetEventLogEx?EventNo=500");
    ExpectRows("", before);
}

TEST_F(EventLog, NumbersOfAnySizeAreReturned)
{
    panel::SampleEvent event = {};
    event.Date = 2147483647;
    event.Type = event.Port = event.CardNo = event.UserNo = event.VideoTag = 2147483647;
    event.No = 2147483647;
    event.EventCode = -2147483647 - 1;
    event.EventDesc = "Lowest code";
    panel_.Run("INSERT INTO EventCode VALUES (-2147483648, 'Lowest code')");
    const std::string columns = "No, Date, Type, Port, EventCode, CardNo, UserNo, Res1";
    AddEvent(columns, "2147483647, 2147483647, 2147483647, 2147483647, -2147483648, 2147483647,"
                      " 2147483647, 2147483647");
    EXPECT_EQ(Ask("GetEventLog?EventNo=2147483647"), Answer(event));
    ExpectRows("EventCode=-2147483648&CardNo=2147483647", {Pairs(event)});

    event.No = -5;
    event.Date = event.Type = event.Port = event.CardNo = event.UserNo = event.VideoTag =
        -2147483647 - 1;
    AddEvent(columns, "-5, -2147483648, -2147483648, -2147483648, -2147483648, -2147483648,"
                      " -2147483648, -2147483648");
    EXPECT_EQ(Ask("GetEventLog?EventNo=-5"), Answer(event));
    ExpectRows("EventNo=-5", {Pairs(event)});

    // Only the low 32 bits of a larger number are used.
    event.No = 600;
    event.Date = 0;
    event.Type = event.Port = event.CardNo = event.UserNo = event.VideoTag = 5;
    AddEvent(columns, "600, 4294967296, 4294967301, 4294967301, -2147483648, 4294967301,"
                      " 4294967301, 4294967301");
    EXPECT_EQ(Ask("GetEventLog?EventNo=600"), Answer(event));
}

TEST_F(EventLog, TextsAreCutAtFieldWidth)
{
    for (const std::size_t length : {32U, 33U}) {
        const std::string device(length, 'd');
        const std::string user(length, 'u');
        const std::string name(length + 32, 'n');
        panel_.Run("INSERT OR REPLACE INTO EventCode VALUES (30000, '" + name + "')");
        RunOnLog("DELETE FROM Log WHERE No=500");
        AddEvent("No, EventCode, DeviceName, UserName",
                 "500, 30000, '" + device + "', '" + user + "'");
        panel::SampleEvent event = {};
        event.No = 500;
        event.EventCode = 30000;
        event.DeviceName = device.substr(0, 32);
        event.UserName = user.substr(0, 32);
        event.EventDesc = name.substr(0, 64);
        EXPECT_EQ(Ask("GetEventLog?EventNo=500"), Answer(event)) << length;
        ExpectRows("EventNo=500", {Pairs(event)});
    }
}

// The list and its pages

TEST_F(EventLog, ListWithoutKeysHoldsNewest25Events)
{
    std::vector<std::string> rows = Select("1");
    ASSERT_THAT(rows, SizeIs(61)) << "the sample's and the login";
    rows.resize(25);
    EXPECT_EQ(AskList("GetEventLogEx?"), ListAnswer("GetEventLogEx", kTotal, 0, rows));
    EXPECT_EQ(AskList("GetEventLogEx?Limit=0"), ListAnswer("GetEventLogEx", kTotal, 0, rows));
    EXPECT_EQ(AskList("GetEventLogEx?Limit=abc&Offset=0"),
              ListAnswer("GetEventLogEx", kTotal, 0, rows));
    EXPECT_EQ(rows[1], Pairs(panel::ExpectedEvent(60)));
}

TEST_F(EventLog, ListHoldsFewerThan25EventsWhenThereAreNoMore)
{
    RunOnLog("DELETE FROM Log WHERE No > 7");
    EXPECT_EQ(AskList("GetEventLogEx?"), ListAnswer("GetEventLogEx", kTotal, 0, Select("1")));
    RunOnLog("DELETE FROM Log WHERE No > 1");
    EXPECT_EQ(AskList("GetEventLogEx?"),
              ListAnswer("GetEventLogEx", kTotal, 0, {Pairs(panel::ExpectedEvent(1))}));
    RunOnLog("DELETE FROM Log");
    ExpectFails("GetEventLogEx?");
}

TEST_F(EventLog, PageFollowsOffsetAndLimit)
{
    struct Case
    {
        const char *Keys;
        int Offset; ///< in the header of the answer
        std::size_t First;
        std::size_t Count;
    };
    constexpr std::size_t kAll = 61;
    const std::vector<Case> cases = {
        {"Limit=26", 0, 0, 26},
        {"Limit=62", 0, 0, kAll},
        {"Limit=-1", 0, 0, kAll}, // a negative limit is no limit
        {"Limit=10&Offset=5", 5, 5, 10},
        {"Offset=5", 5, 5, 25},
        {"Limit=10&Offset=55", 55, 55, 6},
        {"Limit=3&Offset=-4", -4, 0, 3}, // a negative offset is no offset
    };
    const std::vector<std::string> all = Select("1");
    ASSERT_EQ(all.size(), kAll);
    for (const Case &c : cases) {
        const auto first = all.begin() + static_cast<std::ptrdiff_t>(c.First);
        const std::vector<std::string> page(first, first + static_cast<std::ptrdiff_t>(c.Count));
        EXPECT_EQ(AskList(std::string("GetEventLogEx?") + c.Keys),
                  ListAnswer("GetEventLogEx", kTotal, c.Offset, page))
            << c.Keys;
    }
}

TEST_F(EventLog, PageAfterLastEventFails)
{
    ExpectFails("GetEventLogEx?Offset=61");
    ExpectFails("GetEventLogEx?Offset=2147483647&Limit=5");
    ExpectFails("GetEventLogEx?EventNo=5&Offset=1");
}

TEST_F(EventLog, PagesTogetherHoldFilteredList)
{
    const std::vector<std::string> all = Select("L.Type=2");
    std::vector<std::string> paged;
    for (std::size_t offset = 0; offset < all.size(); offset += 7) {
        std::vector<std::string> page =
            AskList("GetEventLogEx?DeviceType=2&Limit=7&Offset=" + std::to_string(offset));
        paged.insert(paged.end(), page.begin() + 1, page.end());
    }
    EXPECT_EQ(paged, all);
    ExpectFails("GetEventLogEx?DeviceType=2&Limit=7&Offset=" + std::to_string(all.size()));
}

// Filters

class EventLogFilter : public EventLog
{
protected:
    /// A key and its value, and the equivalent condition.
    struct Filter
    {
        std::string Pair;
        std::string Condition;
    };

    EventLogFilter() : EventLog(400) {}

    /// All filters. Each selects the same event, and others.
    static std::vector<Filter> Filters()
    {
        const panel::SampleEvent event = panel::ExpectedEvent(161);
        const auto number = [](const std::string &key, const std::string &column, int value) {
            const std::string text = std::to_string(value);
            return Filter{key + "=" + text, column + "=" + text};
        };
        // A part of the text in upper case.
        const auto text = [](const std::string &key, const std::string &column,
                             const std::string &value) {
            std::string piece = value.substr(1, 6);
            for (char &letter : piece)
                letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
            return Filter{key + "=" + piece,
                          "instr(upper(IFNULL(" + column + ", '')), '" + piece + "') > 0"};
        };
        const int from = event.Date - 1000;
        const int to = event.Date + 1000;
        return {
            number("EventNo", "L.No", event.No),
            {"FromTime=" + TimeText(from), "L.Date >= " + std::to_string(from)},
            {"ToTime=" + TimeText(to), "L.Date <= " + std::to_string(to)},
            number("DeviceType", "L.Type", event.Type),
            number("DevicePort", "L.Port", event.Port),
            text("DeviceName", "L.DeviceName", event.DeviceName),
            number("EventCode", "L.EventCode", event.EventCode),
            text("EventDesc", "C.Name", event.EventDesc),
            number("CardNo", "L.CardNo", event.CardNo),
            number("UserNo", "L.UserNo", event.UserNo),
            text("UserName", "L.UserName", event.UserName),
            number("VideoTag", "L.Res1", event.VideoTag),
        };
    }
};

TEST_F(EventLogFilter, EachKeySelectsAlone)
{
    for (const Filter &filter : Filters()) {
        const std::vector<std::string> rows = Select(filter.Condition);
        EXPECT_GE(rows.size(), 1U) << filter.Pair;
        EXPECT_LT(rows.size(), 401U) << filter.Pair;
        ExpectRows(filter.Pair, rows);
    }
}

TEST_F(EventLogFilter, EveryPairOfKeysSelectsTogether)
{
    const std::vector<Filter> filters = Filters();
    ASSERT_THAT(filters, SizeIs(12));
    for (std::size_t i = 0; i < filters.size(); ++i)
        for (std::size_t j = i + 1; j < filters.size(); ++j) {
            const std::vector<std::string> rows =
                Select("(" + filters[i].Condition + ") AND (" + filters[j].Condition + ")");
            EXPECT_GE(rows.size(), 1U);
            // The order of the keys in the request does not matter.
            ExpectRows(filters[i].Pair + "&" + filters[j].Pair, rows);
            ExpectRows(filters[j].Pair + "&" + filters[i].Pair, rows);
        }
}

TEST_F(EventLogFilter, AllKeysSelectTogether)
{
    std::string keys;
    for (const Filter &filter : Filters())
        keys += (keys.empty() ? "" : "&") + filter.Pair;
    ExpectRows(keys, {Pairs(panel::ExpectedEvent(161))});
    ExpectReadsKeys("GetEventLogEx?" + keys);
    ExpectFails("GetEventLogEx?" + keys + "&VideoTag=5");
}

TEST_F(EventLogFilter, ZeroSelectsEverything)
{
    const std::vector<std::string> all = Select("1");
    ExpectRows("EventNo=0&DeviceType=0&DevicePort=0&EventCode=0&CardNo=0&UserNo=0&VideoTag=0"
               "&Offset=0",
               all);
    // Events whose value is zero cannot be selected.
    EXPECT_LT(Select("IFNULL(L.Port, 0) = 0").size(), all.size());
    ExpectRows("DevicePort=0", all);
}

TEST_F(EventLogFilter, NegativeNumbersSelect)
{
    AddEvent("No, EventCode, Type", "-7, 10001, -3");
    ExpectRows("DeviceType=-3", Select("L.No = -7"));
    ExpectRows("EventNo=-7", Select("L.No = -7"));
    ExpectFails("GetEventLogEx?CardNo=-1");
}

TEST_F(EventLogFilter, TextFilterFindsSubstringWithWildcards)
{
    const auto has = [](const std::string &text) {
        return "instr(L.DeviceName, '" + text + "') > 0";
    };
    ExpectRows("DeviceName=Front", Select(has("Front")));
    ExpectRows("DeviceName=Front Entrance", Select(has("Front Entrance")));
    ExpectRows("DeviceName=ntranc", Select(has("ntranc")));
    ExpectRows("DeviceName=LOBBY", Select(has("Lobby")));
    ExpectRows("DeviceName=L_bb_", Select(has("Lobby")));
    ExpectRows("DeviceName=e%st", Select("L.DeviceName LIKE '%e%st%'"));
    ExpectRows("DeviceName=%", Select("L.DeviceName IS NOT NULL"));
    ExpectRows("UserName=%", Select("L.UserName IS NOT NULL"));
    ExpectFails("GetEventLogEx?DeviceName=Front%25");
    ExpectFails("GetEventLogEx?DeviceName=Front  Entrance");
    ExpectFails("GetEventLogEx?DeviceName=Lobby\r");
    ExpectFails("GetEventLogEx?DeviceName=Lobby\"");
    AddEvent("No, EventCode, DeviceName", "500, 10001, 'T\xC3\xBCr\\S\xC3\xBC"
                                          "d =?#'");
    ExpectRows("DeviceName=\xC3\xBCr\\S\xC3\xBC"
               "d =?#",
               Select("L.No = 500"));
}

TEST_F(EventLogFilter, TextsAreCutAtFieldWidth)
{
    const std::string device(40, 'd');
    const std::string user(40, 'u');
    const std::string name(80, 'n');
    panel_.Run("INSERT INTO EventCode VALUES (30000, '" + name + "')");
    AddEvent("No, EventCode, DeviceName, UserName", "500, 30000, '" + device + "', '" + user + "'");
    const std::vector<std::string> found = AskList("GetEventLogEx?EventNo=500");
    ASSERT_THAT(found, SizeIs(2));
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"DeviceName", device}, {"UserName", user}, {"EventDesc", name}};
    for (const auto &[key, text] : cases) {
        const std::size_t width = key == "EventDesc" ? 64 : 32;
        const std::string request = "GetEventLogEx?" + key + "=";
        EXPECT_EQ(AskList(request + text.substr(0, width - 1)), found) << key;
        EXPECT_EQ(AskList(request + text.substr(0, width)), found) << key;
        EXPECT_EQ(AskList(request + text.substr(0, width) + "x"), found) << key << " is cut";
        ExpectFails(request + text.substr(0, width - 1) + "x");
    }
}

TEST_F(EventLogFilter, LongestFiltersFitStatement)
{
    const std::string text(32, 'w');
    const std::string name(64, 'w');
    panel_.Run("INSERT INTO EventCode VALUES (-2147483648, '" + name + "')");
    AddEvent("No, Date, Type, Port, DeviceName, EventCode, CardNo, UserNo, UserName, Res1",
             "-2147483648, -1000000000, -2147483648, -2147483648, '" + text +
                 "', -2147483648, -2147483648, -2147483648, '" + text + "', -2147483648");
    const std::string lowest = "=-2147483648&";
    const std::string request =
        "GetEventLogEx?EventNo" + lowest + "FromTime=" + TimeText(-2000000000) +
        "&ToTime=" + TimeText(-1000000000) + "&DeviceType" + lowest + "DevicePort" + lowest +
        "DeviceName=" + text + "&EventCode" + lowest + "EventDesc=" + name + "&CardNo" + lowest +
        "UserNo" + lowest + "UserName=" + text + "&VideoTag" + lowest +
        "Limit=-2147483648&Offset=-2147483648";
    const std::vector<std::string> answer = AskList(request);
    ASSERT_THAT(answer, SizeIs(2)) << answer[0];
    EXPECT_EQ(answer[0], "GetEventLogExResponse?Result=0&Total=100000&Offset=-2147483648&Count=1");
    EXPECT_EQ(answer[1], "EventNo=-2147483648&EventTime=" + TimeText(-1000000000) +
                             "&DeviceType=-2147483648&DevicePort=-2147483648&DeviceName=" + text +
                             "&EventCode=-2147483648&EventDesc=" + name +
                             "&CardNo=-2147483648&UserNo=-2147483648&UserName=" + text +
                             "&VideoTag=-2147483648");
}

// Times

struct Zone
{
    const char *Name;
    const char *TimeZone; ///< the value of the variable TZ
    int EastSeconds;      ///< offset of its standard time
};

void PrintTo(const Zone &zone, std::ostream *out)
{
    *out << zone.TimeZone;
}

class EventLogZone : public EventLog, public testing::WithParamInterface<Zone>
{
protected:
    EventLogZone() : EventLog(1, GetParam().TimeZone) {}
};

TEST_P(EventLogZone, TimesAreReadAsLocalStandardTimeAndWrittenAsUtc)
{
    // In summer.
    const std::string text = "2026-07-15 12:00:00";
    const int utc = 1784116800 - GetParam().EastSeconds;
    RunOnLog("DELETE FROM Log");
    int no = 1000;
    for (const int distance : {-1, 0, 1})
        AddEvent("No, Date, EventCode",
                 std::to_string(++no) + ", " + std::to_string(utc + distance) + ", 10001");
    ExpectRows("FromTime=" + text + "&ToTime=" + text, Select("L.Date = " + std::to_string(utc)));
    ExpectRows("FromTime=" + text, Select("L.Date >= " + std::to_string(utc)));
    ExpectRows("ToTime=" + text, Select("L.Date <= " + std::to_string(utc)));
    EXPECT_THAT(Ask("GetEventLog?EventNo=1002"), HasSubstr("&EventTime=" + TimeText(utc) + "&"));
}

INSTANTIATE_TEST_SUITE_P(Each, EventLogZone,
                         testing::Values(Zone{"NewYork", "EST5EDT,M3.2.0,M11.1.0", -5 * 3600},
                                         Zone{"Delhi", "IST-5:30", 5 * 3600 + 1800}),
                         [](const auto &zone) { return zone.param.Name; });

TEST_F(EventLog, FirstSecondOf1970SelectsEverything)
{
    AddEvent("No, Date, EventCode", "500, -5, 10001");
    const std::vector<std::string> all = Select("1");
    const std::string from = "FromTime=1970-01-01 00:00:0";
    const std::string to = "ToTime=1970-01-01 00:00:0";
    ExpectRows(from + "0", all);
    ExpectRows(to + "0", all);
    ExpectRows(from + "0&" + to + "0", all);
    // The next second separates the event before 1970 from all others.
    ExpectRows(from + "1", Select("L.No != 500"));
    ExpectRows(to + "1", Select("L.No = 500"));
}

// SetEvent

TEST_F(EventLog, SetEventIsAcknowledgedForAnyKeys)
{
    for (const char *keys : {"", "Enable=1", "Enable=0", "Enable=-1", "enable=2147483647",
                             "Enable=abc", "Enable=", "Enable", "Disable=1", "Enable=1&Enable=0"})
        EXPECT_EQ(Ask(std::string("SetEvent?") + keys), "SetEventResponse?Result=0") << keys;
    EXPECT_EQ(agent_.CountMessages("ClientWorker.cpp", "SetEvent", "Invalid Token: Disable"), 1U);
    EXPECT_EQ(agent_.CountInLog("Invalid Token"), 1U);
}

TEST_F(EventLog, EventsAreNotSentUnrequested)
{
    EXPECT_EQ(Ask("SetEvent?Enable=1"), "SetEventResponse?Result=0");
    AddEvent("No, EventCode", "500, 10001");
    EXPECT_EQ(LoggedIn().Ask("DelCardInfo?CardNo=1"), "DelCardInfoResponse?Result=0");
    EXPECT_TRUE(client_->IsSilent(seconds(2)));
}

// Failures

class EventLogFailure : public EventLog
{
protected:
    /// Shows that both commands fail, and that their data methods log `count` messages each.
    void ExpectBothFail(const std::string &message, std::size_t count)
    {
        const auto messages = [&](const char *method) {
            return agent_.CountMessages("DataManager.cpp", method, message);
        };
        const std::size_t single = messages("GetEventLog");
        const std::size_t list = messages("GetEventLogEx");
        for (const std::string command : {"GetEventLog", "GetEventLogEx"}) {
            const std::string fail = command + " fail";
            const std::size_t before = agent_.CountMessages("ClientWorker.cpp", command, fail);
            EXPECT_EQ(Ask(command + "?EventNo=1"), command + "Response?Result=1");
            EXPECT_TRUE(agent_.WaitForMessage("ClientWorker.cpp", command, fail, before + 1));
        }
        EXPECT_EQ(messages("GetEventLog"), single + count);
        EXPECT_EQ(messages("GetEventLogEx"), list + count);
    }

    void ExpectBothWork()
    {
        EXPECT_EQ(Ask("GetEventLog?EventNo=1"), Answer(panel::ExpectedEvent(1)));
        ExpectRows("EventNo=1", {Pairs(panel::ExpectedEvent(1))});
    }

    /// Replaces a file by a directory.
    static void Replace(const fs::path &file)
    {
        fs::rename(file, file.string() + ".away");
        fs::create_directory(file);
    }

    static void Restore(const fs::path &file)
    {
        fs::remove(file);
        fs::rename(file.string() + ".away", file);
    }
};

TEST_F(EventLogFailure, UnopenedLogDatabaseIsLogged)
{
    const fs::path log = panel_.Paths().LogDatabase;
    ExpectBothWork();
    const std::size_t descriptors = agent_.Descriptors();
    Replace(log);
    for (int i = 0; i < 20; ++i)
        ExpectBothFail("sqlite3_open fail", 1);
    Restore(log);
    ExpectBothWork();
    EXPECT_EQ(agent_.Descriptors(), descriptors);
}

TEST_F(EventLogFailure, UnattachedMainDatabaseIsLogged)
{
    const fs::path main = panel_.Paths().MainDatabase;
    ExpectBothWork();
    const std::size_t descriptors = agent_.Descriptors();
    Replace(main);
    for (int i = 0; i < 20; ++i)
        ExpectBothFail("sqlite3_exec fail", 1);
    Restore(main);
    ExpectBothWork();
    EXPECT_EQ(agent_.Descriptors(), descriptors);
}

TEST_F(EventLogFailure, MissingTableLogsNoDataError)
{
    RunOnLog("ALTER TABLE Log RENAME TO Away");
    ExpectBothFail("sqlite3_open fail", 0);
    RunOnLog("ALTER TABLE Away RENAME TO Log; ALTER TABLE Log RENAME COLUMN Res1 TO Away");
    ExpectBothFail("sqlite3_exec fail", 0);
    RunOnLog("ALTER TABLE Log RENAME COLUMN Away TO Res1");
    ExpectBothWork();
    panel_.Run("ALTER TABLE EventCode RENAME TO Away");
    ExpectBothFail("sqlite3_exec fail", 0);
    panel_.Run("ALTER TABLE Away RENAME TO EventCode");
    ExpectBothWork();
    EXPECT_EQ(agent_.CountInLog("DataManager.cpp"), 0U);
}

TEST_F(EventLogFailure, LogFileThatIsNoDatabaseIsLoggedAsFailedAttach)
{
    const fs::path log = panel_.Paths().LogDatabase;
    fs::rename(log, log.string() + ".away");
    // SQLite does not read a file when it opens it.
    WriteFile(log, std::string(5000, 'x'));
    ExpectBothFail("sqlite3_exec fail", 1);
    EXPECT_EQ(agent_.CountInLog("sqlite3_open fail"), 0U);
    Restore(log);
    ExpectBothWork();
}

TEST_F(EventLogFailure, MissingLogDatabaseFailsWithoutDataError)
{
    const fs::path log = panel_.Paths().LogDatabase;
    fs::rename(log, log.string() + ".away");
    ExpectBothFail("sqlite3_open fail", 0);
    Restore(log);
    ExpectBothWork();
}

// A long log

class LongEventLog : public EventLog
{
protected:
    static constexpr int kEvents = 100000;

    LongEventLog() : EventLog(kEvents) {}

    /// Shows that the rows are those of event `no` and the events before it.
    static void ExpectEvents(const std::vector<std::string> &answer, std::size_t first, int no)
    {
        for (std::size_t i = first; i < answer.size(); ++i, --no) {
            panel::SampleEvent event = panel::ExpectedEvent(no);
            event.EventDesc = event.EventDesc.substr(0, 64);
            ASSERT_EQ(answer[i], Pairs(event));
        }
    }
};

TEST_F(LongEventLog, PagesReachLastEvent)
{
    constexpr int kPage = 2500;
    // The newest event is the client's own login.
    EXPECT_THAT(AskList("GetEventLogEx?Limit=1").at(1), HasSubstr("EventNo=100001&"));
    int no = kEvents;
    for (int offset = 1; no > 0; offset += kPage, no -= kPage) {
        const std::vector<std::string> page = AskList(
            "GetEventLogEx?Limit=" + std::to_string(kPage) + "&Offset=" + std::to_string(offset));
        ASSERT_EQ(page[0], "GetEventLogExResponse?Result=0&Total=100000&Offset=" +
                               std::to_string(offset) + "&Count=" + std::to_string(kPage));
        ASSERT_EQ(page.size(), std::size_t{kPage} + 1);
        ExpectEvents(page, 1, no);
    }
    EXPECT_EQ(no, 0);
    ExpectFails("GetEventLogEx?Limit=2500&Offset=100001");
}

// The idle time of a session starts at its last line, however long the answer takes: one request in
// each test.

TEST_F(LongEventLog, WholeLogFitsOneAnswer)
{
    const std::vector<std::string> answer = AskList("GetEventLogEx?Limit=100000");
    EXPECT_EQ(answer[0], "GetEventLogExResponse?Result=0&Total=100000&Offset=0&Count=100000");
    ASSERT_THAT(answer, SizeIs(100001));
    ExpectEvents(answer, 2, kEvents);
}

TEST_F(LongEventLog, WholeLogFitsOneAnswerWithLargestLimit)
{
    const std::vector<std::string> answer = AskList("GetEventLogEx?Limit=2147483647&Offset=1");
    EXPECT_EQ(answer[0], "GetEventLogExResponse?Result=0&Total=100000&Offset=1&Count=100000");
    ASSERT_THAT(answer, SizeIs(100001));
    ExpectEvents(answer, 1, kEvents);
}

} // namespace
} // namespace nimbra::test
