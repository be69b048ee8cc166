// Replaces the functions that allocate memory, so that they can fail. Not part of a sanitized
// build, where the sanitizer brings its own allocator.

#include "support/faults/FaultRules.h"

#include <cstddef>

// The internal names of glibc's allocator, which can be called before dlsym works.
// NOLINTBEGIN(readability-identifier-naming): the C library's names
extern "C" void *__libc_malloc(std::size_t size);
extern "C" void *__libc_calloc(std::size_t number, std::size_t size);
extern "C" void *__libc_realloc(void *memory, std::size_t size);
// NOLINTEND(readability-identifier-naming)

using nimbra::faults::Point;
using nimbra::faults::ShallFail;

extern "C" {

void *malloc(std::size_t size)
{
    return ShallFail(Point::Allocate) ? nullptr : __libc_malloc(size);
}

void *calloc(std::size_t number, std::size_t size)
{
    return ShallFail(Point::Allocate) ? nullptr : __libc_calloc(number, size);
}

void *realloc(void *memory, std::size_t size)
{
    return ShallFail(Point::Allocate) ? nullptr : __libc_realloc(memory, size);
}

} // extern "C"
