// A small cloud server to test the cloud link of the agent, with correct answers or wrong ones.

#include "simulator/cloud/CloudServer.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <exception>
#include <map>
#include <string>

namespace {

using nimbra::simulator::CloudServer;
using nimbra::simulator::Reply;

/// Replaces the command word of a good reply.
std::string WithWord(const std::string &reply, const std::string &word)
{
    return word + reply.substr(reply.find('?'));
}

/// The wrong answers that can be chosen.
using Misbehaviours = std::map<std::string, Reply (*)(const std::string &good)>;
const Misbehaviours &AllMisbehaviours()
{
    static const Misbehaviours all = {
        {"late",
         [](const std::string &good) {
             return Reply{good, std::chrono::seconds(4), false};
         }},
        {"too-late",
         [](const std::string &good) {
             return Reply{good, std::chrono::seconds(7), false};
         }},
        {"silent", [](const std::string &) { return Reply{}; }},
        {"closing",
         [](const std::string &) {
             return Reply{"", {}, true};
         }},
        {"garbage",
         [](const std::string &) {
             return Reply{"\x01\xff&&==?=&\n", {}, false};
         }},
        {"oversized",
         [](const std::string &) {
             return Reply{std::string(5000, 'x') + "\n", {}, true};
         }},
        {"wrong-word",
         [](const std::string &good) {
             return Reply{WithWord(good, "OtherResponse"), {}, false};
         }},
        {"no-result",
         [](const std::string &good) {
             return Reply{good.substr(0, good.find('?')) + "?DeviceNo=7\n", {}, false};
         }},
        {"unknown-keys",
         [](const std::string &good) {
             return Reply{good.substr(0, good.size() - 1) + "&Colour=blue\n", {}, false};
         }},
    };
    return all;
}

void Serve(CloudServer &server, const std::string &misbehaviour)
{
    server.SetAnswer([&server, misbehaviour](const std::string &request) {
        const Reply good = server.GoodAnswer(request);
        Reply reply = misbehaviour.empty() ? good : AllMisbehaviours().at(misbehaviour)(good.Text);
        std::printf("<- %s\n-> %s%s", request.c_str(), reply.Text.c_str(),
                    reply.Text.empty() ? "(nothing)\n" : "");
        return reply;
    });
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app("Cloud server for tests: answers the registrations and heartbeats of panels, and "
                 "connects each management client with a session that it orders the panel to open. "
                 "Ends on SIGINT or SIGTERM.");
    CloudServer::Ports ports;
    int linkType = 2;
    std::string misbehaviour;
    app.add_option("--port", ports.Server, "Port where panels register")->capture_default_str();
    app.add_option("--relay-port", ports.Relay, "Port where panels open sessions")
        ->capture_default_str();
    app.add_option("--client-port", ports.Client, "Port where management clients connect")
        ->capture_default_str();
    app.add_option("--link-type", linkType, "LinkType of the sessions; 2 has a handshake")
        ->capture_default_str();
    app.add_option("--misbehave", misbehaviour,
                   "Answer every request wrongly, in one of these ways")
        ->check(CLI::IsMember(AllMisbehaviours()));
    CLI11_PARSE(app, argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    // Blocked here and in every thread of the server, so that only sigwait takes them.
    sigset_t quit;
    sigemptyset(&quit);
    sigaddset(&quit, SIGINT);
    sigaddset(&quit, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &quit, nullptr);
    try {
        CloudServer server(ports, linkType);
        Serve(server, misbehaviour);
        int signal = 0;
        sigwait(&quit, &signal);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "nimbra-cloud-server: %s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
