#include "core/CloudDevice.h"

#include "base/Flag.h"
#include "base/Wait.h"
#include "client/ClientManager.h"
#include "cloud/ServerManager.h"
#include "core/ConfigManager.h"
#include "scan/ScanManager.h"

namespace nimbra {

namespace {

constinit Flag quit(false);

} // namespace

CloudDevice *CloudDevice::GetInstance()
{
    static auto *const instance = new CloudDevice;
    return instance;
}

bool CloudDevice::Init()
{
    return ConfigManager::GetInstance()->Load();
}

bool CloudDevice::Start()
{
    return ClientManager::GetInstance()->Start() && ServerManager::GetInstance()->Start() &&
           ScanManager::GetInstance()->Start();
}

void CloudDevice::Run()
{
    while (!quit.IsSet())
        PauseSeconds(1);
}

void CloudDevice::Stop()
{
    ScanManager::GetInstance()->Stop();
    ServerManager::GetInstance()->Stop();
    ClientManager::GetInstance()->Stop();
}

void CloudDevice::RequestQuit()
{
    quit.Set();
}

bool CloudDevice::IsQuitRequested()
{
    return quit.IsSet();
}

} // namespace nimbra
