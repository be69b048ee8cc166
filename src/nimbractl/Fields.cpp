#include "nimbractl/Fields.h"

#include "nimbractl/Errors.h"
#include "nimbractl/Output.h"

#include <nimbra-client/PanelClock.h>

namespace nimbra::ctl {

namespace {

using client::FieldKind;

CLI::Validator IsDate()
{
    return {[](std::string &text) {
                return text.size() == 10 && client::ParseTime(text)
                           ? std::string()
                           : "\"" + text + "\" is no date such as 2026-01-31";
            },
            ""};
}

const char *TypeName(FieldKind kind)
{
    if (kind == FieldKind::Number)
        return "NUMBER";
    return kind == FieldKind::Date ? "DATE" : "TEXT";
}

void AddValue(client::Request &request, const FieldOption &option, const std::string &value)
{
    const char *key = option.Field.Name;
    if (option.Field.Kind == FieldKind::Number)
        request.Number(key, client::ParseNumber(value).value_or(0));
    else if (option.Field.Kind == FieldKind::Text)
        request.Text(key, value, option.Limit);
    else if (value != kNoDate)
        request.RawText(key, value, client::kNameBytes);
}

} // namespace

void AddFields(CLI::App &app, std::span<const FieldOption> options, GivenFields &given)
{
    for (const FieldOption &option : options) {
        const std::string key = option.Field.Name;
        CLI::Option *added = app.add_option_function<std::string>(
            option.Option, [&given, key](const std::string &value) { given[key] = value; },
            option.Help);
        added->option_text(TypeName(option.Field.Kind));
        if (option.Field.Kind == FieldKind::Number)
            added->transform(IsNumber());
        if (option.Field.Kind == FieldKind::Date)
            added->check(IsDate());
    }
}

std::string FindFault(const FieldOption &option, std::string &value)
{
    if (option.Field.Kind == FieldKind::Text) {
        try {
            client::Request("").Text(option.Field.Name, value, option.Limit);
            return "";
        } catch (const client::RequestError &error) {
            return error.what();
        }
    }
    const std::string fault =
        option.Field.Kind == FieldKind::Number ? IsNumber()(value) : IsDate()(value);
    return fault.empty() ? "" : fault + ".";
}

void AddGiven(client::Request &request, std::span<const FieldOption> options,
              const GivenFields &given)
{
    for (const FieldOption &option : options)
        if (const auto found = given.find(option.Field.Name); found != given.end())
            AddValue(request, option, found->second);
}

void AddGivenOrKept(client::Request &request, std::span<const FieldOption> options,
                    const GivenFields &given, const client::Record &record, bool mayCut)
{
    for (const FieldOption &option : options) {
        if (const auto found = given.find(option.Field.Name); found != given.end()) {
            AddValue(request, option, found->second);
            continue;
        }
        const std::string &kept = record.Text(option.Field.Name);
        if (option.Field.Kind == FieldKind::Text && kept.size() >= option.Limit && !mayCut)
            throw WrongUsage(std::string("The panel may hold more of ") + option.Field.Name +
                             " than the " + std::to_string(option.Limit) +
                             " bytes it reports, and the rest would be lost: give a new value, or "
                             "--accept-cut.");
        AddValue(request, option, kept);
    }
}

CLI::Validator IsNumber(std::int32_t least, std::int32_t most)
{
    return {[least, most](std::string &text) -> std::string {
                const std::optional<std::int32_t> number = client::ParseNumber(text);
                if (!number)
                    return "\"" + text + "\" is no whole number of 32 bits";
                if (*number < least || *number > most)
                    return text + " is not within " + std::to_string(least) + " and " +
                           std::to_string(most);
                text = std::to_string(*number);
                return "";
            },
            ""};
}

CLI::Validator IsDuration()
{
    return {[](const std::string &text) -> std::string {
                double seconds = 0;
                // Written so that it fails for "nan", too.
                const bool isWithin =
                    CLI::detail::lexical_cast(text, seconds) && seconds >= 0.1 && seconds <= 3600;
                return isWithin ? "" : "\"" + text + "\" is not within 0.1 and 3600 seconds";
            },
            ""};
}

void RequireGiven(const GivenFields &given)
{
    if (given.empty())
        throw WrongUsage("Name at least one field to change.");
}

} // namespace nimbra::ctl
