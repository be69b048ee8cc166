#pragma once

#include <cstdint>

namespace nimbra {

class SqlText;

/// The page of a list that a client asks for, and what was found.
struct Paging
{
    std::int32_t Offset = 0;
    std::int32_t Limit = 0;
    std::int32_t Total = 0;
    std::int32_t Count = 0;

    /// Sets the page size that some lists have when the client names none.
    void SetDefaultLimit()
    {
        if (Limit == 0)
            Limit = 25;
    }

    /// Appends the page to a query. An Offset without a Limit makes the query invalid, and clients
    /// rely on the refusal.
    void AppendTo(SqlText &sql) const;
};

} // namespace nimbra
