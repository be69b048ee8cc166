#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace nimbra::check {

enum class Outcome
{
    Ok,
    Warning, ///< the agent works, but something is slow, or not as it should be
    Failure  ///< the agent does not start, or some of its commands fail
};

/// The result of one check.
struct Finding
{
    Outcome Result;
    std::string Subject; ///< what was looked at
    std::string Text;    ///< what was found
    std::string Action;  ///< what to do; empty for Ok
};

/// The findings, in the order of the checks. Texts may come from the panel: bytes that are not
/// printable ASCII are kept as "?", so that both forms of output stay valid. One thread.
class Report
{
public:
    void Ok(const std::string &subject, const std::string &text);
    void Warn(const std::string &subject, const std::string &text, const std::string &action);
    void Fail(const std::string &subject, const std::string &text, const std::string &action);

    [[nodiscard]] const std::vector<Finding> &Findings() const { return findings_; }
    [[nodiscard]] bool HasFailures() const;

    /// One line for each finding, and a line with their numbers.
    [[nodiscard]] std::string ToText() const;
    /// An array of objects with the members "status", "subject", "finding" and "action".
    [[nodiscard]] std::string ToJson() const;

private:
    void Add(Outcome result, const std::string &subject, const std::string &text,
             const std::string &action);
    [[nodiscard]] std::size_t Count(Outcome result) const;

    std::vector<Finding> findings_;
};

} // namespace nimbra::check
