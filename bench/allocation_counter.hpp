// Counts every malloc and free of the process, operator new's and Eigen's included, for the
// calling thread. Include it in exactly one file of a benchmark program: it replaces malloc and
// free for the whole program.
#pragma once

#include <cstddef>

namespace corvane::bench {
inline thread_local std::size_t thread_allocations = 0;
inline thread_local std::size_t thread_frees = 0;
}  // namespace corvane::bench

extern "C" void* __libc_malloc(std::size_t size);
extern "C" void __libc_free(void* memory);
extern "C" void* malloc(std::size_t size) noexcept {
  ++corvane::bench::thread_allocations;
  return __libc_malloc(size);
}
extern "C" void free(void* memory) noexcept {
  if (memory != nullptr) ++corvane::bench::thread_frees;
  __libc_free(memory);
}
