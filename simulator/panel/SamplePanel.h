#pragma once

#include "simulator/panel/CallLog.h"
#include "simulator/panel/PanelPaths.h"
#include "simulator/panel/SampleData.h"

#include <filesystem>
#include <string>

namespace nimbra::panel {

struct PanelOptions
{
    PanelSize Size;
    bool CloudEnabled = false;
    /// Of its wired interface, as the panel reports them; the interface itself is not changed.
    std::string Address = kPanelAddress;
    std::string MacAddress = kMacAddress;
    /// The nimbra-cgi program that is copied onto the panel.
    std::filesystem::path CommandTool;
};

/// Creates a whole panel below root: databases, command tool, ifconfig and user images. "" and "/"
/// create it at the paths of a real panel. An earlier panel there is replaced, its call log too.
/// 100,000 events take about a second. Throws std::runtime_error on failure.
void CreatePanel(const std::filesystem::path &root, const PanelOptions &options);

/// Prints the accounts of a sample panel and their passwords to standard output.
void PrintAccounts();

/// SHA-256 of the text as 64 upper-case hexadecimal digits: how the panel stores passwords.
[[nodiscard]] std::string PasswordDigest(const std::string &password);

/// Fills the empty file of a main database; CreatePanel does it.
void FillMainDatabase(const std::filesystem::path &path, const PanelOptions &options);

} // namespace nimbra::panel
