// Counting front ends for the C allocator. Symbols defined in the executable take precedence over
// the C library's for the whole process, so libstdc++'s operator new, libpcap and libintfsm all come
// through here. Each forwards to the C library's own entry point.
#include "bench/pktrate/AllocCount.h"

#include <cerrno>
#include <cstddef>

#include <atomic>

extern "C" {
void * __libc_malloc(size_t);
void * __libc_calloc(size_t, size_t);
void * __libc_realloc(void *, size_t);
void * __libc_memalign(size_t, size_t);
void __libc_free(void *);
}

namespace {
std::atomic<uint64_t> allocationCount{0};
inline void count() { allocationCount.fetch_add(1, std::memory_order_relaxed); }
}  // namespace

uint64_t PktRate::allocations() { return allocationCount.load(std::memory_order_relaxed); }

extern "C" {

void * malloc(size_t size) noexcept {
  count();
  return __libc_malloc(size);
}
void * calloc(size_t n, size_t size) noexcept {
  count();
  return __libc_calloc(n, size);
}
void * realloc(void * p, size_t size) noexcept {
  count();
  return __libc_realloc(p, size);
}
void free(void * p) noexcept { __libc_free(p); }
void * memalign(size_t alignment, size_t size) noexcept {
  count();
  return __libc_memalign(alignment, size);
}
void * aligned_alloc(size_t alignment, size_t size) noexcept {
  count();
  return __libc_memalign(alignment, size);
}
int posix_memalign(void ** out, size_t alignment, size_t size) noexcept {
  if (alignment % sizeof(void *) != 0 || (alignment & (alignment - 1)) != 0) return EINVAL;
  count();
  void * p = __libc_memalign(alignment, size);
  if (!p) return ENOMEM;
  *out = p;
  return 0;
}
void * valloc(size_t size) noexcept {
  count();
  return __libc_memalign(4096, size);
}

}  // extern "C"
