#include "nimbractl/ProgressBar.h"

#include "nimbractl/Terminal.h"

#include <cstdio>
#include <utility>

#include <unistd.h>

namespace nimbra::ctl {

namespace {

constexpr std::size_t kWidth = 30;

} // namespace

ProgressBar::ProgressBar(std::string title)
    : title_(std::move(title)), isVisible_(CanMoveCursor(STDERR_FILENO))
{}

ProgressBar::~ProgressBar()
{
    EndLine();
}

void ProgressBar::Show(std::size_t done, std::size_t total)
{
    if (!isVisible_ || total == 0)
        return;
    const std::size_t filled = done * kWidth / total;
    const std::string bar = title_ + " [" + std::string(filled, '#') +
                            std::string(kWidth - filled, '.') + "] " +
                            std::to_string(done * 100 / total) + "%";
    if (bar == shown_)
        return;
    shown_ = bar;
    std::fprintf(stderr, "\r%s", bar.c_str());
}

void ProgressBar::EndLine()
{
    if (!shown_.empty())
        std::fputc('\n', stderr);
    shown_.clear();
}

} // namespace nimbra::ctl
