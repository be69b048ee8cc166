// A minimal command tool of the panel: appends its arguments to a file and does nothing else.

#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

/// Writes the count of the arguments, then the arguments, each with a zero byte at its end.
int main(int argc, char **argv)
{
    char record[8192];
    auto size = static_cast<std::size_t>(std::snprintf(record, sizeof record, "%d", argc - 1)) + 1;
    for (int i = 1; i < argc; ++i) {
        const std::size_t length = std::strlen(argv[i]) + 1;
        if (length > sizeof record - size)
            return 1;
        std::memcpy(record + size, argv[i], length);
        size += length;
    }
    const int file = open(NIMBRA_CALLS_PATH, O_WRONLY | O_CREAT | O_APPEND, 0644);
    return write(file, record, size) == static_cast<ssize_t>(size) ? 0 : 1;
}
