#pragma once

#include "base/Descriptor.h"
#include "base/EventCount.h"
#include "base/FixedText.h"
#include "base/Flag.h"
#include "client/ClientWorker.h"

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>

namespace nimbra {

/// Accepts management clients on TCP port 9000, gives each a session, and deletes the sessions
/// that have ended. The cloud link adds its relayed clients to the same list.
class ClientManager
{
public:
    [[nodiscard]] static ClientManager *GetInstance();
    virtual ~ClientManager() = default;

    /// Starts the accept thread and the reaper thread. Returns false when one cannot be created;
    /// the other may then be running: call Stop. A port that is taken is no failure: the agent
    /// runs on without a listener. Main thread.
    [[nodiscard]] bool Start();
    /// Ends every session and returns when the last one has ended: 5 seconds at most for a session
    /// that waits for its client. Main thread.
    void Stop();
    /// Makes a session of a connected socket and takes the socket over. Any thread.
    void AddClient(Descriptor socket, const char *address, std::int32_t port);

private:
    static constexpr char kLogSource[] = "ClientManager.cpp";

    ClientManager() = default;

    /// Bodies of the accept thread and of the reaper thread.
    void Process();
    void CheckClient();

    /// The listening socket; not open on failure.
    [[nodiscard]] Descriptor OpenSocket(int port);
    /// The next pending connection and its peer; not open when there is none.
    [[nodiscard]] Descriptor AcceptClient(const Descriptor &listener, FixedText<32> *address,
                                          std::int32_t *port);
    /// Accepts until no connection is pending; false when that failed for another reason.
    [[nodiscard]] bool AcceptPending(const Descriptor &listener);
    /// Unlinks a session that has ended, null if none has, and gives the count of those left.
    [[nodiscard]] std::unique_ptr<ClientWorker> TakeEnded(std::size_t *count);
    /// Adds a session to the list and returns the new count; nothing when the client is turned
    /// away, for want of memory or because the listener is stopping. The list lock is held.
    [[nodiscard]] std::optional<std::size_t> Add(Descriptor socket, const char *address,
                                                 std::int32_t port);

    Flag stop_{false};
    /// Has one event for each session that has ended, and one for a stop.
    EventCount events_;
    /// Guards the list. The thread that unlinks a session while holding it deletes that session;
    /// no other thread touches it again. Never held while waiting for a session.
    std::mutex listLock_;
    std::list<std::unique_ptr<ClientWorker>> sessions_;
};

} // namespace nimbra
