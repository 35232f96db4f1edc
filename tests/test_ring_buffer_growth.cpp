// TAV::RingBuffer growth: a grown ring never receives more bytes than its
// new storage holds, whatever count the old ring reports.
#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <random>
#include <vector>

#include "quillon/ring_buffer.h"

using TAV::RingBuffer;

TEST(RingBufferGrowth, WrappedRingGrowsByOneByte) {
  RingBuffer r(10);
  const unsigned char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  unsigned char sink[8];
  ASSERT_EQ(r.write(bytes, 8), 8u);
  ASSERT_EQ(r.read(sink, 5), 5u);
  ASSERT_EQ(r.write(bytes, 4), 4u);  // wraps: the writer is now behind the reader
  ASSERT_EQ(r.bytesToRead(), 13u);   // more than the storage holds, by the count rule
  r.setBufferSize(11);               // must not copy 13 bytes into 11
  EXPECT_EQ(r.bytesToRead(), 0u);
  EXPECT_EQ(r.bytesToWrite(), 11u);
  std::vector<unsigned char> fill(11, 0x55);
  EXPECT_EQ(r.write(fill.data(), 11), 11u);
  std::vector<unsigned char> back(11);
  EXPECT_EQ(r.read(back.data(), 11), 11u);
  EXPECT_EQ(back, fill);
}

// Random writes, reads and growths. While the ring's count is the true
// count the bytes come out in the order they went in; a growth always
// leaves an empty ring of the new size. Under AddressSanitizer any copy
// outside either storage fails the test.
TEST(RingBufferGrowth, RandomWritesReadsAndGrowths) {
  std::mt19937 rng(20261123);
  for (int round = 0; round < 40; round++) {
    RingBuffer r(1 + rng() % 16);
    uint32_t capacity = r.bytesToWrite();
    std::deque<unsigned char> model;
    bool honest = true;  // false once the writer wrapped behind the reader
    unsigned char next = 0;
    for (int step = 0; step < 400; step++) {
      const unsigned op = rng() % 10;
      if (op < 5) {
        const uint32_t n = rng() % (capacity + 4);
        std::vector<unsigned char> data(n);
        for (auto& b : data) b = next++;
        const uint32_t space = r.bytesToWrite();
        const uint32_t k = r.write(data.data(), n);
        ASSERT_EQ(k, n < space ? n : space);
        model.insert(model.end(), data.begin(), data.begin() + k);
      } else if (op < 9) {
        const uint32_t n = rng() % (capacity + 4);
        std::vector<unsigned char> data(n + 64);
        const uint32_t held = r.bytesToRead();
        const uint32_t k = r.read(data.data(), n);
        ASSERT_EQ(k, n < held ? n : held);
        if (honest) {
          ASSERT_LE(k, model.size());
          for (uint32_t i = 0; i < k; i++) ASSERT_EQ(data[i], model[i]) << "round " << round << " step " << step;
        }
        model.erase(model.begin(), model.begin() + std::min<size_t>(k, model.size()));
      } else {
        const uint32_t size = capacity + rng() % 8;
        r.setBufferSize(size);
        if (size > capacity) {
          capacity = size;
          ASSERT_EQ(r.bytesToRead(), 0u);
          ASSERT_EQ(r.bytesToWrite(), capacity);
          model.clear();
        }
      }
      if (r.bytesToRead() == 0) {
        model.clear();
        honest = true;
      } else if (r.bytesToRead() != model.size()) {
        honest = false;
      }
    }
  }
}
