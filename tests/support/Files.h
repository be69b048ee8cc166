#pragma once

#include <string>

namespace nimbra::test {

/// Returns the content of a file; empty if it cannot be read.
[[nodiscard]] std::string ReadFile(const std::string &path);

/// Writes a file in place, so that a bind mount over it stays.
void WriteFile(const std::string &path, const std::string &content);

/// Adds a line to /etc/hosts: `name` then resolves to `address`.
void NameHost(const std::string &address, const std::string &name);

} // namespace nimbra::test
