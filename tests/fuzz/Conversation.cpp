#include "fuzz/Conversation.h"

#include "base/Descriptor.h"
#include "base/EventCount.h"
#include "client/ClientWorker.h"
#include "fuzz/Finding.h"
#include "fuzz/MessageModel.h"
#include "fuzz/ValueModel.h"

#include <algorithm>
#include <utility>

#include <sys/socket.h>

namespace nimbra::fuzz {

namespace {

/// The maximum size of a line, with its line feed.
constexpr std::size_t kLongestLine = 1024;

/// The number after the last occurrence of a name in a text.
std::size_t NumberOf(std::string_view name, std::string_view text)
{
    return static_cast<std::size_t>(NumberIn(text.substr(text.rfind(name) + name.size())));
}

/// Checks the form of the answer to a command; returns its result.
int CheckForm(const Command &command, std::string_view answer)
{
    const std::string lead = std::string(command.Name) + "Response?Result=";
    Require(!answer.empty(), lead + ": no answer");
    const std::size_t end = answer.find('\n');
    Require(end != std::string_view::npos, lead + ": an answer without a line feed");
    std::string_view first = answer.substr(0, end);
    std::string_view rest = answer.substr(end + 1);
    for (const int failure : {1, 2, 3, 9})
        if (first == lead + std::to_string(failure) && rest.empty())
            return failure;
    if (!HasForm(first, lead + "0" + command.Answer))
        Report("form of an answer", lead + "0" + command.Answer, first);
    if (command.Row != nullptr) {
        for (std::size_t count = NumberOf("Count=", first); count > 0; --count) {
            const std::size_t rowEnd = rest.find('\n');
            Require(rowEnd < kLongestLine, "a row that is missing or too long");
            if (!HasForm(rest.substr(0, rowEnd), command.Row))
                Report("form of a row", command.Row, rest.substr(0, rowEnd));
            rest.remove_prefix(rowEnd + 1);
        }
    } else if (IsSame(command.Name, "GetUserImage")) {
        const std::size_t size = NumberOf("Size=", first);
        Require(rest.size() >= size, "an image that is cut short");
        rest.remove_prefix(size);
    }
    RequireEqual("bytes after the answer", "", rest);
    return 0;
}

} // namespace

void Conversation::Run(std::string_view input, const std::string &address)
{
    rest_ = input;
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
    const Descriptor ours(ends[0]);
    socket_ = ends[0];
    EventCount sessionEnds;
    ClientWorker session(&sessionEnds);
    session.Start(Descriptor(ends[1]), address.c_str(), 40000);
    Require(!session.IsRunning() && rest_.empty() && !isUnanswered_,
            "the session ended before its client");
}

bool Conversation::OnSocketWait()
{
    if (Receive())
        return true;
    if (isUploading_ && received_.empty())
        return Upload();
    if (isUnanswered_)
        CheckAnswer();
    return SendNext();
}

bool Conversation::Receive()
{
    char bytes[65536];
    const ssize_t count = recv(socket_, bytes, sizeof bytes, MSG_DONTWAIT);
    received_.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return count > 0;
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
    fields_ = command_ == nullptr ? Fields() : FieldsOf(*command_, line_);
    isUploading_ = fields_.count("Size") != 0 && NumberIn(fields_["Size"]) > 0;
    upload_.clear();
    isUnanswered_ = true;
    Send(line_.size() + (isComplete ? 1 : 0));
    return true;
}

bool Conversation::Upload()
{
    const auto size = static_cast<std::size_t>(NumberIn(fields_["Size"]));
    const std::size_t count = std::min(size - upload_.size(), rest_.size());
    upload_ += rest_.substr(0, count);
    Send(count);
    return count > 0;
}

void Conversation::Send(std::size_t count)
{
    Require(send(socket_, rest_.data(), count, MSG_DONTWAIT) == static_cast<ssize_t>(count),
            "send");
    rest_.remove_prefix(count);
}

void Conversation::CheckAnswer()
{
    isUnanswered_ = false;
    isUploading_ = false;
    const std::string answer = std::exchange(received_, "");
    if (command_ == nullptr)
        return RequireEqual("answer to no command", "", answer);
    const int result = CheckForm(*command_, answer);
    isLoggedIn_ = isLoggedIn_ || (IsSame(command_->Name, "Login") && result == 0);
    OnAnswered({line_, command_, fields_, upload_, result, answer});
}

} // namespace nimbra::fuzz
