#pragma once

#include "nimbractl/Output.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include <nimbra-client/Session.h>

namespace nimbra::ctl {

/// What the options of the program say about the panel and the output.
struct Settings
{
    std::string Host;
    int Port = client::kManagementPort;
    std::string User;
    std::string PasswordFile;
    int TimeoutSeconds = 15;
    std::string ClockOffset; ///< "+02:00"; empty: measured when it is needed
    Format Output = Format::Table;
};

/// The session with the panel, opened when it is first needed. One thread.
class PanelSession
{
public:
    explicit PanelSession(const Settings &settings) : settings_(settings) {}

    /// The session, logged in. Throws WrongUsage when the settings do not tell enough, and Refused
    /// when the panel does not accept the login.
    [[nodiscard]] client::Session &Get();
    [[nodiscard]] bool IsOpen() const { return session_.has_value(); }
    /// Sends a request and returns its response. Throws Refused unless Result is 0.
    client::Response Execute(const client::Request &request);
    /// How far the panel's clock is ahead of UTC.
    [[nodiscard]] std::chrono::minutes ClockOffset();

    /// Asked several times a second while something is waited for; true gives it up.
    std::function<bool()> IsCancelled;

private:
    const Settings &settings_;
    std::optional<client::Session> session_;
    std::optional<std::chrono::minutes> clockOffset_;
};

/// Reads "+02:00", "-5" or "Z". Nothing for anything else.
[[nodiscard]] std::optional<std::chrono::minutes> ParseClockOffset(const std::string &text);

} // namespace nimbra::ctl
