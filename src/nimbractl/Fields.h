#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <map>
#include <span>
#include <string>

#include <nimbra-client/Record.h>
#include <nimbra-client/Request.h>

namespace nimbra::ctl {

/// An option that gives a value to a key of a request.
struct FieldOption
{
    const char *Option;
    client::Field Field;
    const char *Help;
    /// The bytes that the panel stores of a text.
    std::size_t Limit = client::kNameBytes;
};

/// The values given on the command line by key.
using GivenFields = std::map<std::string, std::string>;

/// Adds the options; numbers and dates are checked while the command line is parsed.
void AddFields(CLI::App &app, std::span<const FieldOption> options, GivenFields &given);

/// Returns what is wrong with the value of a field, as a sentence; an empty text when nothing is.
/// Removes leading zeros from a number.
[[nodiscard]] std::string FindFault(const FieldOption &option, std::string &value);

/// Adds the given values to a request, in the order of the options. Throws RequestError.
void AddGiven(client::Request &request, std::span<const FieldOption> options,
              const GivenFields &given);

/// Adds the values of all options to a request: those given, and those of `record` for the others.
/// Throws WrongUsage for a text of the record that the panel may hold more of than it reports,
/// unless `mayCut`, and RequestError for one that cannot be sent back.
void AddGivenOrKept(client::Request &request, std::span<const FieldOption> options,
                    const GivenFields &given, const client::Record &record, bool mayCut);

/// For Option::transform: checks a whole decimal number within bounds. Removes leading zeros, which
/// the parser would take for the sign of an octal number.
[[nodiscard]] CLI::Validator IsNumber(std::int32_t least = INT32_MIN,
                                      std::int32_t most = INT32_MAX);

/// For Option::check: a number of seconds from 0.1 to 3600.
[[nodiscard]] CLI::Validator IsDuration();

/// Throws WrongUsage when no value is given.
void RequireGiven(const GivenFields &given);

} // namespace nimbra::ctl
