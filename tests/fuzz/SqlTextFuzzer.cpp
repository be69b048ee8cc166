// Statements with inserted texts: an accepted statement has exactly the literals of its texts, and
// a statement is refused only for a quote that is not doubled or for its length. Checked by a
// parser of SQL tokens and by SQLite.

#include "data/SqlText.h"
#include "fuzz/Finding.h"
#include "fuzz/ValueModel.h"

#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <strings.h>

namespace nimbra::fuzz {
namespace {

/// The tokens of a statement; a literal is a quote and then its value.
std::vector<std::string> Tokens(std::string_view sql)
{
    std::vector<std::string> tokens;
    const auto isWord = [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
    };
    for (std::size_t i = 0; i < sql.size();) {
        if (sql[i] == ' ') {
            ++i;
        } else if (sql[i] == '\'') {
            std::string literal = "'";
            for (++i; i < sql.size(); ++i) {
                if (sql[i] == '\'' && sql.substr(i, 2) != "''")
                    break;
                literal += sql[i];
                i += sql[i] == '\'' ? 1 : 0;
            }
            Require(i < sql.size(), "a literal that does not end");
            ++i;
            tokens.push_back(literal);
        } else if (isWord(sql[i])) {
            const std::size_t start = i;
            while (i < sql.size() && isWord(sql[i]))
                ++i;
            tokens.emplace_back(sql.substr(start, i - start));
        } else {
            Require(sql.substr(i, 2) != "--" && sql.substr(i, 2) != "/*", "a comment");
            tokens.emplace_back(1, sql[i++]);
        }
    }
    return tokens;
}

/// The value of a literal with this text, whose quotes are doubled.
std::string LiteralValue(std::string_view text)
{
    std::string value;
    for (std::size_t i = 0; i < text.size(); ++i) {
        value += text[i];
        i += text[i] == '\'' ? 1 : 0;
    }
    return value;
}

/// Whether all quotes of the text are doubled, that is, occur in runs of even length.
bool IsDoubled(std::string_view text)
{
    std::size_t run = 0;
    for (const char c : text) {
        if (c != '\'' && run % 2 != 0)
            return false;
        run = c == '\'' ? run + 1 : 0;
    }
    return run % 2 == 0;
}

/// The texts and numbers of one input; missing ones are empty and 0.
class Values
{
public:
    explicit Values(std::string_view input)
    {
        for (std::size_t end = 0; end != std::string_view::npos;) {
            end = input.find('\n');
            texts_.emplace_back(input.substr(0, end));
            input.remove_prefix(end == std::string_view::npos ? input.size() : end + 1);
        }
    }

    [[nodiscard]] const std::string &Text(std::size_t i) const
    {
        static const std::string none;
        return i < texts_.size() ? texts_[i] : none;
    }
    [[nodiscard]] const char *C(std::size_t i) const { return Text(i).c_str(); }
    [[nodiscard]] std::int32_t Number(std::size_t i) const { return NumberIn(Text(i)); }
    [[nodiscard]] std::size_t Count() const { return texts_.size(); }

private:
    std::vector<std::string> texts_;
};

/// The expected statement, built in parallel with the agent's SqlText.
class Expected
{
public:
    Expected &Sql(std::string_view sql)
    {
        for (std::string &token : Tokens(sql))
            tokens_.push_back(std::move(token));
        length_ += sql.size();
        return *this;
    }
    Expected &Number(std::int32_t number) { return Sql(std::to_string(number)); }
    /// A literal: `text` unchanged, between two wildcards if given.
    Expected &Literal(const std::string &text, const std::string &wildcard = "")
    {
        isRefused_ = isRefused_ || !IsDoubled(text);
        values_.push_back(LiteralValue(text));
        tokens_.push_back("'" + wildcard + values_.back() + wildcard);
        length_ += 2 + 2 * wildcard.size() + text.size();
        return *this;
    }

    [[nodiscard]] bool IsRefused() const { return isRefused_ || length_ >= SqlText::kSize; }
    [[nodiscard]] const std::vector<std::string> &TokenList() const { return tokens_; }
    /// The values of the literals, in their order.
    [[nodiscard]] const std::vector<std::string> &LiteralValues() const { return values_; }

private:
    bool isRefused_ = false;
    std::size_t length_ = 0;
    std::vector<std::string> tokens_;
    std::vector<std::string> values_;
};

/// A database in memory with the tables of the statements. A statement may use only the given table
/// and only the functions that the agent's statements use.
class Database
{
public:
    Database()
    {
        Require(sqlite3_open(":memory:", &handle_) == SQLITE_OK, "a database in memory");
        const char *schema =
            "CREATE TABLE User (Site INT, No INT, FirstName TEXT, MiddleName TEXT, LastName TEXT,"
            " Phone TEXT, CellPhone TEXT, Email TEXT, Ada INT, Exempt INT, ThreatLevel INT);"
            "CREATE TABLE Controller (No INT, ID TEXT, Password TEXT);"
            "CREATE TABLE Card (No INT, CardFormatNo INT, CardNo TEXT);";
        Require(sqlite3_exec(handle_, schema, nullptr, nullptr, nullptr) == SQLITE_OK, "schema");
        sqlite3_set_authorizer(handle_, &Database::Authorise, this);
    }

    /// The first row of the statement's result, as texts; empty if there is none.
    std::vector<std::string> Run(std::string_view table, const char *sql)
    {
        table_ = table;
        sqlite3_stmt *statement = nullptr;
        const char *tail = nullptr;
        Require(sqlite3_prepare_v2(handle_, sql, -1, &statement, &tail) == SQLITE_OK,
                "SQLite refuses the statement");
        Require(statement != nullptr && *tail == '\0', "more than one statement");
        std::vector<std::string> row;
        if (sqlite3_step(statement) == SQLITE_ROW)
            for (int i = 0; i < sqlite3_column_count(statement); ++i)
                row.push_back(Column(statement, i));
        sqlite3_finalize(statement);
        return row;
    }

private:
    static std::string Column(sqlite3_stmt *statement, int i)
    {
        const void *bytes = sqlite3_column_blob(statement, i);
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, i));
        return bytes == nullptr ? "" : std::string(static_cast<const char *>(bytes), size);
    }

    static int Authorise(void *database, int action, const char *what, const char *which,
                         const char * /*schema*/, const char * /*trigger*/)
    {
        const std::string &table = static_cast<Database *>(database)->table_;
        const bool isKnown = action == SQLITE_READ || action == SQLITE_UPDATE ||
                             action == SQLITE_INSERT || action == SQLITE_DELETE;
        const bool mayDo = action == SQLITE_SELECT || (isKnown && table == what) ||
                           (action == SQLITE_FUNCTION &&
                            (std::strcmp(which, "like") == 0 || strcasecmp(which, "ifnull") == 0));
        return mayDo ? SQLITE_OK : SQLITE_DENY;
    }

    sqlite3 *handle_ = nullptr;
    std::string table_;
};

Database &TheDatabase()
{
    static Database database;
    return database;
}

/// Compares the statement with the expected one and runs it. Returns the row; none if refused.
std::vector<std::string> Check(const SqlText &sql, const Expected &expected, std::string_view table)
{
    RequireEqual("refusal", expected.IsRefused() ? 1 : 0, sql.IsRefused() ? 1 : 0);
    if (sql.IsRefused())
        return {};
    const std::vector<std::string> tokens = Tokens(sql.Get());
    for (std::size_t i = 0; i < std::max(tokens.size(), expected.TokenList().size()); ++i) {
        Require(i < tokens.size(), "a token is missing");
        Require(i < expected.TokenList().size(), "a token too many");
        RequireEqual("token", expected.TokenList()[i], tokens[i]);
    }
    return TheDatabase().Run(table, sql.Get());
}

constexpr char kUserTexts[] =
    "SELECT FirstName, MiddleName, LastName, Phone, CellPhone, Email FROM User";

/// Checks that the change has stored the values of the literals.
void CheckStored(const SqlText &sql, const Expected &expected)
{
    if (!sql.IsRefused() && TheDatabase().Run("User", kUserTexts) != expected.LiteralValues())
        Report("a text is not stored as it is");
    TheDatabase().Run("User", "DELETE FROM User");
}

void CheckLogin(const Values &v)
{
    const SqlText sql("SELECT IFNULL(Password, '') FROM Controller WHERE No=1 AND ID='%s'", v.C(0));
    Expected expected;
    expected.Sql("SELECT IFNULL(Password, ")
        .Literal("")
        .Sql(") FROM Controller WHERE No=1 AND ID=");
    expected.Literal(v.Text(0));
    static_cast<void>(Check(sql, expected, "Controller"));
}

void CheckDuplicates(const Values &v)
{
    const SqlText sql("SELECT No FROM Card WHERE No!=%d AND CardFormatNo=%d AND CardNo='%s'",
                      v.Number(0), v.Number(1), v.C(2));
    Expected expected;
    expected.Sql("SELECT No FROM Card WHERE No!=").Number(v.Number(0));
    expected.Sql(" AND CardFormatNo=").Number(v.Number(1)).Sql(" AND CardNo=").Literal(v.Text(2));
    static_cast<void>(Check(sql, expected, "Card"));
}

void CheckInsert(const Values &v)
{
    const SqlText sql("INSERT INTO User (FirstName, MiddleName, LastName, Phone, CellPhone, Email) "
                      "VALUES ('%s', '%s', '%s', '%s', '%s', '%s')",
                      v.C(0), v.C(1), v.C(2), v.C(3), v.C(4), v.C(5));
    Expected expected;
    expected.Sql("INSERT INTO User (FirstName, MiddleName, LastName, Phone, CellPhone, Email) "
                 "VALUES (");
    for (std::size_t i = 0; i < 6; ++i)
        expected.Sql(i == 0 ? "" : ", ").Literal(v.Text(i));
    expected.Sql(")");
    static_cast<void>(Check(sql, expected, "User"));
    CheckStored(sql, expected);
}

void CheckUpdate(const Values &v)
{
    TheDatabase().Run("User", "INSERT INTO User (No) VALUES (7)");
    const SqlText sql("UPDATE User SET FirstName='%s', MiddleName='%s', LastName='%s', Phone='%s', "
                      "CellPhone='%s', Email='%s', Ada=%d WHERE No=%d",
                      v.C(0), v.C(1), v.C(2), v.C(3), v.C(4), v.C(5), v.Number(6), 7);
    Expected expected;
    expected.Sql("UPDATE User SET FirstName=").Literal(v.Text(0));
    expected.Sql(", MiddleName=").Literal(v.Text(1)).Sql(", LastName=").Literal(v.Text(2));
    expected.Sql(", Phone=").Literal(v.Text(3)).Sql(", CellPhone=").Literal(v.Text(4));
    expected.Sql(", Email=").Literal(v.Text(5)).Sql(", Ada=").Number(v.Number(6));
    expected.Sql(" WHERE No=7");
    static_cast<void>(Check(sql, expected, "User"));
    CheckStored(sql, expected);
}

void CheckReadBack(const Values &v)
{
    const SqlText sql("SELECT '%s', '%s', %d", v.C(0), v.C(1), v.Number(2));
    Expected expected;
    expected.Sql("SELECT ").Literal(v.Text(0)).Sql(", ").Literal(v.Text(1));
    expected.Sql(", ").Number(v.Number(2));
    std::vector<std::string> values = expected.LiteralValues();
    values.push_back(std::to_string(v.Number(2)));
    if (Check(sql, expected, "") != values && !sql.IsRefused())
        Report("a literal does not read back as it is");
}

/// A condition of any length. Each text is also read as a number.
void CheckFilters(const Values &v)
{
    static constexpr const char *kColumns[] = {"FirstName", "LastName", "Email"};
    SqlText condition;
    Expected expected;
    expected.Sql("SELECT No FROM User ");
    const char *link = "WHERE";
    for (std::size_t i = 0; i < v.Count(); ++i) {
        const std::string column = kColumns[i % std::size(kColumns)];
        condition.AppendLike(column.c_str(), v.C(i));
        if (!v.Text(i).empty())
            expected.Sql(std::string(" ") + link + " " + column + " LIKE ").Literal(v.Text(i), "%");
        link = v.Text(i).empty() ? link : "AND";
        const std::int32_t number = v.Number(i);
        condition.AppendFilter("Ada>=", number);
        if (number != 0)
            expected.Sql(std::string(" ") + link + " Ada>=").Number(number);
        link = number == 0 ? link : "AND";
    }
    static_cast<void>(Check(SqlText("SELECT No FROM User ").Append(condition), expected, "User"));
}

} // namespace
} // namespace nimbra::fuzz

/// The input is a digit for the statement, then the values, one per line.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace nimbra::fuzz;
    constexpr void (*kChecks[])(const Values &) = {CheckLogin,  CheckDuplicates, CheckInsert,
                                                   CheckUpdate, CheckReadBack,   CheckFilters};
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    // No text of the agent holds a zero byte.
    if (input.empty() || input.find('\0') != std::string_view::npos)
        return -1;
    const auto digit = static_cast<unsigned char>(input[0]);
    kChecks[digit % std::size(kChecks)](Values(input.substr(1)));
    return 0;
}
