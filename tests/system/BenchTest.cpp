#include "support/Files.h"
#include "support/Program.h"

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

constexpr char kDirectory[] = "/tmp/report";
constexpr char kDocument[] = "/tmp/performance.md";

/// The fewest rounds that there are; what they find is written below /tmp.
ProgramResult Measure()
{
    fs::copy_file(NIMBRA_PERFORMANCE_DOCUMENT, kDocument);
    return RunProgram(
        {NIMBRA_BENCH_PATH, "--tiny", "--output", kDirectory, "--update-document", kDocument});
}

void ExpectFigures(const nlohmann::json &line)
{
    for (const char *key : {"agent", "baseline", "ratio"}) {
        const double value = line.at(key);
        EXPECT_TRUE(std::isfinite(value) && value > 0) << line;
    }
}

} // namespace

TEST(Bench, FillsEveryLineOfItsTableAndOfTheDocument)
{
    const ProgramResult result = Measure();
    ASSERT_EQ(0, result.Status) << result.Output;
    const auto report = nlohmann::json::parse(ReadFile(fs::path(kDirectory) / "report.json"));

    std::map<std::string, int> lines;
    for (const auto &line : report.at("figures")) {
        ++lines[line.at("group")];
        ExpectFigures(line);
    }
    const std::map<std::string, int> expected = {
        {"Methods", 38},   {"Requests", 4},      {"Event list", 2},
        {"Round trip", 2}, {"Idle and size", 7},
    };
    EXPECT_EQ(expected, lines);
    for (const char *curves : {"sessions", "tables"}) {
        EXPECT_FALSE(report.at(curves).empty());
        for (const auto &curve : report.at(curves))
            for (const auto &point : curve.at("points"))
                ExpectFigures(point);
    }

    // The table that is printed and the document have the same lines.
    const std::string document = ReadFile(kDocument);
    for (const auto &line : report.at("figures")) {
        const std::string name = line.at("name");
        EXPECT_NE(std::string::npos, result.Output.find(name)) << name;
        EXPECT_NE(std::string::npos, document.find("| " + name + " |")) << name;
    }
    EXPECT_NE(std::string::npos, document.find("GetUserInfoEx?, us of processor time a request"));
}

} // namespace nimbra::test
