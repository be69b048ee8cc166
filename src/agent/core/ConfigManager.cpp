#include "core/ConfigManager.h"

#include "base/Hex.h"
#include "base/Log.h"
#include "base/PanelConstants.h"
#include "base/Wait.h"
#include "data/Database.h"
#include "data/SqlText.h"

#include <openssl/sha.h>

#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>

namespace nimbra {

namespace {

/// The editions of the panel, by the number that its Network table gives them. The gap in the
/// numbers is the panel's own.
struct Model
{
    std::int32_t Number;
    const char *Name;
};
constexpr Model kModels[] = {{1, "Alder"}, {2, "Birch"}, {3, "Cedar"}, {11, "Dogwood"}};

/// The word behind "HWaddr " in a line of ifconfig; null when there is none.
char *FindMac(char *line)
{
    char *rest = nullptr;
    char *mark = std::strstr(line, "HWaddr ");
    if (mark == nullptr || strtok_r(mark, " ", &rest) == nullptr)
        return nullptr;
    return strtok_r(nullptr, " \r\n", &rest);
}

/// Closes a stream of popen when it goes.
struct PipeCloser
{
    void operator()(std::FILE *pipe) const { pclose(pipe); }
};

} // namespace

ConfigManager *ConfigManager::GetInstance()
{
    static auto *const instance = new ConfigManager;
    return instance;
}

bool ConfigManager::Load()
{
    if (!ReadMacAddress() || !ReadServerInfo() || !ReadNetworkInfo())
        return false;
    if (ModelName.IsEmpty())
        CloudEnable = false;
    std::printf("CloudEnable=%d\n", CloudEnable ? 1 : 0);
    std::printf("CloudServerAddr=%s\n", CloudServerAddr.Get());
    std::printf("CloudServerPort=%d\n", CloudServerPort);
    std::printf("DeviceId=%s\n", DeviceId.Get());
    std::printf("MacAddr=%s\n", MacAddr.Get());
    std::printf("ModelName=%s\n", ModelName.Get());
    std::printf("PrivateAddr=%s\n", PrivateAddr.Get());
    std::printf("PrivatePort=%d\n", PrivatePort);
    return true;
}

bool ConfigManager::ReadMacAddress()
{
    FixedText<1023> command;
    command.Format("/nimbra/bin/ifconfig %s | grep 'HWaddr'", kWiredInterface);
    const std::unique_ptr<std::FILE, PipeCloser> pipe(popen(command.Get(), "re"));
    char line[1024];
    if (pipe == nullptr || std::fgets(line, sizeof line, pipe.get()) == nullptr)
        return false;
    char *mac = FindMac(line);
    if (mac == nullptr)
        return false;
    for (char *c = mac; *c != '\0'; ++c)
        *c = static_cast<char>(std::toupper(static_cast<unsigned char>(*c)));
    MacAddr.Assign(mac);
    std::array<unsigned char, SHA_DIGEST_LENGTH> digest;
    SHA1(reinterpret_cast<const unsigned char *>(MacAddr.Get()), MacAddr.View().size(),
         digest.data());
    DeviceId.Assign(ToHex(digest).View());
    return true;
}

bool ConfigManager::ReadServerInfo()
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return false;
    const int failure = panel.Execute(SqlText("UPDATE Cloud SET DeviceID = '%s'", DeviceId.Get()));
    if (failure != 0) {
        NIMBRA_LOG("sqlite3_exec fail[%d]", failure);
        return false;
    }
    Statement row(panel, SqlText("SELECT IFNULL(Enabled, 0), IFNULL(ServerIP, ''), "
                                 "IFNULL(Port, 0), IFNULL(DevicePort, 0) FROM Cloud"));
    const bool isFound = row.Step();
    if (isFound) {
        std::int32_t isEnabled = 0;
        FixedText<32> serverAddr;
        std::int32_t serverPort = 0;
        row.Read(&isEnabled, &serverAddr, &serverPort, &PrivatePort);
        CloudEnable = isEnabled != 0;
    }
    // The cloud's endpoint is fixed in the program, whatever the panel's row says.
    CloudServerAddr.Assign(kDefaultCloudHost);
    CloudServerPort = kCloudPort;
    return isFound;
}

bool ConfigManager::ReadNetworkInfo()
{
    Database network(kNetworkDatabase, kLogSource);
    if (!network.IsOpen())
        return false;
    Statement row(network, SqlText("SELECT IFNULL(IPAddress, ''), IFNULL(Model, 0), "
                                   "IFNULL(Type, 0) FROM Network"));
    if (!row.Step()) {
        ModelName.Clear();
        return false;
    }
    std::int32_t model = 0;
    std::int32_t size = 0;
    row.Read(&PrivateAddr, &model, &size);
    ModelName = ModelNameOf(model, size);
    return true;
}

FixedText<32> ConfigManager::ModelNameOf(std::int32_t model, std::int32_t size)
{
    FixedText<32> name;
    for (const Model &known : kModels)
        if (known.Number == model)
            name.Format("%s %d", known.Name, size);
    return name;
}

void ConfigManager::SetCommTime(bool start)
{
    Database panel(kMainDatabase, kLogSource);
    if (!panel.IsOpen())
        return;
    const auto now = static_cast<std::int32_t>(ClockSecond());
    if (panel.Execute(SqlText("UPDATE Cloud SET %s=%d", start ? "StartTime" : "CheckTime", now)) !=
        0)
        NIMBRA_LOG("sqlite3_exec fail");
}

} // namespace nimbra
