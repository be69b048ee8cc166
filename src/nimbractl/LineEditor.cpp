#include "nimbractl/LineEditor.h"

#include "nimbractl/Errors.h"
#include "nimbractl/SplitWords.h"
#include "nimbractl/Terminal.h"
#include "nimbractl/TextWidth.h"
#include "nimbractl/UserDirectory.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace nimbra::ctl {

namespace {

constexpr int kHistoryLines = 1000;

/// Returns the file of the history; empty when there is no place for it.
std::string HistoryFile()
{
    const std::filesystem::path directory = UserDirectory("XDG_STATE_HOME", ".local/state");
    if (directory.empty())
        return "";
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    return error ? "" : (directory / "history").string();
}

/// The words of a line up to the cursor; the last one is the word to complete.
struct BegunLine
{
    std::vector<std::string> Words;
    char Quote = '\0'; ///< the quote that is open at the cursor
};

std::optional<BegunLine> SplitBegunLine(const std::string &text)
{
    // A mark keeps the last word when the text ends in a blank, and shows which quote is open.
    constexpr char kMark = '\x01';
    for (const std::string quote : {"", "'", "\""}) {
        try {
            BegunLine line{SplitWords(text + kMark + quote), quote.empty() ? '\0' : quote[0]};
            if (line.Words.back().ends_with(kMark)) {
                line.Words.back().pop_back();
                return line;
            }
        } catch (const WrongUsage &) {
            continue; // another quote is open
        }
    }
    return std::nullopt;
}

/// Returns a text as it is typed within this quote, or without a quote.
std::string Quoted(const std::string &text, char quote)
{
    const char *const special = quote == '\0' ? " \t'\"\\" : quote == '"' ? "\"\\" : "";
    std::string result;
    for (const char c : text) {
        if (std::strchr(special, c) != nullptr)
            result += '\\';
        result += c;
    }
    return result;
}

std::string CommonBeginning(const std::vector<std::string> &texts)
{
    std::string common = texts.front();
    for (const std::string &text : texts) {
        const auto end = std::mismatch(common.begin(), common.end(), text.begin(), text.end());
        common.erase(end.first, common.end());
    }
    return common;
}

void PrintColumns(const std::vector<std::string> &texts)
{
    std::size_t width = 0;
    for (const std::string &text : texts)
        width = std::max(width, DisplayWidth(text) + 2);
    const std::size_t columns = std::max<std::size_t>(GetTerminalSize().Columns / width, 1);
    for (std::size_t i = 0; i < texts.size(); ++i) {
        const bool isLast = i + 1 == texts.size() || (i + 1) % columns == 0;
        std::printf("%s%s", (isLast ? texts[i] : Padded(texts[i], width)).c_str(),
                    isLast ? "\n" : "");
    }
}

} // namespace

LineEditor::LineEditor(std::string prompt, Callbacks callbacks)
    : prompt_(std::move(prompt)), callbacks_(std::move(callbacks)), historyFile_(HistoryFile()),
      editor_(el_init("nimbractl", stdin, stdout, stderr)), history_(history_init())
{
    if (editor_ == nullptr || history_ == nullptr)
        throw LocalFailure("The terminal cannot be used for a shell.");
    HistEvent event = {};
    history(history_, &event, H_SETSIZE, kHistoryLines);
    el_set(editor_, EL_CLIENTDATA, this);
    el_set(editor_, EL_PROMPT, Prompt);
    el_set(editor_, EL_EDITOR, "emacs");
    el_set(editor_, EL_SIGNAL, 0);
    el_set(editor_, EL_HIST, history, history_);
    el_set(editor_, EL_GETCFN, ReadKey);
    // The narrow el_set would copy the two texts and never free them.
    el_wset(editor_, EL_ADDFN, L"complete-word", L"Completes the word before the cursor",
            CompleteWord);
    el_set(editor_, EL_BIND, "^I", "complete-word", nullptr);
    el_set(editor_, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    LoadHistory();
}

LineEditor::~LineEditor()
{
    el_end(editor_);
    history_end(history_);
}

LineEditor::Outcome LineEditor::ReadLine(std::string *line)
{
    isGivenUp_ = false;
    keyState_ = {};
    el_resize(editor_);
    // Else a key that is typed right after the prompt reaches the terminal in its line mode.
    el_set(editor_, EL_PREP_TERM, 1);
    int count = 0;
    const char *text = el_gets(editor_, &count);
    if (isGivenUp_)
        return Outcome::GivenUp;
    if (text == nullptr || count <= 0)
        return Outcome::End;
    *line = std::string(text, static_cast<std::size_t>(count));
    if (line->ends_with('\n'))
        line->pop_back();
    return Outcome::Line;
}

void LineEditor::Suspend()
{
    el_set(editor_, EL_PREP_TERM, 0);
}

void LineEditor::Resume()
{
    el_set(editor_, EL_PREP_TERM, 1);
    el_set(editor_, EL_REFRESH);
}

void LineEditor::Remember(const std::string &typed)
{
    // The completion leaves a blank at the end.
    const std::string line = typed.substr(0, typed.find_last_not_of(' ') + 1);
    if (line.empty() || line[0] == ' ' || strcasestr(line.c_str(), "password") != nullptr ||
        (!lines_.empty() && line == lines_.back()))
        return;
    AddToHistory(line);
    SaveHistory();
}

LineEditor &LineEditor::Of(EditLine *editor)
{
    void *self = nullptr;
    el_get(editor, EL_CLIENTDATA, &self);
    return *static_cast<LineEditor *>(self);
}

char *LineEditor::Prompt(EditLine *editor)
{
    return Of(editor).prompt_.data();
}

int LineEditor::ReadKey(EditLine *editor, wchar_t *key)
{
    LineEditor &self = Of(editor);
    for (;;) {
        if (!self.callbacks_.WaitForInput()) {
            self.isGivenUp_ = true;
            return -1;
        }
        char byte = 0;
        const ssize_t count = read(STDIN_FILENO, &byte, 1);
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count <= 0)
            return static_cast<int>(count);
        const std::size_t length = std::mbrtowc(key, &byte, 1, &self.keyState_);
        if (length <= 1)
            return 1;
        if (length != static_cast<std::size_t>(-2))
            self.keyState_ = {}; // not a character: the byte is dropped
    }
}

unsigned char LineEditor::CompleteWord(EditLine *editor, int)
{
    return Of(editor).CompleteLine() ? CC_REDISPLAY : CC_REFRESH;
}

bool LineEditor::CompleteLine()
{
    const LineInfo *line = el_line(editor_);
    const std::optional<BegunLine> begun = SplitBegunLine(std::string(line->buffer, line->cursor));
    if (!begun)
        return false;
    const std::string &word = begun->Words.back();
    Completion completion = callbacks_.Complete(begun->Words);
    if (completion.IsFile)
        completion.Candidates = CompleteFile(word);
    if (completion.Candidates.empty()) {
        el_beep(editor_);
        return false;
    }
    const std::string common = CommonBeginning(completion.Candidates);
    std::string added = Quoted(common.substr(word.size()), begun->Quote);
    if (completion.Candidates.size() == 1 && !common.ends_with('/') && !common.ends_with('='))
        added += begun->Quote == '\0' ? std::string(" ") : std::string{begun->Quote, ' '};
    if (!added.empty()) {
        el_insertstr(editor_, added.c_str());
        return false;
    }
    std::printf("\n");
    PrintColumns(completion.Candidates);
    std::fflush(stdout);
    return true;
}

void LineEditor::LoadHistory()
{
    std::ifstream file(historyFile_);
    for (std::string line; std::getline(file, line);)
        AddToHistory(line);
}

void LineEditor::SaveHistory() const
{
    if (historyFile_.empty())
        return;
    const mode_t before = umask(077);
    std::ofstream file(historyFile_);
    umask(before);
    for (const std::string &line : lines_)
        file << line << '\n';
}

void LineEditor::AddToHistory(const std::string &line)
{
    HistEvent event = {};
    history(history_, &event, H_ENTER, line.c_str());
    lines_.push_back(line);
    if (lines_.size() > kHistoryLines)
        lines_.pop_front();
}

} // namespace nimbra::ctl
