#include "data/DataManager.h"

#include "base/Hex.h"
#include "base/PanelConstants.h"
#include "data/Database.h"
#include "data/Shell.h"
#include "data/SqlText.h"

#include <openssl/sha.h>

#include <array>
#include <cstring>
#include <new>
#include <string>

#include <strings.h>

namespace nimbra {

namespace {

/// Whether a stored password, a digest in either case, is that of the password given.
bool IsDigest(const FixedText<68> &stored, const FixedText<64> &digest)
{
    return strcasecmp(stored.Get(), digest.Get()) == 0;
}

/// Writes a row of the journal; false when that fails.
bool Journal(Database &panel, std::int32_t sequence, const char *statement)
{
    try {
        std::string insert = "INSERT INTO DBQueryInfo (Idseq, QueryData, DbKind) VALUES (" +
                             std::to_string(sequence) + ", '";
        for (const char *c = statement; *c != '\0'; ++c)
            insert.append(*c == '\'' ? 2 : 1, *c);
        insert += "', 1)";
        return panel.Execute(insert.c_str()) == 0;
    } catch (const std::bad_alloc &) {
        return false; // the change itself has been made
    }
}

/// One more than `number`; the panel's numbers wrap like its 32-bit columns.
std::int32_t Next(std::int32_t number)
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(number) + 1);
}

} // namespace

DataManager *DataManager::GetInstance()
{
    static auto *const instance = new DataManager;
    return instance;
}

bool DataManager::CheckPassword(const FixedText<32> &userName, const FixedText<68> &password,
                                AuthorityRecord *authority)
{
    const FixedText<64> digest = HashPassword(password.Get());
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    FixedText<68> stored;
    Statement controller(
        panel, SqlText("SELECT IFNULL(Password, '') FROM Controller WHERE No=1 AND ID='%s'",
                       userName.Get()));
    if (controller.Step()) {
        controller.Read(&stored);
        if (IsDigest(stored, digest)) {
            authority->GrantAll();
            return true;
        }
    }
    Statement user(panel,
                   SqlText("SELECT UserRole, IFNULL(Password, '') FROM WebUser WHERE ID='%s'",
                           userName.Get()));
    if (!user.Step())
        return false;
    std::int32_t role = 0;
    user.Read(&role, &stored);
    if (!IsDigest(stored, digest))
        return false;
    Statement rights(
        panel,
        SqlText("SELECT FormIndex, IFNULL(Authority, 0) FROM UserRoleTable WHERE UserRole=%d",
                role));
    while (rights.Step()) {
        std::int32_t formIndex = 0;
        std::int32_t right = 0;
        rights.Read(&formIndex, &right);
        authority->GrantRoleRight(formIndex, right);
    }
    // A login without the rights of its role is none.
    if (panel.IsLocked())
        *authority = {};
    return !panel.IsLocked();
}

FixedText<64> DataManager::HashPassword(const char *text)
{
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest;
    SHA256_CTX context;
    SHA256_Init(&context);
    SHA256_Update(&context, text, std::strlen(text));
    SHA256_Final(digest.data(), &context);
    return ToHex(digest);
}

void DataManager::AddDBQueryInfo(const char *statement)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return;
    const std::int32_t sequence =
        Next(panel.FirstNumber(SqlText("SELECT MAX(Idseq) FROM DBQueryInfo")));
    if (panel.IsLocked() || !Journal(panel, sequence, statement))
        NIMBRA_LOG("sqlite3_exec fail");
}

void DataManager::WriteAuditLog(const FixedText<32> &address, const FixedText<32> &userName,
                                int eventCode)
{
    try {
        const std::string line = "/nimbra/sbin/nimbra-cgi log 1 " + ShellWord(address.View()) +
                                 " 0 " + std::to_string(eventCode) + " 0 0 " +
                                 ShellWord(userName.View()) + " 0 0";
        RunCommand(line.c_str());
    } catch (const std::bad_alloc &) {
        // What is to be noted has been done: it does not fail for want of the note.
    }
}

bool DataManager::Change(Database &database, const SqlText &sql, CallPlace place)
{
    if (database.Execute(sql) != 0) {
        Log(place.In(kLogSource), "sqlite3_exec fail");
        return false;
    }
    AddDBQueryInfo(sql.Get());
    return true;
}

bool DataManager::NextNo(Database &database, const char *table, std::int32_t *number,
                         CallPlace place)
{
    *number = Next(database.FirstNumber(SqlText("SELECT MAX(No) FROM %s", table)));
    if (!database.IsLocked())
        return true;
    Log(place.In(kLogSource), "sqlite3_exec fail");
    return false;
}

} // namespace nimbra
