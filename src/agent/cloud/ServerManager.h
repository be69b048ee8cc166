#pragma once

#include "base/Descriptor.h"
#include "base/FixedText.h"
#include "base/Flag.h"
#include "base/Log.h"
#include "base/SecondTimer.h"
#include "cloud/PortRule.h"
#include "protocol/Line.h"
#include "protocol/Request.h"

#include <cstdint>
#include <span>

namespace nimbra {

/// What the agent reports to the cloud server about the panel.
struct DeviceInfo
{
    std::int32_t DeviceNo = 0; ///< given by the server
    FixedText<44> DeviceId;
    FixedText<32> MacAddr;
    FixedText<32> ModelName;
    FixedText<32> PrivateAddr;
    std::int32_t PrivatePort = 0;
    FixedText<32> StunAddr;
    std::int32_t StunPort = 0;
};

/// What the server's reply to a heartbeat orders.
struct LinkInfo
{
    std::int32_t DeviceNo = 0;
    std::int32_t LinkType = 0; ///< 0 no session, 2 a relay with handshake, others without
    FixedText<31> LinkAddr;    ///< one byte shorter than the other addresses
    std::int32_t LinkPort = 0;
    std::int32_t RelayKey = 0;
};

/// Keeps the panel known to the cloud server, on a thread of its own: registers it, sends
/// heartbeats, and opens the relay sessions that the server orders. Each exchange is one short
/// connection. Only Start and Stop are called by another thread, the main one.
class ServerManager
{
public:
    [[nodiscard]] static ServerManager *GetInstance();
    virtual ~ServerManager() = default;

    /// Takes over the configuration and starts the thread; false when it cannot be created, or
    /// when that of an earlier start has not ended yet.
    [[nodiscard]] bool Start();
    /// Asks the thread to end and does not wait for it.
    void Stop();

private:
    static constexpr char kLogSource[] = "ServerManager.cpp";

    ServerManager();

    /// The thread.
    void Run();
    void Process();
    /// Registers the panel, trying again every 30 seconds. False when the link is to end. Logs as
    /// the calling method.
    [[nodiscard]] bool Register(SecondTimer *sinceAttempt, CallPlace place = CallPlace::Here());
    /// Sends heartbeats until ten in a row have failed. False when the link is to end.
    [[nodiscard]] bool KeepLinked(CallPlace place = CallPlace::Here());

    /// Reports `device` to the server and takes over the number that the server gives it.
    [[nodiscard]] bool SetDeviceInfo(DeviceInfo *device);
    /// Asks the server what it orders.
    [[nodiscard]] bool HeartBeat(LinkInfo *link);
    /// One heartbeat and what its reply orders; false when the heartbeat failed.
    [[nodiscard]] bool PollServer();
    /// Opens the connection that the server ordered, its handshake done; not open on failure.
    [[nodiscard]] Descriptor MakeSession(const LinkInfo &link);

    /// As OpenSocket, and a failure is logged as the calling method's.
    [[nodiscard]] Descriptor Connect(const FixedText<32> &host, std::int32_t port,
                                     CallPlace place = CallPlace::Here());
    /// Connects within 10 seconds; not open on failure. The socket is non-blocking.
    [[nodiscard]] Descriptor OpenSocket(const FixedText<32> &host, std::int32_t port);
    /// The dotted address of a host name; any other text unchanged.
    [[nodiscard]] static FixedText<32> ResolveAddress(const FixedText<32> &host);
    /// Sends a request, receives the reply and reads its keys, of which one is `result`. False, and
    /// logged as the calling method, unless the reply is `name` with a Result of 0.
    [[nodiscard]] static bool Ask(const Descriptor &socket, const Line &request, const char *name,
                                  std::span<const RequestKey> keys, const std::int32_t &result,
                                  CallPlace place = CallPlace::Here());
    /// Draws the number of the next relay session. No message carries it.
    void DrawSessionKey();

    Flag quit_{false};
    Flag running_{false};
    bool cloudEnable_ = false;
    FixedText<32> cloudServerAddr_;
    std::int32_t cloudServerPort_ = 0;
    DeviceInfo device_;
    std::int32_t sessionKey_ = 0;
    PortRule portRule_;
};

} // namespace nimbra
