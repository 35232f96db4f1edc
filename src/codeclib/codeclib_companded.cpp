// The companded entry points of the codecLib front: G.711 bytes in or out
// around the 16-bit encode and decode calls.
#include <algorithm>
#include <cstdlib>

#include "codeclib/codeclib.h"
#include "primitives/g711.h"

namespace quillon::codeclib {

namespace {

using g711::alawCompress;
using g711::alawExpand;
using g711::ulawCompress;
using g711::ulawExpand;


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
