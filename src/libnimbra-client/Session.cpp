#include "base/PanelConstants.h"
#include "libnimbra-client/Connection.h"

#include <algorithm>
#include <cctype>
#include <string_view>
#include <utility>

#include <nimbra-client/CommandSchema.h>
#include <nimbra-client/Session.h>

namespace nimbra::client {

static_assert(kManagementPort == kClientPort);

namespace {

std::string ResponseTo(const std::string &word)
{
    return word + "Response?Result=";
}

/// Reads a number that every response has: not negative, with nothing after it.
int NumberIn(std::string_view text)
{
    const std::optional<std::int32_t> number = ParseNumber(text);
    if (!number || *number < 0)
        FailStrange();
    return *number;
}

int ResultOf(std::string_view line)
{
    line.remove_prefix(line.find("Result=") + std::string_view("Result=").size());
    return NumberIn(line.substr(0, line.find('&')));
}

/// Returns the pairs after the result in the first line of a response.
std::string_view PairsOf(std::string_view line)
{
    const std::size_t end = line.find('&', line.find('?'));
    return end == std::string_view::npos ? std::string_view() : line.substr(end + 1);
}

/// Reads the first line of a response, without its rows.
Response ReadHeader(const std::string &line)
{
    Response response;
    response.Result = ResultOf(line);
    response.Line = line;
    const CommandSchema *schema = FindCommandSchema(line.substr(0, line.find("Response?")));
    if (schema != nullptr && response.Result == 0)
        response.Header = Record(schema->Header, PairsOf(line));
    return response;
}

/// Returns how many rows or bytes follow a header; 0 for a response without such a count.
std::size_t Announced(const Record &header, std::string_view key)
{
    const auto fields = header.Fields();
    const bool isKnown = std::any_of(fields.begin(), fields.end(),
                                     [key](const Field &field) { return field.Name == key; });
    return isKnown ? static_cast<std::size_t>(NumberIn(header.Text(key))) : 0;
}

/// Returns OnSilence::Wait for a line after which a probe would be taken for something else: its
/// response for the line's own, or its bytes for those of a user image.
OnSilence OnSilenceAfter(const std::string &line)
{
    std::string lower = line;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const bool isMistaken = lower.find("hello?") != std::string::npos ||
                            lower.find("setuserimage?") != std::string::npos;
    return isMistaken ? OnSilence::Wait : OnSilence::Probe;
}

/// Whether the panel has such names for files that are being uploaded.
bool IsUploadName(const std::string &name)
{
    constexpr std::string_view kPrefix = ".upload-";
    constexpr std::string_view kLettersAndDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    return name.size() == kPrefix.size() + 6 && name.starts_with(kPrefix) &&
           name.find_first_not_of(kLettersAndDigits, kPrefix.size()) == std::string::npos;
}

void CheckFileName(const std::string &name)
{
    if (name.size() < 5 || name.find_first_of("/'") != std::string::npos)
        throw RequestError("The name of a photo must have 5 bytes or more, and no \"/\" or "
                           "single quote.");
    if (IsUploadName(name))
        throw RequestError(
            "The panel keeps such a name for an upload that is not complete: " + name + ".");
}

} // namespace

Session::Session(SessionOptions options) : options_(std::move(options))
{
    Ready();
}

Session::~Session() = default;
Session::Session(Session &&) noexcept = default;
Session &Session::operator=(Session &&) noexcept = default;

int Session::Login(const std::string &user, const std::string &password)
{
    Request request("Login");
    request.Text("Username", user).RawText("Password", password, kPasswordBytes);
    if (user.empty() || password.empty())
        throw RequestError("A login needs a user name and a password.");
    loginLine_.clear();
    Ready();
    const int result = SendLogin(request.Line());
    if (result == 0)
        loginLine_ = request.Line();
    return result;
}

Response Session::Execute(const Request &request)
{
    Response response;
    Connection &connection = Begin(request.Line(), request.Word(), &response);
    connection.Finish();
    return response;
}

std::optional<Response> Session::ExecuteLine(const std::string &line)
{
    if (line.find_first_of(std::string("\n\0", 2)) != std::string::npos)
        throw RequestError("A request is one line, without line feeds and zero bytes.");
    if (line.size() > kRequestBytes)
        throw RequestError("The line has " + std::to_string(line.size()) +
                           " bytes; the panel reads lines of " + std::to_string(kRequestBytes) +
                           ".");
    Connection &connection = Ready();
    connection.SendLine(line);
    const std::optional<std::string> first = connection.ReadFirst("", OnSilenceAfter(line));
    if (first) {
        Response response = ReadResponse(connection, *first);
        const std::size_t size = Announced(response.Header, "Size");
        if (connection.ReadBytes(size, {}).size() == size)
            connection.Finish();
        return response;
    }
    connection.Finish();
    return std::nullopt;
}

UserImage Session::DownloadUserImage(std::int32_t userNo, const ProgressCallback &progress)
{
    Request request("GetUserImage");
    request.Number("UserNo", userNo);
    Response response;
    Connection &connection = Begin(request.Line(), request.Word(), &response);
    UserImage image;
    image.Result = response.Result;
    image.FileName = response.Header.Text("FileName");
    const std::size_t size = Announced(response.Header, "Size");
    image.Bytes = connection.ReadBytes(size, progress);
    if (image.Bytes.size() < size)
        throw ConnectionError("Only " + std::to_string(image.Bytes.size()) + " of " +
                              std::to_string(size) +
                              " bytes arrived; the panel stops after 5 seconds.");
    connection.Finish();
    return image;
}

int Session::UploadUserImage(std::int32_t userNo, const std::string &fileName,
                             const std::vector<char> &bytes, const ProgressCallback &progress)
{
    CheckFileName(fileName);
    if (bytes.empty())
        throw RequestError("The photo is empty.");
    if (bytes.size() > kUserImageBytes)
        throw RequestError("The photo is too large: a panel takes at most " +
                           std::to_string(kUserImageBytes) + " bytes.");
    Request request("SetUserImage");
    request.Number("UserNo", userNo).RawText("FileName", fileName, kFileNameBytes);
    request.Number("Size", static_cast<std::int32_t>(bytes.size()));
    const std::string &line = request.Line();
    // The panel then begins a new window for the next line, so that none ends in the middle of the
    // line: the bytes after a lost line would be read as requests.
    static_cast<void>(Execute(Request("Heartbeat")));
    Connection &connection = Ready();
    connection.SendLine(line);
    const bool isSent = connection.SendBytes(bytes, progress);
    const std::optional<std::string> first =
        connection.ReadFirst(ResponseTo(request.Word()), OnSilence::Wait);
    const int result = ResultOf(*first);
    // After these results the panel reads the rest of the bytes as requests.
    if (isSent && result != 3 && result != 9)
        connection.Finish();
    return result;
}

void Session::KeepAlive()
{
    if (connection_ && connection_->IsUsable())
        connection_->SendHeartbeat();
}

Session::Connection &Session::Ready()
{
    if (connection_ && connection_->IsUsable())
        return *connection_;
    connection_.reset();
    connection_ = std::make_unique<Connection>(options_);
    connection_->SendLine("Hello?");
    static_cast<void>(connection_->ReadFirst(ResponseTo("Hello"), OnSilence::Wait));
    connection_->Finish();
    if (!loginLine_.empty() && SendLogin(loginLine_) != 0)
        throw ConnectionError("The session had ended, and the panel no longer accepts the login.");
    return *connection_;
}

int Session::SendLogin(const std::string &line)
{
    connection_->SendLine(line);
    const std::optional<std::string> first =
        connection_->ReadFirst(ResponseTo("Login"), OnSilence::Probe);
    if (!first)
        throw ConnectionError("The panel did not respond to the login.");
    const int result = ResultOf(*first);
    if (result == 0)
        connection_->Finish();
    return result;
}

Session::Connection &Session::Begin(const std::string &line, const std::string &word,
                                    Response *response)
{
    for (int tries = 0; tries < 2; ++tries) {
        Connection &connection = Ready();
        connection.SendLine(line);
        // A line that the panel has lost did nothing: even a change may be sent again.
        if (const auto first = connection.ReadFirst(ResponseTo(word), OnSilenceAfter(line))) {
            *response = ReadResponse(connection, *first);
            return connection;
        }
        connection.Finish();
    }
    throw ConnectionError("The panel does not respond to " + word + ".");
}

Response Session::ReadResponse(Connection &connection, const std::string &first)
{
    Response response = ReadHeader(first);
    const CommandSchema *schema = FindCommandSchema(first.substr(0, first.find("Response?")));
    for (std::size_t i = Announced(response.Header, "Count"); i > 0; --i) {
        response.RowLines.push_back(connection.ReadNext());
        response.Rows.emplace_back(schema->Row, response.RowLines.back());
    }
    return response;
}

} // namespace nimbra::client
