#include "protocol/SocketIo.h"

#include "base/SecondTimer.h"
#include "base/Wait.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <sys/socket.h>

namespace nimbra {

namespace {

constexpr std::time_t kTransferSeconds = 5;

/// An upload takes memory in steps of this size, as its bytes arrive.
constexpr std::size_t kUploadStep = std::size_t{64} * 1024;

/// The limit of one transfer, from the moment it is made.
class Deadline
{
public:
    [[nodiscard]] bool HasPassed() { return timer_.Elapsed() >= kTransferSeconds; }

private:
    SecondTimer timer_;
};

/// Whether a transfer goes on after send or recv returned `result`, 0 or less: true, after a
/// pause, when there was nothing to move yet.
bool WaitAfter(ssize_t result)
{
    if (result < 0 && errno != EAGAIN)
        return false;
    PauseMillisecond();
    return true;
}

} // namespace

bool SendMessage(int socket, const char *text)
{
    const std::size_t length = std::strlen(text);
    if (length != 0)
        return SendBuffer(socket, text, length) == length;
    // Nothing to send never counts as sent.
    Deadline deadline;
    while (!deadline.HasPassed())
        PauseMillisecond();
    return false;
}

bool RecvMessage(int socket, char *buffer, std::size_t size)
{
    Deadline deadline;
    std::size_t count = 0;
    while (count < size && !deadline.HasPassed()) {
        // Byte by byte, so that a line never takes bytes of the next one.
        const ssize_t result = recv(socket, buffer + count, 1, MSG_DONTWAIT);
        if (result < 1) {
            if (!WaitAfter(result))
                return false;
            continue;
        }
        if (buffer[count] == '\n') {
            buffer[count] = '\0';
            return true;
        }
        ++count;
    }
    return false;
}

std::size_t SendBuffer(int socket, const char *bytes, std::size_t count)
{
    Deadline deadline;
    std::size_t sent = 0;
    while (sent < count && !deadline.HasPassed()) {
        const ssize_t result = send(socket, bytes + sent, count - sent, MSG_DONTWAIT);
        if (result >= 1)
            sent += static_cast<std::size_t>(result);
        else if (!WaitAfter(result))
            break;
    }
    return sent;
}

std::size_t RecvBuffer(int socket, std::vector<char> *buffer, std::size_t count)
{
    Deadline deadline;
    std::size_t received = 0;
    while (received < count && !deadline.HasPassed()) {
        buffer->resize(std::min(count, received + kUploadStep));
        const ssize_t result =
            recv(socket, buffer->data() + received, buffer->size() - received, MSG_DONTWAIT);
        if (result >= 1)
            received += static_cast<std::size_t>(result);
        else if (!WaitAfter(result))
            break;
    }
    buffer->resize(received);
    return received;
}

} // namespace nimbra
