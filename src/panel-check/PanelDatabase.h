#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

namespace nimbra::check {

/// A connection to one of the panel's databases that cannot change it: nothing is written into the
/// file, and no file appears beside it. Waits at most 3 seconds for a lock, as a request of the
/// agent does. One thread.
class PanelDatabase
{
public:
    /// Opens the file and reads its schema; Error() reports whether that succeeded.
    explicit PanelDatabase(const std::string &path);

    /// Whether SQLite accepts a query. Nothing is run.
    [[nodiscard]] bool Accepts(const std::string &query);
    /// The first column of each row; nothing when the query fails.
    [[nodiscard]] std::optional<std::vector<std::int64_t>> Numbers(const std::string &query);

    /// What is wrong with the database after the constructor or Numbers has failed; empty when
    /// neither has.
    [[nodiscard]] const std::string &Error() const { return error_; }

private:
    struct Closer
    {
        void operator()(sqlite3 *handle) const;
    };

    /// Keeps the reason of a failed call for Error().
    void KeepError(int code);

    std::unique_ptr<sqlite3, Closer> handle_;
    std::string error_;
};

} // namespace nimbra::check
