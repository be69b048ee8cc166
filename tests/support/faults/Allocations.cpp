// Stands before the allocation of memory. A sanitized agent has an allocator of its own, and does
// without this.

#include "support/faults/Orders.h"

#include <cstddef>

/// The allocator of glibc under its other names: it can be called before dlsym can.
extern "C" void *__libc_malloc(std::size_t size);
extern "C" void *__libc_calloc(std::size_t number, std::size_t size);
extern "C" void *__libc_realloc(void *memory, std::size_t size);

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
