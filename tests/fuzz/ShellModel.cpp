#include "fuzz/ShellModel.h"

#include "fuzz/Finding.h"

namespace nimbra::fuzz {

namespace {

/// Whether no shell interprets the byte outside quotes.
bool IsPlain(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("._@:+-/").find(c) != std::string_view::npos;
}

} // namespace

std::vector<std::string> ShellWords(std::string_view line)
{
    std::vector<std::string> words;
    bool isInWord = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == ' ') {
            isInWord = false;
            continue;
        }
        if (!isInWord)
            words.emplace_back();
        isInWord = true;
        if (line[i] == '\'') {
            const std::size_t end = line.find('\'', i + 1);
            Require(end != std::string_view::npos, "a quotation that does not end");
            words.back() += line.substr(i + 1, end - i - 1);
            i = end;
        } else if (line.substr(i, 2) == "\\'") {
            words.back() += line[++i];
        } else {
            Require(IsPlain(line[i]), "a byte that the shell may interpret");
            words.back() += line[i];
        }
    }
    return words;
}

} // namespace nimbra::fuzz
