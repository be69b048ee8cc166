#include "simulator/panel/EventLog.h"

#include "simulator/panel/Sqlite.h"

#include <ctime>

namespace nimbra::panel {

void AppendEvent(const PanelPaths &paths, const SampleEvent &event)
{
    SqliteFile file(paths.LogDatabase);
    SqliteStatement(file, "INSERT INTO Log (No, Date, Type, Port, DeviceName, EventCode,"
                          " CardNo, UserNo, UserName, Res1, Res2)"
                          " VALUES ((SELECT IFNULL(MAX(No), 0) + 1 FROM Log),"
                          " ?, ?, ?, ?, ?, ?, ?, ?, ?, 0)")
        .Execute(static_cast<int>(std::time(nullptr)), event.Type, event.Port, event.DeviceName,
                 event.EventCode, event.CardNo, event.UserNo, event.UserName, event.VideoTag);
}

} // namespace nimbra::panel
