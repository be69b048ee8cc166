#pragma once

#include <gmock/gmock.h>

namespace nimbra::test {

/// The answer to "Hello?": a key of up to ten digits.
inline auto IsGreeting()
{
    return ::testing::MatchesRegex(R"(HelloResponse\?Result=0&Key=[0-9]{1,10})");
}

} // namespace nimbra::test
