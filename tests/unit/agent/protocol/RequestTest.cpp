#include "protocol/Request.h"

#include "support/CapturedOutput.h"
#include "support/Matchers.h"
#include "support/TimeZone.h"

#include <climits>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace nimbra {
namespace {

using test::CapturedOutput;
using test::IsLogLine;
using test::LogLine;
using ::testing::ElementsAre;
using Messages = std::vector<std::string>;

constexpr LogSite kSite = {"ClientWorker.cpp", 77, "GetDoorInfoEx"};

/// The values that a handler reads from a line: two numbers and two texts. No test sends their
/// initial values, so a value that was not read is recognized.
struct Request
{
    explicit Request(std::string line)
    {
        const CapturedOutput output;
        char *rest = nullptr;
        const char *word = SplitCommand(line.data(), &rest);
        Word = word == nullptr ? "(none)" : word;
        const RequestKey keys[] = {
            {"DoorNo", &DoorNo}, {"Limit", &Limit}, {"Name", &Name}, {"Key", &Key}};
        ReadKeys(rest, keys, kSite);
        Log = output.Log();
        for (const LogLine &logged : Log)
            Invalid.push_back(logged.Message);
    }

    std::string Word;
    std::int32_t DoorNo = -111;
    std::int32_t Limit = -222;
    FixedText<8> Name{"(name)"};
    FixedText<32> Key{"(key)"};
    Messages Invalid;
    std::vector<LogLine> Log;
};

/// The value of Key after these pairs were read.
std::string KeyIn(const std::string &pairs)
{
    return Request("Command?" + pairs).Key.Get();
}

std::int32_t NumberIn(const std::string &value)
{
    return Request("Command?DoorNo=" + value).DoorNo;
}

TEST(Request, ReadsEachPairIntoItsField)
{
    const Request request("GetDoorInfoEx?DoorNo=3&Limit=10&Name=Front&Key=a b");
    EXPECT_EQ(request.Word, "GetDoorInfoEx");
    EXPECT_EQ(request.DoorNo, 3);
    EXPECT_EQ(request.Limit, 10);
    EXPECT_STREQ(request.Name.Get(), "Front");
    EXPECT_STREQ(request.Key.Get(), "a b");
    EXPECT_EQ(request.Invalid, Messages());
}

TEST(Request, KeepsDefaultsOfMissingKeys)
{
    for (const char *line : {"Command?", "Command", "Command?&", "Command?=", "Command?DoorNo",
                             "Command?DoorNo=", "Command?DoorNo=&", "Command?==="}) {
        const Request request(line);
        EXPECT_EQ(request.Word, "Command") << line;
        EXPECT_EQ(request.DoorNo, -111) << line;
        EXPECT_EQ(request.Limit, -222) << line;
        EXPECT_STREQ(request.Name.Get(), "(name)") << line;
        EXPECT_STREQ(request.Key.Get(), "(key)") << line;
        EXPECT_EQ(request.Invalid, Messages()) << line;
    }
}

TEST(Request, HasNoWordWhenLineHoldsOnlyQuestionMarks)
{
    for (const char *line : {"", "?", "??", "????????"}) {
        const Request request(line);
        EXPECT_EQ(request.Word, "(none)") << line;
        EXPECT_EQ(request.DoorNo, -111) << line;
        EXPECT_EQ(request.Invalid, Messages()) << line;
    }
}

TEST(Request, TakesTextBeforeQuestionMarkAsWord)
{
    EXPECT_EQ(Request("XYZGetDoorLock?DoorNo=1").Word, "XYZGetDoorLock");
    EXPECT_EQ(Request("A=1&B?DoorNo=1").Word, "A=1&B");
    EXPECT_EQ(Request(" Hello ?").Word, " Hello ");
    EXPECT_EQ(Request("?DoorNo=1").Word, "DoorNo=1");
}

TEST(Request, KeepsFurtherQuestionMarksInFirstKey)
{
    const Request request("Command??DoorNo=1&Limit=2");
    EXPECT_EQ(request.DoorNo, -111);
    EXPECT_EQ(request.Limit, 2);
    EXPECT_EQ(request.Invalid, Messages{"Invalid Token: ?DoorNo"});
}

TEST(Request, KeepsFurtherQuestionMarksInValue)
{
    EXPECT_EQ(KeyIn("Key=what?&Limit=2"), "what?");
    EXPECT_EQ(KeyIn("Key=Login?Username=x"), "Login?Username=x");
}

TEST(Request, IgnoresCaseOfKeys)
{
    EXPECT_EQ(Request("Command?doorno=5").DoorNo, 5);
    EXPECT_EQ(Request("Command?DOORNO=5").DoorNo, 5);
    EXPECT_EQ(Request("Command?dOoRnO=5").DoorNo, 5);
}

TEST(Request, RefusesKeyThatIsOnlySimilar)
{
    for (const char *key : {"DoorN", "DoorNoo", " DoorNo", "DoorNo ", "Door No", "\tDoorNo"}) {
        const Request request(std::string("Command?") + key + "=5");
        EXPECT_EQ(request.DoorNo, -111) << key;
        EXPECT_EQ(request.Invalid, Messages{std::string("Invalid Token: ") + key});
    }
}

TEST(Request, KeepsLastValueOfRepeatedKey)
{
    const Request request("Command?DoorNo=1&Name=first&doorno=2&Name=2nd");
    EXPECT_EQ(request.DoorNo, 2);
    EXPECT_STREQ(request.Name.Get(), "2nd");
}

TEST(Request, StoresValueInFirstOfTwoFieldsWithSameKey)
{
    std::int32_t first = 0;
    std::int32_t second = 0;
    const RequestKey keys[] = {{"No", &first}, {"NO", &second}};
    std::string line = "Command?no=4";
    char *rest = nullptr;
    EXPECT_STREQ(SplitCommand(line.data(), &rest), "Command");
    ReadKeys(rest, keys, kSite);
    EXPECT_EQ(first, 4);
    EXPECT_EQ(second, 0);
}

TEST(Request, LogsUnknownKeyAndContinues)
{
    const Request request("Command?Password=x&DoorNo=1&DoorNoX=2&Limit=3&=&A=b");
    EXPECT_EQ(request.DoorNo, 1);
    EXPECT_EQ(request.Limit, 3);
    EXPECT_THAT(request.Log, ElementsAre(IsLogLine(kSite, "Invalid Token: Password"),
                                         IsLogLine(kSite, "Invalid Token: DoorNoX"),
                                         IsLogLine(kSite, "Invalid Token: &A")));
}

TEST(Request, LogsKeyWithFormatCharactersUnchanged)
{
    EXPECT_EQ(Request("Command?%s%n%d=1").Invalid, Messages{"Invalid Token: %s%n%d"});
}

TEST(Request, TakesNextPairAsValueWhenValueIsEmpty)
{
    const Request request("Command?Key=&Name=5&Limit=7");
    EXPECT_STREQ(request.Key.Get(), "Name=5");
    EXPECT_STREQ(request.Name.Get(), "(name)");
    EXPECT_EQ(request.Limit, 7);
    EXPECT_EQ(KeyIn("Key=&Other=5"), "Other=5");
    EXPECT_EQ(KeyIn("Key=&&&Other=5"), "Other=5");
}

TEST(Request, StopsAtKeyWithoutValue)
{
    const Request last("Command?DoorNo=1&Limit=");
    EXPECT_EQ(last.DoorNo, 1);
    EXPECT_EQ(last.Limit, -222);
    const Request bare("Command?DoorNo=1&Limit");
    EXPECT_EQ(bare.DoorNo, 1);
    EXPECT_EQ(bare.Limit, -222);
}

TEST(Request, TakesPairWithoutEqualsSignAsPartOfNextKey)
{
    const Request request("Command?DoorNo=1&Enable&Limit=2&Name=x");
    EXPECT_EQ(request.DoorNo, 1);
    EXPECT_EQ(request.Limit, -222);
    EXPECT_STREQ(request.Name.Get(), "x");
    EXPECT_EQ(request.Invalid, Messages{"Invalid Token: Enable&Limit"});
}

TEST(Request, TakesDoubledSeparatorAsPartOfNextKey)
{
    const Request request("Command?DoorNo=1&&Limit=2&Name=x");
    EXPECT_EQ(request.DoorNo, 1);
    EXPECT_EQ(request.Limit, -222);
    EXPECT_STREQ(request.Name.Get(), "x");
    EXPECT_EQ(request.Invalid, Messages{"Invalid Token: &Limit"});
}

TEST(Request, EndsKeyAtFirstEqualsSign)
{
    EXPECT_EQ(KeyIn("Key=a=b"), "a=b");
    EXPECT_EQ(KeyIn("Key==b"), "=b");
    EXPECT_EQ(KeyIn("Key=a="), "a=");
    EXPECT_EQ(KeyIn("Key=="), "=");
    EXPECT_EQ(KeyIn("Key=YWJj==&Limit=1"), "YWJj==");
}

TEST(Request, SkipsEqualsSignsBeforeKey)
{
    EXPECT_EQ(Request("Command?==DoorNo=4").DoorNo, 4);
}

TEST(Request, KeepsCarriageReturnInLastValue)
{
    EXPECT_EQ(KeyIn("Key=x\r"), "x\r");
    EXPECT_EQ(Request("Command?DoorNo=7\r").DoorNo, 7);
    const Request empty("Hello?\r");
    EXPECT_EQ(empty.Word, "Hello");
    EXPECT_EQ(empty.Invalid, Messages());
    EXPECT_EQ(KeyIn("Key=\r"), "\r");
}

TEST(Request, KeepsBlanksAndSpecialBytesOfValue)
{
    EXPECT_EQ(KeyIn("Key=  a  b  "), "  a  b  ");
    EXPECT_EQ(KeyIn("Key=+%20'\"\\;#"), "+%20'\"\\;#");
    EXPECT_EQ(KeyIn("Key=\x01\x7f\x80\xff"), "\x01\x7f\x80\xff");
}

TEST(Request, CutsTextAtCapacityOfItsField)
{
    EXPECT_STREQ(Request("Command?Name=1234567").Name.Get(), "1234567");
    EXPECT_STREQ(Request("Command?Name=12345678").Name.Get(), "12345678");
    EXPECT_STREQ(Request("Command?Name=123456789").Name.Get(), "12345678");
    const Request request("Command?Name=" + std::string(900, 'x') + "&DoorNo=3");
    EXPECT_STREQ(request.Name.Get(), "xxxxxxxx");
    EXPECT_EQ(request.DoorNo, 3);
}

TEST(Request, ReadsLeadingDigitsOfValue)
{
    EXPECT_EQ(NumberIn("12abc"), 12);
    EXPECT_EQ(NumberIn("12.9"), 12);
    EXPECT_EQ(NumberIn("12 34"), 12);
    EXPECT_EQ(NumberIn("12-34"), 12);
    EXPECT_EQ(NumberIn("1=2"), 1);
    EXPECT_EQ(NumberIn("007"), 7);
    EXPECT_EQ(NumberIn("0x1F"), 0);
    EXPECT_EQ(NumberIn("1e3"), 1);
}

TEST(Request, ReadsZeroWhenValueHasNoLeadingDigits)
{
    for (const char *value : {"abc", " ", "-", "+", "--1", "+-1", "- 1", "\r", ".5", "'1"})
        EXPECT_EQ(NumberIn(value), 0) << value;
}

TEST(Request, AcceptsLeadingBlanksAndSignOfNumber)
{
    EXPECT_EQ(NumberIn("   42"), 42);
    EXPECT_EQ(NumberIn("\t\v\f\r 42"), 42);
    EXPECT_EQ(NumberIn("+42"), 42);
    EXPECT_EQ(NumberIn("-42"), -42);
    EXPECT_EQ(NumberIn("  -42x"), -42);
    EXPECT_EQ(NumberIn("-0"), 0);
}

TEST(Request, ReadsWholeRangeOf32Bits)
{
    EXPECT_EQ(ToNumber("2147483647"), INT_MAX);
    EXPECT_EQ(ToNumber("-2147483648"), INT_MIN);
}

TEST(Request, KeepsLow32BitsOfLargerNumber)
{
    EXPECT_EQ(ToNumber("2147483648"), INT_MIN);
    EXPECT_EQ(ToNumber("4294967295"), -1);
    EXPECT_EQ(ToNumber("4294967296"), 0);
    EXPECT_EQ(ToNumber("4294967301"), 5);
    EXPECT_EQ(ToNumber("-2147483649"), INT_MAX);
    EXPECT_EQ(ToNumber("-4294967297"), -1);
    EXPECT_EQ(ToNumber("1311768467463790320"), static_cast<std::int32_t>(0x9ABCDEF0U));
}

TEST(Request, TakesNumberBeyond64BitsAsNearestOf64Bits)
{
    EXPECT_EQ(ToNumber("9223372036854775807"), -1);
    EXPECT_EQ(ToNumber("9223372036854775808"), -1);
    EXPECT_EQ(ToNumber("-9223372036854775808"), 0);
    EXPECT_EQ(ToNumber("-9223372036854775809"), 0);
    EXPECT_EQ(ToNumber(std::string(900, '9').c_str()), -1);
    EXPECT_EQ(ToNumber(("-" + std::string(900, '9')).c_str()), 0);
    EXPECT_EQ(ToNumber((std::string(900, '0') + "8").c_str()), 8);
}

TEST(Request, ConvertsDatesAndTimesToSeconds)
{
    const test::TimeZone zone("UTC0");
    std::int32_t date = -1;
    std::int32_t time = -1;
    const RequestKey keys[] = {{"ActDate", AsDate(&date)}, {"FromTime", AsTime(&time)}};
    std::string line = "Command?ActDate=2001-09-09 01:46:40&FromTime=2001-09-09 01:46:40";
    char *rest = nullptr;
    EXPECT_STREQ(SplitCommand(line.data(), &rest), "Command");
    ReadKeys(rest, keys, kSite);
    EXPECT_EQ(date, 1000000000 - (3600 + 46 * 60 + 40));
    EXPECT_EQ(time, 1000000000);
}

TEST(Request, MatchesNameOfKeyInAnyCase)
{
    std::int32_t number = 0;
    const RequestKey key("CardNo", &number);
    EXPECT_TRUE(key.IsNamed("CardNo"));
    EXPECT_TRUE(key.IsNamed("CARDNO"));
    EXPECT_FALSE(key.IsNamed("CardN"));
    EXPECT_FALSE(key.IsNamed("CardNoX"));
    EXPECT_FALSE(key.IsNamed(""));
    key.Store("19");
    EXPECT_EQ(number, 19);
}

} // namespace
} // namespace nimbra
