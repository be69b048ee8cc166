// Words for a shell command line: whatever their bytes, the shell reads each as one argument that
// equals the text. Checked by a model of the shell's quoting and by a real sh.

#include "data/Shell.h"
#include "fuzz/Finding.h"
#include "fuzz/ShellModel.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <spawn.h>
#include <unistd.h>

namespace nimbra::fuzz {
namespace {

/// A shell process that parses one line after the other and returns the arguments.
class Shell
{
public:
    Shell()
    {
        int input[2];
        int output[2];
        Require(pipe(input) == 0 && pipe(output) == 0, "pipes to the shell");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        for (const int end : {input[0], input[1], output[0], output[1]})
            posix_spawn_file_actions_addclose(&actions, end);
        char name[] = "sh";
        char *arguments[] = {name, nullptr};
        pid_t child = 0;
        Require(posix_spawn(&child, "/bin/sh", &actions, nullptr, arguments, environ) == 0,
                "the shell does not start");
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        close(output[1]);
        toShell_ = input[1];
        fromShell_ = output[0];
    }

    std::vector<std::string> Words(const std::string &line)
    {
        const std::string command = "set -- " + line + "\nprintf '%s\\0' \"$#\" \"$@\"\n";
        Require(TEMP_FAILURE_RETRY(write(toShell_, command.data(), command.size())) ==
                    static_cast<ssize_t>(command.size()),
                "write to the shell");
        const std::string count = NextText();
        std::vector<std::string> words;
        while (words.size() < std::stoul(count))
            words.push_back(NextText());
        return words;
    }

private:
    std::string NextText()
    {
        std::size_t end = 0;
        while ((end = pending_.find('\0')) == std::string::npos) {
            char bytes[4096];
            // If the shell waits for the end of a word, this waits too, and the fuzzer's time
            // limit reports it. The fuzzer's alarms interrupt the call.
            const ssize_t count = TEMP_FAILURE_RETRY(read(fromShell_, bytes, sizeof bytes));
            Require(count > 0, "the shell has ended");
            pending_.append(bytes, static_cast<std::size_t>(count));
        }
        const std::string text = pending_.substr(0, end);
        pending_.erase(0, end + 1);
        return text;
    }

    int toShell_ = 0;
    int fromShell_ = 0;
    std::string pending_;
};

void RequireWords(std::string_view what, const std::vector<std::string> &expected,
                  const std::vector<std::string> &got)
{
    RequireEqual(what, static_cast<long long>(expected.size()), static_cast<long long>(got.size()));
    for (std::size_t i = 0; i < expected.size(); ++i)
        RequireEqual(what, expected[i], got[i]);
}

} // namespace
} // namespace nimbra::fuzz

/// The input is two texts, separated by the first line feed.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace nimbra::fuzz;
    const std::string input(reinterpret_cast<const char *>(data), size);
    // No text of the agent holds a zero byte.
    if (input.find('\0') != std::string::npos)
        return -1;
    const std::size_t end = input.find('\n');
    const std::string first = input.substr(0, end);
    const std::string second = end == std::string::npos ? "" : input.substr(end + 1);
    const std::string line = nimbra::ShellWord(first) + " 0 " + nimbra::ShellWord(second);
    const std::vector<std::string> expected = {first, "0", second};
    RequireWords("words by the model", expected, ShellWords(line));
    static Shell shell;
    RequireWords("words by the shell", expected, shell.Words(line));
    return 0;
}
