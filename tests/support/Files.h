#pragma once

#include <string>

namespace nimbra::test {

/// The whole content of a file; empty when it cannot be read.
[[nodiscard]] std::string ReadFile(const std::string &path);

/// Writes a file in place, so that a file bound over another one is changed too.
void WriteFile(const std::string &path, const std::string &content);

/// Adds a line to /etc/hosts: `name` then stands for `address`.
void NameHost(const std::string &address, const std::string &name);

} // namespace nimbra::test
