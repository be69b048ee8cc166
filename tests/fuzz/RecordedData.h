#pragma once

#include "data/Authority.h"
#include "fuzz/Commands.h"

#include <cstddef>
#include <string>
#include <vector>

namespace nimbra::fuzz {

/// A call of the agent's data gateway: its method, and what it was asked.
struct DataCall
{
    std::string Method;
    fuzz::Fields Fields;
};

/// What stands in place of the data gateway in a fuzzer that has RecordedData.cpp among its
/// sources: it keeps no data, but takes down each call and answers as it was told to.
struct RecordedData
{
    /// The rights that every login gives.
    AuthorityRecord Rights;
    /// How the next call goes: 0 fails, others find so many rows.
    std::size_t Found = 1;
    std::vector<DataCall> Calls;

    [[nodiscard]] static RecordedData &Get();
};

/// The picture that a call tells of when it finds one row, a file that is not there; and when it
/// finds more, one that is.
inline constexpr char kMissingPicture[] = "missing.png";
inline constexpr char kPicture[] = "picture.png";

} // namespace nimbra::fuzz
