#include "nimbractl/Context.h"

#include "nimbractl/Fields.h"
#include "nimbractl/HelpFormatter.h"
#include "nimbractl/TextWidth.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <numeric>

#include <nimbra-client/CommandSchema.h>
#include <nimbra-client/ResultMessage.h>

namespace nimbra::ctl {

namespace {

/// Returns the least number of characters to insert, remove or replace to turn `a` into `b`.
std::size_t EditDistance(const std::string &a, const std::string &b)
{
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

/// Returns the sentence for a word that is not a command: the group that lacks it, and the nearest
/// command of the group, unless the word is an option. Empty when the words before are a command,
/// not a group.
std::string UnknownWord(const CLI::App &app, const std::string &word)
{
    const CLI::App *group = &app;
    std::string name;
    for (auto parsed = group->get_subcommands(); !parsed.empty();
         parsed = group->get_subcommands()) {
        group = parsed.back();
        name += (name.empty() ? "" : " ") + group->get_name();
    }
    std::string nearest;
    for (const CLI::App *command : group->get_subcommands([](const CLI::App *) { return true; }))
        if (nearest.empty() ||
            EditDistance(word, command->get_name()) < EditDistance(word, nearest))
            nearest = command->get_name();
    if (nearest.empty())
        return "";
    const bool isOption = word.starts_with('-');
    return std::string("There is no ") + (isOption ? "option" : "command") + " \"" + word + "\"" +
           (name.empty() ? "" : " in \"" + name + "\"") +
           (isOption ? "" : "; the nearest is \"" + nearest + "\"") + ". --help lists all.";
}

std::string UnexpectedWords(const std::vector<std::string> &words)
{
    std::string sentence = words.size() == 1 ? "Unexpected word:" : "Unexpected words:";
    for (const std::string &word : words)
        sentence += " " + word;
    return sentence + ". --help lists what the command takes.";
}

int Fail(const Context &context, int status, const std::string &sentence)
{
    WriteError(context, sentence);
    return status;
}

} // namespace

Refused::Refused(const std::string &word, int result)
    : std::runtime_error(client::ResultMessage(word, result) + " (" + word +
                         ": Result=" + std::to_string(result) + ")")
{}

CLI::App &AddGroup(CLI::App &parent, const std::string &name, const std::string &help)
{
    CLI::App *app = parent.add_subcommand(name, help);
    app->require_subcommand(1);
    return *app;
}

void PrepareApp(CLI::App &app, const std::string &footer)
{
    app.fallthrough();
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(footer);
}

void AddFooter(CLI::App &app, const std::string &text)
{
    const std::string common = app.get_footer();
    app.footer(common.empty() ? text : text + "\n\n" + common);
}

CLI::Option *AddNumber(CLI::App &app, const std::string &name, int &into, const std::string &help)
{
    return app.add_option(name, into, help)->transform(IsNumber())->option_text("NUMBER");
}

void AddPaging(CLI::App &app, client::ListOptions &options)
{
    app.add_option("--limit", options.Limit, "Show at most this many rows; all by default")
        ->transform(IsNumber(1))
        ->option_text("NUMBER");
    app.add_option("--offset", options.Offset, "Skip this many rows at the beginning")
        ->transform(IsNumber(0))
        ->option_text("NUMBER");
}

void AddViewOptions(CLI::App &app, Settings &settings)
{
    app.add_option_function<std::string>(
           "--fields",
           [&settings](const std::string &names) {
               settings.Output.Fields = CLI::detail::split(names, ',');
           },
           "Show only these fields, in this order, such as UserNo,LastName")
        ->option_text("FIELD,...");
    AddWideOption(app, settings);
}

void AddWideOption(CLI::App &app, Settings &settings)
{
    app.add_flag("--wide", settings.Output.IsWide,
                 "Show all columns of a table whole, also on a terminal that is not wide enough");
}

bool WriteList(Context &context, const client::Request &request, const client::ListOptions &options,
               const ListStyle &style, const RowRules &rules)
{
    const client::CommandSchema *schema = client::FindCommandSchema(request.Word());
    const auto writer = MakeListWriter(context.Options.Output, schema->Row, style);
    // The panel cannot count the rows that are shown.
    client::ListOptions requested = options;
    int skipped = 0;
    if (rules.IsShown)
        requested.Limit = requested.Offset = 0;
    int written = 0;
    const auto write = [&](const client::Record &row) {
        if (rules.IsShown && (!rules.IsShown(row) || ++skipped <= options.Offset))
            return true;
        client::Record record = row;
        if (rules.Edit)
            rules.Edit(record);
        writer->Row(record);
        return ++written != options.Limit;
    };
    int result = 0;
    try {
        result = context.Panel.Get().List(request, write, requested);
    } catch (...) {
        if (written > 0)
            writer->End();
        throw;
    }
    // Result 1 is also that of an empty list.
    if (written > 0 || result <= 1)
        writer->End();
    if (result != 0)
        throw Refused(request.Word(), result);
    if (written == 0)
        throw Refused(request.Word(), 1);
    return written != options.Limit;
}

void WriteDone(Context &context, const std::string &sentence, const client::Record &record)
{
    if (context.Options.Output.Format == Format::Table)
        std::printf("%s\n", Printable(sentence).c_str());
    else
        WriteRecord(context.Options.Output, record);
}

void WriteDone(Context &context, const std::string &sentence, const char *key, int number)
{
    const std::array<client::Field, 2> fields{
        {{"Result", client::FieldKind::Number}, {key, client::FieldKind::Number}}};
    client::Record record(fields, "Result=0");
    record.Set(key, std::to_string(number));
    WriteDone(context, sentence, record);
}

void ShowChange(const std::string &done, const std::function<void()> &show)
{
    try {
        show();
    } catch (const WrongUsage &) {
        throw; // the output cannot be written
    } catch (const std::runtime_error &) {
        WriteNote(done + "; the panel does not show it.");
    }
}

void WriteNote(const std::string &sentence)
{
    std::fprintf(stderr, "nimbractl: %s\n", Printable(sentence).c_str());
}

void WriteError(const Context &context, const std::string &sentence)
{
    std::fflush(stdout);
    WriteNote((context.ScriptLine > 0 ? "Line " + std::to_string(context.ScriptLine) + ": " : "") +
              PanelPrefix(context.Options) + sentence);
}

void AddAllCommands(CLI::App &app, Context &context)
{
    app.require_subcommand(1);
    AddDiscoverCommand(app, context);
    AddDoorCommands(app, context);
    AddOutputCommands(app, context);
    AddEventCommands(app, context);
    AddUserCommands(app, context);
    AddCardCommands(app, context);
    AddPanelCommands(app, context);
    AddVideoCommands(app, context);
    AddRawCommand(app, context);
}

void AddOutputOption(CLI::App &app, Settings &settings)
{
    static const std::map<std::string, Format> kFormats = {{"table", Format::Table},
                                                           {"json", Format::Json},
                                                           {"jsonl", Format::JsonLines},
                                                           {"csv", Format::Csv}};
    AddChoice(app, "-o,--output", settings.Output.Format, kFormats,
              "Form of the output; a table by default. jsonl is one JSON object a line");
}

int RunAndReport(const Context &context, const std::function<int()> &command)
{
    try {
        const int status = command();
        if (std::fflush(stdout) != 0)
            throw LocalFailure("Cannot write the output.");
        return status;
    } catch (const Refused &error) {
        return Fail(context, kRefused, error.what());
    } catch (const WrongUsage &error) {
        return Fail(context, kWrongUsage, error.what());
    } catch (const client::RequestError &error) {
        return Fail(context, kWrongUsage, error.what());
    } catch (const client::ConnectionError &error) {
        return Fail(context, kUnreachable, error.what());
    } catch (const client::CancelledError &) {
        return Fail(context, kInterrupted, "Interrupted.");
    } catch (const std::exception &error) {
        // A failure of this machine, such as no memory.
        return Fail(context, kWrongUsage, error.what());
    }
}

int RunCommandLine(CLI::App &app, Context &context, std::vector<std::string> words)
{
    context.Action = nullptr;
    try {
        std::reverse(words.begin(), words.end()); // the parser takes them in this order
        app.parse(std::move(words));
    } catch (const CLI::RequiredError &error) {
        // The parser reports a missing command before unexpected words.
        const std::vector<std::string> unknown = app.remaining(true);
        const std::string sentence = unknown.empty() ? "" : UnknownWord(app, unknown[0]);
        return Fail(context, kWrongUsage,
                    sentence.empty() ? error.what() + std::string(". --help shows more.")
                                     : sentence);
    } catch (const CLI::ExtrasError &) {
        return Fail(context, kWrongUsage, UnexpectedWords(app.remaining(true)));
    } catch (const CLI::Success &help) {
        return app.exit(help) == 0 ? kDone : kWrongUsage;
    } catch (const CLI::ParseError &error) {
        return Fail(context, kWrongUsage, error.what() + std::string(". --help shows more."));
    } catch (const WrongUsage &error) {
        return Fail(context, kWrongUsage, error.what());
    }
    return RunAndReport(context, context.Action);
}

} // namespace nimbra::ctl
