#include "bench/driver/Measure.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace nimbra::bench {

namespace {

constexpr Bound kBound{1.05, false};

nlohmann::json RunOnce(const Plan &plan, bool isBaselineFirst)
{
    const std::string command = std::string(isBaselineFirst ? "NIMBRA_BASELINE_FIRST=1 " : "") +
                                "'" + plan.Methods.string() + "' --benchmark_format=json 2>&1 " +
                                "--benchmark_min_time=" + std::to_string(plan.Work.MethodSeconds);
    FILE *const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        throw std::runtime_error("the methods cannot be timed");
    std::string output;
    std::array<char, 65536> bytes;
    for (std::size_t count = 0; (count = fread(bytes.data(), 1, bytes.size(), pipe)) > 0;)
        output.append(bytes.data(), count);
    // The library's warnings stand before the JSON.
    const std::size_t begin = output.find("\n{\n");
    if (pclose(pipe) != 0 || (begin == std::string::npos && output.rfind("{\n", 0) != 0))
        throw std::runtime_error("the methods cannot be timed: " + output);
    return nlohmann::json::parse(output.substr(begin == std::string::npos ? 0 : begin + 1));
}

} // namespace

void MeasureMethods(const Plan &plan, Report *report)
{
    std::vector<std::pair<std::string, Rounds>> methods;
    for (int round = 0; round < plan.Work.MethodRounds; ++round) {
        const nlohmann::json result = RunOnce(plan, round % 2 != 0);
        for (const auto &entry : result.at("benchmarks")) {
            // "agent/GetDoorLock", with more behind another slash.
            const std::string full = entry.at("name");
            const bool isAgent = full.rfind("agent/", 0) == 0;
            const bool isElapsed = full.find("/real_time") != std::string::npos;
            std::string name = full.substr(6, full.find('/', 6) - 6);
            if (isElapsed)
                name += " (elapsed)";
            auto place = std::find_if(methods.begin(), methods.end(),
                                      [&name](const auto &method) { return method.first == name; });
            if (place == methods.end())
                place = methods.emplace(methods.end(), name, Rounds());
            place->second.Add(isAgent, entry.at(isElapsed ? "real_time" : "cpu_time"));
        }
    }
    for (const auto &[name, rounds] : methods)
        report->Figures.push_back(rounds.Take("Methods", name, "us", kBound));
}

} // namespace nimbra::bench
