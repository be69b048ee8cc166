#include "bench/driver/Measure.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace nimbra::bench {

namespace {

constexpr char kGroup[] = "Methods";
constexpr Bound kMedianOfQueries{Bound::Side::AtMost, 0.90, Bound::Subject::Agent};
constexpr Bound kHighestOfQueries{Bound::Side::AtMost, 1.00, Bound::Subject::Agent};
// They start a shell, whose time varies by a tenth from run to run.
constexpr Bound kHighestOfOthers{Bound::Side::AtMost, 1.20, Bound::Subject::Agent};

struct Method
{
    std::string Kind;
    std::string Name;
    Rounds Times;

    [[nodiscard]] bool IsQuery() const { return Kind == "query"; }
    /// A method that pauses is compared by its elapsed time.
    [[nodiscard]] bool IsElapsed() const { return Kind == "slow"; }
};

std::string Run(const Plan &plan, const std::string &arguments)
{
    const std::string command = "'" + plan.Methods.string() + "' " + arguments + " 2>&1";
    FILE *const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        throw std::runtime_error("the methods cannot be timed");
    std::string output;
    std::array<char, 65536> bytes;
    for (std::size_t count = 0; (count = fread(bytes.data(), 1, bytes.size(), pipe)) > 0;)
        output.append(bytes.data(), count);
    if (pclose(pipe) != 0)
        throw std::runtime_error("the methods cannot be timed: " + output);
    return output;
}

std::vector<Method> Prepare(const Plan &plan)
{
    std::istringstream lines(Run(plan, "prepare"));
    std::vector<Method> methods;
    for (Method method; lines >> method.Kind >> method.Name;)
        methods.push_back(method);
    return methods;
}

/// The time of a call in microseconds.
double Time(const Plan &plan, Role role, const Method &method)
{
    const std::string output = Run(
        plan, std::string(role == Role::Agent ? "agent" : "baseline") + " '--benchmark_filter=^" +
                  method.Name + "(/|$)' --benchmark_format=json --benchmark_min_time=" +
                  std::to_string(plan.Work.MethodSeconds));
    // Warnings of the library come before the JSON.
    const std::size_t begin = output.find("{\n");
    if (begin == std::string::npos)
        throw std::runtime_error("the methods cannot be timed: " + output);
    const auto result = nlohmann::json::parse(output.substr(begin));
    return result.at("benchmarks").at(0).at(method.IsElapsed() ? "real_time" : "cpu_time");
}

/// A line whose value is a ratio that is found from the ratios of several methods.
Figure RatioLine(const std::string &name, double ratio, Bound bound)
{
    return {kGroup, name, "", ratio, {}, {}, bound};
}

} // namespace

void MeasureMethods(const Plan &plan, Report *report)
{
    std::vector<Method> methods = Prepare(plan);
    for (int round = 0; round < plan.Work.MethodRounds; ++round)
        for (Method &method : methods)
            for (int turn = 2 * round; turn < 2 * round + 2; ++turn)
                method.Times.Add(RoleAt(turn), Time(plan, RoleAt(turn), method));

    std::vector<double> queries;
    std::vector<double> others;
    for (const Method &method : methods) {
        const std::string name = method.Name + (method.IsElapsed() ? " (elapsed)" : "");
        const Figure figure = method.Times.Take(kGroup, name, "us");
        report->Figures.push_back(figure);
        (method.IsQuery() ? queries : others).push_back(figure.Ratio.value_or(0));
    }
    report->Figures.push_back(
        RatioLine("query methods, median of the ratios", Median(queries), kMedianOfQueries));
    report->Figures.push_back(
        RatioLine("query methods, highest ratio", Quantile(queries, 1), kHighestOfQueries));
    report->Figures.push_back(
        RatioLine("other methods, highest ratio", Quantile(others, 1), kHighestOfOthers));
}

} // namespace nimbra::bench
