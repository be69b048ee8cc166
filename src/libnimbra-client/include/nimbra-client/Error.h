#pragma once

#include <stdexcept>

namespace nimbra::client {

/// Something that the protocol cannot carry. Thrown before anything is sent.
class BadRequest : public std::invalid_argument
{
public:
    using std::invalid_argument::invalid_argument;
};

/// The panel cannot be reached, has stopped answering, or is no panel. The message is a sentence.
class Unreachable : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The caller's own IsCancelled has ended a wait.
class Cancelled : public std::runtime_error
{
public:
    Cancelled() : std::runtime_error("Cancelled.") {}
};

} // namespace nimbra::client
