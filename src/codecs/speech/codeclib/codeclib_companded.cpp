// The companded entry points of the codecLib front: G.711 bytes in or out
// around the 16-bit encode and decode calls.
#include <algorithm>
#include <cstdlib>

#include "codecs/speech/codeclib/codeclib.h"

namespace quillon::codeclib {

namespace {

int16 alawExpand(uint8 code) {
  const int v = code ^ 0x55;
  int t = (v & 0x0F) << 4;
  const int seg = (v & 0x70) >> 4;
  if (seg == 0)
    t += 8;
  else if (seg == 1)
    t += 0x108;
  else
    t = (t + 0x108) << (seg - 1);
  return static_cast<int16>((v & 0x80) ? t : -t);
}

uint8 alawCompress(int16 sample) {
  static const int kSegEnd[8] = {0x1F, 0x3F, 0x7F, 0xFF, 0x1FF, 0x3FF, 0x7FF, 0xFFF};
  int p = sample >> 3;
  int mask = 0xD5;
  if (p < 0) {
    mask = 0x55;
    p = -p - 1;
  }
  int seg = 0;
  while (seg < 8 && p > kSegEnd[seg]) seg++;
  if (seg >= 8) return static_cast<uint8>(0x7F ^ mask);
  const int low = seg < 2 ? (p >> 1) & 0x0F : (p >> seg) & 0x0F;
  return static_cast<uint8>(((seg << 4) | low) ^ mask);
}

int16 ulawExpand(uint8 code) {
  const int u = ~code & 0xFF;
  const int t = (((u & 0x0F) << 3) + 0x84) << ((u & 0x70) >> 4);
  return static_cast<int16>((u & 0x80) ? 0x84 - t : t - 0x84);
}

uint8 ulawCompress(int16 sample) {
  static const int kSegEnd[8] = {0x3F, 0x7F, 0xFF, 0x1FF, 0x3FF, 0x7FF, 0xFFF, 0x1FFF};
  int p = sample >> 2;
  int mask = 0xFF;
  if (p < 0) {
    mask = 0x7F;
    p = -p;
  }
  if (p > 8159) p = 8159;
  p += 33;
  int seg = 0;
  while (seg < 8 && p > kSegEnd[seg]) seg++;
  if (seg >= 8) return static_cast<uint8>(0x7F ^ mask);
  return static_cast<uint8>(((seg << 4) | ((p >> (seg + 1)) & 0x0F)) ^ mask);
}

// Makes the handle's scratch buffer hold at least `samples` samples.
bool growConvBuf(HandleRes* h, int32 samples) {
  if (h->convBufCnt >= samples) return true;
  void* p = std::realloc(h->convBuf, static_cast<size_t>(samples) * 2);
  if (!p) return false;
  h->convBuf = static_cast<int16*>(p);
  h->convBufCnt = samples;
  return true;
}

}  // namespace

int32 codecLibEncodeCompanded(HandleRes** handle, const uint8* in, int32* inSamples, uint8* out,
                              int32* outBytes, CodecLibOptions* options, int32 muLaw, int16 trace) {
  HandleRes* h = handle ? *handle : nullptr;
  if (!h || !inSamples || *inSamples <= 0 || !in)
    return codecLibEncode(handle, nullptr, inSamples, out, outBytes, options, trace);
  const int32 n = *inSamples;
  if (!growConvBuf(h, n)) return kErrOutOfMemory;
  for (int32 i = 0; i < n; i++) h->convBuf[i] = muLaw ? ulawExpand(in[i]) : alawExpand(in[i]);
  return codecLibEncode(handle, h->convBuf, inSamples, out, outBytes, options, trace);
}

int32 codecLibDecodeCompanded(HandleRes** handle, const uint8* in, int32* inBytes, uint8* out,
                              int32* outSamples, CodecLibOptions* options, int32 muLaw, int16 trace) {
  HandleRes* h = handle ? *handle : nullptr;
  if (!h || !outSamples || !out || *outSamples < 0)
    return codecLibDecode(handle, in, inBytes, nullptr, outSamples, options, trace);
  if (!growConvBuf(h, std::max<int32>(*outSamples, 1))) return kErrOutOfMemory;
  const int32 result = codecLibDecode(handle, in, inBytes, h->convBuf, outSamples, options, trace);
  for (int32 i = 0; i < *outSamples; i++) out[i] = muLaw ? ulawCompress(h->convBuf[i]) : alawCompress(h->convBuf[i]);
  return result;
}

}  // namespace quillon::codeclib
