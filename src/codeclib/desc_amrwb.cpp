// Descriptor 4: 3GPP AMR-WB, 20 ms frames of 320 samples at 16 kHz. Coded
// frames are in the RFC 4867 storage layout (table-of-contents byte, then
// the octet-aligned speech bits), so their size follows from the first byte.
// The encoder writes the same layout: a speech frame of the options' mode,
// or with `dtx` set a SID (6 bytes) or NO_DATA (1 byte) frame in pauses.
#include <new>

#include "engines/amrwb/amrwb_decoder.h"
#include "engines/amrwb/amrwb_encoder.h"
#include "codeclib/codeclib.h"

namespace quillon::codeclib {

namespace {

constexpr int32 kFrameSamples = amrwb::kFrameSamples;
constexpr int32 kMaxFrame = amrwb::kMaxFrameBytes;

const char* const kAmrWbModes[] = {"MR66", "MR885", "MR1265", "MR1425", "MR1585",
                                   "MR1825", "MR1985", "MR2305", "MR2385"};
const char* const kAmrWbPackings[] = {"IETF"};

// Frame sizes by frame type, the ToC byte included. Type 10 counts 6 bytes
// like the SID frame of type 9; this is how the table has always been.
int32 frameBytes(int type) { return amrwb::frameBytesForType(type); }

// Mode of the options record; out of range counts as mode 0, as in query.
int optionsMode(const CodecLibOptions* options) {
  return options && options->mode >= 0 && options->mode <= 8 ? options->mode : 0;
}

int32 queryAmrWb(HandleRes*, int32, int32 direction, CodecLibInfo* info, CodecLibOptions* options,
                 const uint8* data, int32 dataBytes, int16) {
  if (direction != kDirEncoder && direction != kDirDecoder) return 1;
  if (!info) {
    if (options) {
      *options = CodecLibOptions{};
      options->mode = 1;  // badFrame and the word after it stay 0
    }
    return kOk;
  }
  *info = CodecLibInfo{};
  info->shortName = "AMRWB";
  info->mimeName = "audio/AMR-WB";
  info->modeCount = 9;
  info->modeNames = kAmrWbModes;
  info->packingCount = 1;
  info->packingNames = kAmrWbPackings;
  info->inChannels = info->outChannels = 1;
  info->inFrameMs = info->outFrameMs = 20;
  if (direction == kDirDecoder) {
    // The next frame's size, from its ToC byte when input is buffered.
    const int32 next = data && dataBytes > 0 ? frameBytes(amrwb::frameTypeOf(data[0])) : kMaxFrame;
    info->inBytesPerSecond = 50 * next;
    info->inBytesPerFrame = info->inBytesPerFrameMax = next;
    info->leftOverSize = kMaxFrame;
    info->outBytesPerSecond = 32000;
    info->outBytesPerFrame = info->outBytesPerFrameTyp = info->outBytesPerFrameMax = 2 * kFrameSamples;
    info->outSampleRate = 16000;
    info->outBitsPerSample = 16;
    info->outSamplesPerFrame = kFrameSamples;
  } else {
    const int mode = optionsMode(options);
    info->inBytesPerSecond = 32000;
    info->inBytesPerFrame = info->inBytesPerFrameMax = info->leftOverSize = 2 * kFrameSamples;
    info->inSampleRate = 16000;
    info->inBitsPerSample = 16;
    info->inSamplesPerFrame = kFrameSamples;
    info->outBytesPerFrame = info->outBytesPerFrameTyp = frameBytes(mode);
    info->outBytesPerSecond = 50 * frameBytes(mode);
    info->outBytesPerFrameMax = kMaxFrame;
  }
  return kOk;
}

int32 openAmrWb(HandleRes* h, int16) {
  if (h->direction == kDirDecoder) {
    h->engineState = new (std::nothrow) amrwb::Decoder();
  } else if (h->direction == kDirEncoder) {
    h->engineState = new (std::nothrow) amrwb::Encoder();
  } else {
    return 1;
  }
  return h->engineState ? kOk : 1;
}

int32 closeAmrWb(HandleRes* h, int16) {
  if (h->direction == kDirDecoder) {
    delete static_cast<amrwb::Decoder*>(h->engineState);
  } else if (h->direction == kDirEncoder) {
    delete static_cast<amrwb::Encoder*>(h->engineState);
  } else {
    return 1;
  }
  h->engineState = nullptr;
  return kOk;
}

int32 resetAmrWb(HandleRes* h) {
  if (!h->engineState) return 1;
  if (h->direction == kDirDecoder) {
    static_cast<amrwb::Decoder*>(h->engineState)->reset();
  } else if (h->direction == kDirEncoder) {
    static_cast<amrwb::Encoder*>(h->engineState)->reset();
  } else {
    return 1;
  }
  return kOk;
}

// One frame of 320 samples; the frame written may be shorter than the
// mode's size when DTX sends a SID or NO_DATA frame.
int32 encodeFrameAmrWb(HandleRes* h, const int16* frame, uint8* out, int32* outBytes,
                       CodecLibOptions* options, int16) {
  if (h->direction != kDirEncoder || !h->engineState) return 1;
  const bool dtx = options && options->dtx >= 1;
  auto* encoder = static_cast<amrwb::Encoder*>(h->engineState);
  const int n = encoder->encodeFrame(frame, optionsMode(options), dtx, out);
  if (n < 0) return 1;
  *outBytes = n;
  return kOk;
}

// One frame from the front of `data`, decoded only when all of it is there.
// (The front hands over no bytes for the reserved types 11-13, whose table
// size is 0, so they are never decoded.)
int32 decodeFrameAmrWb(HandleRes* h, const uint8* data, int32 dataBytes, int32* inputUsed, int16* out,
                       int32* outSamples, CodecLibOptions* options, int16) {
  *inputUsed = 0;
  *outSamples = 0;
  if (h->direction != kDirDecoder) return 1;
  if (!data || dataBytes <= 0 || !h->engineState) return kOk;
  const int used = static_cast<amrwb::Decoder*>(h->engineState)
                       ->decodeFrame(data, static_cast<size_t>(dataBytes), out, options->badFrame >= 1);
  if (used < 0) return kOk;  // not all of the frame is there yet
  *inputUsed = used;
  *outSamples = kFrameSamples;
  return kOk;
}

int32 frameInfoAmrWb(HandleRes* h, const uint8* data, CodecLibFrameInfo* record) {
  if (h->direction != kDirDecoder) return 1;
  if (data && record) record->frameType = amrwb::frameTypeOf(data[0]);
  return kOk;
}

}  // namespace

void fillAmrWbDescriptor(CodecDescriptor& d) {
  d = CodecDescriptor{};
  d.open = openAmrWb;
  d.close = closeAmrWb;
  d.reset = resetAmrWb;
  d.encodeFrame = encodeFrameAmrWb;
  d.decodeFrame = decodeFrameAmrWb;
  d.frameInfo = frameInfoAmrWb;
  d.query = queryAmrWb;
}

}  // namespace quillon::codeclib
