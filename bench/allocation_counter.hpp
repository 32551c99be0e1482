// Counts the heap allocations of a benchmark binary. Linking
// allocation_counter.cpp replaces the global operator new and delete; the
// binaries that use it run their measurements on one thread, so the count is
// a plain integer, read before and after the measured work.
#pragma once

#include <cstddef>

namespace bench {

// Every operator new (plain, array, aligned) since the program started.
std::size_t allocations();

}  // namespace bench
