#pragma once

#include <filesystem>

namespace nimbra::panel {

/// Where a panel keeps its files below its root.
struct PanelPaths
{
    /// "" and "/" both mean the paths that a real panel has.
    explicit PanelPaths(const std::filesystem::path &root);

    std::filesystem::path Databases;    ///< directory of the three databases
    std::filesystem::path MainDatabase; ///< configuration
    std::filesystem::path LogDatabase;  ///< event log
    std::filesystem::path NetworkDatabase;
    std::filesystem::path Ifconfig;    ///< script that prints the MAC address
    std::filesystem::path CommandTool; ///< nimbra-cgi
    std::filesystem::path Images;      ///< directory of the user images
    std::filesystem::path CallLog;     ///< what the command tool was called with
};

} // namespace nimbra::panel
