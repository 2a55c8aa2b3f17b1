// The whole program's new, so that the C++ library's own allocations fail as well.

#include "memory_support.h"

#include <cstddef>
#include <cstdlib>
#include <new>

long g_memory_left = -1;

void* operator new(std::size_t size)
{
    if (g_memory_left == 0)
        throw std::bad_alloc();
    if (g_memory_left > 0)
        --g_memory_left;
    void* memory = std::malloc(size > 0 ? size : 1);
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}
