#include "support/Files.h"
#include "support/Program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace nimbra::test {

namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;

constexpr char kDirectory[] = "/tmp/report";
constexpr char kDocument[] = "/tmp/performance.md";

/// Runs the benchmark with the fewest rounds and returns its report.
nlohmann::json Measure(const std::vector<std::string> &options, ProgramResult *result)
{
    std::vector<std::string> command = {NIMBRA_BENCH_PATH, "--tiny", "--output", kDirectory};
    command.insert(command.end(), options.begin(), options.end());
    *result = RunProgram(command);
    return nlohmann::json::parse(ReadFile(fs::path(kDirectory) / "report.json"));
}

bool IsMeasured(const nlohmann::json &value)
{
    return value.is_number() && std::isfinite(value.get<double>()) && value.get<double>() >= 0;
}

void ExpectFilled(const nlohmann::json &line)
{
    EXPECT_TRUE(IsMeasured(line.at("agent"))) << line;
    for (const char *key : {"reference", "ratio"})
        EXPECT_TRUE(line.at(key).is_null() || IsMeasured(line.at(key))) << line;
    // Only a server at rest may take nothing.
    if (line.at("group") != "Processor time at rest") {
        EXPECT_GT(line.at("agent").get<double>(), 0) << line;
    }
    if (line.contains("holds")) {
        EXPECT_TRUE(IsMeasured(line.at(line.at("bound_of").get<std::string>()))) << line;
    }
}

std::map<std::string, int> LinesByGroup(const nlohmann::json &report)
{
    std::map<std::string, int> lines;
    for (const auto &line : report.at("figures"))
        ++lines[line.at("group")];
    return lines;
}

/// A document without what is between the marks of a part, "<!-- Name -->" and "<!-- /Name -->".
std::string WithoutFigures(const std::string &document)
{
    std::istringstream lines(document);
    std::string text;
    bool isPart = false;
    for (std::string line; std::getline(lines, line);) {
        isPart = isPart && !line.starts_with("<!-- /");
        if (!isPart)
            text += line + "\n";
        isPart = isPart || (line.starts_with("<!-- ") && !line.starts_with("<!-- /"));
    }
    return text;
}

} // namespace

TEST(Benchmark, FillsEveryLineOfTableAndDocument)
{
    WriteFile(kDocument, WithoutFigures(ReadFile(NIMBRA_PERFORMANCE_DOCUMENT)));
    ProgramResult result;
    const nlohmann::json report = Measure({"--update-document", kDocument}, &result);
    ASSERT_EQ(0, result.Status) << result.Output;

    const std::map<std::string, int> expected = {
        {"Methods", 41},   {"Requests", 4}, {"Event list", 2},
        {"Round trip", 7}, {"Latency", 5},  {"Processor time at rest", 6},
        {"Memory", 9},     {"Size", 1},     {"Throughput", 2},
    };
    EXPECT_EQ(expected, LinesByGroup(report));
    const std::string document = ReadFile(kDocument);
    for (const auto &line : report.at("figures")) {
        ExpectFilled(line);
        const std::string name = line.at("name");
        EXPECT_THAT(result.Output, HasSubstr(name));
        EXPECT_THAT(document, HasSubstr("| " + name + " |"));
    }
    for (const char *curves : {"sessions", "tables"}) {
        EXPECT_FALSE(report.at(curves).empty());
        for (const auto &curve : report.at(curves))
            for (const auto &point : curve.at("points"))
                for (const char *key : {"agent", "baseline", "ratio"})
                    EXPECT_TRUE(IsMeasured(point.at(key))) << curve;
    }
    EXPECT_THAT(document, HasSubstr("GetUserInfoEx?, us of processor time a request"));
}

TEST(Benchmark, MeasuresOnlyNamedParts)
{
    ProgramResult result;
    const nlohmann::json report = Measure({"--only", "size,memory"}, &result);
    EXPECT_EQ(0, result.Status) << result.Output;
    const std::map<std::string, int> expected = {{"Memory", 9}, {"Size", 1}};
    EXPECT_EQ(expected, LinesByGroup(report));
}

TEST(Benchmark, CheckFailsWhenABoundDoesNotHold)
{
    ProgramResult result;
    const nlohmann::json report = Measure({"--only", "size", "--check"}, &result);
    const bool holds = report.at("figures").at(0).at("holds");
    EXPECT_EQ(holds ? 0 : 2, result.Status) << result.Output;
    EXPECT_EQ(holds ? 0 : 1, report.at("broken_bounds"));
}

} // namespace nimbra::test
