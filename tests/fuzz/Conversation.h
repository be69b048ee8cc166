#pragma once

#include "fuzz/AgentTime.h"
#include "fuzz/Commands.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace nimbra::fuzz {

/// The client of one session: says an input line by line to a real session and sees to it that each
/// line gets what it must, an answer of the form that the command has, or none. Every line is
/// answered before the next is said.
class Conversation : public AgentWorld
{
public:
    /// Holds the conversation to its end; the session is told that the client is at `address`.
    void Hold(std::string_view input, const std::string &address);

    bool OnSocketWait() override;

    /// What a line came to.
    struct Exchange
    {
        std::string Line; ///< without its line feed
        const fuzz::Command *Command;
        fuzz::Fields Fields;
        std::string Upload; ///< the bytes that followed the line as an image
        int Result;
        std::string Answer; ///< all of it
    };

protected:
    /// A known command has been answered in due form.
    virtual void OnAnswered(const Exchange &exchange) = 0;

private:
    /// Takes in what the session has sent; false when that is nothing.
    bool Listen();
    /// Says what the session waits for; false when there is nothing left to say.
    bool Speak();
    bool Upload();
    void Say(std::size_t count);
    void Conclude();

    std::string_view rest_;
    std::string said_;
    std::string upload_;
    std::string heard_;
    const fuzz::Command *command_ = nullptr;
    Fields fields_;
    bool isOpen_ = false; ///< a line has been said and its answer not been judged
    bool isUploading_ = false;
    bool isLoggedIn_ = false;
    int socket_ = -1;
};

} // namespace nimbra::fuzz
