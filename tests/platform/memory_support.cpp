// Takes the place of the operators that all of C++ allocates with.

#include "memory_support.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

bool g_is_armed = false;
bool g_from_then_on = false;
bool g_has_failed = false;
unsigned long g_number = 0;
unsigned long g_count = 0;

void* allocate(std::size_t size)
{
    if (g_is_armed) {
        ++g_count;
        if (g_number != 0 && (g_count == g_number || (g_from_then_on && g_count > g_number))) {
            g_has_failed = true;
            return nullptr;
        }
    }
    return std::malloc(size != 0 ? size : 1); // NOLINT(cppcoreguidelines-no-malloc)
}

} // namespace

void* operator new(std::size_t size)
{
    if (void* memory = allocate(size))
        return memory;
    throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

void* operator new[](std::size_t size)
{
    return operator new(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory); // NOLINT(cppcoreguidelines-no-malloc)
}

void operator delete(void* memory, std::size_t) noexcept
{
    operator delete(memory);
}

void operator delete[](void* memory) noexcept
{
    operator delete(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    operator delete(memory);
}

FailingMemory::FailingMemory(unsigned long number, bool from_then_on)
{
    g_number = number;
    g_from_then_on = from_then_on;
    g_has_failed = false;
    g_count = 0;
    g_is_armed = true;
}

FailingMemory::~FailingMemory()
{
    g_is_armed = false;
}

EnoughMemory::EnoughMemory() : m_was_armed(g_is_armed)
{
    g_is_armed = false;
}

EnoughMemory::~EnoughMemory()
{
    g_is_armed = m_was_armed;
}

bool FailingMemory::has_failed()
{
    return g_has_failed;
}

unsigned long FailingMemory::allocations()
{
    return g_count;
}
