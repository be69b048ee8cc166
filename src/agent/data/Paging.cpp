#include "data/Paging.h"

#include "data/SqlText.h"

namespace nimbra {

void Paging::AppendTo(SqlText &sql) const
{
    if (Limit != 0)
        sql.Append(" LIMIT %d", Limit);
    if (Offset != 0)
        sql.Append(" OFFSET %d", Offset);
}

} // namespace nimbra
