#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace nimbra::test {

/// A code block of a Markdown document.
struct Example
{
    std::string Info;    ///< the text after its opening ```: "conversation anonymous"
    std::string Heading; ///< the heading that it belongs to
    std::string Name;    ///< the heading as a test name, numbered from the second block on
    int Line = 0;        ///< of its opening ```, counted from 1
    std::vector<std::string> Lines;
};

/// Returns every code block of a Markdown document, in order. A block that is never closed extends
/// to the end and has "unclosed" as its Info.
[[nodiscard]] std::vector<Example> ReadExamples(std::istream &document);

/// Returns the examples whose Info starts with the word `kind`.
[[nodiscard]] std::vector<Example> ExamplesOf(const std::vector<Example> &examples,
                                              const std::string &kind);

} // namespace nimbra::test
