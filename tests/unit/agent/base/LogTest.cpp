#include "base/Log.h"

#include "base/Wait.h"
#include "support/CapturedOutput.h"
#include "support/Matchers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace nimbra {
namespace {

using test::CapturedOutput;
using test::IsLogLine;
using ::testing::ElementsAre;

/// A class that logs in the same way as the classes of the agent.
class Service
{
public:
    static int Fail()
    {
        NIMBRA_LOG("%s fail[%d]", "socket", -7);
        return __LINE__ - 1;
    }
    static void Help(CallPlace place = CallPlace::Here()) { Log(place.In(kLogSource), "helped"); }
    static int AskForHelp()
    {
        Help();
        return __LINE__ - 1;
    }

private:
    static constexpr char kLogSource[] = "Service.cpp";
};

TEST(Log, PrintsOneLineInCommonFormat)
{
    const CapturedOutput output;
    const std::time_t before = ClockSecond();
    Log({"ClientWorker.cpp", 634, "GetUserInfo"}, "Authority fail");
    const std::time_t after = ClockSecond();
    const std::string text = output.Text();
    bool isFound = false;
    for (std::time_t time = before; time <= after; ++time)
        isFound = isFound || text == "DEBUG: " + std::to_string(time) +
                                         ":ClientWorker.cpp:634:GetUserInfo(): Authority fail\n";
    EXPECT_TRUE(isFound) << text;
}

TEST(Log, FormatsMessage)
{
    const CapturedOutput output;
    Log({"A.cpp", 1, "B"}, "Invalid Token: %s", "x=%d\r");
    Log({"A.cpp", 1, "B"}, "connect fail %s:%s:%d", "host", "127.0.0.1", 9500);
    Log({"A.cpp", 1, "B"}, "%s", "");
    EXPECT_THAT(output.Messages(),
                ElementsAre("Invalid Token: x=%d\r", "connect fail host:127.0.0.1:9500", ""));
}

TEST(Log, ReportsSourceLineAndMethodOfCall)
{
    const CapturedOutput output;
    const int expectedLine = Service::Fail();
    EXPECT_THAT(output.Log(), ElementsAre(IsLogLine(LogSite{"Service.cpp", expectedLine, "Fail"},
                                                    "socket fail[-7]")));
}

TEST(Log, ReportsCallerOfHelper)
{
    const CapturedOutput output;
    const int expectedLine = Service::AskForHelp();
    EXPECT_THAT(output.Log(), ElementsAre(IsLogLine(
                                  LogSite{"Service.cpp", expectedLine, "AskForHelp"}, "helped")));
}

TEST(Log, NeverMixesLinesOfSeveralThreads)
{
    constexpr int kThreads = 8;
    constexpr int kLines = 250;
    const CapturedOutput output;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([thread] {
            for (int line = 0; line < kLines; ++line)
                Log({"LogTest.cpp", line, "Thread"}, "%d %d %s", thread, line,
                    std::string(200, static_cast<char>('a' + thread)).c_str());
        });
    for (std::thread &thread : threads)
        thread.join();

    std::set<std::string> expected;
    for (int thread = 0; thread < kThreads; ++thread)
        for (int line = 0; line < kLines; ++line)
            expected.insert(std::to_string(thread) + " " + std::to_string(line) + " " +
                            std::string(200, static_cast<char>('a' + thread)));
    const std::vector<std::string> messages = output.Messages();
    EXPECT_EQ(messages.size(), expected.size());
    EXPECT_EQ(std::set<std::string>(messages.begin(), messages.end()), expected);
}

} // namespace
} // namespace nimbra
