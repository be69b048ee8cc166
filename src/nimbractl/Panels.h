#pragma once

#include "nimbractl/Context.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace nimbra::ctl {

/// A panel of the configuration file.
struct ConfiguredPanel
{
    std::string Name;
    /// The values by the name of the option that they stand for: "host", "user".
    std::map<std::string, std::string> Values;
};

/// Returns the path of the configuration file; empty when there is no place for it.
[[nodiscard]] std::string PanelsFile();

/// Reads the panels of a configuration file, in the order of the file. A value before the first
/// panel is that of all panels that do not have one of their own. Throws LocalFailure when the file
/// cannot be read or holds something else.
[[nodiscard]] std::vector<ConfiguredPanel> ReadPanels(const std::string &file);

/// Sets the options of the panel, except those that the command line gives.
void ApplyPanel(const ConfiguredPanel &panel, const std::set<std::string> &given,
                Settings &settings);

/// Adds the options that select panels of the configuration file. To be called before commands are
/// added.
void AddPanelOptions(CLI::App &app, Context &context);

} // namespace nimbra::ctl
