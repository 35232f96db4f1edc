// Replacement global operator new/delete for the test program: plain
// malloc/free, counting calls while an AllocationCounter is alive. Kept in
// a file of its own so no other code inlines them.
#include "allocation_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<int> g_active{0};
std::atomic<size_t> g_count{0};
}  // namespace

void* operator new(size_t n) {
  if (g_active.load(std::memory_order_relaxed) > 0) g_count++;
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void* operator new(size_t n, const std::nothrow_t&) noexcept {
  if (g_active.load(std::memory_order_relaxed) > 0) g_count++;
  return std::malloc(n ? n : 1);
}
void* operator new[](size_t n) { return operator new(n); }
void* operator new[](size_t n, const std::nothrow_t& tag) noexcept { return operator new(n, tag); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace quillon::test {

AllocationCounter::AllocationCounter() {
  g_count = 0;
  g_active++;
}
AllocationCounter::~AllocationCounter() { g_active--; }
size_t AllocationCounter::count() const { return g_count.load(); }

}  // namespace quillon::test
