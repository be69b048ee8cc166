#pragma once

#include "base/Descriptor.h"
#include "base/EventCount.h"
#include "base/FixedText.h"
#include "base/Flag.h"
#include "base/Log.h"
#include "base/SecondTimer.h"
#include "client/AuditEvent.h"
#include "client/RecordPairs.h"
#include "data/Authority.h"
#include "data/Paging.h"
#include "data/RowList.h"
#include "protocol/Line.h"
#include "protocol/Request.h"
#include "protocol/RowSender.h"

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

namespace nimbra {

/// One client session: a connected socket, its thread, the client's login and the handlers of its
/// commands. Made and deleted by ClientManager; deleting it closes the socket.
class ClientWorker
{
public:
    /// One row of the dispatch table.
    struct Command
    {
        const char *Word; ///< the name and its "?"
        Right Needs;
        void (ClientWorker::*Handler)(char *line);

        [[nodiscard]] std::string_view Name() const
        {
            const std::string_view word = Word;
            return word.substr(0, word.size() - 1);
        }
    };
    /// The dispatch table: all commands, in the order in which their words are looked for.
    [[nodiscard]] static std::span<const Command> Commands();

    /// `ends`, which is never destroyed, gets an event when the session has ended.
    explicit ClientWorker(EventCount *ends) : ends_(ends) {}
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

    /// The session's thread: reads and serves lines until it is stopped or idle too long.
    void Run();
    void Process();
    /// Marks the session as ended. It may be deleted from then on.
    void End();
    /// Serves one line: looks its command up, checks the right and calls the handler. A line
    /// without a known word is only logged.
    void Dispatch(char *line);
    /// The row of the first word found in a line; null when there is none.
    [[nodiscard]] const Command *FindCommand(const char *line) const;

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

    /// The steps that handlers share. Responses and log lines carry the name of the command that is
    /// being served; a log line has the line number of the call.

    /// Reads the request's keys into the fields that they stand for.
    void ParseKeys(char *line, std::initializer_list<RequestKey> keys,
                   CallPlace call = CallPlace::Here());
    void ParseKeys(char *line, std::span<const RequestKey> keys,
                   CallPlace call = CallPlace::Here());
    /// A response with its result, to which pairs can be added.
    [[nodiscard]] Line Response(Result result) const;
    /// Answers with a result alone, and logs why.
    void Answer(Result result, const char *message, CallPlace call = CallPlace::Here());
    /// Answers that the data operation failed, and logs the command's name followed by " fail".
    void Fail(CallPlace call = CallPlace::Here());
    /// Answers success alone.
    void Succeed();
    /// Has the panel note what this client did.
    void Audit(AuditEvent event);
    /// Sends a line; one that is lost is lost.
    void Send(const Line &line);
    /// Answers success with the pairs of a record.
    template <class Record>
    void RespondRecord(const Record &record)
    {
        Line response = Response(Result::Success);
        PutPairs(record, &response);
        Send(response);
    }
    /// Sends the header of a list and then its rows, whose memory is given back as they are sent.
    /// The list ends early when the session is to end or its client takes nothing.
    template <class Record>
    void RespondList(const Paging &page, RowList<Record> *rows)
    {
        RowSender sender(socket_.Get(), stop_);
        bool goesOn = sender.Add(Response(Result::Success)
                                     .Pair("Total", page.Total)
                                     .Pair("Offset", page.Offset)
                                     .Pair("Count", page.Count)
                                     .View());
        for (Record row; goesOn && rows->TakeFront(&row);) {
            Line line;
            PutPairs(row, &line);
            goesOn = sender.Add(line.View());
        }
        // A client that took nothing for so long had no time for a request either.
        if (!(goesOn && sender.Flush()) && sender.IsGivenUp())
            idle_ = SecondTimer();
    }
    /// The origin of a log line: the handler that serves the command, at the line of `call`.
    [[nodiscard]] LogSite SiteOf(const CallPlace &call) const;

    EventCount *ends_;
    Flag stop_{false};
    Flag running_{true};
    /// Since the last line came.
    SecondTimer idle_;
    Descriptor socket_;
    FixedText<32> peerAddress_;
    std::int32_t peerPort_ = 0;
    bool isLoggedIn_ = false;
    std::int32_t helloKey_ = 0;
    FixedText<32> userName_;
    AuthorityRecord authority_;
    bool wantsEvents_ = false;
    /// The command that is being served.
    const Command *command_ = nullptr;
};

} // namespace nimbra
