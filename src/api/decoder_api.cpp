#include "quillon/decoder.h"
#include "quillon/quillon_c.h"

using TAV::AudioFormat;
using TAV::CompressionType;
using TAV::Decoder;

namespace {
Decoder* fromHandle(quillon_decoder_handle h) { return reinterpret_cast<Decoder*>(h); }

// No exception crosses into a C caller: a fatal error the host's handler
// has seen, or a failed allocation, becomes the call's error value.
template <class Result, class Call>
Result guarded(Result onError, Call&& call) {
  try {
    return call();
  } catch (...) {
    return onError;
  }
}
}  // namespace

// Recording files number the G.726 rates one step apart from the library.
extern "C" QUILLON_API int QUILLON_STDCALL FileToAPICompression(int fileCode) {
  switch (fileCode) {
    case 1: return 1;
    case 2: return 2;
    case 3: return 4;
    case 4: return 5;
    case 5: return 6;
    case 6: return 3;
    case 13: return 14;
    case 14: return 15;
    case 15: return 16;
    case 16: return 13;
    case 20: return 20;
    case 30: return 30;
    case 40: return 40;
    default: return 0;
  }
}

extern "C" QUILLON_API quillon_decoder_handle QUILLON_STDCALL decoder_create(int apiCode) {
  return guarded<quillon_decoder_handle>(0, [&] {
    AudioFormat format(static_cast<CompressionType>(apiCode), 1);
    return reinterpret_cast<quillon_decoder_handle>(Decoder::getDecoder(format));
  });
}

extern "C" QUILLON_API int QUILLON_STDCALL decoder_open(quillon_decoder_handle handle, int outApiCode) {
  return guarded(0, [&] { return fromHandle(handle)->open(AudioFormat(static_cast<CompressionType>(outApiCode), 1)) ? 1 : 0; });
}

extern "C" QUILLON_API unsigned int QUILLON_STDCALL decode_decode(quillon_decoder_handle handle, const uint8_t* in,
                                                                  uint8_t* out, unsigned int inBytes) {
  return guarded(0u, [&] { return fromHandle(handle)->decode(in, out, inBytes); });
}

extern "C" QUILLON_API int QUILLON_STDCALL decoder_close(quillon_decoder_handle handle) {
  guarded(0, [&] { return fromHandle(handle)->close() ? 1 : 0; });
  return 1;
}

extern "C" QUILLON_API int QUILLON_STDCALL decoder_release(quillon_decoder_handle handle) {
  return guarded(0, [&] { return Decoder::releaseDecoder(fromHandle(handle)) ? 1 : 0; });
}
