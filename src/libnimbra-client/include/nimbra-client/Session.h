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

/// The most bytes of a user image: the size in the protocol has 32 bits with a sign.
inline constexpr std::size_t kUserImageBytes = 2147483647;

/// The TCP port of every panel.
inline constexpr int kManagementPort = 9000;

struct SessionOptions
{
    std::string Host;           ///< address or name
    int Port = kManagementPort; ///< 1 to 65535, not checked
    /// The longest wait for a connection, from 0 (no wait) to 100 years.
    std::chrono::milliseconds ConnectTimeout = std::chrono::seconds(10);
    /// The longest wait for a response, from 0 (no wait) to 100 years. A panel whose database is
    /// locked takes some seconds.
    std::chrono::milliseconds ResponseTimeout = std::chrono::seconds(15);
    /// Called several times a second during a wait, on the caller's thread; when it returns true,
    /// CancelledError is thrown.
    std::function<bool()> IsCancelled;
};

/// The response to a request. Header and Rows are set when Result is 0.
struct Response
{
    int Result = 0;
    std::string Line;                  ///< the first line as received
    Record Header;                     ///< the pairs of the first line
    std::vector<Record> Rows;          ///< of a list
    std::vector<std::string> RowLines; ///< the rows as received
};

struct ListOptions
{
    int Offset = 0;     ///< rows to skip; must not be negative
    int Limit = 0;      ///< most rows to return; 0 or less: all
    int PageSize = 200; ///< rows of one request; less than 1 means 1
};

/// Called with the number of bytes transferred and the total, on the caller's thread.
using ProgressCallback = std::function<void(std::size_t done, std::size_t total)>;

/// The image of a user. FileName and Bytes are set when Result is 0.
struct UserImage
{
    int Result = 0;
    std::string FileName;
    std::vector<char> Bytes;
};

/// A session with one panel, one request at a time. The panel ends a session after 10 seconds of
/// silence; the session is then opened again, with its login, before the next request is sent.
/// Every method but the destructor throws ConnectionError when the panel cannot be reached or stops
/// responding, and CancelledError. One thread at a time.
class Session
{
public:
    /// Connects and greets the panel.
    explicit Session(SessionOptions options);
    ~Session();
    Session(Session &&) noexcept;
    Session &operator=(Session &&) noexcept;

    /// Logs in. Returns the Result: 0 success, 1 wrong name or password, or the panel cannot read
    /// its database. Keeps name and password for opening the session again. Throws RequestError for
    /// a name or a password that cannot be sent.
    [[nodiscard]] int Login(const std::string &user, const std::string &password);

    /// Sends a request and returns its response, rows included. Sends the line once more when the
    /// panel has provably lost it (it reads in windows of 5 seconds and drops the part of a line
    /// that has arrived when one ends). Throws RequestError for a line that is too long.
    [[nodiscard]] Response Execute(const Request &request);

    /// Sends a line without a check of its pairs, once. Returns nothing when the panel leaves the
    /// line without a response, as it does with unknown words, but still responds to others. Reads
    /// and drops the bytes of a user image. Throws RequestError for a line with a line feed or a
    /// zero byte, or longer than kRequestBytes.
    [[nodiscard]] std::optional<Response> ExecuteLine(const std::string &line);

    /// Requests the rows of a list command page by page and calls `onRow` with each, on the
    /// caller's thread, until it returns false. Each row is passed once, also when rows are added
    /// meanwhile. Returns the Result: 0 when there was a row, else that of the first page; that of
    /// a later page when it fails. `request` holds the filters only. Throws RequestError for
    /// another command.
    [[nodiscard]] int List(const Request &request, const std::function<bool(const Record &)> &onRow,
                           const ListOptions &options = {});

    /// Downloads the image of a user.
    [[nodiscard]] UserImage DownloadUserImage(std::int32_t userNo,
                                              const ProgressCallback &progress = {});

    /// Uploads the image of a user and returns the Result. Throws RequestError for an empty image,
    /// for one of more than kUserImageBytes, and for a name that the panel would refuse or not find
    /// again: of less than 5 or more than kFileNameBytes bytes, with a "/" or a quote, or that of
    /// an unfinished upload on the panel, ".upload-" and six letters or digits.
    [[nodiscard]] int UploadUserImage(std::int32_t userNo, const std::string &fileName,
                                      const std::vector<char> &bytes,
                                      const ProgressCallback &progress = {});

    /// Sends a heartbeat without waiting for its response, so that the panel does not end the
    /// session. To be called every few seconds by a client that has nothing to request. Leaves a
    /// session that has ended as it is; the next request opens it again.
    void KeepAlive();

private:
    class Connection;

    /// Returns a connection that the panel still serves.
    Connection &Ready();
    [[nodiscard]] int SendLogin(const std::string &line);
    /// Sends a line, twice if need be, and reads its response without the bytes after it.
    Connection &Begin(const std::string &line, const std::string &word, Response *response);
    [[nodiscard]] static Response ReadResponse(Connection &connection, const std::string &first);

    SessionOptions options_;
    std::string loginLine_; ///< of the login that succeeded
    std::unique_ptr<Connection> connection_;
};

} // namespace nimbra::client
