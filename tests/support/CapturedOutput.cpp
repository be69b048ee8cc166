#include "support/CapturedOutput.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace nimbra::test {

namespace {

bool Parse(const std::string &text, LogLine *line)
{
    char source[64];
    char method[64];
    int end = 0;
    if (std::sscanf(text.c_str(), "DEBUG: %ld:%63[^:]:%d:%63[^(]():%n", &line->Time, source,
                    &line->Line, method, &end) != 4 ||
        end == 0 || text[static_cast<std::size_t>(end)] != ' ')
        return false;
    line->Source = source;
    line->Method = method;
    line->Message = text.substr(static_cast<std::size_t>(end) + 1);
    return true;
}

} // namespace

void PrintTo(const LogLine &line, std::ostream *stream)
{
    *stream << line.Source << ':' << line.Line << ' ' << line.Method << ": " << line.Message;
}

CapturedOutput::CapturedOutput()
    : file_(memfd_create("output", MFD_CLOEXEC)), output_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3))
{
    std::fflush(stdout);
    dup2(file_.Get(), STDOUT_FILENO);
}

CapturedOutput::~CapturedOutput()
{
    std::fflush(stdout);
    dup2(output_.Get(), STDOUT_FILENO);
}

std::string CapturedOutput::Text() const
{
    std::fflush(stdout);
    std::string text;
    char part[4096];
    ssize_t count = 0;
    while ((count = pread(file_.Get(), part, sizeof part, static_cast<off_t>(text.size()))) > 0)
        text.append(part, static_cast<std::size_t>(count));
    return text;
}

std::vector<LogLine> CapturedOutput::Log() const
{
    std::vector<LogLine> lines;
    std::istringstream stream(Text());
    for (std::string text; std::getline(stream, text);) {
        LogLine line;
        if (stream.eof() || !Parse(text, &line))
            ADD_FAILURE() << "no whole line of the log: " << text;
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> CapturedOutput::Messages() const
{
    std::vector<std::string> messages;
    for (const LogLine &line : Log())
        messages.push_back(line.Message);
    return messages;
}

} // namespace nimbra::test
