#pragma once

#include <string>
#include <string_view>

namespace nimbra::client {

/// What a result code of a command means, as one plain sentence.
[[nodiscard]] std::string MeaningOf(std::string_view word, int result);

} // namespace nimbra::client
