#include "support/DocExamples.h"

#include <algorithm>
#include <istream>
#include <iterator>
#include <map>
#include <string_view>
#include <utility>

namespace nimbra::test {

namespace {

constexpr std::string_view kMarker = "```";

std::string KindOf(const Example &example)
{
    return example.Info.substr(0, example.Info.find(' '));
}

/// The letters and digits of a heading in upper camel case: "Local time in" becomes LocalTimeIn.
std::string TestNameOf(const std::string &heading)
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

std::vector<Example> ReadExamples(std::istream &document)
{
    std::vector<Example> examples;
    std::string heading;
    bool isInBlock = false;
    int number = 0;
    for (std::string line; std::getline(document, line);) {
        ++number;
        if (line.starts_with(kMarker)) {
            isInBlock = !isInBlock;
            if (isInBlock)
                examples.push_back({line.substr(kMarker.size()), heading, "", number, {}});
        } else if (isInBlock) {
            examples.back().Lines.push_back(line);
        } else if (line.starts_with('#')) {
            heading = line.substr(std::min(line.find_first_not_of("# "), line.size()));
        }
    }
    if (isInBlock)
        examples.back().Info = "unclosed";
    std::map<std::string, int> counts;
    for (Example &example : examples) {
        example.Name = TestNameOf(example.Heading);
        const int count = ++counts[KindOf(example) + ' ' + example.Name];
        if (count > 1)
            example.Name += "_" + std::to_string(count);
    }
    return examples;
}

std::vector<Example> ExamplesOf(const std::vector<Example> &examples, const std::string &kind)
{
    std::vector<Example> found;
    std::ranges::copy_if(examples, std::back_inserter(found),
                         [&kind](const Example &example) { return KindOf(example) == kind; });
    return found;
}

} // namespace nimbra::test
