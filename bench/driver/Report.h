#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace nimbra::bench {

/// The median; 0 of nothing.
[[nodiscard]] double Median(std::vector<double> values);
/// The value below which `share` of the values are.
[[nodiscard]] double Quantile(std::vector<double> values, double share);

/// What a figure must keep to.
struct Bound
{
    enum class Side
    {
        AtMost,
        AtLeast
    };
    enum class Subject
    {
        Ratio, ///< of the agent to the reference
        Agent
    };

    Side Allowed;
    double Value;
    Subject Of = Subject::Ratio;
};

/// One line of the table: the agent, and what it is measured against, the reference.
struct Figure
{
    std::string Group;
    std::string Name;
    std::string Unit;
    double Agent = 0;
    std::optional<double> Reference;
    std::optional<double> Ratio;
    std::optional<Bound> Limit;

    [[nodiscard]] bool Holds() const;
};

/// Which of the two a measurement belongs to.
enum class Role
{
    Agent,
    Reference
};

/// What the rounds have given for one line, the agent and the reference side by side in each.
class Rounds
{
public:
    void Add(Role role, double value)
    {
        (role == Role::Agent ? agent_ : reference_).push_back(value);
    }

    /// The medians, and the median of the ratios of the rounds. There is no reference when none was
    /// measured, and no ratio to references of 0.
    [[nodiscard]] Figure Take(std::string group, std::string name, std::string unit,
                              std::optional<Bound> limit = {}) const;

private:
    std::vector<double> agent_;
    std::vector<double> reference_;
};

/// A figure as something grows.
struct Curve
{
    struct Point
    {
        int X;
        Figure Value;
    };

    std::string Name;
    std::string Unit;
    std::vector<Point> Points;
};

struct Report
{
    std::string Date;
    std::string Machine;
    std::vector<Figure> Figures;
    std::vector<Curve> Sessions; ///< over the number of sessions
    std::vector<Curve> Tables;   ///< over the rows of the tables

    /// The lines that have a bound.
    [[nodiscard]] std::vector<Figure> Bounded() const;
    /// The number of lines whose bound does not hold.
    [[nodiscard]] int CountBroken() const;

    [[nodiscard]] std::string AsText() const;
    [[nodiscard]] nlohmann::json AsJson() const;
    /// Writes report.json, table.txt, sessions.dat and tables.dat.
    void Write(const std::filesystem::path &directory) const;
    /// Replaces the text between the marks of a document: <!-- NAME --> ... <!-- /NAME -->.
    void UpdateDocument(const std::filesystem::path &file) const;
};

} // namespace nimbra::bench
