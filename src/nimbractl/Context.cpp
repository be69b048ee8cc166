#include "nimbractl/Context.h"

#include "nimbractl/Fields.h"
#include "nimbractl/HelpFormatter.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>

#include <nimbra-client/CommandSchema.h>
#include <nimbra-client/ResultMessage.h>

namespace nimbra::ctl {

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
    app.add_option("--limit", options.Limit, "At most so many rows; without it all of them")
        ->transform(IsNumber(1))
        ->option_text("NUMBER");
    app.add_option("--offset", options.Offset, "Leave out so many rows at the beginning")
        ->transform(IsNumber(0))
        ->option_text("NUMBER");
}

void WriteList(Context &context, const client::Request &request, const client::ListOptions &options,
               const ListStyle &style, const std::function<void(client::Record &)> &edit)
{
    const auto writer = MakeListWriter(context.Options.Output, style);
    int result = 0;
    try {
        result = context.Panel.Get().List(
            request,
            [&writer, &edit](const client::Record &row) {
                client::Record record = row;
                if (edit)
                    edit(record);
                writer->Row(record);
                return true;
            },
            options);
    } catch (...) {
        writer->End();
        throw;
    }
    writer->End();
    if (result != 0)
        throw Refused(request.Word(), result);
}

void WriteDone(Context &context, const std::string &sentence, const char *key, int number)
{
    if (context.Options.Output == Format::Table) {
        std::printf("%s\n", sentence.c_str());
        return;
    }
    const std::array<client::Field, 2> fields{
        {{"Result", client::FieldKind::Number}, {key, client::FieldKind::Number}}};
    WriteRecord(context.Options.Output, client::Record(fields, "Result=0&" + std::string(key) +
                                                                   "=" + std::to_string(number)));
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
    static const std::map<std::string, Format> kFormats = {
        {"table", Format::Table}, {"json", Format::Json}, {"csv", Format::Csv}};
    AddChoice(app, "-o,--output", settings.Output, kFormats,
              "Form of the output: table, json or csv")
        ->option_text("FORM");
}

namespace {

int Complain(Status status, const std::string &sentence)
{
    std::fflush(stdout);
    std::fprintf(stderr, "nimbractl: %s\n", Printable(sentence).c_str());
    return status;
}

} // namespace

int RunCommandLine(CLI::App &app, Context &context, std::vector<std::string> words)
{
    context.Action = nullptr;
    try {
        std::reverse(words.begin(), words.end()); // as the parser wants them
        app.parse(std::move(words));
        context.Action();
        if (std::fflush(stdout) != 0)
            throw LocalFailure("Cannot write the output.");
        return kDone;
    } catch (const CLI::RequiredError &error) {
        // The parser asks for a command before it looks at words that are none.
        const std::vector<std::string> strange = app.remaining(true);
        if (strange.empty())
            return Complain(kWrongUsage, error.what() + std::string(". --help tells more."));
        return Complain(kWrongUsage, "There is no command \"" + strange[0] +
                                         "\". --help tells those that there are.");
    } catch (const CLI::Success &help) {
        return app.exit(help) == 0 ? kDone : kWrongUsage;
    } catch (const CLI::ParseError &error) {
        return Complain(kWrongUsage, error.what() + std::string(". --help tells more."));
    } catch (const Refused &error) {
        return Complain(kRefused, error.what());
    } catch (const WrongUsage &error) {
        return Complain(kWrongUsage, error.what());
    } catch (const client::RequestError &error) {
        return Complain(kWrongUsage, error.what());
    } catch (const client::ConnectionError &error) {
        return Complain(kUnreachable, error.what());
    } catch (const client::CancelledError &) {
        return Complain(kInterrupted, "Interrupted.");
    } catch (const std::exception &error) {
        // Something of this machine: memory has run out, for one.
        return Complain(kWrongUsage, error.what());
    }
}

} // namespace nimbra::ctl
