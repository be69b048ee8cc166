#pragma once

#include <cstddef>
#include <string>

namespace nimbra::ctl {

// Texts are UTF-8. The widths are those of the locale's character set; main() sets it. Any thread.

/// Returns the text with every character that could move a terminal's cursor replaced by "?".
[[nodiscard]] std::string Printable(const std::string &text);

/// Returns whether the text is UTF-8 throughout.
[[nodiscard]] bool IsUtf8(const std::string &text);

/// Returns how many columns of a terminal the text takes. A byte that is not UTF-8 takes one.
[[nodiscard]] std::size_t DisplayWidth(const std::string &text);

/// Returns the text padded with blanks to `width` columns.
[[nodiscard]] std::string Padded(const std::string &text, std::size_t width);

/// Returns the text cut to `width` columns, with "…" in place of what is cut.
[[nodiscard]] std::string Shortened(const std::string &text, std::size_t width);

} // namespace nimbra::ctl
