#include "fuzz/Conversation.h"

#include "base/Descriptor.h"
#include "base/EventCount.h"
#include "client/ClientWorker.h"
#include "fuzz/Finding.h"
#include "fuzz/MessageModel.h"
#include "fuzz/ValueModel.h"

#include <algorithm>
#include <utility>

namespace nimbra::fuzz {

namespace {

/// The maximum size of a line, with its line feed.
constexpr std::size_t kLongestLine = 1024;

/// The number after the last occurrence of a name in a text.
std::size_t NumberOf(std::string_view name, std::string_view text)
{
    return static_cast<std::size_t>(NumberIn(text.substr(text.rfind(name) + name.size())));
}

/// Removes the start of a text that must begin with it; false if it does not.
bool Remove(std::string_view start, std::string_view *text)
{
    if (!StartsWith(*text, start))
        return false;
    text->remove_prefix(start.size());
    return true;
}

/// The result in the first line of an answer, which `line` is without afterwards; a line that is
/// not of the command is a finding.
int TakeResult(const Command &command, std::string_view *line)
{
    const std::string_view whole = *line;
    if (!Remove(command.Name, line) || !Remove("Response?Result=", line) || line->empty() ||
        std::string_view("01239").find(line->front()) == std::string_view::npos)
        Report("result of an answer", command.Name, whole);
    const int result = line->front() - '0';
    line->remove_prefix(1);
    return result;
}

/// Checks the rows of a list; returns what follows them.
std::string_view CheckRows(const Command &command, std::size_t count, std::string_view rest)
{
    for (; count > 0; --count) {
        const std::size_t end = rest.find('\n');
        Require(end < kLongestLine, "a row that is missing or too long");
        if (!HasForm(rest.substr(0, end), command.Row))
            Report("form of a row", command.Row, rest.substr(0, end));
        rest.remove_prefix(end + 1);
    }
    return rest;
}

/// Checks the form of the answer to a command; returns its result.
int CheckForm(const Command &command, std::string_view answer)
{
    Require(!answer.empty(), "no answer to a command");
    const std::size_t end = answer.find('\n');
    Require(end != std::string_view::npos, "an answer without a line feed");
    std::string_view first = answer.substr(0, end);
    std::string_view rest = answer.substr(end + 1);
    const int result = TakeResult(command, &first);
    if (!HasForm(first, result == 0 ? command.Answer : ""))
        Report("form of an answer", command.Answer, first);
    if (result == 0 && command.Row != nullptr) {
        rest = CheckRows(command, NumberOf("Count=", first), rest);
    } else if (result == 0 && IsSame(command.Name, "GetUserImage")) {
        const std::size_t size = NumberOf("Size=", first);
        Require(rest.size() >= size, "an image that is cut short");
        rest.remove_prefix(size);
    }
    RequireEqual("bytes after the answer", "", rest);
    return result;
}

} // namespace

void Conversation::Run(std::string_view input, const std::string &address)
{
    rest_ = input;
    Descriptor socket(OpenDescriptor());
    connection_.emplace(socket.Get());
    EventCount sessionEnds;
    {
        ClientWorker session(&sessionEnds);
        session.Start(std::move(socket), address.c_str(), 40000);
        Require(!session.IsRunning() && rest_.empty() && !isUnanswered_,
                "the session ended before its client");
    }
    RequireDescriptorsClosed();
}

bool Conversation::OnSocketWait()
{
    if (connection_->HasReceived()) {
        received_ += connection_->Receive();
        return true;
    }
    if (isUploading_ && received_.empty())
        return Upload();
    if (isUnanswered_)
        CheckAnswer();
    return SendNext();
}

bool Conversation::SendNext()
{
    if (rest_.empty())
        return false;
    const std::size_t end = rest_.find('\n');
    const bool isComplete = end < kLongestLine;
    line_ = rest_.substr(0, isComplete ? end : kLongestLine);
    // A line that is too long or has no end holds no command.
    command_ = isComplete ? FindCommand(line_, isLoggedIn_) : nullptr;
    fields_.Clear();
    if (command_ != nullptr)
        ReadFields(*command_, line_, &fields_);
    isUploading_ = fields_.Has("Size") && fields_["Size"].Number() > 0;
    isUnanswered_ = true;
    Send(line_.size() + (isComplete ? 1 : 0));
    upload_ = rest_.substr(0, 0);
    return true;
}

bool Conversation::Upload()
{
    const auto size = static_cast<std::size_t>(fields_["Size"].Number());
    const std::size_t count = std::min(size - upload_.size(), rest_.size());
    // What follows the line, so far.
    upload_ = {upload_.data(), upload_.size() + count};
    Send(count);
    return count > 0;
}

void Conversation::Send(std::size_t count)
{
    connection_->Send(rest_.substr(0, count));
    rest_.remove_prefix(count);
}

void Conversation::CheckAnswer()
{
    isUnanswered_ = false;
    isUploading_ = false;
    if (command_ == nullptr) {
        RequireEqual("answer to no command", "", received_);
        return;
    }
    const int result = CheckForm(*command_, received_);
    isLoggedIn_ = isLoggedIn_ || (IsSame(command_->Name, "Login") && result == 0);
    OnAnswered({line_, command_, fields_, upload_, result, received_});
    received_.clear();
}

} // namespace nimbra::fuzz
