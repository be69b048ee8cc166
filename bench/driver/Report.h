#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace nimbra::bench {

/// The median; 0 of nothing.
[[nodiscard]] double Median(std::vector<double> values);
/// The value below which `share` of the values lie.
[[nodiscard]] double Quantile(std::vector<double> values, double share);

/// What a ratio is held to.
struct Bound
{
    double Value;
    bool IsLeast; ///< the ratio is to be at least that, not at most
};

/// One line of the table.
struct Figure
{
    std::string Group;
    std::string Name;
    std::string Unit;
    double Agent = 0;
    double Baseline = 0;
    double Ratio = 0;
    std::optional<Bound> Limit;

    [[nodiscard]] bool IsWithin() const;
};

/// What the rounds have given for one line, agent and baseline side by side in each.
class Rounds
{
public:
    void Add(bool isAgent, double value) { (isAgent ? agent_ : baseline_).push_back(value); }

    /// The medians, and the median of the ratios of the rounds.
    [[nodiscard]] Figure Take(std::string group, std::string name, std::string unit,
                              std::optional<Bound> limit = {}) const;

private:
    std::vector<double> agent_;
    std::vector<double> baseline_;
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

    /// The lines whose ratio is beyond its bound.
    [[nodiscard]] int CountBeyond() const;

    [[nodiscard]] std::string AsText() const;
    [[nodiscard]] nlohmann::json AsJson() const;
    /// Writes report.json, table.txt, sessions.dat and tables.dat.
    void Write(const std::filesystem::path &directory) const;
    /// Replaces what stands between the marks of a document: <!-- NAME --> ... <!-- /NAME -->.
    void UpdateDocument(const std::filesystem::path &file) const;
};

} // namespace nimbra::bench
