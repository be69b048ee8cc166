// The listener: accepting, counting and ending one and many clients, and shortages of ports,
// descriptors and threads.

#include "support/Agent.h"
#include "support/AgentTest.h"
#include "support/Files.h"
#include "support/Limits.h"
#include "support/ManagementClient.h"
#include "support/Matchers.h"
#include "support/Program.h"
#include "support/Sanitized.h"
#include "support/TestPanel.h"
#include "support/TestSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nimbra::test {

namespace fs = std::filesystem;

namespace {

using ::testing::ElementsAre;
using ::testing::Optional;
using ::testing::StartsWith;

constexpr int kPort = 9000;

/// The client counts in the log, in order.
std::vector<int> Counts(Agent &agent)
{
    static constexpr std::string_view kLead = "Client Count: ";
    std::vector<int> counts;
    for (const std::string &line : agent.Log())
        if (line.starts_with(kLead))
            counts.push_back(std::stoi(line.substr(kLead.size())));
    return counts;
}

fs::path ProcessFile(const Agent &agent, const std::string &name)
{
    return "/proc/" + std::to_string(agent.Pid()) + "/" + name;
}

/// The target of an open descriptor of a process; empty if it is closed.
std::string TargetOf(const fs::path &descriptor)
{
    std::error_code closed;
    return fs::read_symlink(descriptor, closed);
}

/// The numbers of the open descriptors of a process.
std::set<int> OpenDescriptors(const fs::path &process)
{
    std::set<int> numbers;
    for (const auto &entry : fs::directory_iterator(process / "fd"))
        numbers.insert(std::stoi(entry.path().filename()));
    return numbers;
}

/// The descriptors of an agent without clients: the standard ones, the listener and the two of
/// discovery.
std::set<int> DescriptorsAtRest(const Agent &agent)
{
    std::set<int> numbers;
    EXPECT_TRUE(WaitUntil([&] {
        numbers = OpenDescriptors(ProcessFile(agent, ""));
        return numbers.size() == Agent::kDescriptorsAtRest;
    }));
    return numbers;
}

/// The number in the first line of the log that reads "Socket: <number>" and then `rest`.
std::optional<std::string> SocketInLog(Agent &agent, const std::string &rest)
{
    static constexpr std::string_view kLead = "Socket: ";
    for (const std::string &line : agent.Log()) {
        const std::size_t end = line.find_first_not_of("0123456789", kLead.size());
        if (line.starts_with(kLead) && end > kLead.size() && end != std::string::npos &&
            line.substr(end) == rest)
            return line.substr(kLead.size(), end - kLead.size());
    }
    return std::nullopt;
}

/// The line of the log after each line about the socket of a client.
std::vector<std::string> LinesAfterPeers(Agent &agent)
{
    std::vector<std::string> lines;
    bool isAfterPeer = false;
    for (const std::string &line : agent.Log()) {
        if (isAfterPeer)
            lines.push_back(line);
        isAfterPeer = line.starts_with("Socket: ") && line.find(", Addr: ") != std::string::npos;
    }
    return lines;
}

/// The rest of such a line for a client.
std::string Peer(const std::string &address, int port)
{
    return ", Addr: " + address + ", Port: " + std::to_string(port);
}

/// The memory regions of a process: where each begins, and its size.
class MemoryMap
{
public:
    explicit MemoryMap(const Agent &agent)
    {
        std::istringstream lines(ReadFile(ProcessFile(agent, "maps")));
        std::string line;
        while (std::getline(lines, line)) {
            const std::size_t dash = line.find('-');
            regions_.emplace_back(std::stoull(line, nullptr, 16),
                                  std::stoull(line.substr(dash + 1), nullptr, 16));
        }
    }
    /// The size of the region that holds the address.
    [[nodiscard]] std::uint64_t SizeAt(std::uint64_t address) const
    {
        for (const auto &[begin, end] : regions_)
            if (address >= begin && address < end)
                return end - begin;
        return 0;
    }

private:
    std::vector<std::pair<std::uint64_t, std::uint64_t>> regions_;
};

/// The stack pointers of all threads of the agent except the first, read while each waits.
std::vector<std::uint64_t> StackPointers(const Agent &agent)
{
    std::vector<std::uint64_t> pointers;
    for (const auto &task : fs::directory_iterator(ProcessFile(agent, "task"))) {
        if (task.path().filename() == std::to_string(agent.Pid()))
            continue;
        // For a thread that waits in the kernel: the call, its arguments, stack and program
        // counter.
        std::vector<std::string> fields;
        EXPECT_TRUE(WaitUntil([&] {
            std::istringstream call(ReadFile(task.path() / "syscall"));
            fields.assign(std::istream_iterator<std::string>(call), {});
            return fields.size() >= 3;
        })) << task.path();
        if (fields.size() >= 3)
            pointers.push_back(std::stoull(fields[fields.size() - 2], nullptr, 16));
    }
    return pointers;
}

/// Connects and disconnects `count` times, as fast as the listener accepts. On the loopback a
/// connection is established at once, or not at all while the queue is full.
void ConnectAndDisconnect(std::size_t count)
{
    const Stopwatch watch;
    while (count > 0 && watch.Seconds() < 60) {
        const TestSocket client(SOCK_STREAM | SOCK_NONBLOCK);
        if (client.Connect() || client.IsConnected())
            --count;
        else
            std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    ASSERT_EQ(count, 0U);
}

/// A client that never blocks: connects, asks and reads whenever it can. After `patience` seconds
/// without an answer it connects again: a connection that the full queue has not accepted looks
/// open at this end, and TCP retries at increasing intervals.
class EagerClient
{
public:
    explicit EagerClient(double patience) : patience_(patience) { Connect(); }

    /// Continues as far as possible without blocking. Call it often.
    void Proceed()
    {
        if (!IsServed() && sinceConnect_.Seconds() > patience_)
            Connect();
        if (!client_ && socket_->IsConnected()) {
            client_ = std::make_unique<ManagementClient>(socket_->Release());
            Ask();
        }
        if (!client_)
            return;
        while (client_->ReadLine(milliseconds(0)))
            ++answers_;
        // The agent ends silent sessions.
        if (answers_ == questions_ && sinceQuestion_.Seconds() > 3)
            Ask();
    }
    [[nodiscard]] bool IsServed() const { return answers_ > 0; }
    /// The current, established connection.
    [[nodiscard]] ManagementClient &Client() const { return *client_; }

private:
    void Connect()
    {
        client_.reset();
        questions_ = 0;
        socket_ = std::make_unique<TestSocket>(SOCK_STREAM | SOCK_NONBLOCK);
        sinceConnect_ = Stopwatch();
        static_cast<void>(socket_->Connect());
    }
    void Ask()
    {
        client_->SendLine("Hello?");
        ++questions_;
        sinceQuestion_ = Stopwatch();
    }

    double patience_;
    std::unique_ptr<TestSocket> socket_;
    std::unique_ptr<ManagementClient> client_;
    Stopwatch sinceConnect_;
    Stopwatch sinceQuestion_;
    int questions_ = 0;
    int answers_ = 0;
};

class Listener : public AgentTest
{
protected:
    Listener() = default;
    explicit Listener(const panel::PanelSize &size) : AgentTest(size) {}
};

/// Tests that take long, because the agent ends the sessions of clients that have left only when
/// they have been silent for 10 seconds.
class ListenerWithManyClients : public Listener
{};

class ListenerWithLongLog : public Listener
{
protected:
    ListenerWithLongLog() : Listener({.Events = 100000}) {}
};

} // namespace

TEST_F(Listener, LogsSocketAndPort)
{
    const auto socket = SocketInLog(agent_, ", Port: 9000");
    ASSERT_TRUE(socket);
    EXPECT_THAT(TargetOf(ProcessFile(agent_, "fd/" + *socket)), StartsWith("socket:"));
}

TEST_F(Listener, LogsSocketAddressPortAndCountOfEachClient)
{
    // The agent listens on every address of the panel, for clients of any address.
    for (const auto &[own, agents] :
         {std::pair("127.0.0.1", "127.0.0.1"), std::pair("127.0.0.2", "127.0.0.3"),
          std::pair("127.255.255.254", "127.100.100.100")}) {
        TestSocket socket;
        ASSERT_TRUE(socket.Bind(own, 0));
        ASSERT_TRUE(socket.Connect(agents));
        ManagementClient client(socket.Release());
        ASSERT_THAT(client.Ask("Hello?"), IsGreeting());
        const auto number = SocketInLog(agent_, Peer(own, client.LocalPort()));
        ASSERT_TRUE(number) << own;
        EXPECT_THAT(TargetOf(ProcessFile(agent_, "fd/" + *number)), StartsWith("socket:"));
        // This session still runs without its client when the next client connects.
    }
    EXPECT_TRUE(agent_.WaitForLog("Client Count: 3"));
    EXPECT_THAT(Counts(agent_), ElementsAre(1, 2, 3));
    EXPECT_THAT(LinesAfterPeers(agent_),
                ElementsAre("Client Count: 1", "Client Count: 2", "Client Count: 3"));
}

TEST_F(Listener, AcceptsClientWithin4Seconds)
{
    for (int i = 0; i < 5; ++i) {
        const Stopwatch watch;
        const ManagementClient &client = Connect();
        const std::string peer = Peer("127.0.0.1", client.LocalPort());
        EXPECT_TRUE(WaitUntil([&] { return SocketInLog(agent_, peer).has_value(); }));
        EXPECT_LT(watch.Seconds(), 4);
    }
}

TEST_F(Listener, QueuesElevenClientsWhileBusy)
{
    ASSERT_TRUE(agent_.Suspend());
    std::vector<TestSocket> sockets;
    for (int i = 0; i < 15; ++i) {
        sockets.emplace_back(SOCK_STREAM | SOCK_NONBLOCK);
        EXPECT_TRUE(sockets.back().Connect() || errno == EINPROGRESS);
    }
    const auto connected = [&] {
        return std::count_if(sockets.begin(), sockets.end(),
                             [](const TestSocket &socket) { return socket.IsConnected(); });
    };
    // A queue of ten accepts one more. The others are not refused: TCP retries.
    EXPECT_TRUE(WaitUntil([&] { return connected() >= 11; }));
    EXPECT_FALSE(WaitUntil([&] { return connected() > 11; }, milliseconds(1500)));
    agent_.Signal(SIGCONT);
    EXPECT_TRUE(WaitUntil([&] { return connected() == 15; }));
    EXPECT_TRUE(agent_.WaitForLog("Client Count: 15"));
}

TEST_F(Listener, ClientCountFollows20ClientsUpAndDown)
{
    const std::set<int> descriptors = DescriptorsAtRest(agent_);
    const std::size_t threads = agent_.Threads();
    std::vector<ManagementClient> clients;
    for (int i = 0; i < 20; ++i) {
        clients.emplace_back();
        // No client must be silent while the others connect.
        for (const ManagementClient &client : clients)
            client.SendLine("Hello?");
    }
    ASSERT_TRUE(agent_.WaitForLog("Client Count: 20"));
    std::vector<int> expected;
    for (int count = 1; count <= 20; ++count)
        expected.push_back(count);
    EXPECT_EQ(Counts(agent_), expected);
    EXPECT_EQ(agent_.Descriptors(), descriptors.size() + 20);

    clients.clear();
    ASSERT_TRUE(agent_.WaitForLog("Client Count: 0", seconds(60)));
    for (int count = 19; count >= 0; --count)
        expected.push_back(count);
    EXPECT_EQ(Counts(agent_), expected);
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors(ProcessFile(agent_, "")) == descriptors; }));
    EXPECT_TRUE(WaitUntil([&] { return agent_.Threads() <= threads; }));
}

TEST_F(ListenerWithManyClients, Serves200SimultaneousClients)
{
    std::vector<EagerClient> clients;
    for (int i = 0; i < 200; ++i)
        clients.emplace_back(3 + 0.02 * i);
    ASSERT_TRUE(WaitUntil(
        [&] {
            for (EagerClient &client : clients)
                client.Proceed();
            static_cast<void>(agent_.Log());
            return std::all_of(clients.begin(), clients.end(),
                               [](const EagerClient &client) { return client.IsServed(); });
        },
        seconds(120)));
    // All of them are open at the same time.
    for (const EagerClient &client : clients)
        client.Client().SendLine("Hello?");
    for (const EagerClient &client : clients)
        EXPECT_THAT(client.Client().ReadLine(), Optional(IsGreeting()));
    EXPECT_GE(agent_.CountInLog(", Addr: "), 200U);
}

TEST_F(ListenerWithManyClients, LeavesNothingBehindAfter1000Connections)
{
    const std::set<int> descriptors = DescriptorsAtRest(agent_);
    const std::size_t threads = agent_.Threads();
    std::array<std::size_t, 2> resident = {};
    // After the first half, the C library holds the memory that it keeps for reuse.
    for (std::size_t &after : resident) {
        const std::size_t before = agent_.CountInLog(", Addr: ");
        ConnectAndDisconnect(500);
        ASSERT_TRUE(agent_.WaitForLog(", Addr: ", seconds(60), before + 500));
        ASSERT_TRUE(WaitUntil([&] { return Counts(agent_).back() == 0; }, seconds(60)));
        EXPECT_TRUE(WaitUntil([&] { return agent_.Threads() <= threads; }));
        EXPECT_EQ(OpenDescriptors(ProcessFile(agent_, "")), descriptors);
        after = agent_.ResidentKiB();
    }
    // Sanitizers keep freed memory.
    EXPECT_LE(resident[1], resident[0] + (kIsSanitized ? 65536 : 1024));
    EXPECT_THAT(ManagementClient().Ask("Hello?"), IsGreeting());
}

TEST(TakenPort, LeavesAgentWithoutListener)
{
    const TestPanel panel;
    Agent::Options options;
    options.WaitUntilServing = false;
    {
        const TestSocket holder;
        ASSERT_TRUE(holder.Bind("0.0.0.0", kPort));
        ASSERT_TRUE(holder.Listen(1));
        Agent agent(options);
        ASSERT_TRUE(agent.WaitForMessage("ClientManager.cpp", "Process", "OpenSocket fail"));
        EXPECT_EQ(agent.CountMessages("ClientManager.cpp", "OpenSocket", "bind fail"), 1U);
        EXPECT_EQ(agent.End(), 0);
    }
    // A new agent finds the port free.
    Agent agent;
    EXPECT_THAT(ManagementClient().Ask("Hello?"), IsGreeting());
}

TEST(TakenPort, IsNotRetried)
{
    const TestPanel panel;
    auto holder = std::make_unique<TestSocket>();
    ASSERT_TRUE(holder->Bind("0.0.0.0", kPort));
    ASSERT_TRUE(holder->Listen(1));
    Agent::Options options;
    options.WaitUntilServing = false;
    Agent agent(options);
    ASSERT_TRUE(agent.WaitForMessage("ClientManager.cpp", "Process", "OpenSocket fail"));
    holder.reset();
    // Longer than the interval after which a start is retried.
    EXPECT_FALSE(WaitUntil([] { return TestSocket().Connect(); }, seconds(7)));
    EXPECT_EQ(agent.CountInLog("bind fail"), 1U);
    // The start has succeeded nevertheless.
    EXPECT_EQ(agent.CountInLog("CloudEnable="), 1U);
    EXPECT_TRUE(agent.IsRunning());
    EXPECT_EQ(agent.End(), 0);
}

TEST(FreedPort, CanBeBoundAgainAtOnce)
{
    const TestPanel panel;
    std::vector<ManagementClient> clients;
    {
        Agent agent;
        clients.emplace_back();
        ASSERT_THAT(clients[0].Ask("Hello?"), IsGreeting());
        // The agent closes first, so the old connection stays in TIME_WAIT at its end.
        EXPECT_EQ(agent.End(), 0);
        EXPECT_TRUE(clients[0].IsClosedByPeer());
    }
    Agent agent;
    EXPECT_THAT(ManagementClient().Ask("Hello?"), IsGreeting());
}

TEST_F(Listener, WaitsForDescriptorsAndServesOpenSessions)
{
    std::vector<ManagementClient> clients;
    for (int i = 0; i < 3; ++i) {
        clients.emplace_back();
        ASSERT_EQ(clients.back().Login(panel::kController.Id, panel::kController.Password),
                  "LoginResponse?Result=0");
    }
    const std::set<int> open = OpenDescriptors(ProcessFile(agent_, ""));
    std::size_t limit = 0;
    while (open.count(static_cast<int>(limit)) != 0)
        ++limit;
    {
        // No number below the first free one is free.
        const SoftLimit noMore(agent_, "nofile", limit);
        ManagementClient late;
        late.SendLine("Hello?");
        EXPECT_TRUE(late.IsSilent(seconds(3)));
        for (ManagementClient &client : clients)
            EXPECT_EQ(client.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
        // No database can be opened meanwhile; the session goes on.
        EXPECT_EQ(clients[0].Ask("GetDoorInfo?DoorNo=1"), "GetDoorInfoResponse?Result=1");
        EXPECT_EQ(agent_.CountMessages("DataManager.cpp", "GetDoorInfo", "sqlite3_open fail"), 1U);

        // A session that ends frees a descriptor for the waiting client.
        clients.pop_back();
        EXPECT_TRUE(WaitUntil(
            [&] {
                for (const ManagementClient &client : clients)
                    client.SendLine("Heartbeat?");
                std::this_thread::sleep_for(milliseconds(500));
                return late.ReadLine(milliseconds(0)).has_value();
            },
            seconds(60)));
        EXPECT_EQ(OpenDescriptors(ProcessFile(agent_, "")), open);
    }
    EXPECT_THAT(LoggedIn().Ask("GetDoorInfo?DoorNo=1"), StartsWith("GetDoorInfoResponse?Result=0"));
}

TEST(ThreadShortage, ClosesNewConnectionsAndServesOpenSessions)
{
    const TestPanel panel;
    Agent agent(AsBoundUser());
    ManagementClient served = LoggedIn();
    const std::set<int> open = OpenDescriptors(ProcessFile(agent, ""));
    {
        const SoftLimit limit(agent, "nproc", 1);
        for (std::size_t i = 1; i <= 3; ++i) {
            ManagementClient refused;
            EXPECT_TRUE(refused.IsClosedByPeer());
            EXPECT_TRUE(
                agent.WaitForMessage("ClientWorker.cpp", "Start", "pthread_create fail", i));
            EXPECT_EQ(served.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
        }
        EXPECT_TRUE(WaitUntil([&] { return Counts(agent).size() == 7; }));
        std::vector<int> counts = Counts(agent);
        // The reaper may log before the accept thread logs the client.
        std::sort(counts.begin(), counts.end());
        EXPECT_THAT(counts, ElementsAre(1, 1, 1, 1, 2, 2, 2));
        EXPECT_EQ(OpenDescriptors(ProcessFile(agent, "")), open);
    }
    EXPECT_THAT(ManagementClient().Ask("Hello?"), IsGreeting());
    EXPECT_EQ(served.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    EXPECT_EQ(agent.End(), 0);
}

TEST_F(ListenerWithLongLog, SurvivesResetDuringAnswer)
{
    ManagementClient &other = LogIn();
    for (int i = 0; i < 3; ++i) {
        ManagementClient client = LoggedIn();
        client.SendLine("GetEventLogEx?Limit=100000");
        EXPECT_EQ(client.ReadLine(),
                  "GetEventLogExResponse?Result=0&Total=100000&Offset=0&Count=100000");
        EXPECT_EQ(client.ReadBytes(100000).size(), 100000U);
        client.Reset();
        EXPECT_EQ(other.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
    }
    EXPECT_TRUE(WaitUntil(
        [&] {
            EXPECT_EQ(other.Ask("Heartbeat?"), "HeartbeatResponse?Result=0");
            std::this_thread::sleep_for(milliseconds(200));
            return Counts(agent_).back() == 1;
        },
        seconds(60)));
    EXPECT_THAT(other.Ask("GetDoorInfo?DoorNo=1"), StartsWith("GetDoorInfoResponse?Result=0"));
    EXPECT_TRUE(agent_.IsRunning());
}

TEST_F(Listener, ChildrenInheritStandardDescriptorsOnly)
{
    // A command tool that writes its process id for the test and waits to be inspected.
    const fs::path tool = panel_.Paths().CommandTool;
    ManagementClient &client = LogIn();
    Connect();
    ASSERT_TRUE(agent_.WaitForLog("Client Count: 2"));
    ReplaceProgram(tool, "echo $$ >/nimbra/var/pid.new\nmv /nimbra/var/pid.new "
                         "/nimbra/var/pid\nwhile [ ! -e /nimbra/var/go ]; do sleep 0.05; done\n");
    client.SendLine("SetAuxOutput?Port=1&Control=1");
    ASSERT_TRUE(WaitUntil([] { return fs::exists("/nimbra/var/pid"); }));
    const fs::path child = "/proc/" + std::to_string(std::stoi(ReadFile("/nimbra/var/pid")));
    std::set<int> inherited;
    for (const int number : OpenDescriptors(child)) {
        // The shell has its script open.
        if (TargetOf(child / "fd" / std::to_string(number)) != tool)
            inherited.insert(number);
    }
    EXPECT_EQ(inherited, (std::set<int>{0, 1, 2}));
    WriteFile("/nimbra/var/go", "");
    EXPECT_EQ(client.ReadLine(), "SetAuxOutputResponse?Result=0");
}

TEST_F(ListenerWithLongLog, EveryDescriptorClosesOnExec)
{
    ManagementClient &client = LogIn();
    std::atomic<bool> isDone = false;
    // Searches the whole log without a match, so that the databases are open most of the time.
    std::thread reader([&] {
        while (!isDone)
            EXPECT_EQ(client.Ask("GetEventLogEx?UserName=nobody of that name"),
                      "GetEventLogExResponse?Result=1");
    });
    std::set<std::string> seen;
    std::set<std::string> inheritable;
    EXPECT_TRUE(WaitUntil([&] {
        for (const int number : OpenDescriptors(ProcessFile(agent_, ""))) {
            const std::string name = std::to_string(number);
            const std::string target = TargetOf(ProcessFile(agent_, "fd/" + name));
            const std::string info = ReadFile(ProcessFile(agent_, "fdinfo/" + name));
            const std::size_t flags = info.find("flags:");
            // Children inherit the standard descriptors; others may be closed by now.
            if (number <= STDERR_FILENO || target.empty() || flags == std::string::npos)
                continue;
            seen.insert(target.substr(0, target.find('[')));
            if ((std::stoul(info.substr(flags + 6), nullptr, 8) & O_CLOEXEC) == 0)
                inheritable.insert(target);
        }
        return seen.count("socket:") != 0 && seen.count("/tmp/NimbraDB/Nimbra.db") != 0 &&
               seen.count("/tmp/NimbraDB/NimbraLog.db") != 0;
    }));
    isDone = true;
    reader.join();
    EXPECT_EQ(inheritable, std::set<std::string>());
}

TEST_F(Listener, EachSessionHasStackOf256KiB)
{
    for (int i = 0; i < 5; ++i)
        ASSERT_THAT(Connect().Ask("Hello?"), IsGreeting());
    const std::vector<std::uint64_t> pointers = StackPointers(agent_);
    EXPECT_GE(pointers.size(), 5U);
    const MemoryMap memory(agent_);
    for (const std::uint64_t pointer : pointers) {
        EXPECT_GE(memory.SizeAt(pointer), std::uint64_t{256} * 1024);
        // Sanitizers need larger stacks.
        EXPECT_TRUE(kIsSanitized || memory.SizeAt(pointer) == std::uint64_t{256} * 1024)
            << memory.SizeAt(pointer);
    }
}

} // namespace nimbra::test
