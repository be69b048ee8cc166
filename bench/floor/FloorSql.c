#include "floor/FloorSql.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

sqlite3 *FloorOpen(const char *path)
{
    sqlite3 *database = NULL;
    if (sqlite3_open(path, &database) != SQLITE_OK)
        FloorFail(path);
    sqlite3_busy_timeout(database, 3000);
    return database;
}

sqlite3 *FloorOpenLog(void)
{
    sqlite3 *log = FloorOpen(FLOOR_LOG_DATABASE);
    FloorExecute(log, "ATTACH DATABASE '" FLOOR_MAIN_DATABASE "' as Nimbra");
    return log;
}

sqlite3_stmt *FloorPrepare(sqlite3 *database, const char *sql)
{
    sqlite3_stmt *statement = NULL;
    if (sqlite3_prepare_v2(database, sql, -1, &statement, NULL) != SQLITE_OK)
        FloorFail(sql);
    return statement;
}

void FloorExecute(sqlite3 *database, const char *sql)
{
    if (sqlite3_exec(database, sql, NULL, NULL, NULL) != SQLITE_OK)
        FloorFail(sql);
}

int FloorFirstNumber(sqlite3 *database, const char *sql)
{
    sqlite3_stmt *statement = FloorPrepare(database, sql);
    const int number = sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int(statement, 0) : 0;
    sqlite3_finalize(statement);
    return number;
}

void FloorJournal(const char *statement)
{
    sqlite3 *panel = FloorOpen(FLOOR_MAIN_DATABASE);
    const int sequence = FloorFirstNumber(panel, "SELECT MAX(Idseq) FROM DBQueryInfo") + 1;
    char insert[2 * FLOOR_SQL_SIZE + 128];
    char *end =
        insert + sprintf(insert, "INSERT INTO DBQueryInfo (Idseq, QueryData, DbKind) VALUES (%d, '",
                         sequence);
    for (; *statement != '\0'; ++statement) {
        if (*statement == '\'')
            *end++ = '\'';
        *end++ = *statement;
    }
    strcpy(end, "', 1)");
    FloorExecute(panel, insert);
    sqlite3_close(panel);
}

void FloorChange(sqlite3 *database, const char *sql)
{
    FloorExecute(database, sql);
    FloorJournal(sql);
}

int FloorDoorLock(int doorNo)
{
    char sql[FLOOR_SQL_SIZE];
    sqlite3 *panel = FloorOpen(FLOOR_MAIN_DATABASE);
    snprintf(sql, sizeof sql, "SELECT IFNULL(DoorContactState, 0) FROM Door WHERE No=%d", doorNo);
    const int isInverted = FloorFirstNumber(panel, sql) != 0;
    snprintf(sql, sizeof sql, "SELECT IFNULL(RelayOn, 0) FROM RelayStatus WHERE Type=3 AND No=%d",
             doorNo);
    sqlite3_stmt *relay = FloorPrepare(panel, sql);
    int isOpen = 0;
    if (sqlite3_step(relay) == SQLITE_ROW)
        isOpen = (sqlite3_column_int(relay, 0) == 1) != isInverted;
    sqlite3_finalize(relay);
    sqlite3_close(panel);
    return isOpen;
}

void FloorAddUser(const FloorUser *user)
{
    char sql[FLOOR_SQL_SIZE];
    sqlite3 *panel = FloorOpen(FLOOR_MAIN_DATABASE);
    const int number = FloorFirstNumber(panel, "SELECT MAX(No) FROM User") + 1;
    snprintf(sql, sizeof sql,
             "INSERT INTO User (Site, No, FirstName, MiddleName, LastName, Phone, CellPhone, "
             "Email, Ada, Exempt, ThreatLevel) VALUES (1, %d, '%s', '%s', '%s', '%s', '%s', '%s', "
             "%d, %d, %d)",
             number, user->FirstName, user->MiddleName, user->LastName, user->Phone,
             user->CellPhone, user->Email, user->Ada, user->Exempt, user->ThreatLevel);
    FloorChange(panel, sql);
    sqlite3_close(panel);
}

void FloorCommand(const char *line)
{
    if (system(line) == -1)
        FloorFail(line);
}

void FloorFail(const char *what)
{
    fprintf(stderr, "nimbra-floor: %s: failed\n", what);
    exit(1);
}
