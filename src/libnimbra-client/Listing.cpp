// Lists, fetched page by page.

#include <algorithm>
#include <limits>

#include <nimbra-client/Replies.h>
#include <nimbra-client/Session.h>

namespace nimbra::client {

namespace {

/// Hands on the rows that are wanted, each once.
class RowFilter
{
public:
    RowFilter(const std::function<bool(const Record &)> &take, const ListOptions &options,
              Paging paging)
        : take_(take), paging_(paging), skip_(paging == Paging::AllAtOnce ? options.Offset : 0),
          left_(options.Limit > 0 ? options.Limit : std::numeric_limits<int>::max())
    {}

    /// Returns false when no more rows are wanted.
    [[nodiscard]] bool Pass(const std::vector<Record> &rows)
    {
        for (const Record &row : rows)
            if (IsNew(row) && !PassOne(row))
                return false;
        return left_ > 0;
    }

    [[nodiscard]] int Left() const { return left_; }
    [[nodiscard]] bool HasPassed() const { return hasPassed_; }

private:
    /// Events that are added while the list is read move older ones to later pages.
    [[nodiscard]] bool IsNew(const Record &row)
    {
        if (paging_ != Paging::NewestFirst)
            return true;
        const int number = row.Number("EventNo");
        const bool isNew = number < lastNumber_;
        lastNumber_ = std::min(number, lastNumber_);
        return isNew;
    }

    [[nodiscard]] bool PassOne(const Record &row)
    {
        if (skip_ > 0) {
            --skip_;
            return true;
        }
        hasPassed_ = true;
        --left_;
        return take_(row) && left_ > 0;
    }

    const std::function<bool(const Record &)> &take_;
    Paging paging_;
    int skip_;
    int left_;
    int lastNumber_ = std::numeric_limits<int>::max();
    bool hasPassed_ = false;
};

Request PageOf(const Request &filters, int offset, int limit)
{
    Request request = filters;
    if (offset > 0)
        request.Number("Offset", offset);
    request.Number("Limit", limit);
    return request;
}

} // namespace

int Session::List(const Request &request, const std::function<bool(const Record &)> &take,
                  const ListOptions &options)
{
    const Reply *reply = FindReply(request.Word());
    if (reply == nullptr || reply->Paging == Paging::None)
        throw BadRequest(request.Word() + " lists nothing.");
    RowFilter filter(take, options, reply->Paging);
    if (reply->Paging == Paging::AllAtOnce) {
        const Answer answer = Ask(request);
        static_cast<void>(filter.Pass(answer.Rows));
        return answer.Result == 0 && !filter.HasPassed() ? 1 : answer.Result;
    }
    for (int offset = options.Offset;;) {
        const int limit = std::min(std::max(options.PageSize, 1), filter.Left());
        const Answer answer = Ask(PageOf(request, offset, limit));
        // Events tell no total: there the page past the end is the only sign of it.
        if (answer.Result != 0)
            return answer.Result == 1 && filter.HasPassed() && reply->Paging != Paging::Pages
                       ? 0
                       : answer.Result;
        const int count = static_cast<int>(answer.Rows.size());
        offset += count;
        if (!filter.Pass(answer.Rows) || count < limit)
            return 0;
        if (reply->Paging == Paging::Pages && offset >= answer.Header.Number("Total"))
            return 0;
    }
}

} // namespace nimbra::client
