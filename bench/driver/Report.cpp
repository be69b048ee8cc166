#include "bench/driver/Report.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace nimbra::bench {

namespace fs = std::filesystem;

namespace {

[[gnu::format(printf, 1, 2)]] std::string Format(const char *format, ...)
{
    char text[256];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

/// A figure with three digits that count.
std::string Short(double value)
{
    if (std::fabs(value) >= 100)
        return Format("%.0f", value);
    if (std::fabs(value) >= 10)
        return Format("%.1f", value);
    return Format(std::fabs(value) >= 1 ? "%.2f" : "%.3f", value);
}

std::string LimitText(const Figure &figure)
{
    if (!figure.Limit)
        return "";
    return Format("%s %.2f%s", figure.Limit->IsLeast ? ">=" : "<=", figure.Limit->Value,
                  figure.IsWithin() ? "" : " beyond");
}

nlohmann::json ToJson(const Figure &figure)
{
    nlohmann::json json = {{"group", figure.Group},       {"name", figure.Name},
                           {"unit", figure.Unit},         {"agent", figure.Agent},
                           {"baseline", figure.Baseline}, {"ratio", figure.Ratio}};
    if (figure.Limit) {
        json[figure.Limit->IsLeast ? "at_least" : "at_most"] = figure.Limit->Value;
        json["within"] = figure.IsWithin();
    }
    return json;
}

nlohmann::json ToJson(const std::vector<Curve> &curves)
{
    nlohmann::json all = nlohmann::json::array();
    for (const Curve &curve : curves) {
        nlohmann::json points = nlohmann::json::array();
        for (const Curve::Point &point : curve.Points)
            points.push_back({{"x", point.X},
                              {"agent", point.Value.Agent},
                              {"baseline", point.Value.Baseline},
                              {"ratio", point.Value.Ratio}});
        all.push_back({{"name", curve.Name}, {"unit", curve.Unit}, {"points", points}});
    }
    return all;
}

void WriteFile(const fs::path &path, const std::string &text)
{
    std::ofstream file(path, std::ios::trunc);
    file << text;
    file.close();
    if (!file)
        throw std::runtime_error(path.string() + ": cannot be written");
}

std::string ReadFile(const fs::path &path)
{
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error(path.string() + ": cannot be read");
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

/// A data file for gnuplot: one block for each curve, of lines "x agent baseline".
std::string PlotData(const std::vector<Curve> &curves)
{
    std::string text;
    for (const Curve &curve : curves) {
        text += "\"" + curve.Name + "\"\n";
        for (const Curve::Point &point : curve.Points)
            text += Format("%d %g %g\n", point.X, point.Value.Agent, point.Value.Baseline);
        text += "\n\n";
    }
    return text;
}

std::string TableOf(const std::vector<Figure> &figures, const std::string &group)
{
    std::string text =
        "| | unit | agent | baseline | ratio | bound |\n|---|---|---:|---:|---:|---|\n";
    for (const Figure &figure : figures)
        if (figure.Group == group)
            text += "| " + figure.Name + " | " + figure.Unit + " | " + Short(figure.Agent) + " | " +
                    Short(figure.Baseline) + " | " + Format("%.3f", figure.Ratio) + " | " +
                    LimitText(figure) + " |\n";
    return text;
}

std::string TableOf(const std::vector<Curve> &curves, const char *label)
{
    std::string text;
    for (const Curve &curve : curves) {
        text += "\n" + curve.Name + ", " + curve.Unit + ":\n\n| " + label +
                " | agent | baseline | ratio |\n|---:|---:|---:|---:|\n";
        for (const Curve::Point &point : curve.Points)
            text += Format("| %d | ", point.X) + Short(point.Value.Agent) + " | " +
                    Short(point.Value.Baseline) + " | " + Format("%.3f |\n", point.Value.Ratio);
    }
    return text;
}

void ReplaceBetween(std::string *text, const std::string &name, const std::string &content)
{
    const std::string begin = "<!-- " + name + " -->\n";
    const std::string end = "<!-- /" + name + " -->";
    const std::size_t from = text->find(begin);
    const std::size_t to = text->find(end);
    if (from == std::string::npos || to == std::string::npos || to < from)
        throw std::runtime_error("the document lacks the marks of '" + name + "'");
    text->replace(from + begin.size(), to - from - begin.size(), content);
}

} // namespace

double Quantile(std::vector<double> values, double share)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const double place = share * static_cast<double>(values.size() - 1);
    const auto below = static_cast<std::size_t>(place);
    const std::size_t above = std::min(below + 1, values.size() - 1);
    return values[below] + (values[above] - values[below]) * (place - static_cast<double>(below));
}

double Median(std::vector<double> values)
{
    return Quantile(std::move(values), 0.5);
}

bool Figure::IsWithin() const
{
    return !Limit || (Limit->IsLeast ? Ratio >= Limit->Value : Ratio <= Limit->Value);
}

Figure Rounds::Take(std::string group, std::string name, std::string unit,
                    std::optional<Bound> limit) const
{
    std::vector<double> ratios;
    for (std::size_t i = 0; i < std::min(agent_.size(), baseline_.size()); ++i)
        ratios.push_back(agent_[i] / baseline_[i]);
    return {std::move(group),
            std::move(name),
            std::move(unit),
            Median(agent_),
            Median(baseline_),
            Median(ratios),
            limit};
}

int Report::CountBeyond() const
{
    return static_cast<int>(std::count_if(Figures.begin(), Figures.end(),
                                          [](const Figure &figure) { return !figure.IsWithin(); }));
}

std::string Report::AsText() const
{
    std::string text = "Measured " + Date + " on " + Machine + "\n";
    std::string group;
    for (const Figure &figure : Figures) {
        if (figure.Group != group) {
            group = figure.Group;
            text += "\n" + Format("%-38s %12s %12s %8s  %s\n", group.c_str(), "agent", "baseline",
                                  "ratio", "bound");
        }
        const std::string name = figure.Name + ", " + figure.Unit;
        text += Format("  %-36s %12s %12s %8.3f  %s\n", name.c_str(), Short(figure.Agent).c_str(),
                       Short(figure.Baseline).c_str(), figure.Ratio, LimitText(figure).c_str());
    }
    const auto append = [&text](const std::vector<Curve> &curves, const char *label) {
        for (const Curve &curve : curves) {
            const std::string title = curve.Name + ", " + curve.Unit;
            text +=
                "\n" + Format("%-38s %12s %12s %8s\n", title.c_str(), "agent", "baseline", "ratio");
            for (const Curve::Point &point : curve.Points)
                text += Format("  %8d %-27s %12s %12s %8.3f\n", point.X, label,
                               Short(point.Value.Agent).c_str(),
                               Short(point.Value.Baseline).c_str(), point.Value.Ratio);
        }
    };
    append(Sessions, "sessions");
    append(Tables, "rows");
    text += Format("\n%d of %zu lines beyond their bound\n", CountBeyond(), Figures.size());
    return text;
}

nlohmann::json Report::AsJson() const
{
    nlohmann::json figures = nlohmann::json::array();
    for (const Figure &figure : Figures)
        figures.push_back(ToJson(figure));
    return {{"date", Date},
            {"machine", Machine},
            {"figures", figures},
            {"sessions", ToJson(Sessions)},
            {"tables", ToJson(Tables)},
            {"beyond", CountBeyond()}};
}

void Report::Write(const fs::path &directory) const
{
    fs::create_directories(directory);
    WriteFile(directory / "report.json", AsJson().dump(2) + "\n");
    WriteFile(directory / "table.txt", AsText());
    WriteFile(directory / "sessions.dat", PlotData(Sessions));
    WriteFile(directory / "tables.dat", PlotData(Tables));
}

void Report::UpdateDocument(const fs::path &file) const
{
    std::string text = ReadFile(file);
    ReplaceBetween(&text, "when", "Measured " + Date + " on " + Machine + ".\n");
    std::string group;
    for (const Figure &figure : Figures) {
        if (figure.Group == group)
            continue;
        group = figure.Group;
        ReplaceBetween(&text, group, TableOf(Figures, group));
    }
    ReplaceBetween(&text, "Sessions", TableOf(Sessions, "sessions"));
    ReplaceBetween(&text, "Tables", TableOf(Tables, "rows"));
    WriteFile(file, text);
}

} // namespace nimbra::bench
