#include "bench/driver/Report.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iterator>
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

/// A figure with three significant digits.
std::string Short(double value)
{
    if (std::fabs(value) >= 100 || value == 0)
        return Format("%.0f", value);
    if (std::fabs(value) >= 10)
        return Format("%.1f", value);
    return Format(std::fabs(value) >= 1 ? "%.2f" : "%.3f", value);
}

std::string Short(const std::optional<double> &value)
{
    return value ? Short(*value) : "";
}

std::string RatioText(const Figure &figure)
{
    return figure.Ratio ? Format("%.3f", *figure.Ratio) : "";
}

/// The unit behind a value; ratios have none.
std::string WithUnit(const Figure &figure)
{
    return figure.Unit.empty() ? "" : " " + figure.Unit;
}

/// The value that the bound of a figure is about.
double BoundedValue(const Figure &figure)
{
    return figure.Limit->Of == Bound::Subject::Ratio ? figure.Ratio.value_or(NAN) : figure.Agent;
}

std::string LimitText(const Figure &figure)
{
    if (!figure.Limit)
        return "";
    const char *const sign = figure.Limit->Allowed == Bound::Side::AtLeast ? ">=" : "<=";
    if (figure.Limit->Of == Bound::Subject::Ratio)
        return Format("ratio %s %.2f", sign, figure.Limit->Value);
    return Format("%s %g", sign, figure.Limit->Value) + WithUnit(figure);
}

std::string HoldsText(const Figure &figure)
{
    if (!figure.Limit)
        return "";
    return figure.Holds() ? "holds" : "does not hold";
}

nlohmann::json ToJson(const std::optional<double> &value)
{
    return value ? nlohmann::json(*value) : nlohmann::json();
}

nlohmann::json ToJson(const Figure &figure)
{
    nlohmann::json json = {{"group", figure.Group},
                           {"name", figure.Name},
                           {"unit", figure.Unit},
                           {"agent", figure.Agent},
                           {"reference", ToJson(figure.Reference)},
                           {"ratio", ToJson(figure.Ratio)}};
    if (figure.Limit) {
        json["bound_of"] = figure.Limit->Of == Bound::Subject::Ratio ? "ratio" : "agent";
        json[figure.Limit->Allowed == Bound::Side::AtLeast ? "at_least" : "at_most"] =
            figure.Limit->Value;
        json["holds"] = figure.Holds();
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
                              {"baseline", ToJson(point.Value.Reference)},
                              {"ratio", ToJson(point.Value.Ratio)}});
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

/// A data file for gnuplot: a block for each curve, with lines "x agent baseline".
std::string PlotData(const std::vector<Curve> &curves)
{
    std::string text;
    for (const Curve &curve : curves) {
        text += "\"" + curve.Name + "\"\n";
        for (const Curve::Point &point : curve.Points)
            text +=
                Format("%d %g %g\n", point.X, point.Value.Agent, point.Value.Reference.value_or(0));
        text += "\n\n";
    }
    return text;
}

std::string TableOf(const std::vector<Figure> &figures, const std::string &group)
{
    std::string text =
        "| | unit | agent | reference | ratio | bound | |\n|---|---|---:|---:|---:|---|---|\n";
    for (const Figure &figure : figures)
        if (figure.Group == group)
            text += "| " + figure.Name + " | " + figure.Unit + " | " + Short(figure.Agent) + " | " +
                    Short(figure.Reference) + " | " + RatioText(figure) + " | " +
                    LimitText(figure) + " | " + HoldsText(figure) + " |\n";
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
                    Short(point.Value.Reference) + " | " + RatioText(point.Value) + " |\n";
    }
    return text;
}

std::string TableOfBounds(const std::vector<Figure> &bounded)
{
    std::string text = "| | measured | bound | |\n|---|---:|---|---|\n";
    for (const Figure &figure : bounded) {
        const bool isRatio = figure.Limit->Of == Bound::Subject::Ratio;
        const std::string value =
            isRatio ? RatioText(figure) : Short(figure.Agent) + WithUnit(figure);
        text += "| " + figure.Group + ": " + figure.Name + " | " + value + " | " +
                LimitText(figure) + " | " + HoldsText(figure) + " |\n";
    }
    return text;
}

std::string TextOf(const std::vector<Figure> &figures)
{
    std::string text;
    std::string group;
    for (const Figure &figure : figures) {
        if (figure.Group != group) {
            group = figure.Group;
            text += "\n" + Format("%-58s %10s %10s %8s  %s\n", group.c_str(), "agent", "reference",
                                  "ratio", "bound");
        }
        const std::string name = figure.Name + (figure.Unit.empty() ? "" : ", " + figure.Unit);
        std::string line = Format("  %-56s %10s %10s %8s  %s", name.c_str(),
                                  Short(figure.Agent).c_str(), Short(figure.Reference).c_str(),
                                  RatioText(figure).c_str(), LimitText(figure).c_str());
        if (!figure.Holds())
            line += " " + HoldsText(figure);
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

std::string TextOf(const std::vector<Curve> &curves, const char *label)
{
    std::string text;
    for (const Curve &curve : curves) {
        const std::string title = curve.Name + ", " + curve.Unit;
        text += "\n" + Format("%-58s %10s %10s %8s\n", title.c_str(), "agent", "baseline", "ratio");
        for (const Curve::Point &point : curve.Points)
            text += Format("  %8d %-47s %10s %10s %8s\n", point.X, label,
                           Short(point.Value.Agent).c_str(), Short(point.Value.Reference).c_str(),
                           RatioText(point.Value).c_str());
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
        throw std::runtime_error("the document has no marks for '" + name + "'");
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

bool Figure::Holds() const
{
    if (!Limit)
        return true;
    const double value = BoundedValue(*this);
    return Limit->Allowed == Bound::Side::AtLeast ? value >= Limit->Value : value <= Limit->Value;
}

Figure Rounds::Take(std::string group, std::string name, std::string unit,
                    std::optional<Bound> limit) const
{
    Figure figure{
        std::move(group), std::move(name), std::move(unit), Median(agent_), {}, {}, limit};
    if (reference_.empty())
        return figure;
    figure.Reference = Median(reference_);
    std::vector<double> ratios;
    for (std::size_t i = 0; i < std::min(agent_.size(), reference_.size()); ++i)
        if (reference_[i] > 0)
            ratios.push_back(agent_[i] / reference_[i]);
    if (!ratios.empty())
        figure.Ratio = Median(ratios);
    return figure;
}

std::vector<Figure> Report::Bounded() const
{
    std::vector<Figure> bounded;
    std::copy_if(Figures.begin(), Figures.end(), std::back_inserter(bounded),
                 [](const Figure &figure) { return figure.Limit.has_value(); });
    return bounded;
}

int Report::CountBroken() const
{
    return static_cast<int>(std::count_if(Figures.begin(), Figures.end(),
                                          [](const Figure &figure) { return !figure.Holds(); }));
}

std::string Report::AsText() const
{
    std::string text = "Measured " + Date + " on " + Machine + "\n";
    text += TextOf(Figures) + TextOf(Sessions, "sessions") + TextOf(Tables, "rows");
    text += Format("\n%d of %zu bounds do not hold\n", CountBroken(), Bounded().size());
    for (const Figure &figure : Bounded())
        if (!figure.Holds())
            text += "  " + figure.Group + ": " + figure.Name + ": " +
                    Format("%.3f", BoundedValue(figure)) + ", bound " + LimitText(figure) + "\n";
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
            {"broken_bounds", CountBroken()}};
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
    ReplaceBetween(&text, "Bounds", TableOfBounds(Bounded()));
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
