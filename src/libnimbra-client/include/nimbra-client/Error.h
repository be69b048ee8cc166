#pragma once

#include <stdexcept>

namespace nimbra::client {

/// A value or a request that the protocol cannot carry. Thrown before anything is sent. what() is
/// one sentence.
class RequestError : public std::invalid_argument
{
public:
    using std::invalid_argument::invalid_argument;
};

/// The panel cannot be reached, has stopped responding, or does not speak the protocol. what() is
/// one sentence.
class ConnectionError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The caller's IsCancelled function ended a wait.
class CancelledError : public std::runtime_error
{
public:
    CancelledError() : std::runtime_error("Cancelled.") {}
};

} // namespace nimbra::client
