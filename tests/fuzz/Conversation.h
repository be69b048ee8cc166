#pragma once

#include "fuzz/AgentTime.h"
#include "fuzz/Commands.h"
#include "fuzz/MemoryConnection.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace nimbra::fuzz {

/// The client of one session: sends an input line by line to a ClientWorker and checks that each
/// line gets an answer of its command's form, or none if it holds no command. A line is sent when
/// the one before has been answered.
class Conversation : public AgentEnvironment
{
public:
    /// Runs the conversation to its end. `address` is the client's address for the session.
    void Run(std::string_view input, const std::string &address);

    bool OnSocketWait() override;

    /// A line and its answer.
    struct Exchange
    {
        std::string_view Line; ///< without its line feed
        const fuzz::Command *Command;
        const fuzz::Fields &Fields;
        std::string_view Upload; ///< the bytes that followed the line as an image
        int Result;
        std::string_view Answer; ///< with all rows or bytes that follow
    };

protected:
    /// Called when a command has been answered in its form.
    virtual void OnAnswered(const Exchange &exchange) = 0;

private:
    /// Sends the next line; false if the input is at its end.
    bool SendNext();
    bool Upload();
    void Send(std::size_t count);
    void CheckAnswer();

    std::string_view rest_;
    std::string_view line_;
    std::string_view upload_;
    std::string received_;
    const fuzz::Command *command_ = nullptr;
    Fields fields_;
    bool isUnanswered_ = false; ///< a line has been sent whose answer has not been checked
    bool isUploading_ = false;
    bool isLoggedIn_ = false;
    std::optional<MemoryConnection> connection_;
};

} // namespace nimbra::fuzz
