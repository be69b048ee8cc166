#include "libnimbra-client/Socket.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <nimbra-client/Error.h>
#include <sys/socket.h>

namespace nimbra::client {

namespace {

/// Finishes a connect that has begun; the error, 0 when it is made.
int FinishConnect(int socket, Deadline deadline, const CancelCheck &isCancelled)
{
    short events = POLLOUT;
    const IoStatus status = WaitForSocket(socket, &events, deadline, isCancelled);
    if (status == IoStatus::Cancelled)
        throw CancelledError();
    if (status != IoStatus::Done)
        return ETIMEDOUT;
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

} // namespace

void FailStrange()
{
    throw ConnectionError("What answers there does not speak the panel's protocol.");
}

Descriptor OpenSocket(int type)
{
    return Descriptor::AboveStandardInput(
        ::socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

bool WaitForInput(int socket, Deadline deadline, const CancelCheck &isCancelled)
{
    short events = POLLIN;
    const IoStatus status = WaitForSocket(socket, &events, deadline, isCancelled);
    if (status == IoStatus::Cancelled)
        throw CancelledError();
    return status == IoStatus::Done;
}

Descriptor ConnectTo(const std::string &host, int port, Deadline deadline,
                     const CancelCheck &isCancelled)
{
    const std::string place = host + " port " + std::to_string(port);
    addrinfo hints = {};
    hints.ai_family = AF_INET; // panels have no other
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *first = nullptr;
    const int failure = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &first);
    if (failure != 0)
        throw ConnectionError("Cannot find the address of " + host + ": " + gai_strerror(failure) +
                              ".");
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(first, freeaddrinfo);
    int error = 0;
    for (const addrinfo *at = first; at != nullptr; at = at->ai_next) {
        Descriptor socket = OpenSocket(SOCK_STREAM);
        error = socket.IsOpen() ? 0 : errno;
        if (error == 0 && connect(socket.Get(), at->ai_addr, at->ai_addrlen) != 0)
            error =
                errno == EINPROGRESS ? FinishConnect(socket.Get(), deadline, isCancelled) : errno;
        if (error != 0)
            continue;
        const int on = 1;
        setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        return socket;
    }
    throw ConnectionError("Cannot connect to " + place + ": " + std::strerror(error) + ".");
}

} // namespace nimbra::client
