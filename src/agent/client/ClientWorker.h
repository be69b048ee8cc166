#pragma once

#include "base/Descriptor.h"
#include "base/FixedText.h"
#include "base/Flag.h"
#include "base/Log.h"
#include "data/Authority.h"
#include "data/Paging.h"
#include "protocol/Request.h"

#include <cstdint>
#include <initializer_list>
#include <span>

namespace nimbra {

struct AccessLevelInfo;
struct CardFormatInfo;
struct CardInfo;
struct DoorInfo;
struct EventCodeInfo;
struct EventInfo;
struct ThreatInfo;
struct UserInfo;
struct VideoInfo;

/// One client session: a connected socket, its thread, the client's login and the handlers of its
/// commands. Made and deleted by ClientManager; deleting it closes the socket.
class ClientWorker
{
public:
    ClientWorker() = default;
    virtual ~ClientWorker() = default;
    ClientWorker(const ClientWorker &) = delete;
    ClientWorker &operator=(const ClientWorker &) = delete;

    /// Takes over a connected socket and starts the session's thread. When that cannot be created
    /// the session has ended at once. Once, from any thread.
    void Start(Descriptor socket, const char *address, std::int32_t port);
    /// Asks the session to end; it does after the request or the wait for one that it is in.
    /// Any thread.
    void Stop() { stop_.Set(); }
    /// Whether the session's thread is at work. Once false, nothing touches the session but its
    /// owner. Any thread.
    [[nodiscard]] bool IsRunning() const { return running_.IsSet(); }

private:
    static constexpr char kLogSource[] = "ClientWorker.cpp";

    /// The meaning of the Result of a response.
    enum class Result
    {
        Success = 0,
        Failed = 1,     ///< the data operation failed, or found nothing
        BadMessage = 2, ///< a required key is missing, or a file cannot be opened
        BadTransfer = 3,
        NoAuthority = 9,
    };

    struct Command
    {
        const char *Word;
        void (ClientWorker::*Handler)(char *line);
    };
    static const Command kCommands[];

    /// The session's thread: reads and serves lines until it is stopped or idle too long.
    void Run();
    void Process();
    /// Serves one line; a line without a known word is only logged, as the caller's.
    void Dispatch(char *line, CallPlace place = CallPlace::Here());

    /// The handlers. Each is given the request line, which it may change.
    void Hello(char *line);
    void Login(char *line);
    void Heartbeat(char *line);
    void SetEvent(char *line);
    void GetEventLog(char *line);
    void GetEventLogEx(char *line);
    void GetEventCode(char *line);
    void GetEventCodeEx(char *line);
    void GetLiveVideoInfo(char *line);
    void GetPlayVideoInfo(char *line);
    void GetDoorInfo(char *line);
    void GetDoorInfoEx(char *line);
    void GetUserInfo(char *line);
    void GetUserInfoEx(char *line);
    void SetUserInfo(char *line);
    void AddUserInfo(char *line);
    void DelUserInfo(char *line);
    void GetUserImage(char *line);
    void SetUserImage(char *line);
    void GetCardFormat(char *line);
    void GetCardFormatEx(char *line);
    void GetCardInfo(char *line);
    void GetCardInfoEx(char *line);
    void SetCardInfo(char *line);
    void AddCardInfo(char *line);
    void DelCardInfo(char *line);
    void GetAccessLevel(char *line);
    void GetAccessLevelEx(char *line);
    void GetCardAccessLevel(char *line);
    void SetCardAccessLevel(char *line);
    void GetThreatInfo(char *line);
    void GetThreatInfoEx(char *line);
    void GetDoorLock(char *line);
    void SetDoorLock(char *line);
    void GetAuxOutput(char *line);
    void SetAuxOutput(char *line);
    void GetThreatLevel(char *line);
    void SetThreatLevel(char *line);

    /// The steps that handlers share. The name of the calling handler is the command's word.

    /// Whether the client has the right; if not, answers so.
    [[nodiscard]] bool IsAuthorised(AuthorityArea area, std::uint32_t bit,
                                    CallPlace place = CallPlace::Here());
    /// Reads the request's keys into the fields that they stand for.
    static void ParseKeys(char *line, std::initializer_list<RequestKey> keys,
                          CallPlace place = CallPlace::Here());
    static void ParseKeys(char *line, std::span<const RequestKey> keys,
                          CallPlace place = CallPlace::Here());
    /// Answers with a result code alone, and logs why.
    void Answer(Result result, const char *message, CallPlace place = CallPlace::Here());
    /// Answers that the data operation failed, and logs the command's name followed by " fail".
    void Fail(CallPlace place = CallPlace::Here());
    /// Answers success alone.
    void Succeed(CallPlace place = CallPlace::Here());
    /// Has the panel note a change that this client made.
    void Audit(int eventCode);
    /// Sends one formatted line; one that is lost is lost.
    [[gnu::format(printf, 2, 3)]] void Respond(const char *format, ...);
    /// Sends the pairs of one record on a line that begins with `lead`: empty for a row of a list.
    void RespondRecord(const char *lead, const EventInfo &event);
    void RespondRecord(const char *lead, const EventCodeInfo &code);
    void RespondRecord(const char *lead, const VideoInfo &video);
    void RespondRecord(const char *lead, const DoorInfo &door);
    void RespondRecord(const char *lead, const UserInfo &user);
    void RespondRecord(const char *lead, const CardFormatInfo &format);
    void RespondRecord(const char *lead, const CardInfo &card);
    void RespondRecord(const char *lead, const AccessLevelInfo &level);
    void RespondRecord(const char *lead, const ThreatInfo &threat);
    /// Sends the header of a list and then each row, freed as soon as it is sent. Ends early when
    /// the session is to end.
    template <class Record>
    void RespondList(const Paging &page, RowList<Record> *rows, CallPlace place = CallPlace::Here())
    {
        Respond("%sResponse?Result=0&Total=%d&Offset=%d&Count=%d\n", place.Method, page.Total,
                page.Offset, page.Count);
        for (; !rows->empty() && !stop_.IsSet(); rows->pop_front())
            RespondRecord("", rows->front());
    }

    Flag stop_{false};
    Flag running_{true};
    Descriptor socket_;
    FixedText<32> peerAddress_;
    std::int32_t peerPort_ = 0;
    bool isLoggedIn_ = false;
    std::int32_t helloKey_ = 0;
    FixedText<32> userName_;
    AuthorityRecord authority_;
    bool wantsEvents_ = false;
};

} // namespace nimbra
