#pragma once

#include "data/Authority.h"
#include "fuzz/Commands.h"

#include <cstddef>
#include <string>
#include <vector>

namespace nimbra::fuzz {

/// A call of DataManager: the method and the values passed.
struct DataCall
{
    std::string Method;
    fuzz::Fields Fields;
};

/// Replaces DataManager in a fuzzer that is built with RecordedData.cpp: it has no data, records
/// each call and returns as many rows as the fuzzer wants.
struct RecordedData
{
    /// The rights that every login gives.
    AuthorityRecord Rights;
    /// The number of rows that the next call finds; 0: the call fails.
    std::size_t Found = 1;
    std::vector<DataCall> Calls;

    [[nodiscard]] static RecordedData &Get();
};

/// The user image of a call that finds one row, a file that does not exist, and of a call that
/// finds more, a file that exists.
inline constexpr char kMissingImage[] = "missing.png";
inline constexpr char kStoredImage[] = "image.png";

} // namespace nimbra::fuzz
