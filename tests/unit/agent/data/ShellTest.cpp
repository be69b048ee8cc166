#include "data/Shell.h"

#include "support/Files.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace nimbra {
namespace {

using test::TemporaryDirectory;
using Texts = std::vector<std::string>;

struct PipeCloser
{
    void operator()(std::FILE *pipe) const { pclose(pipe); }
};

/// The words that a shell reads from the quoted texts.
Texts ThroughShell(const Texts &texts)
{
    std::string line = R"(printf '%s\0')";
    for (const std::string &text : texts)
        line += " " + ShellWord(text);
    const std::unique_ptr<std::FILE, PipeCloser> pipe(popen(line.c_str(), "re"));
    Texts words;
    std::string word;
    for (int c = 0; pipe != nullptr && (c = std::getc(pipe.get())) != EOF;) {
        if (c != '\0') {
            word += static_cast<char>(c);
            continue;
        }
        words.push_back(word);
        word.clear();
    }
    EXPECT_EQ(word, "");
    return words;
}

TEST(Shell, LeavesPlainWordsUnchanged)
{
    for (const char *text :
         {"admin", "192.168.1.20", "user@host", "a_b", "a:b", "a+b", "a-b", "-n", "ABCxyz019", "."})
        EXPECT_EQ(ShellWord(text), text);
}

TEST(Shell, QuotesEveryOtherByte)
{
    constexpr std::string_view kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                        "0123456789._@:+-";
    for (int byte = 1; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        const bool isPlain = kPlain.find(text) != std::string_view::npos;
        if (text != "'") {
            EXPECT_EQ(ShellWord(text), isPlain ? text : "'" + text + "'");
        }
    }
}

TEST(Shell, QuotesEmptyText)
{
    EXPECT_EQ(ShellWord(""), "''");
}

TEST(Shell, EscapesSingleQuote)
{
    EXPECT_EQ(ShellWord("'"), R"(''\''')");
    EXPECT_EQ(ShellWord("O'Brien"), R"('O'\''Brien')");
    EXPECT_EQ(ShellWord("''"), R"(''\'''\''')");
}

TEST(Shell, QuotesWholeTextForOneSpecialByte)
{
    EXPECT_EQ(ShellWord("a b"), "'a b'");
    EXPECT_EQ(ShellWord("$(id)"), "'$(id)'");
}

TEST(Shell, PassesHostileTextsAsOneWordEach)
{
    const TemporaryDirectory directory;
    const std::string mark = directory.Path("mark");
    const Texts texts = {"",
                         " ",
                         "a b",
                         "'",
                         "''",
                         "'''",
                         "\\",
                         "\\'",
                         "'\\''",
                         "\"",
                         "`touch " + mark + "`",
                         "$(touch " + mark + ")",
                         "'; touch " + mark + "; '",
                         "x; touch " + mark,
                         "x\ntouch " + mark + "\n",
                         "| touch " + mark,
                         "& touch " + mark + " &",
                         "> " + mark,
                         "$HOME",
                         "${PATH}",
                         "~",
                         "~root",
                         "*",
                         "/*",
                         "?",
                         "[a-z]",
                         "{a,b}",
                         "#comment",
                         "!",
                         "!!",
                         "=",
                         "a=b",
                         "\t",
                         "\n",
                         "\r",
                         "\x01\x7f\x80\xff",
                         "\xc3\xa9",
                         "%s%n",
                         "-",
                         "--",
                         "-n",
                         std::string(1000, '\'')};
    EXPECT_EQ(ThroughShell(texts), texts);
    EXPECT_NE(access(mark.c_str(), F_OK), 0);
}

TEST(Shell, PassesEverySingleByteUnchanged)
{
    Texts texts;
    for (int byte = 1; byte < 256; ++byte)
        texts.push_back({static_cast<char>(byte)});
    EXPECT_EQ(ThroughShell(texts), texts);
}

TEST(Shell, PassesRandomTextsUnchanged)
{
    std::mt19937 random(815);
    constexpr std::string_view kSpecial = "''''\\\"`$;&|<>(){}[]*?~#! \t\n\r=%-ab1";
    for (int batch = 0; batch < 20; ++batch) {
        Texts texts;
        for (int i = 0; i < 50; ++i) {
            std::string text(random() % 40, '\0');
            for (char &c : text)
                c = random() % 3 == 0 ? static_cast<char>(1 + random() % 255)
                                      : kSpecial[random() % kSpecial.size()];
            texts.push_back(text);
        }
        ASSERT_EQ(ThroughShell(texts), texts);
    }
}

TEST(Shell, WaitsForEndOfCommand)
{
    const TemporaryDirectory directory;
    const std::string file = directory.Path("done");
    RunCommand(("sleep 0.3; printf done > " + ShellWord(file)).c_str());
    EXPECT_EQ(test::ReadFile(file), "done");
}

TEST(Shell, IgnoresFailureOfCommand)
{
    const TemporaryDirectory directory;
    const std::string file = directory.Path("done");
    RunCommand("exit 7");
    RunCommand("kill -9 $$");
    RunCommand((directory.Path("no-such-command") + " 2> /dev/null").c_str());
    RunCommand("");
    RunCommand(("printf done > " + ShellWord(file)).c_str());
    EXPECT_EQ(test::ReadFile(file), "done");
}

} // namespace
} // namespace nimbra
