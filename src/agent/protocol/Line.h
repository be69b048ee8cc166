#pragma once

#include "base/FixedText.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace nimbra {

/// Bound of a line: of one that is sent with its terminator, of one received with its line feed.
inline constexpr std::size_t kLineSize = 1024;

/// A line to be sent, built pair by pair: a request, a response, or a row of a list. It always ends
/// in its line feed. What does not fit is cut, so that the next line begins as one of its own. One
/// thread.
class Line
{
public:
    /// A row: pairs alone.
    Line() { End(); }
    /// "<command>?", to be followed by pairs.
    [[nodiscard]] static Line Request(std::string_view command);
    /// "<command>Response?Result=<result>".
    [[nodiscard]] static Line Response(std::string_view command, int result);

    /// Appends "<key>=<value>", separated from the pair before by "&".
    Line &Pair(std::string_view key, std::int32_t number);
    Line &Pair(std::string_view key, std::string_view text);
    template <std::size_t N>
    Line &Pair(std::string_view key, const FixedText<N> &text)
    {
        return Pair(key, text.View());
    }
    /// The same with the value in double quotes: it may hold "&" and "=".
    Line &QuotedPair(std::string_view key, std::string_view text);
    /// The same with a value of words separated by blanks: as many whole words as fit.
    Line &WordsPair(std::string_view key, std::string_view words);

    /// The line with its line feed.
    [[nodiscard]] std::string_view View() const { return {bytes_, length_ + 1}; }
    /// The same, terminated.
    [[nodiscard]] const char *Get() const { return bytes_; }

private:
    /// What a line holds besides its line feed and its terminator.
    static constexpr std::size_t kCapacity = kLineSize - 2;

    void BeginPair(std::string_view key);
    /// Appends as much of `text` as fits.
    void Put(std::string_view text);
    void End();

    std::size_t length_ = 0;
    bool hasPairs_ = false;
    char bytes_[kLineSize];
};

} // namespace nimbra
