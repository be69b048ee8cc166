#pragma once

#include "base/Descriptor.h"

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace nimbra::test {

/// The parts of one line of the log.
struct LogLine
{
    long Time = 0;
    std::string Source;
    int Line = 0;
    std::string Method;
    std::string Message;
};

/// Shows a line in the messages of failed assertions.
void PrintTo(const LogLine &line, std::ostream *stream);

/// Captures the standard output of the process during its lifetime. One object at a time.
class CapturedOutput
{
public:
    CapturedOutput();
    ~CapturedOutput();
    CapturedOutput(const CapturedOutput &) = delete;
    CapturedOutput &operator=(const CapturedOutput &) = delete;

    /// The output so far.
    [[nodiscard]] std::string Text() const;
    /// The output so far as log lines. Fails the test if a line is not in their format.
    [[nodiscard]] std::vector<LogLine> Log() const;
    /// Only the messages of the log lines.
    [[nodiscard]] std::vector<std::string> Messages() const;

private:
    Descriptor file_;
    Descriptor output_;
};

} // namespace nimbra::test
