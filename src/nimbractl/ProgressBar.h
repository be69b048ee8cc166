#pragma once

#include <cstddef>
#include <string>

namespace nimbra::ctl {

/// Shows the progress of a transfer on standard error, if that is a terminal. One thread.
class ProgressBar
{
public:
    explicit ProgressBar(std::string title);
    ~ProgressBar();
    ProgressBar(const ProgressBar &) = delete;
    ProgressBar &operator=(const ProgressBar &) = delete;

    void Show(std::size_t done, std::size_t total);
    /// Ends the line of the bar, so that something else can be written. The next call of Show
    /// begins a new one.
    void EndLine();

private:
    const std::string title_;
    const bool isVisible_;
    std::string shown_;
};

} // namespace nimbra::ctl
