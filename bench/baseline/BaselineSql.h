#pragma once

#include <sqlite3.h>

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// What the baseline does with the panel's databases: the calls of SQLite's C interface that a
/// request forces, and nothing else. SQLite has its defaults. A failure ends the program, because a
/// baseline that fails measures nothing. Any thread.

#define BASELINE_MAIN_DATABASE "/tmp/NimbraDB/Nimbra.db"
#define BASELINE_LOG_DATABASE "/tmp/NimbraDB/NimbraLog.db"

/// Size of the buffer of a formatted statement; the journal's is larger.
#define BASELINE_SQL_SIZE 1024

/// Columns that several statements read.
#define BASELINE_EVENT_COLUMNS                                                                     \
    "IFNULL(A.Date, 0), IFNULL(A.Type, 0), IFNULL(A.Port, 0), IFNULL(A.DeviceName, ''), "          \
    "IFNULL(A.EventCode, 0), IFNULL(B.Name, ''), IFNULL(A.CardNo, 0), IFNULL(A.UserNo, 0), "       \
    "IFNULL(A.UserName, ''), IFNULL(A.Res1, 0)"
#define BASELINE_EVENT_TABLES "Log AS A JOIN Nimbra.EventCode AS B ON A.EventCode=B.EventCode"
#define BASELINE_USER_COLUMNS                                                                      \
    "IFNULL(FirstName, ''), IFNULL(MiddleName, ''), IFNULL(LastName, ''), IFNULL(Phone, ''), "     \
    "IFNULL(CellPhone, ''), IFNULL(Email, ''), IFNULL(Ada, 0), IFNULL(Exempt, 0), "                \
    "IFNULL(ThreatLevel, 0)"

/// The fields of one user; the caller owns the texts.
typedef struct
{
    const char *FirstName;
    const char *MiddleName;
    const char *LastName;
    const char *Phone;
    const char *CellPhone;
    const char *Email;
    int Ada;
    int Exempt;
    int ThreatLevel;
} BaselineUser;

/// Opens a database; the caller closes it with sqlite3_close.
sqlite3 *BaselineOpen(const char *path);
/// Opens the event log's database with the main one attached.
sqlite3 *BaselineOpenLog(void);
sqlite3_stmt *BaselinePrepare(sqlite3 *database, const char *sql);
void BaselineExecute(sqlite3 *database, const char *sql);
/// The first column of the first row, 0 without one.
int BaselineFirstNumber(sqlite3 *database, const char *sql);
/// Adds a statement to the journal.
void BaselineJournal(const char *statement);
/// Runs a statement and adds it to the journal.
void BaselineChange(sqlite3 *database, const char *sql);
/// Whether the lock of a door counts as open.
int BaselineDoorLock(int doorNo);
/// Adds a user under the next number.
void BaselineAddUser(const BaselineUser *user);
/// Runs a line with the shell.
void BaselineCommand(const char *line);

/// Ends the program with a message that says what failed.
__attribute__((noreturn)) void BaselineFail(const char *what);

#ifdef __cplusplus
}
#endif
