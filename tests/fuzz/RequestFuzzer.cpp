// Requests: any lines, sent to a real session whose DataManager only records its calls. Each line
// must reach the handler of its command, and the handler must pass exactly the values of the line's
// keys, report the event to the panel and answer in the command's form.

#include "base/PanelConstants.h"
#include "fuzz/Conversation.h"
#include "fuzz/Finding.h"
#include "fuzz/MessageModel.h"
#include "fuzz/RecordedData.h"
#include "fuzz/ValueModel.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <string_view>

namespace nimbra::fuzz {
namespace {

constexpr char kAddress[] = "192.168.77.20";
constexpr char kImageBytes[] = "some bytes\n";

/// Results of answers.
constexpr int kSuccess = 0;
constexpr int kFailed = 1;
constexpr int kBadMessage = 2;
constexpr int kBadTransfer = 3;
constexpr int kNoAuthority = 9;

/// The maximum length of a file name.
constexpr std::size_t kLongestName = 255;

bool IsFileName(std::string_view name)
{
    return !name.empty() && name != "." && name != ".." &&
           name.find('/') == std::string_view::npos && name.size() <= kLongestName &&
           !IsUploadName(name);
}

/// The input's first line: a digit for each authority word, then digits with the numbers of rows
/// that the calls find, used one after the other. Missing digits mean full rights and one row.
class Setup
{
public:
    explicit Setup(std::string_view line)
    {
        AuthorityRecord &rights = RecordedData::Get().Rights;
        rights.GrantAll();
        for (std::size_t i = 0; i < std::min(line.size(), rights.Words.size()); ++i)
            rights.Words.at(i) = Digit(line[i]);
        found_ = line.substr(std::min(line.size(), rights.Words.size()));
    }

    /// The number of rows that the next command's calls find.
    std::size_t NextFound() { return found_.empty() ? 1 : Digit(found_[next_++ % found_.size()]); }

private:
    static unsigned Digit(char c) { return static_cast<unsigned char>(c) % 8; }

    std::string_view found_;
    std::size_t next_ = 0;
};

class Requests : public Conversation
{
public:
    explicit Requests(std::string_view setup) : setup_(setup)
    {
        RecordedData::Get().ForgetCalls();
        RecordedData::Get().Found = setup_.NextFound();
    }

protected:
    void OnAnswered(const Exchange &exchange) override
    {
        RecordedData &data = RecordedData::Get();
        if (IsNamed(exchange, "Login")) {
            rights_ = {};
            userName_ = exchange.Fields["Username"].Text();
        }
        const int expected = ExpectedResult(exchange);
        RequireEqual(exchange.Command->Name, expected, exchange.Result);
        CheckCalls(exchange);
        if (IsNamed(exchange, "Login") && expected == kSuccess)
            rights_ = data.Rights;
        if (exchange.Command->Row != nullptr && expected == kSuccess)
            RequireEqual("the offset of a list", exchange.Fields["Offset"].Number(),
                         OffsetIn(exchange.Answer));
        data.ForgetCalls();
        data.Found = setup_.NextFound();
    }

private:
    static bool IsNamed(const Exchange &exchange, std::string_view name)
    {
        return IsEqual(exchange.Command->Name, name);
    }

    /// The offset that the answer with a list says.
    static std::int32_t OffsetIn(std::string_view answer)
    {
        constexpr std::string_view kName = "&Offset=";
        const std::size_t found = answer.find(kName);
        Require(found != std::string_view::npos, "a list without an offset");
        return NumberIn(answer.substr(found + kName.size()));
    }

    [[nodiscard]] bool IsAuthorised(const Command &command) const
    {
        return !command.Area || rights_.Allows({*command.Area, command.Right});
    }

    [[nodiscard]] static bool IsData(const Exchange &exchange)
    {
        return !IsNamed(exchange, "Hello") && !IsNamed(exchange, "Heartbeat") &&
               !IsNamed(exchange, "SetEvent");
    }

    /// The failure before DataManager is called, or success.
    [[nodiscard]] int ResultBeforeCall(const Exchange &exchange) const
    {
        if (!IsAuthorised(*exchange.Command))
            return kNoAuthority;
        if (IsIncomplete(*exchange.Command, exchange.Fields))
            return kBadMessage;
        if (!IsNamed(exchange, "SetUserImage"))
            return kSuccess;
        const std::int32_t size = exchange.Fields["Size"].Number();
        if (size <= 0 || exchange.Upload.size() < static_cast<std::size_t>(size))
            return kBadTransfer;
        return IsFileName(exchange.Fields["FileName"].Text()) ? kSuccess : kBadMessage;
    }

    [[nodiscard]] int ExpectedResult(const Exchange &exchange) const
    {
        const int before = ResultBeforeCall(exchange);
        if (before != kSuccess || !IsData(exchange))
            return before;
        const std::size_t found = RecordedData::Get().Found;
        if (IsNamed(exchange, "GetUserImage") && found == 1)
            return kBadMessage;
        return found > 0 ? kSuccess : kFailed;
    }

    /// Checks that DataManager was called with the line's values and then reported a success.
    void CheckCalls(const Exchange &exchange) const
    {
        const std::span<const DataCall> calls = RecordedData::Get().Calls();
        std::size_t count = 0;
        const auto check = [&](std::string_view method, const Fields &fields) {
            Require(count < calls.size(), "a call of DataManager is missing");
            CheckCall(method, fields, calls[count++]);
        };
        if (IsData(exchange) && ResultBeforeCall(exchange) == kSuccess)
            check(IsNamed(exchange, "Login") ? "CheckPassword" : exchange.Command->Name,
                  exchange.Fields);
        int event = exchange.Command->Event;
        if (IsNamed(exchange, "SetDoorLock") && exchange.Fields["Control"].Number() == 0)
            event = 11213;
        if (event != 0 && exchange.Result == kSuccess)
            check("WriteAuditLog", {{"Address", Value(kAddress)},
                                    {"User", Value(userName_)},
                                    {"Event", Value(event)}});
        RequireEqual("calls of DataManager", static_cast<long long>(count),
                     static_cast<long long>(calls.size()));
    }

    static void CheckCall(std::string_view method, const Fields &expected, const DataCall &call)
    {
        if (!IsEqual(method, call.Method))
            Report("method", method, call.Method);
        // The size of an image is not passed to DataManager.
        const std::size_t notPassed = expected.Has("Size") ? 1 : 0;
        Require(expected.Count() == call.Fields.Count() + notPassed, "count of fields");
        for (const auto &[name, value] : call.Fields)
            if (!expected[name].Predicts(value))
                Report(name, expected[name].Shown(), value.Shown());
    }

    Setup setup_;
    AuthorityRecord rights_;
    std::string_view userName_;
};

} // namespace
} // namespace nimbra::fuzz

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    nimbra::fuzz::Require(std::getenv("NIMBRA_SANDBOX") != nullptr, "runs in nimbra-sandbox only");
    const std::filesystem::path images = nimbra::kImageDirectory;
    std::filesystem::create_directories(images);
    std::ofstream(images / nimbra::fuzz::kStoredImage) << nimbra::fuzz::kImageBytes;
    setenv("TZ", "UTC0", 1);
    return 0;
}

/// The input is the setup line, then the bytes that the client sends.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace nimbra::fuzz;
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const std::size_t end = std::min(input.find('\n'), size);
    Requests requests(input.substr(0, end));
    requests.Run(input.substr(std::min(end + 1, size)), kAddress);
    return 0;
}
