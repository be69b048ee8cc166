// Lists the doors of a panel: NIMBRA_PASSWORD=... nimbra-client-example HOST USER

#include <cstdio>
#include <cstdlib>

#include <nimbra-client/ResultMessage.h>
#include <nimbra-client/Session.h>

namespace client = nimbra::client;

int main(int argc, char **argv)
{
    const char *password = std::getenv("NIMBRA_PASSWORD");
    if (argc != 3 || password == nullptr) {
        std::fprintf(stderr, "Usage: NIMBRA_PASSWORD=... %s HOST USER\n", argv[0]);
        return 2;
    }
    try {
        client::SessionOptions options;
        options.Host = argv[1];
        client::Session session(options);
        const int login = session.Login(argv[2], password);
        if (login != 0) {
            std::fprintf(stderr, "%s\n", client::ResultMessage("Login", login).c_str());
            return 1;
        }
        const auto print = [](const client::Record &door) {
            std::printf("%3d %-32s %s\n", door.Number("DoorNo"), door.Text("Name").c_str(),
                        door.Number("Status") != 0 ? "unlocked" : "locked");
            return true;
        };
        return session.List(client::Request("GetDoorInfoEx"), print) == 0 ? 0 : 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 3;
    }
}
