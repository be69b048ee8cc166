#include "libnimbra-client/LineSocket.h"
#include "simulator/cloud/Relay.h"
#include "simulator/sandbox/SystemCall.h"
#include "support/Files.h"
#include "support/Program.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

// These tests run in a sandbox themselves, which is the machine that the sandboxes they start must
// leave untouched.
namespace nimbra::test {

namespace fs = std::filesystem;

namespace {

using ::testing::AnyOf;
using ::testing::HasSubstr;

constexpr char kSandbox[] = NIMBRA_SANDBOX_PATH;
constexpr char kContainer[] = NIMBRA_CONTAINER_PATH;

/// Runs a shell script in a sandbox.
ProgramResult Inside(const std::string &script)
{
    return RunProgram({kSandbox, "--", "sh", "-c", script});
}

/// The same with the sandbox program in sight, wherever it was built.
ProgramResult InsideWithSandbox(const std::string &script)
{
    return RunProgram(
        {kSandbox, "--keep", fs::path(kSandbox).parent_path(), "--", "sh", "-c", script});
}

/// Runs a shell script on the machine's real paths.
ProgramResult OnRealPaths(const std::string &script)
{
    return RunProgram({kSandbox, "--no-namespaces", "sh", "-c", script});
}

/// The same, and the sandbox is killed when the script has ended.
void KillOnRealPaths(const std::string &script)
{
    EXPECT_EQ(OnRealPaths(script + "; kill -9 $PPID; exec sleep 1000").Status, 137);
}

/// The sandbox program where everyone may run it, below the fresh /tmp or elsewhere.
std::string CopyTo(const fs::path &directory)
{
    fs::create_directories(directory);
    fs::copy_file(kSandbox, directory / "sandbox-copy", fs::copy_options::overwrite_existing);
    return directory / "sandbox-copy";
}

/// A machine without a panel, whose real paths are free.
class SandboxOnRealPaths : public ::testing::Test
{
protected:
    void SetUp() override
    {
        // Only in a private environment are the paths the test's own to remove.
        ASSERT_STREQ(std::getenv("NIMBRA_SANDBOX"), "namespaces");
        fs::remove_all("/nimbra");
        fs::remove_all("/tmp/NimbraDB");
    }
    void TearDown() override { fs::create_directory("/nimbra"); }
};

/// Starts a sandbox with a shell script whose first word of output is waited for.
class RunningSandbox
{
public:
    explicit RunningSandbox(const std::string &script)
    {
        sandbox::Pipe output = sandbox::MakePipe();
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(output.WriteEnd.Get(), STDOUT_FILENO);
            execl(kSandbox, kSandbox, "--", "sh", "-c", script.c_str(), nullptr);
            _exit(127);
        }
        output_ = std::move(output.ReadEnd);
    }

    /// Waits for output, or for its end: true when every process that could write has ended.
    [[nodiscard]] bool ReadSome() const
    {
        pollfd wait{output_.Get(), POLLIN, 0};
        char bytes[64];
        return poll(&wait, 1, static_cast<int>(kSoon.count())) == 1 &&
               read(output_.Get(), bytes, sizeof bytes) > 0;
    }
    [[nodiscard]] bool HasOutputEnded() const
    {
        pollfd wait{output_.Get(), POLLIN, 0};
        char bytes[64];
        return poll(&wait, 1, static_cast<int>(kSoon.count())) == 1 &&
               read(output_.Get(), bytes, sizeof bytes) == 0;
    }
    void Signal(int number) const { kill(pid_, number); }
    [[nodiscard]] int WaitStatus() const
    {
        int status = -1;
        waitpid(pid_, &status, 0);
        return status;
    }

private:
    pid_t pid_ = -1;
    Descriptor output_;
};

} // namespace

TEST(Sandbox, ReturnsTheExitStatusOfTheCommand)
{
    EXPECT_EQ(Inside("exit 0").Status, 0);
    EXPECT_EQ(Inside("exit 7").Status, 7);
    EXPECT_EQ(Inside("kill -9 $$").Status, 137);
}

TEST(Sandbox, ReportsACommandThatItCannotRun)
{
    const ProgramResult missing = RunProgram({kSandbox, "no-such-program"});
    EXPECT_EQ(missing.Status, 127);
    EXPECT_EQ(missing.Output, "nimbra-sandbox: no-such-program: command not found\n");
    WriteFile("/tmp/plain", "no program");
    EXPECT_EQ(RunProgram({kSandbox, "/tmp/plain"}).Status, 126);
    EXPECT_EQ(RunProgram({kSandbox}).Status, 125);
}

TEST(Sandbox, PassesArgumentsOnAsTheyAre)
{
    const ProgramResult result =
        RunProgram({kSandbox, "printf", "<%s>", "--keep", "a b", "", "--", "-h"});
    EXPECT_EQ(result.Output, "<--keep><a b><><--><-h>");
}

TEST(Sandbox, HasItsOwnEmptyTmpAndPanelDirectory)
{
    WriteFile("/tmp/outside", "x");
    WriteFile("/nimbra/outside", "x");
    const ProgramResult result = Inside("ls -A /nimbra; test ! -e /tmp/outside && touch /tmp/a "
                                        "/nimbra/b && mkdir /tmp/NimbraDB && echo fresh");
    EXPECT_EQ(result.Output, "fresh\n");
    EXPECT_FALSE(fs::exists("/tmp/a"));
    EXPECT_FALSE(fs::exists("/nimbra/b"));
    EXPECT_FALSE(fs::exists("/tmp/NimbraDB"));
    EXPECT_TRUE(fs::exists("/nimbra/outside"));
}

TEST(Sandbox, ShowsTheRestOfTheMachine)
{
    for (const char *path : {"/", "/usr/bin", "/dev", "/bin"})
        EXPECT_EQ(Inside("ls " + std::string(path)).Output, RunProgram({"ls", path}).Output)
            << path;
}

TEST(Sandbox, KeepsTheHostsFileOfTheMachineUnchanged)
{
    const std::string before = ReadFile("/etc/hosts");
    const ProgramResult result = Inside(
        "echo 10.9.8.7 cloud.nimbra.example > /etc/hosts; getent hosts cloud.nimbra.example");
    EXPECT_EQ(result.Output, "10.9.8.7        cloud.nimbra.example\n");
    EXPECT_EQ(ReadFile("/etc/hosts"), before);
}

TEST(Sandbox, FailsNameLookUpsAtOnce)
{
    const Stopwatch watch;
    EXPECT_EQ(Inside("getent hosts nowhere.nimbra.example").Status, 2);
    EXPECT_LT(watch.Seconds(), 4.0);
}

TEST(Sandbox, HasLoopbackAndAConnectedWiredInterface)
{
    const ProgramResult result = Inside("ip -o -4 addr show; ip -o link show eth0; ip route");
    EXPECT_THAT(result.Output, HasSubstr("127.0.0.1/8"));
    EXPECT_THAT(result.Output, HasSubstr("192.168.77.10/24"));
    EXPECT_THAT(result.Output, HasSubstr("00:1a:2b:3c:4d:5e"));
    EXPECT_THAT(result.Output, HasSubstr("state UP"));
    EXPECT_THAT(result.Output, HasSubstr("default via 192.168.77.20 dev eth0"));
}

TEST(Sandbox, RunsACommandOnTheSecondHost)
{
    const ProgramResult result = InsideWithSandbox(
        std::string(kSandbox) + " --peer ip -o -4 addr show; ip -o -4 addr show eth0");
    const std::size_t other = result.Output.find("192.168.77.20/24");
    const std::size_t own = result.Output.find("192.168.77.10/24");
    ASSERT_NE(own, std::string::npos) << result.Output;
    EXPECT_LT(other, own);
    EXPECT_EQ(result.Status, 0);
}

TEST(Sandbox, IsReachedFromTheSecondHost)
{
    const Descriptor listener = simulator::OpenListener(7777, simulator::ListenOn::AllAddresses);
    std::thread visitor([] {
        EXPECT_EQ(RunProgram({kSandbox, "--peer", "bash", "-c",
                              "echo greetings > /dev/tcp/192.168.77.10/7777"})
                      .Status,
                  0);
    });
    pollfd wait{listener.Get(), POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, static_cast<int>(kSoon.count())), 1);
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    LineSocket connection(Descriptor(
        accept4(listener.Get(), reinterpret_cast<sockaddr *>(&peer), &length, SOCK_CLOEXEC)));
    EXPECT_EQ(connection.ReadLine(SocketClock::now() + kSoon), "greetings");
    visitor.join();
    EXPECT_EQ(ntohl(peer.sin_addr.s_addr), 0xC0A84D14U) << "192.168.77.20";
}

TEST(Sandbox, FailsWithoutASecondHost)
{
    const ProgramResult result =
        RunProgram({"env", "-u", "NIMBRA_SECOND_HOST", kSandbox, "--peer", "true"});
    EXPECT_EQ(result.Status, 125);
    EXPECT_THAT(result.Output, HasSubstr("--peer works only inside"));
}

TEST(Sandbox, UsesTheNetworkOfTheMachineWithHostNetwork)
{
    const std::string own = fs::read_symlink("/proc/self/ns/net").string() + "\n";
    EXPECT_EQ(RunProgram({kSandbox, "--host-network", "readlink", "/proc/self/ns/net"}).Output,
              own);
    EXPECT_NE(Inside("readlink /proc/self/ns/net").Output, own);
}

TEST(Sandbox, RunsSideBySideWithOthers)
{
    const std::string sandbox = kSandbox;
    const ProgramResult result = InsideWithSandbox(
        "for i in 1 2 3 4 5 6; do " + sandbox +
        " sh -c 'echo '$i' > /nimbra/own; sleep 0.3; cat /nimbra/own; ip -br addr show eth0' & "
        "done | sort; wait");
    for (int i = 1; i <= 6; ++i)
        EXPECT_THAT(result.Output, HasSubstr(std::to_string(i) + "\n"));
    EXPECT_EQ(result.Status, 0);
}

TEST(Sandbox, KeepsAWorkingDirectoryBelowTmp)
{
    const std::string copy = CopyTo("/tmp/clone/build");
    WriteFile("/tmp/clone/source", "kept\n");
    WriteFile("/tmp/other", "hidden");
    const ProgramResult result =
        RunProgram({"sh", "-c",
                    "cd /tmp/clone && build/sandbox-copy sh -c 'pwd; cat source; ls /tmp; "
                    "echo back > written'"});
    EXPECT_EQ(result.Output, "/tmp/clone\nkept\nclone\n");
    EXPECT_EQ(ReadFile("/tmp/clone/written"), "back\n") << "the clone is the real one";

    EXPECT_EQ(RunProgram({"sh", "-c", "cd / && " + copy + " --keep /tmp/clone -- ls /tmp"}).Output,
              "clone\n");
    EXPECT_EQ(RunProgram({"sh", "-c", "cd / && " + copy + " -- ls /tmp"}).Output, "")
        << "nothing below /tmp is needed by this command";
    EXPECT_EQ(RunProgram({"sh", "-c", "cd /tmp && " + copy + " -- pwd"}).Output, "/tmp\n");
}

TEST(Sandbox, RunsAProgramInTmpItself)
{
    WriteFile("/tmp/program", "#!/bin/sh\nls /tmp\n");
    fs::permissions("/tmp/program", fs::perms(0755));
    EXPECT_EQ(RunProgram({"sh", "-c", "cd / && " + std::string(kSandbox) + " /tmp/program"}).Output,
              "program\n");
}

TEST(Sandbox, WorksForAUserWithoutRights)
{
    const std::string copy = CopyTo("/tmp/unprivileged");
    const ProgramResult result = RunUnprivileged({copy, "--", "sh", "-c",
                                                  "id -u; echo 10.1.1.1 name > /etc/hosts && touch "
                                                  "/nimbra/a /tmp/b && ip -br addr show eth0;"
                                                  " readlink /proc/self/ns/user"});
    EXPECT_EQ(result.Status, 0) << result.Output;
    EXPECT_EQ(result.Output.substr(0, 2), "0\n");
    EXPECT_THAT(result.Output, HasSubstr("192.168.77.10/24"));
    EXPECT_FALSE(fs::exists("/tmp/b"));
}

TEST(Sandbox, EndsTheCommandWhenItIsKilled)
{
    const RunningSandbox sandbox("echo up; exec sleep 1000");
    ASSERT_TRUE(sandbox.ReadSome());
    sandbox.Signal(SIGKILL);
    EXPECT_TRUE(sandbox.HasOutputEnded()) << "the command lives on";
    EXPECT_EQ(sandbox.WaitStatus(), SIGKILL);
}

TEST(Sandbox, PassesSignalsOnToTheCommand)
{
    const RunningSandbox sandbox("trap 'exit 3' TERM; echo up; while :; do sleep 0.05; done");
    ASSERT_TRUE(sandbox.ReadSome());
    sandbox.Signal(SIGTERM);
    const int status = sandbox.WaitStatus();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST_F(SandboxOnRealPaths, RestoresTheMachineAfterTheCommand)
{
    const std::string hosts = ReadFile("/etc/hosts");
    const std::string before = RunProgram({"ls", "-A", "/tmp"}).Output;
    const ProgramResult result =
        OnRealPaths("echo $NIMBRA_SANDBOX; ls -d /nimbra; mkdir /tmp/NimbraDB; "
                    "touch /nimbra/a /tmp/NimbraDB/b; echo 10.1.1.1 x > /etc/hosts; exit 4");
    EXPECT_EQ(result.Status, 4);
    EXPECT_EQ(result.Output, "real\n/nimbra\n");
    EXPECT_FALSE(fs::exists("/nimbra"));
    EXPECT_FALSE(fs::exists("/tmp/NimbraDB"));
    EXPECT_EQ(ReadFile("/etc/hosts"), hosts);
    EXPECT_EQ(RunProgram({"ls", "-A", "/tmp"}).Output, before);
}

TEST_F(SandboxOnRealPaths, FailsWhenTheyAreInUse)
{
    for (const char *path : {"/nimbra", "/tmp/NimbraDB"}) {
        fs::create_directory(path);
        WriteFile(std::string(path) + "/precious", "x");
        const ProgramResult result = OnRealPaths("echo ran");
        EXPECT_EQ(result.Status, 125);
        EXPECT_EQ(result.Output,
                  "nimbra-sandbox: no private environment (not wanted), and the real " +
                      std::string(path) + " is in use\n");
        EXPECT_TRUE(fs::exists(std::string(path) + "/precious"));
        fs::remove_all(path);
    }
}

TEST_F(SandboxOnRealPaths, RunsOneCommandAtATime)
{
    const std::string turn = std::string(kSandbox) +
                             " --no-namespaces sh -c 'mkdir /nimbra/alone && sleep 0.2 && echo ok'";
    const ProgramResult result =
        RunProgram({"sh", "-c", turn + " & " + turn + " & " + turn + " & wait"});
    EXPECT_EQ(result.Output, "ok\nok\nok\n");
    EXPECT_FALSE(fs::exists("/nimbra"));
}

TEST_F(SandboxOnRealPaths, EndsProcessesThatTheCommandLeaves)
{
    const ProgramResult result =
        OnRealPaths("setsid sh -c 'echo $$ > /tmp/left; exec sleep 1000' >/dev/null 2>&1 & "
                    "while ! test -s /tmp/left; do sleep 0.01; done");
    EXPECT_EQ(result.Status, 0) << result.Output;
    const int left = std::stoi(ReadFile("/tmp/left"));
    EXPECT_EQ(kill(left, 0), -1);
}

TEST_F(SandboxOnRealPaths, CleansUpAfterAHolderThatWasKilled)
{
    const std::string hosts = ReadFile("/etc/hosts");
    KillOnRealPaths("mkdir /tmp/NimbraDB; echo 10.1.1.1 x > /etc/hosts");
    ASSERT_TRUE(fs::exists("/tmp/NimbraDB"));
    const ProgramResult next = OnRealPaths("test ! -e /tmp/NimbraDB && cat /etc/hosts");
    EXPECT_EQ(next.Status, 0);
    EXPECT_EQ(next.Output, hosts);
    EXPECT_FALSE(fs::exists("/nimbra"));
}

TEST_F(SandboxOnRealPaths, EndsProcessesOfAHolderThatWasKilled)
{
    KillOnRealPaths("setsid sleep 1000 >/dev/null 2>&1 & echo $! > /tmp/left");
    const std::string environment =
        "/proc/" + std::to_string(std::stoi(ReadFile("/tmp/left"))) + "/environ";
    EXPECT_NE(ReadFile(environment), "");
    EXPECT_EQ(OnRealPaths("echo ran").Output, "ran\n");
    EXPECT_EQ(ReadFile(environment), "") << "the process lives on";
}

TEST_F(SandboxOnRealPaths, RestoresTheMachineAfterKillsAtAnyTime)
{
    const std::string hosts = ReadFile("/etc/hosts");
    const std::string list = "ls -A / /tmp";
    const std::string before = RunProgram({"sh", "-c", list}).Output;
    for (int delay = 500; delay < 20'000; delay += 500) {
        const ProgramResult killed =
            RunProgram({"timeout", "--foreground", "--signal=KILL", std::to_string(delay) + "e-6",
                        kSandbox, "--no-namespaces", "sh", "-c", "echo 10.1.1.1 x > /etc/hosts"});
        // 124: the command ended just when the time was over.
        EXPECT_THAT(killed.Status, AnyOf(0, 124, 137)) << killed.Output;
    }
    const ProgramResult last = OnRealPaths("cat /etc/hosts");
    EXPECT_EQ(last.Status, 0);
    EXPECT_EQ(last.Output, hosts);
    EXPECT_EQ(RunProgram({"sh", "-c", list}).Output, before);
}

TEST_F(SandboxOnRealPaths, LeavesWhatOthersMadeAfterAHolderWasKilled)
{
    for (const std::string path : {"/nimbra", "/tmp/NimbraDB"}) {
        KillOnRealPaths("mkdir /tmp/NimbraDB");
        fs::remove_all("/nimbra");
        fs::remove_all("/tmp/NimbraDB");
        fs::create_directory(path);
        WriteFile(path + "/precious", "x");
        for (int run = 0; run < 2; ++run) {
            EXPECT_EQ(OnRealPaths("echo ran").Output,
                      "nimbra-sandbox: no private environment (not wanted), and the real " + path +
                          " is in use\n");
            EXPECT_TRUE(fs::exists(path + "/precious"));
        }
        fs::remove_all(path);
    }
}

TEST_F(SandboxOnRealPaths, AreCleanedUpOnceThatIsPossible)
{
    // The mount hides /etc, whose disk the command fills.
    const ProgramResult hosts = RunProgram(
        {"unshare", "--mount", "sh", "-c",
         "mount -t tmpfs -o size=8k none /etc && echo 10.1.1.1 own > /etc/hosts && "
         "{ \"$1\" --no-namespaces sh -c ': > /etc/hosts; head -c 8k /dev/zero > /etc/full'; "
         "\"$1\" --no-namespaces echo ran; rm /etc/full; \"$1\" --no-namespaces cat /etc/hosts; }",
         "sh", kSandbox});
    const std::string cannot = "/etc/hosts cannot be restored; /tmp/.nimbra-sandbox holds it from "
                               "the third line on\n";
    EXPECT_EQ(hosts.Output, "nimbra-sandbox: " + cannot +
                                "nimbra-sandbox: no private environment (not wanted), and " +
                                cannot + "10.1.1.1 own\n");

    const ProgramResult paths = RunProgram(
        {"unshare", "--mount", "sh", "-c",
         "\"$1\" --no-namespaces sh -c 'mkdir /nimbra/held; mount -t tmpfs none /nimbra/held'; "
         "\"$1\" --no-namespaces echo ran; umount /nimbra/held; \"$1\" --no-namespaces echo ran",
         "sh", kSandbox});
    const std::string busy = "the real paths cannot be removed: Device or resource busy\n";
    EXPECT_EQ(paths.Output, "nimbra-sandbox: " + busy +
                                "nimbra-sandbox: no private environment (not wanted), and " + busy +
                                "ran\n");
    EXPECT_FALSE(fs::exists("/nimbra"));
}

TEST(Container, LeavesTheUsualCapabilities)
{
    EXPECT_EQ(RunProgram({kContainer, "grep", "CapEff", "/proc/self/status"}).Output,
              "CapEff:\t00000000a80425fb\n");
}

TEST(Container, RefusesNamespacesAndMounts)
{
    fs::create_directory("/tmp/place");
    const std::vector<std::vector<std::string>> commands = {
        {"unshare", "--mount", "true"},
        {"unshare", "--user", "true"},
        {"nsenter", "--net=/proc/self/ns/net", "true"},
        {"mount", "-t", "tmpfs", "none", "/tmp/place"}};
    for (const std::vector<std::string> &command : commands) {
        EXPECT_EQ(RunProgram(command).Status, 0) << command[0];
        std::vector<std::string> refused = {kContainer};
        refused.insert(refused.end(), command.begin(), command.end());
        EXPECT_NE(RunProgram(refused).Status, 0) << command[0];
    }
}

TEST(Sandbox, ReportsThatCommandsRunInAPrivateEnvironment)
{
    const ProgramResult result = RunProgram({kSandbox, "--check"});
    EXPECT_EQ(result.Status, 0);
    EXPECT_EQ(result.Output, "Commands run in a private environment.\n");
}

TEST_F(SandboxOnRealPaths, RunsCommandsInAContainer)
{
    const ProgramResult check = RunProgram({kContainer, kSandbox, "--check"});
    EXPECT_EQ(check.Status, 1);
    EXPECT_EQ(check.Output, "This machine refuses a private environment (user namespace: Operation "
                            "not permitted): commands run on its real paths and network, one at a "
                            "time.\n");
    const ProgramResult result =
        RunProgram({kContainer, kSandbox, "sh", "-c", "echo $NIMBRA_SANDBOX; touch /nimbra/a"});
    EXPECT_EQ(result.Status, 0);
    EXPECT_EQ(result.Output,
              "nimbra-sandbox: no private environment (user namespace: Operation not "
              "permitted): the command uses the real paths and network of this "
              "machine\nreal\n");
    EXPECT_FALSE(fs::exists("/nimbra"));
}

TEST_F(SandboxOnRealPaths, LeaveNoHostsFileWhereThereWasNone)
{
    // The mount hides /etc, and with it the environment's own hosts file, which cannot be removed.
    const ProgramResult result = RunProgram(
        {"unshare", "--mount", "sh", "-c",
         "mount -t tmpfs none /etc && \"$1\" --no-namespaces sh -c 'echo 10.1.1.1 x > /etc/hosts' "
         "&& ls -A /etc",
         "sh", kSandbox});
    EXPECT_EQ(result.Status, 0);
    EXPECT_EQ(result.Output, "");
}

TEST_F(SandboxOnRealPaths, AreRefusedToAUserInAContainerInOneLine)
{
    const std::string copy = CopyTo("/tmp/unprivileged");
    for (const char *argument : {"--check", "true"}) {
        const ProgramResult result =
            RunProgram({kContainer, "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                        copy, argument});
        EXPECT_EQ(result.Status, 125);
        EXPECT_EQ(result.Output,
                  "nimbra-sandbox: no private environment (user namespace: Operation not "
                  "permitted), and only root may use the real paths\n");
    }
}

TEST_F(SandboxOnRealPaths, ReportsThatTheyAreInUse)
{
    fs::create_directory("/tmp/NimbraDB");
    const ProgramResult result = RunProgram({kContainer, kSandbox, "--check"});
    EXPECT_EQ(result.Status, 125);
    EXPECT_EQ(result.Output,
              "nimbra-sandbox: no private environment (user namespace: Operation not "
              "permitted), and the real /tmp/NimbraDB is in use\n");
    fs::remove("/tmp/NimbraDB");
}

TEST_F(SandboxOnRealPaths, FailsForAUserWithoutRights)
{
    // In a user namespace without any mapping nobody is root.
    const ProgramResult result =
        RunProgram({"unshare", "--user", kSandbox, "--no-namespaces", "echo", "ran"});
    EXPECT_EQ(result.Status, 125);
    EXPECT_EQ(result.Output,
              "nimbra-sandbox: no private environment (not wanted), and only root may use "
              "the real paths\n");
}

} // namespace nimbra::test
