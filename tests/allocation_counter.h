// Counts the test program's operator new calls while an AllocationCounter
// is alive (the replacement operators live in allocation_counter.cpp).
#ifndef QUILLON_TESTS_ALLOCATION_COUNTER_H
#define QUILLON_TESTS_ALLOCATION_COUNTER_H

#include <cstddef>

namespace quillon::test {

class AllocationCounter {
 public:
  AllocationCounter();
  ~AllocationCounter();
  size_t count() const;
};

}  // namespace quillon::test

#endif
