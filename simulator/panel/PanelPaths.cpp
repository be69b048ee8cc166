#include "simulator/panel/PanelPaths.h"

namespace nimbra::panel {

PanelPaths::PanelPaths(const std::filesystem::path &root)
{
    const std::filesystem::path top = root.empty() ? "/" : root;
    Databases = top / "tmp/NimbraDB";
    MainDatabase = Databases / "Nimbra.db";
    LogDatabase = Databases / "NimbraLog.db";
    NetworkDatabase = Databases / "Network.db";
    Ifconfig = top / "nimbra/bin/ifconfig";
    CommandTool = top / "nimbra/sbin/nimbra-cgi";
    Images = top / "nimbra/web/webroot/user_img";
    CallLog = top / "nimbra/var/calls.log";
}

} // namespace nimbra::panel
