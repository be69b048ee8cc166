#pragma once

#include <string>
#include <string_view>

namespace nimbra::client {

/// Returns the meaning of a result code of the command `word` ("GetDoorInfo") as one sentence. An
/// unknown command or code has a general sentence. Any thread.
[[nodiscard]] std::string ResultMessage(std::string_view word, int result);

} // namespace nimbra::client
