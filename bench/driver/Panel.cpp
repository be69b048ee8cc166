#include "bench/driver/Panel.h"

#include "simulator/panel/SamplePanel.h"
#include "simulator/panel/Sqlite.h"

#include <string>

namespace nimbra::bench {

void CreatePanel(const Plan &plan, int events, int users, CloudLink link)
{
    panel::PanelOptions options;
    options.Size = {events, users, users, 16};
    options.CloudEnabled = link == CloudLink::On;
    options.CommandTool = plan.CommandTool;
    panel::CreatePanel("/", options);
}

void ResetUsers(int users)
{
    panel::SqliteFile file(panel::PanelPaths("/").MainDatabase);
    file.Run("DELETE FROM User WHERE No>" + std::to_string(users));
    file.Run("DELETE FROM DBQueryInfo");
}

} // namespace nimbra::bench
