// Discovery: the real responder receives any datagrams, one after the other. A probe with a key is
// answered once, with that key; any other datagram is not answered.

#include "base/PanelConstants.h"
#include "core/ConfigManager.h"
#include "fuzz/AgentTime.h"
#include "fuzz/Finding.h"
#include "fuzz/MessageModel.h"
#include "fuzz/ValueModel.h"
#include "scan/ScanManager.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace nimbra::fuzz {
namespace {

/// The maximum size of a probe: the responder's buffer less the terminator.
constexpr std::size_t kLongest = 1023;

/// The answer that a datagram must get; empty: none.
std::string AnswerTo(std::string_view datagram)
{
    const std::string_view received = datagram.substr(0, kLongest);
    const std::string_view text = received.substr(0, received.find('\0'));
    if (!Contains(text, "Scan?"))
        return "";
    std::int32_t key = 0;
    Message message(text);
    for (Message::Pair pair; message.Next(&pair);)
        key = IsSame(pair.Key, "Key") ? NumberIn(pair.Value) : key;
    if (key == 0)
        return "";
    return "ScanResponse?Result=0&Key=" + std::to_string(key) +
           "&MacAddr=00:1A:2B:3C:4D:5E&ModelName=Dogwood 64&PrivateAddr=192.168.77.10"
           "&PrivatePort=9000\n";
}

/// Passes datagrams to the responder and receives its answers.
class Network : public AgentEnvironment
{
public:
    explicit Network(std::vector<std::string_view> datagrams) : datagrams_(std::move(datagrams)) {}

    bool OnSocketWait() override
    {
        if (next_ == datagrams_.size())
            ScanManager::GetInstance()->Stop();
        return false;
    }

    ssize_t Receive(void *buffer, std::size_t size)
    {
        CheckAnswer();
        if (next_ == datagrams_.size()) {
            errno = EAGAIN;
            return -1;
        }
        const std::string_view datagram = datagrams_[next_++];
        const std::size_t count = std::min(size, datagram.size());
        std::memcpy(buffer, datagram.data(), count);
        expected_ = AnswerTo(datagram);
        return static_cast<ssize_t>(count);
    }

    void Send(std::string_view answer, const sockaddr_in &address)
    {
        RequireEqual("an answer's address", INADDR_BROADCAST, ntohl(address.sin_addr.s_addr));
        RequireEqual("an answer's port", kScanAnswerPort, ntohs(address.sin_port));
        answer_ += answer;
    }

    /// After the thread has ended, which it must do only when it is told to.
    void Finish()
    {
        CheckAnswer();
        Require(next_ == datagrams_.size(), "the responder has ended before the last datagram");
    }

    /// Compares what the last datagram got with what it must get.
    void CheckAnswer()
    {
        RequireEqual("answer", expected_, answer_);
        answer_.clear();
        expected_.clear();
    }

private:
    std::vector<std::string_view> datagrams_;
    std::size_t next_ = 0;
    std::string expected_;
    std::string answer_;
};

Network *theNetwork = nullptr;

} // namespace
} // namespace nimbra::fuzz

// The linker prescribes the names of wrapping functions.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" ssize_t __wrap_recvfrom(int /*socket*/, void *buffer, std::size_t size, int /*flags*/,
                                   sockaddr * /*sender*/, socklen_t * /*senderSize*/)
{
    return nimbra::fuzz::theNetwork->Receive(buffer, size);
}

extern "C" ssize_t __wrap_sendto(int /*socket*/, const void *bytes, std::size_t size, int /*flags*/,
                                 const sockaddr *address, socklen_t /*addressSize*/)
{
    sockaddr_in to = {};
    std::memcpy(&to, address, sizeof to);
    nimbra::fuzz::theNetwork->Send({static_cast<const char *>(bytes), size}, to);
    return static_cast<ssize_t>(size);
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    nimbra::ConfigManager &config = *nimbra::ConfigManager::GetInstance();
    config.MacAddr.Assign("00:1A:2B:3C:4D:5E");
    config.ModelName.Assign("Dogwood 64");
    config.PrivateAddr.Assign("192.168.77.10");
    config.PrivatePort = 9000;
    return 0;
}

/// The input is datagrams, separated by empty lines.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace nimbra::fuzz;
    Network network(Split({reinterpret_cast<const char *>(data), size}, "\n\n"));
    theNetwork = &network;
    Require(nimbra::ScanManager::GetInstance()->Start(), "the responder does not start");
    network.Finish();
    return 0;
}
