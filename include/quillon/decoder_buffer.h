// A grow-only byte buffer whose contents are not kept when it grows.
#ifndef QUILLON_DECODER_BUFFER_H
#define QUILLON_DECODER_BUFFER_H

#include "quillon/platform.h"

namespace TAV {

class QUILLON_API DecoderBuffer {
 public:
  DecoderBuffer();
  ~DecoderBuffer();
  // Shallow: both buffers then share the data, and only one may be destroyed.
  DecoderBuffer(const DecoderBuffer& other);
  DecoderBuffer& operator=(const DecoderBuffer& other);

  // Replaces the storage with `size` fresh bytes, unless the size is
  // unchanged, or smaller and shrinking is not allowed.
  void setBufferSize(unsigned int size, bool allowShrink);
  uint8* getBuffer() const { return m_data; }
  uint32 getBufferSize() const { return m_size; }

 private:
  uint8* m_data;
  uint32 m_size;
};

}  // namespace TAV

#endif
