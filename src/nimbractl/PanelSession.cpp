#include "nimbractl/PanelSession.h"

#include "nimbractl/Errors.h"
#include "nimbractl/Password.h"

#include <array>
#include <cstdio>

#include <nimbra-client/PanelClock.h>
#include <nimbra-client/ResultMessage.h>

namespace nimbra::ctl {

client::Session &PanelSession::Get()
{
    if (session_)
        return *session_;
    if (settings_.Host.empty())
        throw WrongUsage("Name the panel with --host, with --panel, or in the environment variable "
                         "NIMBRA_HOST.");
    if (settings_.User.empty())
        throw WrongUsage("Name the user with --user, or in the environment variable NIMBRA_USER.");
    const std::string password = GetPassword(settings_);
    client::SessionOptions options;
    options.Host = settings_.Host;
    options.Port = settings_.Port;
    options.ResponseTimeout = std::chrono::seconds(settings_.TimeoutSeconds);
    options.ConnectTimeout = options.ResponseTimeout;
    options.IsCancelled = [this] { return IsCancelled && IsCancelled(); };
    client::Session session(options);
    const int result = session.Login(settings_.User, password);
    if (result != 0)
        throw Refused(client::ResultMessage("Login", result) + " (Login as \"" + settings_.User +
                      "\": Result=" + std::to_string(result) + ")");
    session_.emplace(std::move(session));
    return *session_;
}

client::Response PanelSession::Execute(const client::Request &request)
{
    client::Response response = Get().Execute(request);
    if (response.Result != 0)
        throw Refused(request.Word(), response.Result);
    return response;
}

std::chrono::minutes PanelSession::ClockOffset()
{
    if (!clockOffset_ && !settings_.ClockOffset.empty())
        clockOffset_ = ParseClockOffset(settings_.ClockOffset);
    if (!clockOffset_)
        clockOffset_ = client::MeasureClockOffset(Get());
    if (!clockOffset_) {
        std::fprintf(stderr,
                     "nimbractl: %sThe panel's clock offset cannot be measured; UTC is assumed. "
                     "--clock-offset sets it.\n",
                     PanelPrefix(settings_).c_str());
        clockOffset_ = std::chrono::minutes(0);
    }
    return *clockOffset_;
}

void PanelSession::Close()
{
    session_.reset();
    clockOffset_.reset();
}

void PanelSession::CheckCancelled() const
{
    if (IsCancelled && IsCancelled())
        throw client::CancelledError();
}

std::string PanelPrefix(const Settings &settings)
{
    return settings.Output.Joined == nullptr ? "" : "Panel " + settings.Panel + ": ";
}

std::optional<std::chrono::minutes> ParseClockOffset(const std::string &text)
{
    if (text == "Z" || text == "z")
        return std::chrono::minutes(0);
    std::array<char, 2> sign{};
    int hours = 0;
    int minutes = 0;
    int end = 0;
    const bool isWhole =
        (std::sscanf(text.c_str(), "%1[+-]%2d:%2d%n", sign.data(), &hours, &minutes, &end) == 3 ||
         std::sscanf(text.c_str(), "%1[+-]%2d%n", sign.data(), &hours, &end) == 2) &&
        static_cast<std::size_t>(end) == text.size();
    if (!isWhole || hours < 0 || hours > 15 || minutes < 0 || minutes > 59)
        return std::nullopt;
    const std::chrono::minutes offset = std::chrono::hours(hours) + std::chrono::minutes(minutes);
    return sign[0] == '-' ? -offset : offset;
}

} // namespace nimbra::ctl
