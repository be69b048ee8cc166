#pragma once

#include "nimbractl/Output.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include <nimbra-client/Session.h>

namespace nimbra::ctl {

/// The options that all commands have: the panel and the output.
struct Settings
{
    std::string Panel; ///< the name in the configuration file; empty without one
    std::string Host;
    int Port = client::kManagementPort;
    std::string User;
    std::string PasswordFile;
    bool MustPasswordFileBePrivate = false; ///< readable by its owner only
    int TimeoutSeconds = 15;
    std::string ClockOffset; ///< "+02:00"; empty: measured when it is needed
    OutputOptions Output;
};

/// The session with the panel, opened on first use. One thread.
class PanelSession
{
public:
    explicit PanelSession(const Settings &settings) : settings_(settings) {}

    /// Returns the session, logged in. Throws WrongUsage when the settings lack the host or the
    /// user, and Refused when the panel does not accept the login.
    [[nodiscard]] client::Session &Get();
    /// Sends a request and returns its response. Throws Refused unless Result is 0.
    client::Response Execute(const client::Request &request);
    /// Returns how far the panel's clock is ahead of UTC.
    [[nodiscard]] std::chrono::minutes ClockOffset();

    /// Ends the session; the next request opens one with the settings of that time.
    void Close();
    /// Throws CancelledError when the wait is to be ended.
    void CheckCancelled() const;

    /// Called several times a second during a wait; true ends it.
    std::function<bool()> IsCancelled;

private:
    const Settings &settings_;
    std::optional<client::Session> session_;
    std::optional<std::chrono::minutes> clockOffset_;
};

/// Returns what stands before a sentence about the panel: its name, when a command runs on several.
[[nodiscard]] std::string PanelPrefix(const Settings &settings);

/// Reads "+02:00", "-5" or "Z". Returns nothing for any other text.
[[nodiscard]] std::optional<std::chrono::minutes> ParseClockOffset(const std::string &text);

} // namespace nimbra::ctl
