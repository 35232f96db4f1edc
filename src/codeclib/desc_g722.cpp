// Descriptor 16: ITU-T G.722 at 16 kHz, two samples per byte, a frame of
// `frameLength` samples.
#include <new>

#include "codeclib/codeclib.h"

#include "engines/g722/g722_engine.h"

namespace quillon::codeclib {

namespace {

const char* const kG722Modes[] = {"64k", "56k", "48k"};
const char* const kG722Packings[] = {"RFC3551"};
constexpr int32 kG722DefaultFrame = 1024;

int32 twice(int32 v) { return static_cast<int32>(2u * static_cast<uint32>(v)); }

int32 queryG722(HandleRes*, int32, int32 direction, CodecLibInfo* info, CodecLibOptions* options,
                const uint8*, int32, int16) {
  if (direction != kDirEncoder && direction != kDirDecoder) return 1;
  if (!info) {
    if (options) {
      *options = CodecLibOptions{};
      options->mode = 1;
      options->badFrame = -1;
      options->param = 4;
      options->dtx = -1;
      options->frameLength = kG722DefaultFrame;
    }
    return kOk;
  }
  const int32 len = options ? options->frameLength : kG722DefaultFrame;
  *info = CodecLibInfo{};
  info->shortName = "G722";
  info->mimeName = "audio/G722";
  info->codecTag = 101;
  info->modeCount = 3;
  info->modeNames = kG722Modes;
  info->packingCount = 1;
  info->packingNames = kG722Packings;
  // Both sides describe the 16 kHz PCM frame.
  info->inChannels = info->outChannels = 1;
  info->inSampleRate = info->outSampleRate = 16000;
  info->inBitsPerSample = info->outBitsPerSample = 16;
  info->inSamplesPerFrame = info->outSamplesPerFrame = len;
  info->inFrameMs = info->outFrameMs = len / 16;
  const int32 coded = len / 2;
  const int32 pcm = twice(len);
  if (direction == kDirDecoder) {
    info->inBytesPerSecond = 8000;
    info->inBytesPerFrame = info->inBytesPerFrameMax = info->leftOverSize = coded;
    info->outBytesPerSecond = 32000;
    info->outBytesPerFrame = info->outBytesPerFrameTyp = info->outBytesPerFrameMax = pcm;
  } else {
    info->inBytesPerSecond = 32000;
    info->inBytesPerFrame = info->inBytesPerFrameMax = info->leftOverSize = pcm;
    info->outBytesPerSecond = 8000;
    info->outBytesPerFrame = info->outBytesPerFrameTyp = info->outBytesPerFrameMax = coded;
  }
  return kOk;
}

using g722::Decoder;
using g722::Encoder;

int32 openG722(HandleRes* h, int16) {
  if (h->direction == kDirEncoder)
    h->engineState = new (std::nothrow) Encoder();
  else if (h->direction == kDirDecoder)
    h->engineState = new (std::nothrow) Decoder();
  else
    return 1;
  return h->engineState ? kOk : 1;
}

int32 closeG722(HandleRes* h, int16) {
  if (h->direction == kDirEncoder)
    delete static_cast<Encoder*>(h->engineState);
  else if (h->direction == kDirDecoder)
    delete static_cast<Decoder*>(h->engineState);
  else
    return 1;
  h->engineState = nullptr;
  return kOk;
}

int32 resetG722(HandleRes* h) {
  if (!h->engineState) return 1;
  if (h->direction == kDirEncoder) static_cast<Encoder*>(h->engineState)->reset();
  if (h->direction == kDirDecoder) static_cast<Decoder*>(h->engineState)->reset();
  return kOk;
}

int32 encodeFrameG722(HandleRes* h, const int16* frame, uint8* out, int32* outBytes, CodecLibOptions* options,
                      int16) {
  *outBytes = 0;
  if (h->direction != kDirEncoder || !h->engineState || options->frameLength < 2) return 1;
  const int32 pairs = options->frameLength / 2;
  static_cast<Encoder*>(h->engineState)->encode(frame, static_cast<size_t>(pairs) * 2, out);
  *outBytes = pairs;
  return kOk;
}

int32 decodeFrameG722(HandleRes* h, const uint8* data, int32 dataBytes, int32* inputUsed, int16* out,
                      int32* outSamples, CodecLibOptions* options, int16) {
  *inputUsed = 0;
  *outSamples = 0;
  if (h->direction != kDirDecoder || !h->engineState) return 1;
  if (dataBytes <= 0) return kOk;
  static_cast<Decoder*>(h->engineState)->decode(data, static_cast<size_t>(dataBytes), out, options->mode);
  *inputUsed = dataBytes;
  *outSamples = twice(dataBytes);
  return kOk;
}

}  // namespace

void fillG722Descriptor(CodecDescriptor& d) {
  d = CodecDescriptor{};
  d.query = queryG722;
  d.open = openG722;
  d.close = closeG722;
  d.reset = resetG722;
  d.encodeFrame = encodeFrameG722;
  d.decodeFrame = decodeFrameG722;
}

}  // namespace quillon::codeclib
