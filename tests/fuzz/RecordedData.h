#pragma once

#include "data/Authority.h"
#include "fuzz/Commands.h"

#include <array>
#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

namespace nimbra::fuzz {

/// A call of DataManager: the method and the values passed, valid until the calls are forgotten.
struct DataCall
{
    std::string_view Method;
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

    [[nodiscard]] static RecordedData &Get();

    [[nodiscard]] std::span<const DataCall> Calls() const { return calls_; }
    void ForgetCalls();

    /// For the replacement of DataManager.
    void AddCall(const DataCall &call) { calls_.push_back(call); }
    /// Keeps a text for a call.
    [[nodiscard]] std::string_view Keep(std::string_view text);

private:
    /// More than the texts of the calls of one command.
    static constexpr std::size_t kTextSize = 8192;

    std::vector<DataCall> calls_;
    std::array<char, kTextSize> texts_;
    std::size_t textSize_ = 0;
};

/// The user image of a call that finds one row, a file that does not exist, and of a call that
/// finds more, a file that exists.
inline constexpr char kMissingImage[] = "missing.png";
inline constexpr char kStoredImage[] = "image.png";

} // namespace nimbra::fuzz
