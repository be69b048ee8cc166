#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nimbra-client/Error.h>
#include <nimbra-client/Record.h>
#include <nimbra-client/Request.h>

namespace nimbra::client {

/// The port of every panel.
inline constexpr int kManagementPort = 9000;

struct SessionOptions
{
    std::string Host;
    int Port = kManagementPort;
    /// How long to wait for a connection, and for an answer. A panel that has its database locked
    /// may take some seconds.
    std::chrono::milliseconds ConnectLimit = std::chrono::seconds(10);
    std::chrono::milliseconds AnswerLimit = std::chrono::seconds(15);
    /// Asked several times a second while something is waited for; true throws Cancelled.
    std::function<bool()> IsCancelled;
};

/// An answer to a request. The data is there when Result is 0.
struct Answer
{
    int Result = 0;
    std::string Line;                  ///< the first line as it came
    Record Header;                     ///< its pairs
    std::vector<Record> Rows;          ///< of a list
    std::vector<std::string> RowLines; ///< the rows as they came
};

struct ListOptions
{
    int Offset = 0;
    int Limit = 0; ///< 0: everything
    int PageSize = 200;
};

/// Called with the bytes moved so far, and all that are to be.
using Progress = std::function<void(std::size_t done, std::size_t total)>;

struct Photo
{
    int Result = 0;
    std::string FileName;
    std::vector<char> Bytes;
};

/// A conversation with one panel, one request at a time. The panel ends a session after 10 seconds
/// of silence; one that has ended is opened again, login included, before the next request is
/// sent. Every method throws Unreachable when the panel cannot be reached or stops answering, and
/// Cancelled. One thread at a time.
class Session
{
public:
    /// Connects and greets the panel.
    explicit Session(SessionOptions options);
    ~Session();
    Session(Session &&) noexcept;
    Session &operator=(Session &&) noexcept;

    /// Returns the Result: 0 logged in, 1 wrong name or password. The name and the password are
    /// kept for opening the session again. Throws BadRequest for what cannot be sent.
    [[nodiscard]] int Login(const std::string &user, const std::string &password);

    /// Sends a request and returns its answer, rows included. A line that the panel provably lost
    /// (it reads in windows of 5 seconds, and drops what falls between two) is sent once more.
    [[nodiscard]] Answer Ask(const Request &request);

    /// Sends a line as it stands, once. Nothing is returned when the panel leaves it unanswered,
    /// as it does with unknown words, while still answering others. The bytes of a photograph are
    /// read and dropped.
    [[nodiscard]] std::optional<Answer> AskLine(const std::string &line);

    /// Fetches the rows of a list command page by page and hands each to `take`, until `take`
    /// returns false. Every row comes once, also when new ones are added meanwhile. Returns the
    /// Result: 0 when there was a row, else that of the first page; that of a later page when it
    /// fails. `request` holds the filters only.
    [[nodiscard]] int List(const Request &request, const std::function<bool(const Record &)> &take,
                           const ListOptions &options = {});

    /// Fetches the photograph of a user.
    [[nodiscard]] Photo Download(std::int32_t userNo, const Progress &progress = {});

    /// Stores the photograph of a user and returns the Result. Throws BadRequest for no bytes and
    /// for a name that the panel would refuse, or not find again: of less than 5 or more than 255
    /// bytes, or with a "/" or a quote.
    [[nodiscard]] int Upload(std::int32_t userNo, const std::string &fileName,
                             const std::vector<char> &bytes, const Progress &progress = {});

    /// Ends the panel's waiting for a line without waiting for the answer. To be called every few
    /// seconds by a client that has nothing to ask. A session that has ended all the same is left
    /// so until the next request, which opens it again.
    void KeepAlive();

private:
    class Connection;

    /// A connection that the panel still serves.
    Connection &Ready();
    [[nodiscard]] int SendLogin(const std::string &line);
    /// Sends a line, again if need be, and reads its answer, but not the bytes behind it.
    Connection &Begin(const std::string &line, const std::string &word, Answer *answer);
    [[nodiscard]] static Answer ReadAnswer(Connection &connection, const std::string &first);

    SessionOptions options_;
    std::string loginLine_; ///< of the login that succeeded
    std::unique_ptr<Connection> connection_;
};

} // namespace nimbra::client
