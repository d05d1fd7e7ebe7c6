// A replacement of the global operator new that a test can make fail on demand, on one thread:
// FailAllocations(n) makes the next n allocations of the calling thread throw std::bad_alloc.
// Defines the replacement functions, so include it in exactly one file of a test program.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

namespace corvane::testing_support {

inline thread_local std::size_t allocations_to_fail = 0;

// The next `count` allocations on the calling thread fail; 0 ends a failing spell.
inline void FailAllocations(std::size_t count) { allocations_to_fail = count; }

}  // namespace corvane::testing_support

// GCC pairs the free() below with the operator new it is inlined after, not with the malloc()
// that this operator new calls.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
  if (corvane::testing_support::allocations_to_fail > 0) {
    --corvane::testing_support::allocations_to_fail;
    throw std::bad_alloc();
  }
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
#pragma GCC diagnostic pop
