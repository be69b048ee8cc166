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

private:
    const std::string title_;
    const bool isVisible_;
    std::string shown_;
};

} // namespace nimbra::ctl
