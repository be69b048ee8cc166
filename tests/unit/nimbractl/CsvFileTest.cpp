// Reading of CSV files: values, quotation marks, lines and faults.

#include "nimbractl/CsvFile.h"

#include "nimbractl/Errors.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace nimbra::ctl {

static void PrintTo(const CsvRow &row, std::ostream *out)
{
    *out << row.Line << ": " << ::testing::PrintToString(row.Values);
}

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

using Values = std::vector<std::string>;

MATCHER_P2(IsRow, line, values, "")
{
    return arg.Line == line && arg.Values == values;
}

/// Reads a file with this content.
std::vector<CsvRow> Read(const std::string &content)
{
    const test::TemporaryDirectory directory;
    test::WriteFile(directory.Path("file.csv"), content);
    return ReadCsvFile(directory.Path("file.csv"));
}

/// Returns the complaint about a file with this content, without the name of the file.
std::string RowError(const std::string &content)
{
    try {
        static_cast<void>(Read(content));
        return "none";
    } catch (const LocalFailure &failure) {
        const std::string sentence = failure.what();
        return sentence.substr(sentence.find("file.csv") + 8);
    }
}

TEST(CsvFile, ReadsValuesAndTheLinesOfRows)
{
    EXPECT_THAT(Read("UserNo,LastName\n1,Archer\n,\n"),
                ElementsAre(IsRow(1, Values{"UserNo", "LastName"}), IsRow(2, Values{"1", "Archer"}),
                            IsRow(3, Values{"", ""})));
    EXPECT_THAT(Read(""), IsEmpty());
}

TEST(CsvFile, KeepsBlanksAndEveryByteOfAValue)
{
    EXPECT_THAT(Read(" a ,\tb\t,\xC3\xA9\xFF\n"),
                ElementsAre(IsRow(1, Values{" a ", "\tb\t", "\xC3\xA9\xFF"})));
    const std::string withZero("a\0b,c\n", 6);
    EXPECT_THAT(Read(withZero), ElementsAre(IsRow(1, Values{std::string("a\0b", 3), "c"})));
}

TEST(CsvFile, QuotationMarksHoldCommasLineFeedsAndMarks)
{
    EXPECT_THAT(Read("\"a, b\",\"say \"\"x\"\"\"\n\"1\n2\n3\",y\nz,\"\"\n"),
                ElementsAre(IsRow(1, Values{"a, b", "say \"x\""}), IsRow(2, Values{"1\n2\n3", "y"}),
                            IsRow(5, Values{"z", ""})));
}

TEST(CsvFile, LinesOfOtherSystemsAndEmptyLinesAreCounted)
{
    EXPECT_THAT(Read("a\r\n\r\n\r\nb\r\n"),
                ElementsAre(IsRow(1, Values{"a"}), IsRow(4, Values{"b"})));
    EXPECT_THAT(Read("a\r\rb\r"), ElementsAre(IsRow(1, Values{"a"}), IsRow(3, Values{"b"})));
    EXPECT_THAT(Read("a\n\n\nb"), ElementsAre(IsRow(1, Values{"a"}), IsRow(4, Values{"b"})));
}

TEST(CsvFile, ByteOrderMarkIsLeftOutAtTheBeginningOnly)
{
    EXPECT_THAT(Read("\xEF\xBB\xBF"
                     "a\n\xEF\xBB\xBF"
                     "b\n"),
                ElementsAre(IsRow(1, Values{"a"}), IsRow(2, Values{"\xEF\xBB\xBF"
                                                                   "b"})));
}

TEST(CsvFile, LongFileIsReadCompletely)
{
    std::string content;
    for (int i = 0; i < 30000; ++i)
        content += "value," + std::to_string(i) + "\n";
    const std::vector<CsvRow> rows = Read(content);
    ASSERT_EQ(rows.size(), 30000U);
    for (int i = 0; i < 30000; ++i)
        ASSERT_THAT(rows[static_cast<std::size_t>(i)],
                    IsRow(i + 1, Values{"value", std::to_string(i)}));
}

TEST(CsvFile, MisplacedQuotationMarkIsAFaultOfItsLine)
{
    const std::string complaint = ": A value that holds a quotation mark must be in quotation "
                                  "marks, with the mark doubled.";
    EXPECT_EQ(RowError("a,b\n1,x\"y\n"), ", line 2" + complaint);
    EXPECT_EQ(RowError("a,b\n\"1\"2,x\n"), ", line 2" + complaint);
    EXPECT_EQ(RowError("a,b\n1,\"x\n\n\n"),
              ", line 2: The value lacks its closing quotation mark.");
}

TEST(CsvFile, FileThatCannotBeReadIsAFailure)
{
    const test::TemporaryDirectory directory;
    for (const std::string &path : {directory.Path("none.csv"), directory.Path()})
        EXPECT_THAT([&path] { static_cast<void>(ReadCsvFile(path)); },
                    ThrowsMessage<LocalFailure>(StrEq("Cannot read " + path + ".")));
}

} // namespace

} // namespace nimbra::ctl
