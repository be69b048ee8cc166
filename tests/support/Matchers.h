#pragma once

#include "base/Log.h"
#include "support/CapturedOutput.h"

#include <gmock/gmock.h>

#include <string>

namespace nimbra::test {

/// The answer to "Hello?": a key of up to ten digits.
inline auto IsGreeting()
{
    return ::testing::MatchesRegex(R"(HelloResponse\?Result=0&Key=[0-9]{1,10})");
}

/// A LogLine of this source and method, of any line number.
inline auto IsLogLine(const std::string &source, const std::string &method,
                      const std::string &message)
{
    return ::testing::AllOf(::testing::Field("Source", &LogLine::Source, source),
                            ::testing::Field("Method", &LogLine::Method, method),
                            ::testing::Field("Message", &LogLine::Message, message));
}

/// A LogLine of this place in the sources.
inline auto IsLogLine(const LogSite &site, const std::string &message)
{
    return ::testing::AllOf(IsLogLine(site.Source, std::string(site.Method), message),
                            ::testing::Field("Line", &LogLine::Line, site.Line));
}

} // namespace nimbra::test
