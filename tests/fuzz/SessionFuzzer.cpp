// Whole sessions: any lines, sent to a real session with real databases, files and a command tool.
// Each line gets its answer, only known accounts can log in, the command tool gets exactly the
// expected calls, and the panel is intact when the session has ended.

#include "fuzz/Conversation.h"
#include "fuzz/Finding.h"
#include "fuzz/FuzzPanel.h"
#include "fuzz/MemoryDatabase.h"
#include "simulator/panel/SampleData.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nimbra::fuzz {
namespace {

constexpr int kSuccess = 0;
constexpr int kNoAuthority = 9;

/// All accounts of the sample panel that can log in.
constexpr panel::SampleLogin kAccounts[] = {
    panel::kController, panel::kWebAdmin, panel::kOperator, panel::kViewer,   panel::kGuard,
    panel::kClerk,      panel::kNobody,   panel::kOdd,      panel::kLowerCase};

bool IsAccount(std::string_view user, std::string_view password)
{
    const auto isIt = [&](const panel::SampleLogin &account) {
        return account.Id == user && account.Password == password;
    };
    return std::any_of(std::begin(kAccounts), std::end(kAccounts), isIt) ||
           std::any_of(std::begin(kQuotedNames), std::end(kQuotedNames), isIt);
}

FuzzPanel &ThePanel()
{
    static FuzzPanel panel;
    return panel;
}

class Session : public Conversation
{
public:
    explicit Session(std::string address) : address_(std::move(address)) {}

    [[nodiscard]] std::optional<int> ThreatLevel() const { return threatLevel_; }

protected:
    void OnAnswered(const Exchange &exchange) override
    {
        const std::string_view name = exchange.Command->Name;
        const bool hasSucceeded = exchange.Result == kSuccess;
        if (name == "Login") {
            userName_ = exchange.Fields["Username"].Text();
            isLoggedIn_ = IsAccount(userName_, exchange.Fields["Password"].Text());
            RequireEqual("whether the login succeeds", isLoggedIn_ ? 1 : 0, hasSucceeded ? 1 : 0);
        }
        if (exchange.Command->Area && !isLoggedIn_)
            RequireEqual("result without a login", kNoAuthority, exchange.Result);
        if (name == "SetThreatLevel" && hasSucceeded)
            threatLevel_ = exchange.Fields["ThreatLevel"].Number();
        if (name == "SetUserImage" && hasSucceeded)
            RequireEqual("the stored image", exchange.Upload,
                         ReadWhole(ThePanel().Paths().Images / exchange.Fields["FileName"].Text()));
        CheckCalls(exchange);
    }

private:
    void CheckCalls(const Exchange &exchange) const
    {
        const std::vector<ToolCall> calls = ThePanel().NewCalls();
        const std::vector<ToolCall> expected =
            exchange.Result == kSuccess ? ExpectedCalls(exchange) : std::vector<ToolCall>();
        RequireEqual("calls of the command tool", static_cast<long long>(expected.size()),
                     static_cast<long long>(calls.size()));
        for (std::size_t i = 0; i < calls.size(); ++i) {
            RequireEqual("arguments", static_cast<long long>(expected[i].size()),
                         static_cast<long long>(calls[i].size()));
            for (std::size_t j = 0; j < calls[i].size(); ++j)
                RequireEqual("argument", expected[i][j], calls[i][j]);
        }
    }

    [[nodiscard]] std::vector<ToolCall> ExpectedCalls(const Exchange &exchange) const
    {
        static constexpr std::array<const char *, 3> kControls{"locked", "unlocked", "m_unlock"};
        const std::string_view name = exchange.Command->Name;
        std::vector<ToolCall> calls;
        int event = exchange.Command->Event;
        if (name == "SetDoorLock") {
            const int control = exchange.Fields["Control"].Number();
            event = control == 0 ? 11213 : event;
            if (control >= 0 && control < static_cast<int>(kControls.size()))
                calls.push_back({"door", exchange.Fields["Port"].Shown(),
                                 kControls.at(static_cast<std::size_t>(control))});
        } else if (name == "SetAuxOutput") {
            calls.push_back({"auxout", exchange.Fields["Port"].Shown(),
                             exchange.Fields["Control"].Number() == 0 ? "off" : "on"});
        } else if (name == "SetThreatLevel") {
            calls.push_back({"savethreat"});
        }
        if (event != 0)
            calls.push_back({"log", "1", address_, "0", std::to_string(event), "0", "0",
                             std::string(userName_), "0", "0"});
        return calls;
    }

    std::string address_;
    std::string_view userName_;
    bool isLoggedIn_ = false;
    std::optional<int> threatLevel_;
};

} // namespace
} // namespace nimbra::fuzz

// The linker prescribes the name of a wrapping function.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" int __wrap_system(const char *line)
{
    nimbra::fuzz::ThePanel().RunTool(line);
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    setenv("TZ", "UTC0", 1);
    static_cast<void>(nimbra::fuzz::ThePanel());
    return 0;
}

/// The input is a line with the client's address, of which the agent keeps 32 bytes, then the bytes
/// that the client sends.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace nimbra::fuzz;
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const std::size_t end = std::min(input.find('\n'), size);
    const std::string_view address = input.substr(0, std::min<std::size_t>(end, 32));
    // Most of the time of an input with new connections goes into opening them.
    constexpr std::size_t kOneIn = 512;
    ThePanel().Begin(std::hash<std::string_view>()(input) % kOneIn == 0);
    Session session(std::string(address.substr(0, address.find('\0'))));
    session.Run(input.substr(std::min(end + 1, size)), std::string(input.substr(0, end)));
    ThePanel().Check(session.ThreatLevel());
    ThePanel().Reset();
    return 0;
}
