#include "bench/baseline/BaselineMethods.h"

#include "bench/baseline/BaselineSql.h"

#include <openssl/sha.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

/* The rows of a query in one buffer. */
typedef struct
{
    char *Bytes;
    size_t Size;
    size_t Capacity;
} Rows;

static void Keep(Rows *rows, const void *bytes, size_t count)
{
    if (rows->Size + count > rows->Capacity) {
        rows->Capacity = 2 * (rows->Capacity + count);
        rows->Bytes = realloc(rows->Bytes, rows->Capacity);
        if (rows->Bytes == NULL)
            BaselineFail("realloc");
    }
    memcpy(rows->Bytes + rows->Size, bytes, count);
    rows->Size += count;
}

/* Keeps the columns of a row: 'n' a number, 's' a text. */
static void KeepRow(Rows *rows, sqlite3_stmt *statement, const char *columns)
{
    for (int column = 0; columns[column] != '\0'; ++column) {
        if (columns[column] == 'n') {
            const int number = sqlite3_column_int(statement, column);
            Keep(rows, &number, sizeof number);
        } else {
            const char *text = (const char *)sqlite3_column_text(statement, column);
            Keep(rows, text, strlen(text) + 1);
        }
    }
}

/* Ends a query, which must have had a row. */
static void End(Rows *rows, sqlite3_stmt *statement, const char *sql)
{
    sqlite3_finalize(statement);
    if (rows->Size == 0)
        BaselineFail(sql);
    free(rows->Bytes);
}

/* Steps through one row and keeps its columns. */
static void ReadOne(sqlite3 *database, const char *sql, const char *columns)
{
    Rows rows = {NULL, 0, 0};
    sqlite3_stmt *statement = BaselinePrepare(database, sql);
    if (sqlite3_step(statement) == SQLITE_ROW)
        KeepRow(&rows, statement, columns);
    End(&rows, statement, sql);
}

/* Steps through all rows and keeps their columns. */
static void ReadAll(sqlite3 *database, const char *sql, const char *columns)
{
    Rows rows = {NULL, 0, 0};
    sqlite3_stmt *statement = BaselinePrepare(database, sql);
    while (sqlite3_step(statement) == SQLITE_ROW)
        KeepRow(&rows, statement, columns);
    End(&rows, statement, sql);
}

/* One row, or all rows, of a query of the main database. */
static void GetOne(const char *sql, const char *columns)
{
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    ReadOne(panel, sql, columns);
    sqlite3_close(panel);
}

static void GetList(const char *count, const char *sql, const char *columns)
{
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    BaselineFirstNumber(panel, count);
    ReadAll(panel, sql, columns);
    sqlite3_close(panel);
}

static void Change(const char *sql)
{
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    BaselineChange(panel, sql);
    sqlite3_close(panel);
}

/* A change of the rows of one number: `before`, the number and `after` are its statement. */
static void ChangeOf(sqlite3 *panel, const char *before, int number, const char *after)
{
    char sql[BASELINE_SQL_SIZE];
    snprintf(sql, sizeof sql, "%s%d%s", before, number, after);
    BaselineChange(panel, sql);
}

static char Digit(int value)
{
    return (char)(value + (value < 10 ? '0' : 'A' - 10));
}

/* Not inlined: otherwise the compiler leaves out the digits that a caller does not read. The agent
   has to make them all. */
__attribute__((noinline)) static void Digest(const char *text, char *digits)
{
    unsigned char bytes[SHA256_DIGEST_LENGTH];
    SHA256_CTX context;
    SHA256_Init(&context);
    SHA256_Update(&context, text, strlen(text));
    SHA256_Final(bytes, &context);
    for (size_t i = 0; i < sizeof bytes; ++i) {
        digits[2 * i] = Digit(bytes[i] >> 4);
        digits[2 * i + 1] = Digit(bytes[i] & 15);
    }
    digits[2 * sizeof bytes] = '\0';
}

static void HashPassword(int turn)
{
    (void)turn;
    char digits[2 * SHA256_DIGEST_LENGTH + 1];
    Digest("operate!1", digits);
}

static void CheckPassword(int turn)
{
    (void)turn;
    char digits[2 * SHA256_DIGEST_LENGTH + 1];
    Digest("operate!1", digits);
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    sqlite3_stmt *controller = BaselinePrepare(
        panel, "SELECT IFNULL(Password, '') FROM Controller WHERE No=1 AND ID='operator'");
    if (sqlite3_step(controller) == SQLITE_ROW)
        BaselineFail("Controller");
    sqlite3_stmt *user = BaselinePrepare(
        panel, "SELECT UserRole, IFNULL(Password, '') FROM WebUser WHERE ID='operator'");
    if (sqlite3_step(user) != SQLITE_ROW ||
        strcasecmp((const char *)sqlite3_column_text(user, 1), digits) != 0)
        BaselineFail("WebUser");
    char sql[BASELINE_SQL_SIZE];
    snprintf(sql, sizeof sql,
             "SELECT FormIndex, IFNULL(Authority, 0) FROM UserRoleTable WHERE UserRole=%d",
             sqlite3_column_int(user, 0));
    ReadAll(panel, sql, "nn");
    sqlite3_finalize(user);
    sqlite3_finalize(controller);
    sqlite3_close(panel);
}

static void WriteAuditLog(int turn)
{
    (void)turn;
    BaselineCommand("/nimbra/sbin/nimbra-cgi log 1 127.0.0.1 0 15107 0 0 admin 0 0");
}

static void GetEventLog(int turn)
{
    (void)turn;
    sqlite3 *log = BaselineOpenLog();
    ReadOne(log, "SELECT " BASELINE_EVENT_COLUMNS " FROM " BASELINE_EVENT_TABLES " WHERE A.No = 20",
            "nnnsnsnnsn");
    sqlite3_close(log);
}

static void GetEventLogEx(int turn)
{
    (void)turn;
    sqlite3 *log = BaselineOpenLog();
    ReadAll(log,
            "SELECT A.No, " BASELINE_EVENT_COLUMNS " FROM " BASELINE_EVENT_TABLES
            "  ORDER BY A.No DESC LIMIT 25",
            "nnnnsnsnnsn");
    sqlite3_close(log);
}

static void GetEventCode(int turn)
{
    (void)turn;
    GetOne("SELECT IFNULL(Name, '') FROM EventCode WHERE EventCode=10301", "s");
}

static void GetEventCodeEx(int turn)
{
    (void)turn;
    GetList("SELECT COUNT(*) FROM EventCode ", "SELECT EventCode, IFNULL(Name, '') FROM EventCode ",
            "ns");
}

#define VIDEO_SELECT                                                                               \
    "SELECT IFNULL(A.Name, ''), IFNULL(A.Type, 0), IFNULL(A.IP, ''), IFNULL(A.LivePort, 0), "      \
    "IFNULL(A.HttpID, ''), IFNULL(A.HttpPassword, ''), IFNULL(B.Channel, 0), "                     \
    "IFNULL(B.CameraID, '') FROM DVR AS A JOIN DVRChannel AS B ON A.No=B.DvrNo "

/* Reads a channel, writes the beginning of its address into `url`, and returns its number. */
static int ReadChannel(const char *sql, char *url, size_t size)
{
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    sqlite3_stmt *row = BaselinePrepare(panel, sql);
    if (sqlite3_step(row) != SQLITE_ROW)
        BaselineFail(sql);
    snprintf(url, size, "rtsp://%s:%s@%s:%d/", sqlite3_column_text(row, 4),
             sqlite3_column_text(row, 5), sqlite3_column_text(row, 2), sqlite3_column_int(row, 3));
    const int channel = sqlite3_column_int(row, 6);
    sqlite3_finalize(row);
    sqlite3_close(panel);
    return channel;
}

static void GetLiveVideoInfo(int turn)
{
    (void)turn;
    char url[257];
    const int channel = ReadChannel(VIDEO_SELECT "WHERE B.DoorNo=1", url, sizeof url);
    char *end = url + strlen(url);
    snprintf(end, sizeof url - (size_t)(end - url), "chID=%d", channel);
}

static void GetPlayVideoInfo(int turn)
{
    (void)turn;
    char url[257];
    const int channel = ReadChannel(VIDEO_SELECT "WHERE B.No=1", url, sizeof url);
    char *end = url + strlen(url);
    const time_t time = 1700000000;
    struct tm utc;
    gmtime_r(&time, &utc);
    snprintf(end, sizeof url - (size_t)(end - url),
             "chID=%d&date=%04d-%02d-%02d&time=%02d:%02d:%02d", channel, utc.tm_year + 1900,
             utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

static void GetDoorInfo(int turn)
{
    (void)turn;
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    ReadOne(panel, "SELECT IFNULL(Name, '') FROM Door WHERE No=1 AND Disable=0", "s");
    BaselineDoorLock(1);
    sqlite3_close(panel);
}

static void GetDoorInfoEx(int turn)
{
    (void)turn;
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    const int total = BaselineFirstNumber(panel, "SELECT COUNT(*) FROM Door  WHERE Disable=0");
    int *numbers = malloc((size_t)total * sizeof *numbers);
    char(*names)[33] = malloc((size_t)total * sizeof *names);
    if (numbers == NULL || names == NULL)
        BaselineFail("malloc");
    sqlite3_stmt *row =
        BaselinePrepare(panel, "SELECT No, IFNULL(Name, '') FROM Door  WHERE Disable=0");
    int count = 0;
    for (; count < total && sqlite3_step(row) == SQLITE_ROW; ++count) {
        numbers[count] = sqlite3_column_int(row, 0);
        snprintf(names[count], sizeof names[count], "%s", sqlite3_column_text(row, 1));
    }
    sqlite3_finalize(row);
    for (int i = 0; i < count; ++i)
        BaselineDoorLock(numbers[i]);
    free(names);
    free(numbers);
    sqlite3_close(panel);
}

static void GetDoorLock(int turn)
{
    (void)turn;
    BaselineDoorLock(1);
}

static void SetDoorLock(int turn)
{
    (void)turn;
    BaselineCommand("/nimbra/sbin/nimbra-cgi door 1 locked");
    sleep(1);
}

static void GetAuxOutput(int turn)
{
    (void)turn;
    GetOne("SELECT IFNULL(RelayOn, 0) FROM RelayStatus WHERE Type=2 AND No=1", "n");
}

static void SetAuxOutput(int turn)
{
    (void)turn;
    BaselineCommand("/nimbra/sbin/nimbra-cgi auxout 1 on");
}

static void GetUserInfo(int turn)
{
    (void)turn;
    GetOne("SELECT " BASELINE_USER_COLUMNS " FROM User WHERE No=7", "ssssssnnn");
}

static void GetUserInfoEx(int turn)
{
    (void)turn;
    GetList("SELECT COUNT(*) FROM User ",
            "SELECT No, " BASELINE_USER_COLUMNS " FROM User  LIMIT 25", "nssssssnnn");
}

static void SetUserInfo(int turn)
{
    (void)turn;
    Change("UPDATE User SET FirstName='Ada', MiddleName='', LastName='Bench', Phone='555-0100', "
           "CellPhone='', Email='ada@example.com', Ada=1, Exempt=0, ThreatLevel=2 WHERE No=7");
}

static void AddUserInfo(int turn)
{
    (void)turn;
    const BaselineUser user = {"Ada", "", "Bench", "555-0100", "", "ada@example.com", 1, 0, 2};
    BaselineAddUser(&user);
}

static void DelUserInfo(int turn)
{
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    ChangeOf(panel,
             "DELETE FROM CardAccessLevel WHERE CardNo IN (SELECT No FROM Card WHERE UserNo=", turn,
             ")");
    ChangeOf(panel, "DELETE FROM Card WHERE UserNo=", turn, "");
    ChangeOf(panel, "DELETE FROM User WHERE No=", turn, "");
    sqlite3_close(panel);
}

static void GetUserImage(int turn)
{
    (void)turn;
    GetOne("SELECT IFNULL(ImageFile, '') FROM User WHERE No=1", "s");
}

static void SetUserImage(int turn)
{
    (void)turn;
    Change("UPDATE User SET ImageFile='bench.jpg' WHERE No=7");
}

static void GetCardFormat(int turn)
{
    (void)turn;
    GetOne("SELECT IFNULL(Name, ''), IFNULL(IsDefault, 0) FROM CardFormat WHERE No=1", "sn");
}

static void GetCardFormatEx(int turn)
{
    (void)turn;
    GetList("SELECT COUNT(*) FROM CardFormat",
            "SELECT No, IFNULL(Name, ''), IFNULL(IsDefault, 0) FROM CardFormat", "nsn");
}

#define CARD_COLUMNS                                                                               \
    "A.UserNo, IFNULL(A.CardFormatNo, 0), IFNULL(B.Name, ''), IFNULL(A.CardNo, ''), "              \
    "IFNULL(A.KeyNumber, 0), IFNULL(A.CardStatus, 0), IFNULL(A.CardType, 0), "                     \
    "IFNULL(A.NeverExpire, 0), IFNULL(A.ActDate, 0), IFNULL(A.ExpDate, 0)"
#define CARD_TABLES "Card AS A JOIN CardFormat AS B ON A.CardFormatNo = B.No"

static void GetCardInfo(int turn)
{
    (void)turn;
    GetOne("SELECT " CARD_COLUMNS " FROM " CARD_TABLES " WHERE A.No=7", "nnssnnnnnn");
}

static void GetCardInfoEx(int turn)
{
    (void)turn;
    GetList("SELECT COUNT(*) FROM " CARD_TABLES " ",
            "SELECT A.No, " CARD_COLUMNS " FROM " CARD_TABLES "  LIMIT 25", "nnnssnnnnnn");
}

static void SetCardInfo(int turn)
{
    (void)turn;
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    BaselineFirstNumber(panel, "SELECT No FROM Card WHERE No!=7 AND CardFormatNo=1 AND "
                               "CardNo='bench-7'");
    BaselineChange(panel,
                   "UPDATE Card SET UserNo=7, CardFormatNo=1, CardNo='bench-7', KeyNumber=1, "
                   "CardStatus=0, CardType=0, NeverExpire=1, ActDate=1700000000, "
                   "ExpDate=1800000000 WHERE No=7");
    sqlite3_close(panel);
}

static void AddCardInfo(int turn)
{
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    char sql[BASELINE_SQL_SIZE];
    snprintf(sql, sizeof sql, "SELECT No FROM Card WHERE CardFormatNo=1 AND CardNo='bench-%d'",
             turn);
    BaselineFirstNumber(panel, sql);
    snprintf(sql, sizeof sql,
             "INSERT INTO Card (Site, No, UserNo, CardFormatNo, CardNo, KeyNumber, CardStatus, "
             "CardType, NeverExpire, ActDate, ExpDate, SelectType) VALUES (1, %d, 7, 1, "
             "'bench-%d', 1, 0, 0, 1, 1700000000, 1800000000, 1)",
             BaselineFirstNumber(panel, "SELECT MAX(No) FROM Card") + 1, turn);
    BaselineChange(panel, sql);
    sqlite3_close(panel);
}

static void DelCardInfo(int turn)
{
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    ChangeOf(panel, "DELETE FROM CardAccessLevel WHERE CardNo=", turn, "");
    ChangeOf(panel, "DELETE FROM Card WHERE No=", turn, "");
    sqlite3_close(panel);
}

static void GetAccessLevel(int turn)
{
    (void)turn;
    GetOne("SELECT IFNULL(Name, '') FROM GroupTable WHERE GroupKind=5 AND No=1", "s");
}

static void GetAccessLevelEx(int turn)
{
    (void)turn;
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    BaselineFirstNumber(panel, "SELECT COUNT(*) FROM AccessLevel");
    ReadAll(panel, "SELECT No, IFNULL(Name, '') FROM AccessLevel", "ns");
    BaselineFirstNumber(panel, "SELECT COUNT(*) FROM GroupTable WHERE GroupKind=5");
    ReadAll(panel, "SELECT No, IFNULL(Name, '') FROM GroupTable WHERE GroupKind=5", "ns");
    sqlite3_close(panel);
}

static void GetCardAccessLevel(int turn)
{
    (void)turn;
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    sqlite3_stmt *card =
        BaselinePrepare(panel, "SELECT IFNULL(SelectType, 0) FROM Card WHERE No=7");
    if (sqlite3_step(card) != SQLITE_ROW)
        BaselineFail("Card");
    ReadAll(panel, "SELECT AccessLevelNo FROM CardAccessLevel WHERE CardNo=7", "n");
    sqlite3_finalize(card);
    sqlite3_close(panel);
}

static void SetCardAccessLevel(int turn)
{
    (void)turn;
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    BaselineChange(panel, "UPDATE Card SET SelectType=1 WHERE No=7");
    BaselineChange(panel, "DELETE FROM CardAccessLevel WHERE CardNo=7");
    for (int level = 1; level <= 2; ++level) {
        char sql[BASELINE_SQL_SIZE];
        snprintf(sql, sizeof sql,
                 "INSERT INTO CardAccessLevel (Site, No, CardNo, AccessLevelNo) VALUES (1, %d, 7, "
                 "%d)",
                 BaselineFirstNumber(panel, "SELECT MAX(No) FROM CardAccessLevel") + 1, level);
        BaselineChange(panel, sql);
    }
    sqlite3_close(panel);
}

static void GetThreatInfo(int turn)
{
    (void)turn;
    GetOne("SELECT IFNULL(ThreatName, '') FROM ThreatLevel WHERE Level=1", "s");
}

static void GetThreatInfoEx(int turn)
{
    (void)turn;
    GetList("SELECT COUNT(*) FROM ThreatLevel",
            "SELECT Level, IFNULL(ThreatName, '') FROM ThreatLevel", "ns");
}

static void GetThreatLevel(int turn)
{
    (void)turn;
    GetOne("SELECT IFNULL(ThreatStatus, 0) FROM Threat", "n");
}

static void SetThreatLevel(int turn)
{
    (void)turn;
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    BaselineExecute(panel, "UPDATE Threat SET ThreatStatus=2");
    sqlite3_close(panel);
    BaselineCommand("/nimbra/sbin/nimbra-cgi savethreat");
}

static void AddDBQueryInfo(int turn)
{
    (void)turn;
    BaselineJournal("DELETE FROM Card WHERE CardNo='bench'");
}

#define METHOD(name)                                                                               \
    {                                                                                              \
#name, name                                                                                \
    }

const struct BaselineMethod kBaselineMethods[] = {
    METHOD(HashPassword),       METHOD(CheckPassword),    METHOD(AddDBQueryInfo),
    METHOD(WriteAuditLog),      METHOD(GetEventLog),      METHOD(GetEventLogEx),
    METHOD(GetEventCode),       METHOD(GetEventCodeEx),   METHOD(GetLiveVideoInfo),
    METHOD(GetPlayVideoInfo),   METHOD(GetDoorInfo),      METHOD(GetDoorInfoEx),
    METHOD(GetDoorLock),        METHOD(SetDoorLock),      METHOD(GetAuxOutput),
    METHOD(SetAuxOutput),       METHOD(GetUserInfo),      METHOD(GetUserInfoEx),
    METHOD(SetUserInfo),        METHOD(AddUserInfo),      METHOD(DelUserInfo),
    METHOD(GetUserImage),       METHOD(SetUserImage),     METHOD(GetCardFormat),
    METHOD(GetCardFormatEx),    METHOD(GetCardInfo),      METHOD(GetCardInfoEx),
    METHOD(SetCardInfo),        METHOD(AddCardInfo),      METHOD(DelCardInfo),
    METHOD(GetAccessLevel),     METHOD(GetAccessLevelEx), METHOD(GetCardAccessLevel),
    METHOD(SetCardAccessLevel), METHOD(GetThreatInfo),    METHOD(GetThreatInfoEx),
    METHOD(GetThreatLevel),     METHOD(SetThreatLevel),   {NULL, NULL}};
