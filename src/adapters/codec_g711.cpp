#include "quillon/codecs/codec_g711.h"

#include "primitives/g711.h"

namespace TAV {

bool CodecG711::open(const AudioFormat& format, bool encoder) {
  const CompressionType c = format.getCompression();
  if (c != CT_G711_ALAW && c != CT_G711_ULAW) return false;
  return Codec::open(format, encoder);
}

uint32 CodecG711::decode(const uint8* in, uint32& inBytes, int16* out, uint32) {
  const CompressionType c = m_format.getCompression();
  if (c != CT_G711_ALAW && c != CT_G711_ULAW) return 0;
  const int16* table = c == CT_G711_ALAW ? quillon::g711::kAlawToLinear.data() : quillon::g711::kUlawToLinear.data();
  const uint32 n = inBytes;
  for (uint32 i = 0; i < n; i++) out[i] = table[in[i]];
  return 2 * n;
}

uint32 CodecG711::encode(const int16* in, uint32& inBytes, uint8* out, uint32) {
  const CompressionType c = m_format.getCompression();
  const uint32 n = inBytes / 2;
  if (c == CT_G711_ALAW) {
    for (uint32 i = 0; i < n; i++) out[i] = quillon::g711::alawCompress(in[i]);
  } else if (c == CT_G711_ULAW) {
    for (uint32 i = 0; i < n; i++) out[i] = quillon::g711::ulawCompress(in[i]);
  } else {
    return 0;
  }
  return n;
}

}  // namespace TAV
