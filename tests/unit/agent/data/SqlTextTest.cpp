#include "data/SqlText.h"

#include "base/FixedText.h"

#include <climits>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace nimbra {
namespace {

using Columns = std::vector<std::string>;

/// What a text does to a literal that contains it.
enum class Effect
{
    Stays,
    Ends,
};
using enum Effect;

/// A text and its effect.
struct Quoting
{
    const char *Text;
    Effect OnLiteral;

    [[nodiscard]] bool StaysInLiteral() const { return OnLiteral == Stays; }
};

/// Every placement of quotes in a text.
constexpr Quoting kQuotings[] = {
    {"", Stays},          {"abc", Stays},        {"'", Ends},
    {"''", Stays},        {"'''", Ends},         {"''''", Stays},
    {"'''''", Ends},      {"''''''", Stays},     {"'abc", Ends},
    {"abc'", Ends},       {"ab'c", Ends},        {"''abc", Stays},
    {"abc''", Stays},     {"ab''c", Stays},      {"'''abc", Ends},
    {"abc'''", Ends},     {"ab'''c", Ends},      {"''''abc", Stays},
    {"abc''''", Stays},   {"ab''''c", Stays},    {"a'b'c", Ends},
    {"'a'", Ends},        {"''a''", Stays},      {"''a'", Ends},
    {"'a''", Ends},       {"' '", Ends},         {"a''b'c", Ends},
    {"a'b''c", Ends},     {"\\'", Ends},         {"\\''", Stays},
    {"%'", Ends},         {"' OR 1=1 --", Ends}, {"x'; DROP", Ends},
    {"x''; DROP", Stays}, {"\"", Stays},         {"`", Stays},
    {"--", Stays},        {";", Stays},          {"\xe2\x80\x99", Stays},
    {"\xff'", Ends},
};

class Sqlite
{
public:
    Sqlite()
    {
        sqlite3 *handle = nullptr;
        EXPECT_EQ(sqlite3_open(":memory:", &handle), SQLITE_OK);
        handle_.reset(handle);
    }

    /// The columns of the only row of a query; nothing unless it is one complete statement.
    [[nodiscard]] std::optional<Columns> RowOf(const char *sql) const
    {
        sqlite3_stmt *handle = nullptr;
        const char *tail = nullptr;
        if (sqlite3_prepare_v2(handle_.get(), sql, -1, &handle, &tail) != SQLITE_OK)
            return {};
        const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(
            handle, sqlite3_finalize);
        if (*tail != '\0' || sqlite3_step(handle) != SQLITE_ROW)
            return {};
        Columns row;
        for (int i = 0; i < sqlite3_column_count(handle); ++i)
            row.emplace_back(static_cast<const char *>(sqlite3_column_blob(handle, i)) == nullptr
                                 ? ""
                                 : static_cast<const char *>(sqlite3_column_blob(handle, i)),
                             static_cast<std::size_t>(sqlite3_column_bytes(handle, i)));
        if (sqlite3_step(handle) != SQLITE_DONE)
            return {};
        return row;
    }

private:
    struct Closer
    {
        void operator()(sqlite3 *handle) const { sqlite3_close(handle); }
    };
    std::unique_ptr<sqlite3, Closer> handle_;
};

/// The text as SQLite reads it: a doubled quote is one quote.
std::string Undoubled(std::string_view text)
{
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        plain += text[i];
        if (text[i] == '\'')
            ++i;
    }
    return plain;
}

/// Whether each run of quotes has an even length.
bool HasPairsOnly(std::string_view text)
{
    std::size_t run = 0;
    for (const char c : text) {
        if (c == '\'') {
            ++run;
            continue;
        }
        if (run % 2 != 0)
            return false;
        run = 0;
    }
    return run % 2 == 0;
}

std::string RandomText(std::mt19937 *random, std::size_t longest)
{
    std::string text;
    const std::size_t length = (*random)() % (longest + 1);
    while (text.size() < length) {
        switch ((*random)() % 6) {
        case 0:
            text += "'";
            break;
        case 1:
        case 2:
            text += "''";
            break;
        case 3:
            text += "%_;-\"\\`$()"[(*random)() % 10];
            break;
        default:
            text += static_cast<char>(1 + (*random)() % 255);
        }
    }
    return text;
}

TEST(SqlText, IsEmptyByDefault)
{
    const SqlText sql;
    EXPECT_STREQ(sql.Get(), "");
    EXPECT_FALSE(sql.IsRefused());
    EXPECT_STREQ(SqlText("%s", "").Get(), "");
}

TEST(SqlText, FormatsNumbers)
{
    EXPECT_STREQ(SqlText("%d|%d|%d|%d|%d", 0, 7, -7, INT_MAX, INT_MIN).Get(),
                 "0|7|-7|2147483647|-2147483648");
    EXPECT_STREQ(SqlText("No=%d", INT_MIN).Get(), "No=-2147483648");
}

TEST(SqlText, FormatsTextsAndPercentSigns)
{
    EXPECT_STREQ(
        SqlText("SELECT %s FROM %s WHERE Name LIKE '%%%s%%' AND No=%d", "No", "Door", "Front", 3)
            .Get(),
        "SELECT No FROM Door WHERE Name LIKE '%Front%' AND No=3");
    EXPECT_STREQ(SqlText("%%%%%s%%", "%d%s").Get(), "%%%d%s%");
}

TEST(SqlText, AppendsToExistingText)
{
    SqlText sql("SELECT No FROM Door");
    sql.Append(" LIMIT %d", 5);
    sql.Append("%s", " OFFSET 2");
    EXPECT_STREQ(sql.Get(), "SELECT No FROM Door LIMIT 5 OFFSET 2");
    EXPECT_FALSE(sql.IsRefused());
}

TEST(SqlText, AppendsOtherText)
{
    SqlText sql("SELECT ");
    sql.Append(SqlText("%d", 1)).Append(SqlText());
    EXPECT_STREQ(sql.Get(), "SELECT 1");
    EXPECT_FALSE(sql.IsRefused());
    EXPECT_STREQ(SqlText().Append(sql).Get(), "SELECT 1");
}

TEST(SqlText, KeepsStatementOneByteBelowCapacity)
{
    const std::string text(1022, 'x');
    const SqlText sql("%s", text.c_str());
    EXPECT_FALSE(sql.IsRefused());
    EXPECT_EQ(sql.Get(), text);
}

TEST(SqlText, KeepsStatementOfExactlyItsCapacity)
{
    const std::string text(1023, 'x');
    const SqlText sql("%s", text.c_str());
    EXPECT_FALSE(sql.IsRefused());
    EXPECT_EQ(sql.Get(), text);
}

TEST(SqlText, RefusesStatementThatDoesNotFit)
{
    EXPECT_TRUE(SqlText("%s", std::string(1024, 'x').c_str()).IsRefused());
    EXPECT_TRUE(SqlText("%s", std::string(1025, 'x').c_str()).IsRefused());
    EXPECT_TRUE(SqlText("%s", std::string(1000000, 'x').c_str()).IsRefused());
}

TEST(SqlText, RefusesStatementWhateverPartOverflows)
{
    const std::string most(1020, 'x');
    EXPECT_FALSE(SqlText("%s%d", most.c_str(), 123).IsRefused());
    EXPECT_TRUE(SqlText("%s%d", most.c_str(), 1234).IsRefused());
    EXPECT_FALSE(SqlText("%sabc", most.c_str()).IsRefused());
    EXPECT_TRUE(SqlText("%sabcd", most.c_str()).IsRefused());
    EXPECT_FALSE(SqlText("%s%%%%%%", most.c_str()).IsRefused());
    EXPECT_TRUE(SqlText("%s%%%%%%%%", most.c_str()).IsRefused());
    EXPECT_FALSE(SqlText("%s%s", most.c_str(), "abc").IsRefused());
    EXPECT_TRUE(SqlText("%s%s", most.c_str(), "abcd").IsRefused());
}

TEST(SqlText, IsTerminatedWhenRefused)
{
    for (std::size_t length = 1020; length <= 1030; ++length) {
        const SqlText sql("%s%s%d", std::string(length, 'x').c_str(), "yy", INT_MIN);
        EXPECT_LT(std::strlen(sql.Get()), SqlText::kSize);
        EXPECT_TRUE(sql.IsRefused());
    }
}

TEST(SqlText, RefusesAppendedTextThatDoesNotFit)
{
    SqlText sql("%s", std::string(1000, 'x').c_str());
    sql.Append("%s", std::string(23, 'y').c_str());
    EXPECT_FALSE(sql.IsRefused());
    sql.Append("z");
    EXPECT_TRUE(sql.IsRefused());
}

TEST(SqlText, RefusesOtherTextThatDoesNotFit)
{
    const SqlText half("%s", std::string(512, 'x').c_str());
    const SqlText lesserHalf("%s", std::string(511, 'x').c_str());
    SqlText sql = half;
    EXPECT_TRUE(sql.Append(half).IsRefused());
    sql = half;
    EXPECT_FALSE(sql.Append(lesserHalf).IsRefused());
    EXPECT_EQ(sql.Get(), std::string(1023, 'x'));
}

TEST(SqlText, StaysRefusedWhenTextIsAppended)
{
    SqlText refused("'%s'", "'");
    refused.Append(" LIMIT %d", 1);
    EXPECT_TRUE(refused.IsRefused());
    refused.AppendFilter("No=", 1);
    EXPECT_TRUE(refused.IsRefused());
}

TEST(SqlText, IsRefusedWhenOneOfItsTextsIsRefused)
{
    const SqlText good("SELECT 1");
    const SqlText unsafe("'%s'", "'");
    const SqlText longer("%s", std::string(2000, 'x').c_str());
    EXPECT_TRUE(SqlText(good).Append(unsafe).IsRefused());
    EXPECT_TRUE(SqlText(unsafe).Append(good).IsRefused());
    EXPECT_TRUE(SqlText(good).Append(longer).IsRefused());
    EXPECT_TRUE(SqlText(longer).Append(good).IsRefused());
    EXPECT_TRUE(SqlText(unsafe).Append(longer).Append(good).Append(SqlText()).IsRefused());
    EXPECT_TRUE(SqlText().Append(unsafe).IsRefused());
    EXPECT_FALSE(SqlText(good).Append(SqlText()).IsRefused());
}

TEST(SqlText, DetectsWhetherTextStaysInItsLiteral)
{
    for (const Quoting &quoting : kQuotings)
        EXPECT_EQ(StaysInLiteral(quoting.Text), quoting.StaysInLiteral()) << quoting.Text;
}

TEST(SqlText, RefusesTextThatWouldEndItsLiteral)
{
    for (const Quoting &quoting : kQuotings) {
        EXPECT_EQ(SqlText("SELECT '%s'", quoting.Text).IsRefused(), !quoting.StaysInLiteral())
            << quoting.Text;
        EXPECT_EQ(SqlText("WHERE A LIKE '%%%s%%' AND B=%d", quoting.Text, 1).IsRefused(),
                  !quoting.StaysInLiteral())
            << quoting.Text;
        EXPECT_EQ(SqlText("'a', '%s', '%s'", "b", quoting.Text).IsRefused(),
                  !quoting.StaysInLiteral())
            << quoting.Text;
        EXPECT_EQ(SqlText("A='%s', B='%s'", quoting.Text, "b").IsRefused(),
                  !quoting.StaysInLiteral())
            << quoting.Text;
        EXPECT_EQ(SqlText("'%d%s'", 1, quoting.Text).IsRefused(), !quoting.StaysInLiteral())
            << quoting.Text;
    }
}

TEST(SqlText, InsertsTextUnchanged)
{
    EXPECT_STREQ(SqlText("SELECT '%s'", "O''Brien").Get(), "SELECT 'O''Brien'");
    EXPECT_STREQ(SqlText("SELECT '%s'", "''").Get(), "SELECT ''''");
    EXPECT_STREQ(SqlText("SELECT '%s'", "a%_\\\"b").Get(), "SELECT 'a%_\\\"b'");
}

TEST(SqlText, AcceptsAnyTextOutsideLiteral)
{
    for (const Quoting &quoting : kQuotings) {
        EXPECT_FALSE(SqlText("SELECT %s", quoting.Text).IsRefused()) << quoting.Text;
        EXPECT_FALSE(SqlText("SELECT '%s', %s", "a", quoting.Text).IsRefused()) << quoting.Text;
        EXPECT_FALSE(SqlText("SELECT 'it''s', %s", quoting.Text).IsRefused()) << quoting.Text;
    }
    EXPECT_STREQ(SqlText("SELECT %s FROM Door", "IFNULL(Name, '')").Get(),
                 "SELECT IFNULL(Name, '') FROM Door");
}

TEST(SqlText, RefusesDoubledQuoteThatFieldHasCut)
{
    const std::string name = std::string(31, 'x') + "''";
    EXPECT_TRUE(StaysInLiteral(name.c_str()));
    EXPECT_TRUE(SqlText("'%s'", FixedText<32>(name).Get()).IsRefused());
    EXPECT_FALSE(SqlText("'%s'", FixedText<33>(name).Get()).IsRefused());
    EXPECT_FALSE(SqlText("'%s'", FixedText<31>(name).Get()).IsRefused());
    EXPECT_TRUE(SqlText("'%s'", FixedText<32>(std::string(15, 'x') + std::string(34, '\'')).Get())
                    .IsRefused());
}

TEST(SqlText, JoinsConditionsWithWhereAndThenAnd)
{
    SqlText condition;
    EXPECT_STREQ(condition.Link(), "WHERE");
    condition.AppendFilter("A.Type=", 2);
    EXPECT_STREQ(condition.Link(), "AND");
    condition.AppendFilter("A.Port=", 1);
    condition.AppendLike("A.DeviceName", "Front");
    condition.Append(" %s Disable=0", condition.Link());
    EXPECT_STREQ(condition.Get(),
                 " WHERE A.Type=2 AND A.Port=1 AND A.DeviceName LIKE '%Front%' AND Disable=0");
}

TEST(SqlText, PutsWhereBeforeFirstUsedCondition)
{
    SqlText like;
    like.AppendFilter("UserNo=", 0);
    like.AppendLike("LastName", "ab");
    like.AppendFilter("Ada=", 1);
    EXPECT_STREQ(like.Get(), " WHERE LastName LIKE '%ab%' AND Ada=1");
}

TEST(SqlText, AddsNoConditionForZeroOrEmptyText)
{
    SqlText condition;
    condition.AppendFilter("No=", 0);
    condition.AppendLike("Name", "");
    EXPECT_STREQ(condition.Get(), "");
    EXPECT_STREQ(condition.Link(), "WHERE");
    EXPECT_FALSE(condition.IsRefused());
}

TEST(SqlText, AddsConditionForEveryOtherNumber)
{
    for (const int number : {1, -1, INT_MAX, INT_MIN}) {
        SqlText condition;
        condition.AppendFilter("A.Date>=", number);
        EXPECT_EQ(condition.Get(), " WHERE A.Date>=" + std::to_string(number));
    }
}

TEST(SqlText, RefusesFilterTextThatWouldEndItsLiteral)
{
    for (const Quoting &quoting : kQuotings) {
        SqlText condition;
        condition.AppendLike("Name", quoting.Text);
        EXPECT_EQ(condition.IsRefused(), !quoting.StaysInLiteral()) << quoting.Text;
    }
    SqlText condition;
    condition.AppendLike("Name", "O''B%_");
    EXPECT_STREQ(condition.Get(), " WHERE Name LIKE '%O''B%_%'");
}

TEST(SqlText, RefusesConditionThatDoesNotFit)
{
    SqlText condition;
    for (int i = 0; i < 100; ++i)
        condition.AppendFilter("A.DeviceNumber=", 1000000);
    EXPECT_TRUE(condition.IsRefused());
}

TEST(SqlText, SqliteReadsExactlyTheGivenLiterals)
{
    const Sqlite sqlite;
    for (const Quoting &quoting : kQuotings) {
        const SqlText sql("SELECT '%s', %d, 'x%sy'", quoting.Text, 12, quoting.Text);
        if (!quoting.StaysInLiteral())
            continue;
        const std::string plain = Undoubled(quoting.Text);
        EXPECT_EQ(sqlite.RowOf(sql.Get()), (Columns{plain, "12", "x" + plain + "y"}))
            << quoting.Text;
    }
}

TEST(SqlText, SqliteReadsExactlyTheGivenRandomLiterals)
{
    const Sqlite sqlite;
    std::mt19937 random(31337);
    int whole = 0;
    int refused = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::string first = RandomText(&random, i % 2 == 0 ? 3 : 40);
        const std::string second = RandomText(&random, i % 3 == 0 ? 3 : 64);
        const int number = static_cast<int>(random());
        const bool isSafe = HasPairsOnly(first) && HasPairsOnly(second);
        const SqlText sql("SELECT '%s' AS A, %d AS B, '%s' AS C", first.c_str(), number,
                          second.c_str());
        ASSERT_EQ(sql.IsRefused(), !isSafe) << first << "|" << second;
        if (!isSafe) {
            ++refused;
            continue;
        }
        ++whole;
        ASSERT_EQ(sqlite.RowOf(sql.Get()),
                  (Columns{Undoubled(first), std::to_string(number), Undoubled(second)}))
            << sql.Get();
    }
    EXPECT_GT(whole, 1000);
    EXPECT_GT(refused, 1000);
}

TEST(SqlText, RefusesCutFieldThatWouldEndItsLiteral)
{
    const Sqlite sqlite;
    std::mt19937 random(42);
    for (int i = 0; i < 20000; ++i) {
        const FixedText<8> field(RandomText(&random, 20));
        const SqlText sql("SELECT 'a', '%s', 'b'", field.Get());
        ASSERT_EQ(sql.IsRefused(), !HasPairsOnly(field.View())) << field.Get();
        if (!sql.IsRefused()) {
            ASSERT_EQ(sqlite.RowOf(sql.Get()), (Columns{"a", Undoubled(field.View()), "b"}))
                << sql.Get();
        }
    }
}

TEST(SqlText, FilterFindsAnyText)
{
    const Sqlite sqlite;
    std::mt19937 random(99);
    for (int i = 0; i < 3000; ++i) {
        std::string text(1 + random() % 20, 'x');
        std::string doubled;
        for (char &c : text) {
            c = "'abcZ-; "[random() % 8];
            doubled += c == '\'' ? "''" : std::string(1, c);
        }
        SqlText condition;
        condition.AppendLike("A", doubled.c_str());
        ASSERT_FALSE(condition.IsRefused());
        const SqlText query =
            SqlText("SELECT A FROM (SELECT 'before%safter' AS A)", doubled.c_str())
                .Append(condition);
        ASSERT_EQ(sqlite.RowOf(query.Get()), Columns{"before" + text + "after"}) << query.Get();
    }
}

} // namespace
} // namespace nimbra
