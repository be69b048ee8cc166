#pragma once

#include <filesystem>

namespace nimbra::panel {

/// Where a panel keeps its files below the root that it is laid out under.
struct PanelPaths
{
    /// "" and "/" both mean the paths that a real panel has.
    explicit PanelPaths(const std::filesystem::path &root);

    std::filesystem::path Databases;    ///< directory of the three databases
    std::filesystem::path MainDatabase; ///< configuration
    std::filesystem::path LogDatabase;  ///< event log
    std::filesystem::path NetworkDatabase;
    std::filesystem::path Ifconfig;    ///< script that tells the MAC address
    std::filesystem::path CommandTool; ///< nimbra-cgi
    std::filesystem::path Images;      ///< directory of the photographs of users
    std::filesystem::path CallLog;     ///< what the command tool was called with
};

} // namespace nimbra::panel
