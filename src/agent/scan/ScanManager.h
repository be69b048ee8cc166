#pragma once

#include "base/Descriptor.h"
#include "base/Flag.h"
#include "base/Log.h"

namespace nimbra {

/// Answers the probes of management tools on the local network, on a thread of its own. Answers
/// are broadcast: a tool knows its own by the key that it sent. Only Start and Stop are called by
/// another thread, the main one.
class ScanManager
{
public:
    [[nodiscard]] static ScanManager *GetInstance();
    virtual ~ScanManager() = default;

    /// Starts the thread; false when it cannot be created. A port that is taken is no failure: the
    /// thread tries again every second.
    [[nodiscard]] bool Start();
    /// Asks the thread to end and does not wait for it.
    void Stop();

private:
    static constexpr char kLogSource[] = "ScanManager.cpp";

    ScanManager() = default;

    /// The thread.
    void Process();
    /// Opens both sockets; false, with the one that was opened left to the caller, on failure.
    [[nodiscard]] bool OpenSocket();
    void CloseSockets();
    /// Answers datagrams until none is waiting; false when the socket has failed.
    [[nodiscard]] bool Drain(CallPlace place = CallPlace::Here());
    /// Parses one request, which it changes, and answers it if it names a key.
    void ProcScan(char *text);

    Flag quit_{false};
    Descriptor receiveSocket_;
    Descriptor sendSocket_;
};

} // namespace nimbra
