#pragma once

#include "nimbractl/Completion.h"

#include <cwchar>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <histedit.h>

namespace nimbra::ctl {

/// Reads lines from a terminal, with editing, completion and a history that is kept in a file. One
/// thread.
class LineEditor
{
public:
    struct Callbacks
    {
        /// Waits until standard input can be read. Returns false to give up the present line.
        std::function<bool()> WaitForInput;
        /// Completes the last of the words.
        std::function<Completion(const std::vector<std::string> &)> Complete;
    };

    enum class Outcome
    {
        Line,
        GivenUp, ///< WaitForInput returned false
        End      ///< the end of the input, or Ctrl-D in an empty line
    };

    LineEditor(std::string prompt, Callbacks callbacks);
    ~LineEditor();
    LineEditor(const LineEditor &) = delete;
    LineEditor &operator=(const LineEditor &) = delete;

    /// Shows the prompt and reads a line, without its line feed. The terminal is as before
    /// afterwards.
    [[nodiscard]] Outcome ReadLine(std::string *line);

    /// Within WaitForInput: restores the terminal, and takes it over again with the line so far.
    void Suspend();
    void Resume();

    /// Adds a line to the history, unless it may hold a password. A history that cannot be written
    /// is kept in memory only.
    void Remember(const std::string &typed);

private:
    static LineEditor &Of(EditLine *editor);
    static char *Prompt(EditLine *editor);
    static int ReadKey(EditLine *editor, wchar_t *key);
    static unsigned char CompleteWord(EditLine *editor, int key);

    void LoadHistory();
    void SaveHistory() const;
    void AddToHistory(const std::string &line);
    /// Returns whether the terminal shows more than the line now.
    bool CompleteLine();

    std::string prompt_;
    const Callbacks callbacks_;
    const std::string historyFile_;
    std::deque<std::string> lines_; ///< the history, oldest first
    EditLine *editor_;
    History *history_;
    std::mbstate_t keyState_ = {};
    bool isGivenUp_ = false;
};

} // namespace nimbra::ctl
