// Session::List: reads a list page by page.

#include <algorithm>
#include <limits>

#include <nimbra-client/CommandSchema.h>
#include <nimbra-client/Session.h>

namespace nimbra::client {

namespace {

/// Passes on the requested rows, each once.
class RowFilter
{
public:
    RowFilter(const std::function<bool(const Record &)> &onRow, const ListOptions &options,
              Paging paging)
        : onRow_(onRow), paging_(paging), skip_(paging == Paging::AllAtOnce ? options.Offset : 0),
          left_(options.Limit > 0 ? options.Limit : std::numeric_limits<int>::max())
    {}

    /// Returns false when no more rows are needed.
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
    /// Events that are added during the reading move older ones to later pages.
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
        return onRow_(row) && left_ > 0;
    }

    const std::function<bool(const Record &)> &onRow_;
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

int Session::List(const Request &request, const std::function<bool(const Record &)> &onRow,
                  const ListOptions &options)
{
    const CommandSchema *schema = FindCommandSchema(request.Word());
    if (schema == nullptr || schema->Paging == Paging::None)
        throw RequestError(request.Word() + " lists nothing.");
    RowFilter filter(onRow, options, schema->Paging);
    if (schema->Paging == Paging::AllAtOnce) {
        const Response response = Execute(request);
        static_cast<void>(filter.Pass(response.Rows));
        return response.Result == 0 && !filter.HasPassed() ? 1 : response.Result;
    }
    for (int offset = options.Offset;;) {
        // An event list has no total, and a page after its end fails like one that the panel cannot
        // read. So a later page begins with the last row of the one before.
        const int overlap =
            schema->Paging == Paging::NewestFirst && offset > options.Offset ? 1 : 0;
        const int limit = std::min(std::max(options.PageSize, 1), filter.Left()) + overlap;
        const Response response = Execute(PageOf(request, offset - overlap, limit));
        if (response.Result != 0)
            return response.Result;
        const int count = static_cast<int>(response.Rows.size());
        offset += count - overlap;
        if (!filter.Pass(response.Rows) || count < limit)
            return 0;
        if (schema->Paging == Paging::Pages && offset >= response.Header.Number("Total"))
            return 0;
    }
}

} // namespace nimbra::client
