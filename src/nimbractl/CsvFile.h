#pragma once

#include <string>
#include <vector>

namespace nimbra::ctl {

/// A row of a CSV file.
struct CsvRow
{
    int Line = 0; ///< of the file, counted from 1, on which the row begins
    std::vector<std::string> Values;
};

/// Reads a CSV file: values separated by commas, in quotation marks where they hold a comma, a line
/// feed or a quotation mark. Leaves out empty lines, and a byte order mark at the beginning. Throws
/// LocalFailure when the file cannot be read or is not such a file; the message names the line.
[[nodiscard]] std::vector<CsvRow> ReadCsvFile(const std::string &name);

} // namespace nimbra::ctl
