#pragma once

#include "base/Descriptor.h"

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

/// Takes down what the process prints on standard output while the object lives; one at a time.
class CapturedOutput
{
public:
    CapturedOutput();
    ~CapturedOutput();
    CapturedOutput(const CapturedOutput &) = delete;
    CapturedOutput &operator=(const CapturedOutput &) = delete;

    /// Everything so far.
    [[nodiscard]] std::string Text() const;
    /// Everything so far as lines of the log; fails the test when one is not of their form.
    [[nodiscard]] std::vector<LogLine> Log() const;
    /// The messages alone.
    [[nodiscard]] std::vector<std::string> Messages() const;

private:
    Descriptor file_;
    Descriptor output_;
};

} // namespace nimbra::test
