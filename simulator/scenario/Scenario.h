#pragma once

#include <optional>
#include <string>
#include <vector>

namespace nimbra::simulator {

/// What the player does for one line of a scenario.
enum class ScenarioAction
{
    Title,       ///< show a heading
    Remark,      ///< show a text to the reader
    Send,        ///< send Text and a line feed
    Expect,      ///< receive Count lines that match Text
    SendFile,    ///< send the bytes of the file Text
    ExpectFile,  ///< receive as many bytes as the file Text has, and the same ones
    Silence,     ///< nothing may come for Count seconds
    Pause,       ///< wait Count seconds
    Connect,     ///< disconnect, and connect as a new client
    Run,         ///< run Text in the shell; it must succeed
    ExpectOutput ///< the next Count lines of that command's output must match Text
};

/// One line of a scenario.
struct ScenarioLine
{
    ScenarioAction Action = ScenarioAction::Remark;
    std::string Text;
    int Count = 1;
    int Number = 0; ///< of the line in its file, from 1
};

/// A conversation with an agent in a plain text file: what a client sends, what it must receive,
/// and texts for the reader. Each line is one step:
///
///     # a comment of the file; not shown
///     = a heading
///     : a text for the reader
///     > Hello?                            a line to send
///     < HelloResponse?Result=0&Key=**     a line that must be received
///     <25 EventNo=*                       25 lines that must be received
///     >file portrait.png                  raw bytes to send
///     <file portrait.png                  raw bytes that must be received
///     silence 2                           nothing may be received for 2 seconds
///     pause 1                             wait a second
///     connect                             disconnect, and connect as a new client
///     $ ls /tmp                           a command for the shell, which must succeed
///     | *.db                              a line that the command must print ("|3 *" for three)
///
/// In what must be received, "*" matches any text, and "**" matches any text that differs from run
/// to run: it is printed as "**" too, so that two runs print the same. File names are relative to
/// the scenario's folder.
struct Scenario
{
    std::string Folder;
    std::vector<ScenarioLine> Lines;
};

/// Reads the scenario in the file `path`. On failure returns nothing and says why in `*error`.
[[nodiscard]] std::optional<Scenario> ReadScenario(const std::string &path, std::string *error);

/// Reads one line of a scenario; nothing when it is not one. `line` is neither empty nor a "#"
/// line.
[[nodiscard]] std::optional<ScenarioLine> ParseScenarioLine(const std::string &line);

/// Whether `text` is what `pattern` says, with "*" and "**" for any text. If so, `*shown` becomes
/// the text as it is to be printed: "**" in place of what a "**" stood for.
[[nodiscard]] bool MatchScenarioText(const std::string &pattern, const std::string &text,
                                     std::string *shown);

} // namespace nimbra::simulator
