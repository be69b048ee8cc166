#include "base/PanelConstants.h"
#include "core/ConfigManager.h"
#include "panel-check/Checks.h"
#include "panel-check/PanelDatabase.h"
#include "panel-check/Schema.h"

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nimbra::check {

namespace {

namespace fs = std::filesystem;

/// Of the events, only the newest are looked at: on a panel, reading a large log takes long.
constexpr char kUsedCodes[] = "SELECT DISTINCT EventCode FROM "
                              "(SELECT EventCode FROM Log ORDER BY No DESC LIMIT 10000) "
                              "WHERE EventCode IS NOT NULL";

/// What to do about a database that SQLite cannot read.
constexpr char kRepair[] = "Open it with the panel's software, or have that replace it";

/// The checks of one database.
class DatabaseCheck
{
public:
    DatabaseCheck(const char *path, int access, Report *report)
        : path_(path), name_(fs::path(path).filename()), access_(access), report_(report)
    {}

    /// Checks file, tables, columns and indexes; false when the file cannot be read at all.
    [[nodiscard]] bool CheckSchema();

    /// The first column of each row of a query on these tables. Nothing when one of them is not
    /// complete, or when the query fails, which is then a finding.
    [[nodiscard]] std::optional<std::vector<std::int64_t>>
    Read(std::initializer_list<const char *> tables, const std::string &query);

    [[nodiscard]] std::string Subject(const std::string &part) const { return name_ + ": " + part; }

private:
    [[nodiscard]] bool CheckFile();
    void CheckTable(const Table &table);
    void CheckIndex(const Table &table, const Column &column);
    [[nodiscard]] bool HasColumn(const Table &table, const Column &column)
    {
        // With its table's name: a bare name that is missing could be taken for something else.
        return database_->Accepts(std::string("SELECT ") + table.Name + "." + column.Name +
                                  " FROM " + table.Name);
    }
    [[nodiscard]] bool HasIndex(const Table &table, const Column &column);
    void Fail(const std::string &text, const std::string &action)
    {
        report_->Fail(path_, text, action);
    }

    std::string path_;
    std::string name_;
    int access_;
    Report *report_;
    std::optional<PanelDatabase> database_;
    std::set<std::string> incomplete_; ///< tables
};

bool DatabaseCheck::CheckFile()
{
    struct stat status = {};
    if (stat(path_.c_str(), &status) != 0) {
        Fail("is missing", "Start the agent after the panel's software has created it: the agent "
                           "would create it empty");
    } else if (!S_ISREG(status.st_mode)) {
        Fail("is not a file", "Remove it, and let the panel's software create the database");
    } else if (faccessat(AT_FDCWD, path_.c_str(), access_, AT_EACCESS) != 0) {
        Fail((access_ & W_OK) != 0 ? "may not be read and written" : "may not be read",
             "Give the agent's user that right");
    } else if (status.st_size == 0) {
        Fail("is empty", "Let the panel's software create its tables; an agent that was started "
                         "too early leaves such a file");
    } else {
        return true;
    }
    return false;
}

bool DatabaseCheck::CheckSchema()
{
    if (!CheckFile())
        return false;
    database_.emplace(path_);
    if (!database_->Error().empty()) {
        Fail(database_->Error(), kRepair);
        return false;
    }
    report_->Ok(path_, (access_ & W_OK) != 0 ? "can be read and written" : "can be read");
    for (const Table &table : RequiredTables())
        if (path_ == table.Database)
            CheckTable(table);
    return true;
}

void DatabaseCheck::CheckTable(const Table &table)
{
    std::string missing;
    std::string optional;
    for (const Column &column : table.Columns) {
        if (HasColumn(table, column))
            continue;
        if (column.Use == Need::Optional)
            optional += std::string("; without ") + column.Name + ", so its filter is refused";
        else
            missing += (missing.empty() ? "" : ", ") + std::string(column.Name);
    }
    const std::string subject = Subject(std::string("table ") + table.Name);
    const std::string action =
        std::string("Let the panel's software create it; without it, ") + table.Effect;
    if (!missing.empty()) {
        incomplete_.insert(table.Name);
        const bool isTable = database_->Accepts(std::string("SELECT 1 FROM ") + table.Name);
        report_->Fail(subject, isTable ? "lacks " + missing : "is missing", action);
        return;
    }
    report_->Ok(subject, "has every column" + optional);
    for (const Column &column : table.Columns)
        if (column.Use == Need::Indexed)
            CheckIndex(table, column);
}

void DatabaseCheck::CheckIndex(const Table &table, const Column &column)
{
    const std::string subject =
        Subject(std::string("index on ") + table.Name + " (" + column.Name + ")");
    if (HasIndex(table, column))
        report_->Ok(subject, "exists");
    else if (database_->Error().empty())
        report_->Warn(subject, "is missing", "Create it: on a large panel, requests are slow");
    else
        report_->Fail(subject, database_->Error(), kRepair);
}

bool DatabaseCheck::HasIndex(const Table &table, const Column &column)
{
    const std::string quotedTable = std::string("'") + table.Name + "'";
    const std::string isColumn = std::string("name='") + column.Name + "' COLLATE NOCASE";
    // A primary key is an index of its own, or the table itself.
    const auto found = database_->Numbers(
        "SELECT 1 FROM pragma_table_info(" + quotedTable + ") WHERE pk=1 AND " + isColumn +
        " UNION SELECT 1 FROM pragma_index_list(" + quotedTable +
        ") AS L JOIN pragma_index_info(L.name) AS I WHERE L.partial=0 AND I.seqno=0 AND I." +
        isColumn);
    return found && !found->empty();
}

std::optional<std::vector<std::int64_t>>
DatabaseCheck::Read(std::initializer_list<const char *> tables, const std::string &query)
{
    for (const char *table : tables)
        if (incomplete_.contains(table))
            return std::nullopt;
    auto numbers = database_->Numbers(query);
    if (!numbers)
        Fail(database_->Error(), kRepair);
    return numbers;
}

void CheckDirectory(Report *report)
{
    const std::string directory = fs::path(kMainDatabase).parent_path();
    struct stat status = {};
    if (stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        report->Fail(directory, "is missing", "Start the panel's software before the agent");
    else if (faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) != 0)
        report->Fail(directory, "may not be written",
                     "Give the agent's user that right: SQLite keeps its journal files there");
    else
        report->Ok(directory, "can be written");
}

/// Checks that a table from which the agent reads one row at start has that row.
void CheckOneRow(DatabaseCheck &database, const char *table, Report *report)
{
    const auto rows = database.Read({table}, std::string("SELECT COUNT(*) FROM ") + table);
    if (!rows)
        return;
    const std::string subject = database.Subject(std::string("row of ") + table);
    if (rows->at(0) == 0)
        report->Fail(subject, "is missing",
                     "Let the panel's software add it: without it the agent does not start, and "
                     "logs nothing");
    else if (rows->at(0) > 1)
        report->Warn(subject, "is not the only one: " + std::to_string(rows->at(0)) + " rows",
                     "Remove the others: the agent reads the first one that SQLite finds");
    else
        report->Ok(subject, "exists");
}

/// Warns of a cloud link that stays off although it is enabled.
void CheckModel(DatabaseCheck &panel, DatabaseCheck &network, Report *report)
{
    const auto model = network.Read({"Network"}, "SELECT IFNULL(Model, 0) FROM Network");
    const auto enabled = panel.Read({"Cloud"}, "SELECT IFNULL(Enabled, 0) FROM Cloud");
    if (!model || model->empty() || !enabled || enabled->empty())
        return;
    const std::string number = std::to_string(model->front());
    const auto known = ConfigManager::ModelNameOf(static_cast<std::int32_t>(model->front()), 0);
    const std::string subject = network.Subject("model of the panel");
    if (!known.IsEmpty())
        report->Ok(subject, number + " is known");
    else if (enabled->front() == 0)
        report->Ok(subject, number + " is not known; the cloud link is not enabled");
    else
        report->Warn(subject, number + " is not known, so the cloud link stays off",
                     "Set Network.Model to the number of the panel's model");
}

void CheckLogins(DatabaseCheck &panel, Report *report)
{
    const std::string subject = panel.Subject("accounts");
    const std::string digest = "LENGTH(Password)=64";
    const auto own =
        panel.Read({"Controller"}, "SELECT COUNT(*) FROM Controller WHERE No=1 AND " + digest);
    const auto users = panel.Read({"WebUser"}, "SELECT COUNT(*) FROM WebUser WHERE " + digest);
    if (!own || !users)
        return;
    if (own->at(0) + users->at(0) == 0)
        report->Fail(subject, "nobody can log in",
                     "Let the panel's software store the SHA-256 of a password in Controller "
                     "(No=1) or WebUser");
    else
        report->Ok(subject, "with a password: " + std::to_string(own->at(0) + users->at(0)));
    const auto without =
        panel.Read({"WebUser", "UserRoleTable"},
                   "SELECT COUNT(*) FROM WebUser WHERE " + digest +
                       " AND UserRole NOT IN (SELECT UserRole FROM UserRoleTable)");
    if (!without)
        return;
    const std::string roles = panel.Subject("rights of the accounts");
    if (without->at(0) == 0)
        report->Ok(roles, "every role has rows in UserRoleTable");
    else
        report->Warn(roles,
                     "accounts of WebUser whose role has no rows in UserRoleTable: " +
                         std::to_string(without->at(0)),
                     "Give the role its rights: most commands of these users end with Result=9");
}

/// Warns of cards that are not found because their format is missing.
void CheckCards(DatabaseCheck &panel, Report *report)
{
    const auto lost = panel.Read({"Card", "CardFormat"},
                                 "SELECT COUNT(*) FROM Card WHERE CardFormatNo IS NULL OR "
                                 "CardFormatNo NOT IN (SELECT No FROM CardFormat)");
    if (!lost)
        return;
    const std::string subject = panel.Subject("formats of the cards");
    if (lost->at(0) == 0)
        report->Ok(subject, "all are in CardFormat");
    else
        report->Warn(subject, "cards without one in CardFormat: " + std::to_string(lost->at(0)),
                     "Add the formats: commands do not find these cards");
}

/// Warns of events that are not found because their code is missing.
void CheckEvents(DatabaseCheck &panel, DatabaseCheck &log, Report *report)
{
    const auto used = log.Read({"Log"}, kUsedCodes);
    const auto known = panel.Read({"EventCode"}, "SELECT EventCode FROM EventCode");
    if (!used || !known)
        return;
    const std::set<std::int64_t> codes(known->begin(), known->end());
    std::string lost;
    for (const std::int64_t code : *used)
        if (!codes.contains(code))
            lost += (lost.empty() ? "" : ", ") + std::to_string(code);
    const std::string subject = log.Subject("codes of the events");
    if (lost.empty())
        report->Ok(subject, "all of the newest events are in EventCode");
    else
        report->Warn(subject, "not in EventCode: " + lost,
                     "Add the codes: commands do not find these events");
}

} // namespace

void CheckDatabases(Report *report)
{
    CheckDirectory(report);
    DatabaseCheck panel(kMainDatabase, R_OK | W_OK, report);
    DatabaseCheck log(kLogDatabase, R_OK, report);
    DatabaseCheck network(kNetworkDatabase, R_OK, report);
    const bool hasPanel = panel.CheckSchema();
    const bool hasLog = log.CheckSchema();
    const bool hasNetwork = network.CheckSchema();
    if (hasPanel)
        CheckOneRow(panel, "Cloud", report);
    if (hasNetwork)
        CheckOneRow(network, "Network", report);
    if (hasPanel && hasNetwork)
        CheckModel(panel, network, report);
    if (hasPanel) {
        CheckLogins(panel, report);
        CheckCards(panel, report);
    }
    if (hasPanel && hasLog)
        CheckEvents(panel, log, report);
}

} // namespace nimbra::check
