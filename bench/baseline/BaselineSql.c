#include "bench/baseline/BaselineSql.h"

#include <stdio.h>
#include <stdlib.h>

sqlite3 *BaselineOpen(const char *path)
{
    sqlite3 *database = NULL;
    if (sqlite3_open(path, &database) != SQLITE_OK)
        BaselineFail(path);
    sqlite3_busy_timeout(database, 3000);
    return database;
}

sqlite3 *BaselineOpenLog(void)
{
    sqlite3 *log = BaselineOpen(BASELINE_LOG_DATABASE);
    BaselineExecute(log, "ATTACH DATABASE '" BASELINE_MAIN_DATABASE "' as Nimbra");
    return log;
}

sqlite3_stmt *BaselinePrepare(sqlite3 *database, const char *sql)
{
    sqlite3_stmt *statement = NULL;
    if (sqlite3_prepare_v2(database, sql, -1, &statement, NULL) != SQLITE_OK)
        BaselineFail(sql);
    return statement;
}

void BaselineExecute(sqlite3 *database, const char *sql)
{
    if (sqlite3_exec(database, sql, NULL, NULL, NULL) != SQLITE_OK)
        BaselineFail(sql);
}

int BaselineFirstNumber(sqlite3 *database, const char *sql)
{
    sqlite3_stmt *statement = BaselinePrepare(database, sql);
    const int number = sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int(statement, 0) : 0;
    sqlite3_finalize(statement);
    return number;
}

void BaselineJournal(const char *statement)
{
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    const int sequence = BaselineFirstNumber(panel, "SELECT MAX(Idseq) FROM DBQueryInfo") + 1;
    char insert[2 * BASELINE_SQL_SIZE + 128];
    char *end =
        insert + snprintf(insert, sizeof insert,
                          "INSERT INTO DBQueryInfo (Idseq, QueryData, DbKind) VALUES (%d, '",
                          sequence);
    for (; *statement != '\0'; ++statement) {
        if (*statement == '\'')
            *end++ = '\'';
        *end++ = *statement;
    }
    snprintf(end, (size_t)(insert + sizeof insert - end), "', 1)");
    BaselineExecute(panel, insert);
    sqlite3_close(panel);
}

void BaselineChange(sqlite3 *database, const char *sql)
{
    BaselineExecute(database, sql);
    BaselineJournal(sql);
}

int BaselineDoorLock(int doorNo)
{
    char sql[BASELINE_SQL_SIZE];
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    snprintf(sql, sizeof sql, "SELECT IFNULL(DoorContactState, 0) FROM Door WHERE No=%d", doorNo);
    const int isInverted = BaselineFirstNumber(panel, sql) != 0;
    snprintf(sql, sizeof sql, "SELECT IFNULL(RelayOn, 0) FROM RelayStatus WHERE Type=3 AND No=%d",
             doorNo);
    sqlite3_stmt *relay = BaselinePrepare(panel, sql);
    int isOpen = 0;
    if (sqlite3_step(relay) == SQLITE_ROW)
        isOpen = (sqlite3_column_int(relay, 0) == 1) != isInverted;
    sqlite3_finalize(relay);
    sqlite3_close(panel);
    return isOpen;
}

void BaselineAddUser(const BaselineUser *user)
{
    char sql[BASELINE_SQL_SIZE];
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    const int number = BaselineFirstNumber(panel, "SELECT MAX(No) FROM User") + 1;
    snprintf(sql, sizeof sql,
             "INSERT INTO User (Site, No, FirstName, MiddleName, LastName, Phone, CellPhone, "
             "Email, Ada, Exempt, ThreatLevel) VALUES (1, %d, '%s', '%s', '%s', '%s', '%s', '%s', "
             "%d, %d, %d)",
             number, user->FirstName, user->MiddleName, user->LastName, user->Phone,
             user->CellPhone, user->Email, user->Ada, user->Exempt, user->ThreatLevel);
    BaselineChange(panel, sql);
    sqlite3_close(panel);
}

void BaselineCommand(const char *line)
{
    if (system(line) == -1)
        BaselineFail(line);
}

void BaselineFail(const char *what)
{
    fprintf(stderr, "nimbra-baseline: %s: failed\n", what);
    exit(1);
}
