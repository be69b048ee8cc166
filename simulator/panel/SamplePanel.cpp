#include "simulator/panel/SamplePanel.h"

#include "simulator/panel/SamplePortraits.h"
#include "simulator/panel/Sqlite.h"

#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace nimbra::panel {

namespace fs = std::filesystem;

static void WriteFile(const fs::path &path, const void *bytes, std::size_t length)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(static_cast<const char *>(bytes), static_cast<std::streamsize>(length));
    file.close();
    if (!file)
        throw std::runtime_error(path.string() + ": cannot be written");
}

static void MakeExecutable(const fs::path &path)
{
    fs::permissions(path, fs::perms(0755));
}

static void WriteIfconfig(const fs::path &path, const PanelOptions &options)
{
    static constexpr char kScript[] = R"(#!/bin/sh
# The panel's ifconfig, in the classic form; it knows the wired interface and the loopback.
case "$1" in
eth0)
    cat <<'END'
eth0      Link encap:Ethernet  HWaddr @MAC@  
          inet addr:@ADDRESS@  Bcast:192.168.77.255  Mask:255.255.255.0
          UP BROADCAST RUNNING MULTICAST  MTU:1500  Metric:1
END
    ;;
lo)
    cat <<'END'
lo        Link encap:Local Loopback  
          inet addr:127.0.0.1  Mask:255.0.0.0
          UP LOOPBACK RUNNING  MTU:65536  Metric:1
END
    ;;
*)
    echo "$1: error fetching interface information: Device not found" >&2
    exit 1
    ;;
esac
)";
    std::string script = kScript;
    const auto fill = [&script](const std::string &mark, const std::string &value) {
        script.replace(script.find(mark), mark.size(), value);
    };
    fill("@MAC@", options.MacAddress);
    fill("@ADDRESS@", options.Address);
    WriteFile(path, script.data(), script.size());
    MakeExecutable(path);
}

static void WriteImages(const fs::path &directory)
{
    const auto &jpeg = kJpegPortrait;
    const auto &png = kPngPortrait;
    WriteFile(directory / ExpectedUser(1).ImageFile, jpeg.data(), jpeg.size());
    WriteFile(directory / ExpectedUser(2).ImageFile, png.data(), png.size());
    WriteFile(directory / ExpectedUser(3).ImageFile, jpeg.data(), jpeg.size());
    WriteFile(directory / ExpectedUser(4).ImageFile, jpeg.data(), jpeg.size());
    WriteFile(directory / ExpectedUser(6).ImageFile, "", 0);
}

static void FillLogDatabase(const fs::path &path, int events)
{
    SqliteFile file(path);
    file.Run("PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY; BEGIN;"
             "CREATE TABLE Log (No INTEGER PRIMARY KEY, Date INTEGER, Type INTEGER, Port INTEGER,"
             " DeviceName TEXT, EventCode INTEGER, CardNo INTEGER, UserNo INTEGER, UserName TEXT,"
             " Res1 INTEGER, Res2 INTEGER)");
    SqliteStatement insert(
        file, "INSERT INTO Log (No, Date, Type, Port, DeviceName, EventCode, CardNo, UserNo,"
              " UserName, Res1, Res2) VALUES (?,?,?,?,?,?,?,?,?,?,0)");
    for (int no = 1; no <= events; ++no) {
        const SampleEvent event = ExpectedEvent(no);
        const bool nulls = no % 2 != 0;
        const auto number = [nulls](int value) {
            return nulls && value == 0 ? std::optional<int>() : value;
        };
        const auto text = [nulls](const std::string &value) {
            return nulls && value.empty() ? std::optional<std::string>() : value;
        };
        insert.Execute(no, event.Date, event.Type, number(event.Port), text(event.DeviceName),
                       event.EventCode, number(event.CardNo), number(event.UserNo),
                       text(event.UserName), number(event.VideoTag));
    }
    file.Run("CREATE INDEX LogDate ON Log (Date); COMMIT");
}

static void FillNetworkDatabase(const fs::path &path, const PanelOptions &options)
{
    SqliteFile file(path);
    file.Run("PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY; BEGIN;"
             "CREATE TABLE Network (No INTEGER PRIMARY KEY, IPAddress TEXT, Subnet TEXT,"
             " Gateway TEXT, DNS TEXT, Dhcp INTEGER DEFAULT 0, Model INTEGER, Type INTEGER)");
    SqliteStatement(file, "INSERT INTO Network (No, IPAddress, Subnet, Gateway, DNS, Model, Type)"
                          " VALUES (1, ?, '255.255.255.0', '192.168.77.1', '192.168.77.1', ?, ?)")
        .Execute(options.Address, kModel, kModelSize);
    file.Run("COMMIT");
}

/// Removes a database with what SQLite keeps beside it.
static void RemoveDatabase(const fs::path &path)
{
    for (const char *suffix : {"", "-journal", "-wal", "-shm"})
        fs::remove(path.string() + suffix);
}

void CreatePanel(const fs::path &root, const PanelOptions &options)
{
    const PanelPaths paths(root);
    for (const fs::path &directory : {paths.Databases, paths.Ifconfig.parent_path(),
                                      paths.CommandTool.parent_path(), paths.CallLog.parent_path()})
        fs::create_directories(directory);
    fs::remove_all(paths.Images);
    fs::create_directories(paths.Images);
    fs::remove(paths.CallLog);

    WriteIfconfig(paths.Ifconfig, options);
    WriteImages(paths.Images);
    // Removed first: a tool that is just running cannot be written to.
    fs::remove(paths.CommandTool);
    fs::copy_file(options.CommandTool, paths.CommandTool);
    MakeExecutable(paths.CommandTool);

    for (const fs::path &database : {paths.MainDatabase, paths.LogDatabase, paths.NetworkDatabase})
        RemoveDatabase(database);
    FillMainDatabase(paths.MainDatabase, options);
    FillLogDatabase(paths.LogDatabase, options.Size.Events);
    FillNetworkDatabase(paths.NetworkDatabase, options);
}

std::string PasswordDigest(const std::string &password)
{
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    SHA256(reinterpret_cast<const unsigned char *>(password.data()), password.size(),
           digest.data());
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (const unsigned char byte : digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

void PrintAccounts()
{
    std::puts("Accounts (name, password):");
    for (const SampleLogin &login : {kController, kOperator, kViewer, kGuard, kClerk, kNobody})
        std::printf("  %-10s %s\n", login.Id, login.Password);
}

} // namespace nimbra::panel
