// SPDX-License-Identifier: MIT
#include "allocations.h"

#include <cstdlib>
#include <new>

namespace
{

thread_local int64_t count = 0;

} // namespace

int64_t allocations() { return count; }

void* operator new(size_t bytes)
{
    count++;
    void* memory = std::malloc(bytes != 0 ? bytes : 1);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
