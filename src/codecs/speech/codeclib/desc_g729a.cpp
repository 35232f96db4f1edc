// Descriptor 25: ITU-T G.729 Annex A, 10 ms frames of 80 samples at 8 kHz,
// 10 bytes per frame.
#include <new>

#include "codecs/speech/codeclib/codeclib.h"

#if __has_include("codecs/speech/g729a/decoder.h")
#include "codecs/speech/g729a/decoder.h"
#define QUILLON_CODECLIB_HAVE_G729A_DECODER 1
#endif
#if __has_include("codecs/speech/g729a/encoder.h")
#include "codecs/speech/g729a/encoder.h"
#define QUILLON_CODECLIB_HAVE_G729A_ENCODER 1
#endif

namespace quillon::codeclib {

namespace {

constexpr int32 kFrameSamples = 80;
constexpr int32 kFrameBytes = 10;

const char* const kG729AModes[] = {"G729A"};
const char* const kG729Packings[] = {"RFC3551"};

int32 queryG729A(HandleRes*, int32, int32 direction, CodecLibInfo* info, CodecLibOptions* options,
                 const uint8*, int32, int16) {
  if (direction != kDirEncoder && direction != kDirDecoder) return 1;
  if (!info) {
    if (options) setG729Defaults(*options);
    return kOk;
  }
  fillG729Info(*info, direction, "G729A", "audio/G729A", kG729AModes, kFrameBytes);
  return kOk;
}

#if defined(QUILLON_CODECLIB_HAVE_G729A_DECODER) || defined(QUILLON_CODECLIB_HAVE_G729A_ENCODER)

int32 openG729A(HandleRes* h, int16) {
  h->engineState = nullptr;
  if (h->direction == kDirEncoder) {
#ifdef QUILLON_CODECLIB_HAVE_G729A_ENCODER
    h->engineState = new (std::nothrow) g729a::Encoder();
#endif
  } else if (h->direction == kDirDecoder) {
#ifdef QUILLON_CODECLIB_HAVE_G729A_DECODER
    h->engineState = new (std::nothrow) g729a::Decoder();
#endif
  }
  return h->engineState ? kOk : 1;
}

int32 closeG729A(HandleRes* h, int16) {
  if (h->direction != kDirEncoder && h->direction != kDirDecoder) return 1;
#ifdef QUILLON_CODECLIB_HAVE_G729A_ENCODER
  if (h->direction == kDirEncoder) delete static_cast<g729a::Encoder*>(h->engineState);
#endif
#ifdef QUILLON_CODECLIB_HAVE_G729A_DECODER
  if (h->direction == kDirDecoder) delete static_cast<g729a::Decoder*>(h->engineState);
#endif
  h->engineState = nullptr;
  return kOk;
}

int32 resetG729A(HandleRes* h) {
  if (!h->engineState) return 1;
#ifdef QUILLON_CODECLIB_HAVE_G729A_ENCODER
  if (h->direction == kDirEncoder) static_cast<g729a::Encoder*>(h->engineState)->reset();
#endif
#ifdef QUILLON_CODECLIB_HAVE_G729A_DECODER
  if (h->direction == kDirDecoder) static_cast<g729a::Decoder*>(h->engineState)->reset();
#endif
  return kOk;
}

#endif

#ifdef QUILLON_CODECLIB_HAVE_G729A_ENCODER
int32 encodeFrameG729A(HandleRes* h, const int16* frame, uint8* out, int32* outBytes, CodecLibOptions*, int16) {
  *outBytes = 0;
  if (h->direction != kDirEncoder || !h->engineState) return 1;
  static_cast<g729a::Encoder*>(h->engineState)->encode(frame, out);
  *outBytes = kFrameBytes;
  return kOk;
}
#endif

#ifdef QUILLON_CODECLIB_HAVE_G729A_DECODER
// One 10-byte frame, or a concealed one when the options mark it bad.
int32 decodeFrameG729A(HandleRes* h, const uint8* data, int32 dataBytes, int32* inputUsed, int16* out,
                       int32* outSamples, CodecLibOptions* options, int16) {
  *inputUsed = 0;
  *outSamples = 0;
  if (h->direction != kDirDecoder || !h->engineState) return 1;
  auto* decoder = static_cast<g729a::Decoder*>(h->engineState);
  if (options->badFrame > 0) {
    decoder->decodeErased(out);
    *inputUsed = dataBytes < kFrameBytes ? (dataBytes > 0 ? dataBytes : 0) : kFrameBytes;
  } else {
    if (dataBytes < kFrameBytes) return kOk;
    decoder->decode(data, out);
    *inputUsed = kFrameBytes;
  }
  *outSamples = kFrameSamples;
  return kOk;
}
#endif

}  // namespace

void setG729Defaults(CodecLibOptions& options) {
  options = CodecLibOptions{};
  options.mode = 0;
  options.badFrame = 0;
  options.param = 3;
  options.dtx = -1;
}

void fillG729Info(CodecLibInfo& info, int32 direction, const char* shortName, const char* mimeName,
                  const char* const* modeNames, int32 nextFrameBytes) {
  info = CodecLibInfo{};
  info.shortName = shortName;
  info.mimeName = mimeName;
  info.codecTag = 307;
  info.modeCount = 1;
  info.modeNames = modeNames;
  info.packingCount = 1;
  info.packingNames = kG729Packings;
  info.inChannels = info.outChannels = 1;
  info.inFrameMs = info.outFrameMs = 10;
  if (direction == kDirEncoder) {
    info.inBytesPerSecond = 16000;
    info.inBytesPerFrame = info.inBytesPerFrameMax = info.leftOverSize = 2 * kFrameSamples;
    info.inSampleRate = 8000;
    info.inBitsPerSample = 16;
    info.inSamplesPerFrame = kFrameSamples;
    info.outBytesPerSecond = 1000;
    info.outBytesPerFrame = info.outBytesPerFrameTyp = info.outBytesPerFrameMax = kFrameBytes;
  } else {
    info.inBytesPerSecond = 1000;
    info.inBytesPerFrame = info.inSamplesPerFrame = nextFrameBytes;
    info.inBytesPerFrameMax = info.leftOverSize = kFrameBytes;
    info.inSampleRate = 8000;
    info.outBytesPerSecond = 16000;
    info.outBytesPerFrame = info.outBytesPerFrameTyp = info.outBytesPerFrameMax = 2 * kFrameSamples;
    info.outSampleRate = 8000;
    info.outBitsPerSample = 16;
    info.outSamplesPerFrame = kFrameSamples;
  }
}

void fillG729ADescriptor(CodecDescriptor& d) {
  d = CodecDescriptor{};
  d.query = queryG729A;
#if defined(QUILLON_CODECLIB_HAVE_G729A_DECODER) || defined(QUILLON_CODECLIB_HAVE_G729A_ENCODER)
  d.open = openG729A;
  d.close = closeG729A;
  d.reset = resetG729A;
#endif
#ifdef QUILLON_CODECLIB_HAVE_G729A_ENCODER
  d.encodeFrame = encodeFrameG729A;
#endif
#ifdef QUILLON_CODECLIB_HAVE_G729A_DECODER
  d.decodeFrame = decodeFrameG729A;
#endif
}

}  // namespace quillon::codeclib
