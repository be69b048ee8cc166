#include "simulator/run/Forwarder.h"

#include "libnimbra-client/Socket.h"
#include "simulator/cloud/Relay.h"

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include <nimbra-client/Error.h>
#include <sys/socket.h>

namespace nimbra::simulator {

static void Forward(const std::shared_ptr<LineSocket> &client, int port)
{
    try {
        constexpr std::chrono::seconds kLimit(5);
        const auto server = std::make_shared<LineSocket>(
            client::ConnectTo("127.0.0.1", port, SocketClock::now() + kLimit));
        std::thread([client, server] { Carry(*server, *client); }).detach();
        Carry(*client, *server);
    } catch (const client::ConnectionError &error) {
        std::printf("port %d: %s\n", port, error.what());
    }
}

void ForwardConnections(Descriptor listener, int port)
{
    std::thread([listener = std::move(listener), port] {
        for (;;) {
            Descriptor socket(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (socket.IsOpen())
                std::thread(Forward, std::make_shared<LineSocket>(std::move(socket)), port)
                    .detach();
            else
                // Most likely descriptors are short: some become free when clients leave.
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }).detach();
}

} // namespace nimbra::simulator
