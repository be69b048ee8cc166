#pragma once

#include <string>
#include <string_view>

namespace nimbra {

/// `text` as one word of a shell command line: unchanged when it holds only letters, digits and
/// ". _ @ : + -", otherwise (also when empty) in single quotes, so that the shell passes the same
/// bytes on and runs nothing of them. Any thread.
[[nodiscard]] std::string ShellWord(std::string_view text);

/// Runs a command line through the shell and waits for it; how it ends is of no interest. Any
/// thread; the command inherits no descriptor but the standard ones.
void RunCommand(const char *line);

} // namespace nimbra
