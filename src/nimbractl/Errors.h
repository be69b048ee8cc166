#pragma once

#include <stdexcept>
#include <string>

namespace nimbra::ctl {

// The exit status of the program.
inline constexpr int kDone = 0;
inline constexpr int kRefused = 1;       ///< refused or failed by the panel
inline constexpr int kWrongUsage = 2;    ///< nothing was changed on the panel
inline constexpr int kUnreachable = 3;   ///< the panel cannot be reached, or stopped responding
inline constexpr int kInterrupted = 130; ///< Ctrl-C in the shell or in an import

/// The panel refused a command, or it failed. The message is a sentence.
class Refused : public std::runtime_error
{
public:
    Refused(const std::string &word, int result);
    explicit Refused(const std::string &sentence) : std::runtime_error(sentence) {}
};

/// The command line cannot be executed. The message is a sentence.
class WrongUsage : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// A file of this machine cannot be read or written. The message is a sentence.
class LocalFailure : public WrongUsage
{
public:
    using WrongUsage::WrongUsage;
};

} // namespace nimbra::ctl
