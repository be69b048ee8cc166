#include "data/Shell.h"

#include <cstdlib>

namespace nimbra {

namespace {

constexpr std::string_view kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                    "0123456789._@:+-";

} // namespace

std::string ShellWord(std::string_view text)
{
    if (!text.empty() && text.find_first_not_of(kPlain) == std::string_view::npos)
        return std::string(text);
    std::string word = "'";
    for (const char c : text) {
        if (c == '\'')
            word += "'\\''";
        else
            word += c;
    }
    return word + "'";
}

void RunCommand(const char *line)
{
    [[maybe_unused]] const int status = std::system(line);
}

} // namespace nimbra
