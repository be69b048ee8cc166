#include "base/PanelConstants.h"
#include "libnimbra-client/Connection.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include <nimbra-client/Replies.h>
#include <nimbra-client/Session.h>

namespace nimbra::client {

static_assert(kManagementPort == kClientPort);

namespace {

std::string AnswerTo(const std::string &word)
{
    return word + "Response?Result=";
}

/// A number that the protocol always gives: not negative, and nothing behind it.
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

/// What stands behind the result in the first line of an answer.
std::string_view PairsOf(std::string_view line)
{
    const std::size_t end = line.find('&', line.find('?'));
    return end == std::string_view::npos ? std::string_view() : line.substr(end + 1);
}

/// The answer without its rows.
Answer ReadHeader(const std::string &line)
{
    Answer answer;
    answer.Result = ResultOf(line);
    answer.Line = line;
    const Reply *reply = FindReply(line.substr(0, line.find("Response?")));
    if (reply != nullptr && answer.Result == 0)
        answer.Header = Record(reply->Header, PairsOf(line));
    return answer;
}

/// How many rows or bytes follow a header; 0 when answers of this kind announce none.
std::size_t Announced(const Record &header, std::string_view key)
{
    const auto fields = header.Fields();
    const bool isKnown = std::any_of(fields.begin(), fields.end(),
                                     [key](const Field &field) { return field.Name == key; });
    return isKnown ? static_cast<std::size_t>(NumberIn(header.Text(key))) : 0;
}

/// Whether a probe behind this line would be taken for something else: for the line's own answer,
/// or for the bytes of a photograph.
bool MustNotBeProbed(const std::string &line)
{
    std::string lower = line;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower.find("hello?") != std::string::npos ||
           lower.find("setuserimage?") != std::string::npos;
}

void CheckFileName(const std::string &name)
{
    if (name.size() < 5 || name.find_first_of("/'") != std::string::npos)
        throw BadRequest("The name of a photograph must have 5 bytes or more, and no \"/\" or "
                         "single quote.");
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
    request.Text("Username", user).Plain("Password", password, kPasswordBytes);
    if (user.empty() || password.empty())
        throw BadRequest("A login needs a user name and a password.");
    loginLine_.clear();
    Ready();
    const int result = SendLogin(request.Line());
    if (result == 0)
        loginLine_ = request.Line();
    return result;
}

Answer Session::Ask(const Request &request)
{
    Answer answer;
    Connection &connection = Begin(request.Line(), request.Word(), &answer);
    connection.Finish();
    return answer;
}

std::optional<Answer> Session::AskLine(const std::string &line)
{
    if (line.find_first_of(std::string("\n\0", 2)) != std::string::npos)
        throw BadRequest("A request is one line, without line feeds and zero bytes.");
    if (line.size() > kRequestBytes)
        throw BadRequest("The line has " + std::to_string(line.size()) +
                         " bytes; the panel reads lines of " + std::to_string(kRequestBytes) + ".");
    Connection &connection = Ready();
    connection.SendLine(line);
    const std::optional<std::string> first = connection.ReadFirst("", !MustNotBeProbed(line));
    if (first) {
        Answer answer = ReadAnswer(connection, *first);
        const std::size_t size = Announced(answer.Header, "Size");
        if (connection.ReadBytes(size, {}).size() == size)
            connection.Finish();
        return answer;
    }
    connection.Finish();
    return std::nullopt;
}

Photo Session::Download(std::int32_t userNo, const Progress &progress)
{
    Request request("GetUserImage");
    request.Number("UserNo", userNo);
    Answer answer;
    Connection &connection = Begin(request.Line(), request.Word(), &answer);
    Photo photo;
    photo.Result = answer.Result;
    photo.FileName = answer.Header.Text("FileName");
    const std::size_t size = Announced(answer.Header, "Size");
    photo.Bytes = connection.ReadBytes(size, progress);
    if (photo.Bytes.size() < size)
        throw Unreachable("Only " + std::to_string(photo.Bytes.size()) + " of " +
                          std::to_string(size) +
                          " bytes came; the panel gives up after 5 seconds.");
    connection.Finish();
    return photo;
}

int Session::Upload(std::int32_t userNo, const std::string &fileName,
                    const std::vector<char> &bytes, const Progress &progress)
{
    CheckFileName(fileName);
    if (bytes.empty())
        throw BadRequest("The photograph is empty.");
    if (bytes.size() > static_cast<std::size_t>(INT32_MAX))
        throw BadRequest("The photograph is too large.");
    Request request("SetUserImage");
    request.Number("UserNo", userNo).Plain("FileName", fileName, kFileNameBytes);
    request.Number("Size", static_cast<std::int32_t>(bytes.size()));
    const std::string &line = request.Line();
    // The panel begins a new window for the next line, so that it cannot fall between two: the
    // bytes behind a lost line would be read as requests.
    static_cast<void>(Ask(Request("Heartbeat")));
    Connection &connection = Ready();
    connection.SendLine(line);
    const bool isSent = connection.SendBytes(bytes, progress);
    const std::optional<std::string> first = connection.ReadFirst(AnswerTo(request.Word()), false);
    const int result = ResultOf(*first);
    // After these the panel reads the rest of the bytes as requests.
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
    static_cast<void>(connection_->ReadFirst(AnswerTo("Hello"), false));
    connection_->Finish();
    if (!loginLine_.empty() && SendLogin(loginLine_) != 0)
        throw Unreachable("The session had ended, and the panel no longer accepts the login.");
    return *connection_;
}

int Session::SendLogin(const std::string &line)
{
    connection_->SendLine(line);
    const std::optional<std::string> first = connection_->ReadFirst(AnswerTo("Login"), true);
    if (!first)
        throw Unreachable("The panel left the login unanswered.");
    const int result = ResultOf(*first);
    if (result == 0)
        connection_->Finish();
    return result;
}

Session::Connection &Session::Begin(const std::string &line, const std::string &word,
                                    Answer *answer)
{
    for (int tries = 0; tries < 2; ++tries) {
        Connection &connection = Ready();
        connection.SendLine(line);
        // A line that the panel has passed over did nothing: even a change may be sent again.
        if (const auto first = connection.ReadFirst(AnswerTo(word), !MustNotBeProbed(line))) {
            *answer = ReadAnswer(connection, *first);
            return connection;
        }
        connection.Finish();
    }
    throw Unreachable("The panel does not answer " + word + ".");
}

Answer Session::ReadAnswer(Connection &connection, const std::string &first)
{
    Answer answer = ReadHeader(first);
    const Reply *reply = FindReply(first.substr(0, first.find("Response?")));
    for (std::size_t i = Announced(answer.Header, "Count"); i > 0; --i) {
        answer.RowLines.push_back(connection.ReadNext());
        answer.Rows.emplace_back(reply->Row, answer.RowLines.back());
    }
    return answer;
}

} // namespace nimbra::client
