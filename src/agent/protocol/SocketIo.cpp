#include "protocol/SocketIo.h"

#include "base/SecondTimer.h"
#include "base/Wait.h"
#include "protocol/SocketWait.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include <sys/socket.h>

namespace nimbra {

namespace {

constexpr std::time_t kTransferSeconds = 5;

/// An upload takes memory in steps of this size, as its bytes arrive.
constexpr std::size_t kUploadStep = std::size_t{64} * 1024;

/// The waits of one transfer, and its limit from the moment it is made.
class Transfer : public SocketWait
{
public:
    using SocketWait::SocketWait;

    [[nodiscard]] bool HasTime() { return timer_.Elapsed() < kTransferSeconds; }

private:
    SecondTimer timer_;
};

} // namespace

bool SendMessage(int socket, const char *text)
{
    const std::size_t length = std::strlen(text);
    if (length != 0)
        return SendBuffer(socket, text, length) == length;
    Transfer transfer(socket, WaitForOutput);
    while (transfer.HasTime())
        WaitForNextSecond();
    return false;
}

bool RecvMessage(int socket, char *buffer, std::size_t size, bool *hasFailed)
{
    Transfer transfer(socket, WaitForInput);
    // A client sends a line when it has the answer to the last one: nothing has arrived yet.
    transfer.WaitUntilReady();
    bool isIntact = true;
    std::size_t count = 0;
    while (isIntact && count < size) {
        // Byte by byte, so that a line never takes bytes of the next one.
        const ssize_t result = recv(socket, buffer + count, 1, MSG_DONTWAIT);
        isIntact = transfer.Continue(result);
        if (result < 1) {
            if (!transfer.HasTime())
                break;
            continue;
        }
        if (buffer[count] == '\n') {
            buffer[count] = '\0';
            return true;
        }
        ++count;
    }
    if (hasFailed != nullptr)
        *hasFailed = !isIntact;
    return false;
}

std::size_t SendBuffer(int socket, const char *bytes, std::size_t count)
{
    Transfer transfer(socket, WaitForOutput);
    bool isIntact = true;
    std::size_t sent = 0;
    while (isIntact && sent < count && transfer.HasTime()) {
        const ssize_t result = send(socket, bytes + sent, count - sent, MSG_DONTWAIT);
        isIntact = transfer.Continue(result);
        sent += static_cast<std::size_t>(std::max<ssize_t>(result, 0));
    }
    return sent;
}

std::size_t RecvBuffer(int socket, std::vector<char> *buffer, std::size_t count)
{
    Transfer transfer(socket, WaitForInput);
    bool isIntact = true;
    std::size_t received = 0;
    while (isIntact && received < count && transfer.HasTime()) {
        buffer->resize(std::min(count, received + kUploadStep));
        const ssize_t result =
            recv(socket, buffer->data() + received, buffer->size() - received, MSG_DONTWAIT);
        isIntact = transfer.Continue(result);
        received += static_cast<std::size_t>(std::max<ssize_t>(result, 0));
    }
    buffer->resize(received);
    return received;
}

} // namespace nimbra
