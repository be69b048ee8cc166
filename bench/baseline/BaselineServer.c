/*
 * The baseline that the agent is measured against: a server of the same protocol that makes the
 * calls which the protocol and the databases force, and nothing else. One thread serves a client
 * with blocking reads of one byte each; SQLite has its defaults. It knows the commands that the
 * benchmark sends, trusts every line, and ends at the first failure.
 *
 *   nimbra-baseline PORT
 */
#include "bench/baseline/BaselineSql.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

/* The lines of an answer in one buffer, each ended by its line feed. */
typedef struct
{
    char *Bytes;
    size_t Size;
    size_t Capacity;
} Lines;

enum
{
    LineSize = 1024,
    TransferSeconds = 5,
    IdleSeconds = 10,
    ThreadStack = 256 * 1024
};

/* Receives one byte. The end of a child process may interrupt the call. */
static bool ReceiveByte(int socket, char *byte)
{
    ssize_t count;
    do
        count = recv(socket, byte, 1, 0);
    while (count < 0 && errno == EINTR);
    return count == 1;
}

/* Receives one line, byte by byte, so that it never takes bytes of the next one. False when the
   client has closed the connection or is silent for too long. */
static bool Receive(int socket, char *line)
{
    for (size_t count = 0; count < LineSize; ++count) {
        if (!ReceiveByte(socket, line + count))
            return false;
        if (line[count] == '\n') {
            line[count] = '\0';
            return true;
        }
    }
    return false;
}

/* Sends all the bytes; gives up when the client takes nothing for too long. */
static void Send(int socket, const char *bytes, size_t count)
{
    while (count > 0) {
        const ssize_t sent = send(socket, bytes, count, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 1)
            return;
        bytes += sent;
        count -= (size_t)sent;
    }
}

static void SendText(int socket, const char *text)
{
    Send(socket, text, strlen(text));
}

/* Sends the header of a list and its rows. */
static void SendList(int socket, const char *command, int total, int count, Lines *rows)
{
    char header[LineSize];
    snprintf(header, sizeof header, "%sResponse?Result=0&Total=%d&Offset=0&Count=%d\n", command,
             total, count);
    SendText(socket, header);
    Send(socket, rows->Bytes, rows->Size);
    free(rows->Bytes);
}

/* Makes space for one more line; the caller adds its length to `Size`. */
static char *NextLine(Lines *lines)
{
    if (lines->Size + LineSize > lines->Capacity) {
        lines->Capacity = 2 * (lines->Capacity + LineSize);
        lines->Bytes = realloc(lines->Bytes, lines->Capacity);
        if (lines->Bytes == NULL)
            BaselineFail("realloc");
    }
    return lines->Bytes + lines->Size;
}

/* The value of a key, 0 without it. */
static int NumberOf(const char *line, const char *key)
{
    const char *place = strstr(line, key);
    return place == NULL ? 0 : atoi(place + strlen(key));
}

/* Copies the value of a key, cut to 32 bytes; empty without it. */
static void TextOf(const char *line, const char *key, char text[33])
{
    text[0] = '\0';
    const char *place = strstr(line, key);
    if (place == NULL)
        return;
    place += strlen(key);
    const size_t length = strcspn(place, "&");
    memcpy(text, place, length < 32 ? length : 32);
    text[length < 32 ? length : 32] = '\0';
}

static void Hello(int socket)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    srand((unsigned)now.tv_nsec);
    char text[LineSize];
    snprintf(text, sizeof text, "HelloResponse?Result=0&Key=%d\n", rand());
    SendText(socket, text);
}

static void Login(int socket)
{
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    sqlite3_stmt *controller = BaselinePrepare(
        panel, "SELECT IFNULL(Password, '') FROM Controller WHERE No=1 AND ID='admin'");
    if (sqlite3_step(controller) != SQLITE_ROW)
        BaselineFail("Controller");
    sqlite3_finalize(controller);
    sqlite3_close(panel);
    BaselineCommand("/nimbra/sbin/nimbra-cgi log 1 127.0.0.1 0 15107 0 0 admin 0 0");
    SendText(socket, "LoginResponse?Result=0\n");
}

static void GetDoorInfo(int socket, const char *line)
{
    const int no = NumberOf(line, "DoorNo=");
    char sql[BASELINE_SQL_SIZE];
    snprintf(sql, sizeof sql, "SELECT IFNULL(Name, '') FROM Door WHERE No=%d AND Disable=0", no);
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    sqlite3_stmt *row = BaselinePrepare(panel, sql);
    if (sqlite3_step(row) != SQLITE_ROW)
        BaselineFail("Door");
    char name[33];
    snprintf(name, sizeof name, "%s", sqlite3_column_text(row, 0));
    sqlite3_finalize(row);
    const int status = BaselineDoorLock(no);
    sqlite3_close(panel);
    char text[LineSize];
    snprintf(text, sizeof text, "GetDoorInfoResponse?Result=0&DoorNo=%d&Name=%s&Status=%d\n", no,
             name, status);
    SendText(socket, text);
}

/* Formats a user from the columns that begin at `first`. */
static size_t FormatUser(char *text, const char *lead, int no, sqlite3_stmt *row, int first)
{
    return (size_t)snprintf(
        text, LineSize,
        "%sUserNo=%d&FirstName=%.32s&MiddleName=%.32s&LastName=%.32s&PhoneNumber=%.32s"
        "&CellPhone=%.32s&Email=%.32s&Ada=%d&Exempt=%d&ThreatLevel=%d\n",
        lead, no, sqlite3_column_text(row, first), sqlite3_column_text(row, first + 1),
        sqlite3_column_text(row, first + 2), sqlite3_column_text(row, first + 3),
        sqlite3_column_text(row, first + 4), sqlite3_column_text(row, first + 5),
        sqlite3_column_int(row, first + 6), sqlite3_column_int(row, first + 7),
        sqlite3_column_int(row, first + 8));
}

static void GetUserInfo(int socket, const char *line)
{
    const int no = NumberOf(line, "UserNo=");
    char sql[BASELINE_SQL_SIZE];
    snprintf(sql, sizeof sql, "SELECT " BASELINE_USER_COLUMNS " FROM User WHERE No=%d", no);
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    sqlite3_stmt *row = BaselinePrepare(panel, sql);
    if (sqlite3_step(row) != SQLITE_ROW)
        BaselineFail("User");
    char text[LineSize];
    const size_t length = FormatUser(text, "GetUserInfoResponse?Result=0&", no, row, 0);
    sqlite3_finalize(row);
    sqlite3_close(panel);
    Send(socket, text, length);
}

static void GetUserInfoEx(int socket)
{
    sqlite3 *panel = BaselineOpen(BASELINE_MAIN_DATABASE);
    const int total = BaselineFirstNumber(panel, "SELECT COUNT(*) FROM User ");
    sqlite3_stmt *row =
        BaselinePrepare(panel, "SELECT No, " BASELINE_USER_COLUMNS " FROM User  LIMIT 25");
    Lines rows = {NULL, 0, 0};
    int count = 0;
    for (; sqlite3_step(row) == SQLITE_ROW; ++count)
        rows.Size += FormatUser(NextLine(&rows), "", sqlite3_column_int(row, 0), row, 1);
    sqlite3_finalize(row);
    sqlite3_close(panel);
    SendList(socket, "GetUserInfoEx", total, count, &rows);
}

static void AddUserInfo(int socket, const char *line)
{
    char texts[6][33];
    TextOf(line, "FirstName=", texts[0]);
    TextOf(line, "MiddleName=", texts[1]);
    TextOf(line, "LastName=", texts[2]);
    TextOf(line, "PhoneNumber=", texts[3]);
    TextOf(line, "CellPhone=", texts[4]);
    TextOf(line, "Email=", texts[5]);
    const BaselineUser user = {texts[0],
                               texts[1],
                               texts[2],
                               texts[3],
                               texts[4],
                               texts[5],
                               NumberOf(line, "Ada="),
                               NumberOf(line, "Exempt="),
                               NumberOf(line, "ThreatLevel=")};
    BaselineAddUser(&user);
    BaselineCommand("/nimbra/sbin/nimbra-cgi log 1 127.0.0.1 0 10301 0 0 admin 0 0");
    SendText(socket, "AddUserInfoResponse?Result=0\n");
}

static size_t FormatEvent(char *text, sqlite3_stmt *row)
{
    const time_t date = sqlite3_column_int(row, 1);
    struct tm utc;
    gmtime_r(&date, &utc);
    return (size_t)snprintf(
        text, LineSize,
        "EventNo=%d&EventTime=%04d-%02d-%02d %02d:%02d:%02d&DeviceType=%d&DevicePort=%d"
        "&DeviceName=%.32s&EventCode=%d&EventDesc=%.64s&CardNo=%d&UserNo=%d&UserName=%.32s"
        "&VideoTag=%d\n",
        sqlite3_column_int(row, 0), utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour,
        utc.tm_min, utc.tm_sec, sqlite3_column_int(row, 2), sqlite3_column_int(row, 3),
        sqlite3_column_text(row, 4), sqlite3_column_int(row, 5), sqlite3_column_text(row, 6),
        sqlite3_column_int(row, 7), sqlite3_column_int(row, 8), sqlite3_column_text(row, 9),
        sqlite3_column_int(row, 10));
}

static void GetEventLogEx(int socket, const char *line)
{
    const int limit = NumberOf(line, "Limit=");
    char sql[BASELINE_SQL_SIZE];
    snprintf(sql, sizeof sql,
             "SELECT A.No, " BASELINE_EVENT_COLUMNS " FROM " BASELINE_EVENT_TABLES
             "  ORDER BY A.No DESC LIMIT %d",
             limit == 0 ? 25 : limit);
    sqlite3 *log = BaselineOpenLog();
    sqlite3_stmt *row = BaselinePrepare(log, sql);
    Lines rows = {NULL, 0, 0};
    int count = 0;
    for (; sqlite3_step(row) == SQLITE_ROW; ++count)
        rows.Size += FormatEvent(NextLine(&rows), row);
    sqlite3_finalize(row);
    sqlite3_close(log);
    SendList(socket, "GetEventLogEx", 100000, count, &rows);
}

static bool Begins(const char *line, const char *word)
{
    return strncmp(line, word, strlen(word)) == 0;
}

static void Serve(int socket, const char *line)
{
    if (Begins(line, "Hello?"))
        Hello(socket);
    else if (Begins(line, "Login?"))
        Login(socket);
    else if (Begins(line, "Heartbeat?"))
        SendText(socket, "HeartbeatResponse?Result=0\n");
    else if (Begins(line, "GetEventLogEx?"))
        GetEventLogEx(socket, line);
    else if (Begins(line, "GetDoorInfo?"))
        GetDoorInfo(socket, line);
    else if (Begins(line, "GetUserInfo?"))
        GetUserInfo(socket, line);
    else if (Begins(line, "GetUserInfoEx?"))
        GetUserInfoEx(socket);
    else if (Begins(line, "AddUserInfo?"))
        AddUserInfo(socket, line);
    else
        BaselineFail(line);
}

static void SetLimit(int socket, int option, time_t seconds)
{
    const struct timeval limit = {seconds, 0};
    if (setsockopt(socket, SOL_SOCKET, option, &limit, sizeof limit) != 0)
        BaselineFail("setsockopt");
}

/* Sends the second part of a response before the client has acknowledged the first. */
static void SendAtOnce(int socket)
{
    const int on = 1;
    if (setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)
        BaselineFail("setsockopt");
}

static void *RunSession(void *argument)
{
    const int socket = (int)(intptr_t)argument;
    SendAtOnce(socket);
    SetLimit(socket, SO_RCVTIMEO, IdleSeconds);
    SetLimit(socket, SO_SNDTIMEO, TransferSeconds);
    char line[LineSize];
    while (Receive(socket, line))
        Serve(socket, line);
    close(socket);
    return NULL;
}

static void StartSession(int socket)
{
    pthread_attr_t attributes;
    pthread_t thread;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, ThreadStack);
    if (pthread_create(&thread, &attributes, RunSession, (void *)(intptr_t)socket) != 0)
        BaselineFail("pthread_create");
    pthread_attr_destroy(&attributes);
}

static int Listen(int port)
{
    const int on = 1;
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    struct sockaddr_in address = {0};
    address.sin_family = AF_INET;
    address.sin_port = htons((unsigned short)port);
    if (listener < 0 || setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener, (const struct sockaddr *)&address, sizeof address) != 0 ||
        listen(listener, 10) != 0)
        BaselineFail("listener");
    return listener;
}

int main(int argc, char **argv)
{
    if (argc != 2)
        BaselineFail("nimbra-baseline PORT");
    const int listener = Listen(atoi(argv[1]));
    for (;;) {
        const int client = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
        if (client < 0)
            BaselineFail("accept4");
        StartSession(client);
    }
}
