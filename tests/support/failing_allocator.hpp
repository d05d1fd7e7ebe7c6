// A replacement of the global operator new that a test can make fail on demand, on one thread:
// FailAllocations(n) makes the next n allocations of the calling thread throw std::bad_alloc.
// It defines the replacement functions: include it in exactly one file of a test program.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

namespace corvane::testing_support {
inline thread_local std::size_t allocations_to_fail = 0;
inline void FailAllocations(std::size_t count) { allocations_to_fail = count; }
}  // namespace corvane::testing_support

// GCC pairs the free() below with the operator new it is inlined after, not with the malloc()
// that this operator new calls.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
  std::size_t& to_fail = corvane::testing_support::allocations_to_fail;
  void* memory = to_fail > 0 ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (to_fail > 0) --to_fail;
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
#pragma GCC diagnostic pop
