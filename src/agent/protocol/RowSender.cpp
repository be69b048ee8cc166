#include "protocol/RowSender.h"

#include "base/Wait.h"
#include "protocol/SocketWait.h"

#include <ctime>

#include <sys/socket.h>

namespace nimbra {

namespace {

constexpr std::time_t kLineSeconds = 5;
constexpr std::time_t kClientSeconds = 60;

} // namespace

bool RowSender::Add(std::string_view line)
{
    if ((lines_ == Batch::kLines || Batch::kSize - Size() < line.size()) && !Flush())
        return false;
    const std::size_t begin = Size();
    line.copy(batch_->Bytes.data() + begin, line.size());
    batch_->Ends[lines_] = static_cast<std::uint16_t>(begin + line.size());
    ++lines_;
    return true;
}

bool RowSender::Flush()
{
    std::size_t done = 0; // bytes that are sent or lost
    std::size_t end = Size();
    SecondTimer sinceLine;
    SocketWait wait(socket_, WaitForOutput);
    for (std::size_t line = 0; line < lines_;) {
        const ssize_t result = send(socket_, batch_->Bytes.data() + done, end - done, MSG_DONTWAIT);
        if (result > 0) {
            done += static_cast<std::size_t>(result);
            sinceTaken_ = SecondTimer();
        }
        const bool hasFailed = !wait.Continue(result);
        isGivenUp_ = sinceTaken_.Elapsed() >= kClientSeconds;
        if (isGivenUp_)
            return false;
        if (done < batch_->Ends[line] && (hasFailed || sinceLine.Elapsed() >= kLineSeconds))
            done = batch_->Ends[line];
        if (done < batch_->Ends[line])
            continue;
        while (line < lines_ && batch_->Ends[line] <= done)
            ++line;
        sinceLine = SecondTimer();
        if (stop_.IsSet()) {
            const std::size_t begin = line == 0 ? 0 : batch_->Ends[line - 1];
            if (done == begin)
                return false;
            // A part of this line is sent: it is the one on its way.
            end = batch_->Ends[line];
        }
    }
    lines_ = 0;
    return true;
}

std::size_t RowSender::Size() const
{
    return lines_ == 0 ? 0 : batch_->Ends[lines_ - 1];
}

} // namespace nimbra
