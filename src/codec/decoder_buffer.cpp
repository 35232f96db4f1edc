#include "quillon/decoder_buffer.h"

#include <new>

namespace TAV {

DecoderBuffer::DecoderBuffer() : m_data(nullptr), m_size(0) {}
DecoderBuffer::DecoderBuffer(const DecoderBuffer& other) = default;
DecoderBuffer& DecoderBuffer::operator=(const DecoderBuffer& other) = default;

DecoderBuffer::~DecoderBuffer() { delete[] m_data; }

void DecoderBuffer::setBufferSize(unsigned int size, bool allowShrink) {
  if (size == m_size) return;
  if (!allowShrink && size < m_size) return;
  delete[] m_data;
  m_data = nullptr;
  m_size = 0;
  if (size != 0) {
    m_data = new (std::nothrow) uint8[size];
    // Allocation failure leaves an empty buffer rather than a size without storage.
    if (m_data) m_size = size;
  }
}

}  // namespace TAV
