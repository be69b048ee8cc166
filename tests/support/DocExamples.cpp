#include "support/DocExamples.h"

#include <algorithm>
#include <istream>
#include <iterator>
#include <map>
#include <utility>

namespace nimbra::test {

namespace {

constexpr char kFence[] = "```";

bool BeginsWith(const std::string &text, const std::string &beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

std::string WordOf(const std::string &fence)
{
    return fence.substr(0, fence.find(' '));
}

/// The letters and digits of a heading, each word with a capital: "Local time in" is LocalTimeIn.
std::string NameOf(const std::string &heading)
{
    std::string name;
    bool isInWord = false;
    for (const char letter : heading) {
        const bool isSmall = letter >= 'a' && letter <= 'z';
        const bool isOther =
            (letter >= 'A' && letter <= 'Z') || (letter >= '0' && letter <= '9' && !name.empty());
        if (isSmall || isOther)
            name += isSmall && !isInWord ? static_cast<char>(letter - 'a' + 'A') : letter;
        isInWord = isSmall || isOther;
    }
    return name;
}

} // namespace

std::vector<Example> ReadBook(std::istream &document)
{
    std::vector<Example> book;
    std::map<std::string, int> found;
    std::string heading;
    bool isInside = false;
    int number = 0;
    for (std::string line; std::getline(document, line);) {
        ++number;
        const bool isFence = BeginsWith(line, kFence);
        if (isInside && !isFence) {
            book.back().Lines.push_back(line);
        } else if (isFence) {
            isInside = !isInside;
            if (isInside)
                book.push_back({line.substr(sizeof kFence - 1), heading, "", number, {}});
        } else if (BeginsWith(line, "#")) {
            heading = line.substr(std::min(line.find_first_not_of("# "), line.size()));
        }
    }
    if (isInside)
        book.back().Fence = "unclosed";
    for (Example &example : book) {
        example.Name = NameOf(example.Heading);
        const int count = ++found[WordOf(example.Fence) + ' ' + example.Name];
        if (count > 1)
            example.Name += "_" + std::to_string(count);
    }
    return book;
}

std::vector<Example> ExamplesOf(const std::vector<Example> &book, const std::string &word)
{
    std::vector<Example> examples;
    std::copy_if(book.begin(), book.end(), std::back_inserter(examples),
                 [&word](const Example &example) { return WordOf(example.Fence) == word; });
    return examples;
}

} // namespace nimbra::test
