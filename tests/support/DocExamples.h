#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace nimbra::test {

/// A fenced block of a document.
struct Example
{
    std::string Fence;   ///< what stands behind its opening fence: "conversation anonymous"
    std::string Heading; ///< the one that it stands below
    std::string Name;    ///< the heading as a name for a test; with a number if it is not the first
    int Line = 0;        ///< of the opening fence, from 1
    std::vector<std::string> Lines;
};

/// Every fenced block of a Markdown document, in its order. A block whose fence is never closed
/// reaches to the end and has "unclosed" for its fence.
[[nodiscard]] std::vector<Example> ReadBook(std::istream &document);

/// Those whose fence begins with this word.
[[nodiscard]] std::vector<Example> ExamplesOf(const std::vector<Example> &book,
                                              const std::string &word);

} // namespace nimbra::test
