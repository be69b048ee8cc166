#include "nimbractl/LevelNames.h"

#include <map>
#include <sstream>
#include <string>
#include <utility>

#include <nimbra-client/Request.h>

namespace nimbra::ctl {

namespace {

using client::Record;
using client::Request;

/// Names by their number.
using Names = std::map<std::string, std::string>;

Names ReadNames(Context &context, const Request &list, const char *numberKey, const char *nameKey)
{
    Names names;
    if (context.Options.Output.Format != Format::Table)
        return names;
    // Without a response that lists them, there are no names.
    static_cast<void>(context.Panel.Get().List(list, [&](const Record &row) {
        names[row.Text(numberKey)] = row.Text(nameKey);
        return true;
    }));
    return names;
}

std::string NameOf(const Names &names, const std::string &number)
{
    const auto found = names.find(number);
    return found == names.end() || found->second.empty() ? number : found->second;
}

} // namespace

RecordEdit NamesOfThreatLevels(Context &context)
{
    return
        [names = ReadNames(context, Request("GetThreatInfoEx"), "Level", "Desc")](Record &record) {
            record.Set("ThreatLevel", NameOf(names, record.Text("ThreatLevel")));
        };
}

void NameAccessLevels(Context &context, Record &card)
{
    const Names names = ReadNames(
        context, Request("GetAccessLevelEx").Number("SelectType", card.Number("SelectType")),
        "LevelNo", "Name");
    if (names.empty())
        return;
    std::istringstream numbers(card.Text("AccessLevelNo"));
    std::string text;
    for (std::string number; numbers >> number;)
        text += (text.empty() ? "" : ", ") + NameOf(names, number);
    card.Set("AccessLevelNo", text);
}

} // namespace nimbra::ctl
