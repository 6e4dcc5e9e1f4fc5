// Aligned allocation of the admin library, and the hooks through which the library allocates.
#pragma once

#include <cstddef>

inline constexpr std::size_t MY_MINALIGN = 8;

// A block of size bytes aligned to alignsize (a power of two, at least MY_MINALIGN), not zeroed;
// null when memory is short (counted, and reported through RasEvent at most every 300 seconds).
void* MyMemalign(std::size_t alignsize, std::size_t size, const char* file, int line);
// Frees a block of MyMemalign; null is ignored.
void MyFree(void* block);

using AllocFunc = void* (*)(std::size_t alignsize, std::size_t size, const char* file, int line);
using FreeFunc = void (*)(void* block);
extern AllocFunc AllocMemory;
extern FreeFunc FreeMemory;

// A zeroed block from AllocMemory, alignment 8; null when memory is short.
void* AllocAndPinMemory(std::size_t size);

// Failed allocations so far (for tests and RAS).
int MemoryFailureCount();
