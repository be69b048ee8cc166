#include "nimbractl/SplitWords.h"

#include "nimbractl/Errors.h"

namespace nimbra::ctl {

std::vector<std::string> SplitWords(const std::string &line)
{
    std::vector<std::string> words;
    bool isInWord = false;
    char quote = '\0';
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quote == '\0' && (c == ' ' || c == '\t')) {
            isInWord = false;
            continue;
        }
        if (!isInWord)
            words.emplace_back();
        isInWord = true;
        if (c == quote)
            quote = '\0';
        else if (quote == '\0' && (c == '\'' || c == '"'))
            quote = c;
        else if (c == '\\' && quote != '\'' && i + 1 < line.size())
            words.back() += line[++i];
        else
            words.back() += c;
    }
    if (quote != '\0')
        throw WrongUsage(std::string("The line lacks the closing ") + quote + ".");
    return words;
}

} // namespace nimbra::ctl
