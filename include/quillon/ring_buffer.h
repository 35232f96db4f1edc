// A lock-free-by-design (single user) byte ring that never blocks and never
// overwrites: write takes what fits, read returns what is held.
#ifndef QUILLON_RING_BUFFER_H
#define QUILLON_RING_BUFFER_H

#include "quillon/platform.h"

namespace TAV {

class QUILLON_API RingBuffer {
 public:
  RingBuffer();
  explicit RingBuffer(unsigned int size);
  ~RingBuffer();
  // Shallow: the two rings share storage and only one may be destroyed.
  RingBuffer(const RingBuffer& other);
  RingBuffer& operator=(const RingBuffer& other);

  unsigned int bytesToWrite() const;
  unsigned int bytesToRead() const;
  unsigned int write(const unsigned char* data, unsigned int count);
  unsigned int read(unsigned char* data, unsigned int count);
  // Grows only; the ring reads as empty afterwards (grow it while empty).
  void setBufferSize(unsigned int size);

 private:
  unsigned int freeSpace() const;

  unsigned char* m_data;
  uint32 m_capacity;
  uint32 m_readPos;
  uint32 m_writePos;
};

}  // namespace TAV

#endif
