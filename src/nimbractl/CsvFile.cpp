#include "nimbractl/CsvFile.h"

#include "nimbractl/Errors.h"

#include <array>
#include <fstream>
#include <new>
#include <string_view>
#include <utility>

#include <csv.h>

namespace nimbra::ctl {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

/// Reads CSV byte by byte, so that the line of every row is known.
class CsvReader
{
public:
    explicit CsvReader(std::string name) : name_(std::move(name))
    {
        if (csv_init(&parser_, CSV_STRICT | CSV_STRICT_FINI) != 0)
            throw std::bad_alloc();
        // Blanks at the beginning and at the end of a value belong to it.
        csv_set_space_func(&parser_, [](unsigned char) { return 0; });
    }
    ~CsvReader() { csv_free(&parser_); }
    CsvReader(const CsvReader &) = delete;
    CsvReader &operator=(const CsvReader &) = delete;

    void Take(char c)
    {
        if (row_.Line == 0 && c != '\n' && c != '\r')
            row_.Line = line_;
        if (csv_parse(&parser_, &c, 1, TakeValue, TakeRow, this) != 1)
            Fail("A value that holds a quotation mark must be in quotation marks, with the mark "
                 "doubled.");
        CheckMemory();
        if (c == '\r' || (c == '\n' && previous_ != '\r'))
            ++line_;
        previous_ = c;
    }

    /// Returns all rows; to be called once, after the last byte.
    [[nodiscard]] std::vector<CsvRow> Finish()
    {
        if (csv_fini(&parser_, TakeValue, TakeRow, this) != 0)
            Fail("The value lacks its closing quotation mark.");
        CheckMemory();
        return std::move(rows_);
    }

private:
    // The parser is in C: no exception may pass through it.
    static void TakeValue(void *value, std::size_t size, void *reader)
    {
        auto *self = static_cast<CsvReader *>(reader);
        try {
            self->row_.Values.emplace_back(static_cast<const char *>(value), size);
        } catch (const std::bad_alloc &) {
            self->hasMemory_ = false;
        }
    }
    static void TakeRow(int, void *reader)
    {
        auto *self = static_cast<CsvReader *>(reader);
        try {
            self->rows_.push_back(std::exchange(self->row_, {}));
        } catch (const std::bad_alloc &) {
            self->hasMemory_ = false;
        }
    }

    [[noreturn]] void Fail(const std::string &sentence)
    {
        if (csv_error(&parser_) != CSV_EPARSE)
            throw std::bad_alloc();
        throw LocalFailure(name_ + ", line " + std::to_string(row_.Line) + ": " + sentence);
    }
    void CheckMemory() const
    {
        if (!hasMemory_)
            throw std::bad_alloc();
    }

    const std::string name_;
    csv_parser parser_{};
    std::vector<CsvRow> rows_;
    CsvRow row_;
    int line_ = 1;
    char previous_ = '\0';
    bool hasMemory_ = true;
};

} // namespace

std::vector<CsvRow> ReadCsvFile(const std::string &name)
{
    std::ifstream file(name, std::ios::binary);
    CsvReader reader(name);
    std::array<char, 65536> piece{};
    for (bool isFirst = true; file.read(piece.data(), piece.size()) || file.gcount() > 0;
         isFirst = false) {
        std::string_view bytes(piece.data(), static_cast<std::size_t>(file.gcount()));
        if (isFirst && bytes.starts_with(kByteOrderMark))
            bytes.remove_prefix(kByteOrderMark.size());
        for (const char c : bytes)
            reader.Take(c);
    }
    if (!file.is_open() || file.bad())
        throw LocalFailure("Cannot read " + name + ".");
    return reader.Finish();
}

} // namespace nimbra::ctl
