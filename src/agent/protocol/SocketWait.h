#pragma once

#include "base/Wait.h"

#include <cerrno>

#include <sys/types.h>

namespace nimbra {

/// The waits of a transfer in one direction, which never spin. One thread.
class SocketWait
{
public:
    /// `wait` is WaitForInput or WaitForOutput.
    SocketWait(int socket, bool (*wait)(int socket)) : socket_(socket), wait_(wait) {}

    /// Waits before the first send or recv of the transfer.
    void WaitUntilReady() { isReady_ = wait_(socket_); }

    /// Takes in what send or recv has returned, and waits when nothing was moved. Returns false,
    /// without a wait, when the socket has failed.
    [[nodiscard]] bool Continue(ssize_t result)
    {
        if (result < 0 && errno != EAGAIN)
            return false;
        if (result > 0)
            isReady_ = false;
        else
            Wait(result == 0);
        return true;
    }

private:
    void Wait(bool isClosed)
    {
        // The socket of a peer that has closed is always ready, and one for which the kernel has
        // no memory may be called ready: only the clock ends such a wait.
        if (isClosed || isReady_) {
            WaitForNextSecond();
            isReady_ = false;
        } else {
            WaitUntilReady();
        }
    }

    int socket_;
    bool (*wait_)(int socket);
    bool isReady_ = false; ///< the last wait has said so, and nothing was moved since
};

} // namespace nimbra
