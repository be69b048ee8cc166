#pragma once

#include "panel-check/Report.h"

#include <ctime>

/// The checks. Each adds its findings to the report and changes nothing on the panel. One thread.
namespace nimbra::check {

/// The three databases: files, tables, columns, indexes, and the rows without which the agent does
/// not start or does not serve, but logs nothing.
void CheckDatabases(Report *report);

/// The user whose rights the other checks apply to.
void CheckUser(Report *report);
/// The shell and its grep, with which the agent runs the panel's programs.
void CheckShell(Report *report);
/// The MAC address, read as the agent reads it. Runs the panel's ifconfig, for 5 seconds at most.
void CheckIfconfig(Report *report);
/// The command tool, which is not run.
void CheckCommandTool(Report *report);
void CheckImageDirectory(Report *report);
/// The ports that the agent listens on, and the route of its broadcasts.
void CheckPorts(Report *report);
/// The descriptors that a process of this user may open.
void CheckDescriptors(Report *report);
/// `now` is the time of the clock.
void CheckClock(std::time_t now, Report *report);
/// The local time in which the agent reads dates.
void CheckTimeZone(std::time_t now, Report *report);

} // namespace nimbra::check
