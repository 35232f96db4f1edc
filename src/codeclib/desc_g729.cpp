// The G.729 family in the codecLib front. Descriptor 25: ITU-T G.729 Annex A,
// 10 ms frames of 80 samples at 8 kHz, 10 bytes per frame.
//
// Descriptors 24 (ITU-T G.729, full complexity), 26 (G.729 Annex A with
// Annex B) and 27 (G.729 with Annex B): 10 ms frames of 80 samples at 8 kHz.
//
// Frame sizes and the front's buffering. A speech frame is 10 bytes. With
// Annex B (26, 27) the encoder also emits SID frames of 2 bytes (15 bits,
// the 16th bit 0) and untransmitted frames of 0 bytes; encodeFrame reports
// each frame's own size (10, 2 or 0), so one codecLibEncode call returns
// the concatenation of the frames it coded and an untransmitted frame adds
// nothing to it. The byte stream itself carries no frame boundaries, so the
// decoder side reads frames the way RTP packs them (RFC 3551): a call hands
// whole frames, speech frames first and at most one SID frame last. The
// decoder query sizes the next frame from the buffered byte count: 10 when
// at least 10 bytes wait, 2 when exactly 2 wait (a SID frame), 0 when
// nothing is buffered (an untransmitted frame: codecLibDecode with no input
// and an empty leftover yields 80 samples of comfort noise), and 10
// otherwise, so that 1 or 3 to 9 bytes stay in the leftover until the rest
// of a speech frame arrives. A lost frame goes through the options'
// bad-frame flag with its bytes, or with none for a lost empty frame.
// decodeFrame reports the bytes of the frame it
// decoded (10, 2 or 0) as used and 80 samples; reporting 0 used stops the
// front's loop after that one comfort-noise frame.
#include <new>

#include "codeclib/codeclib.h"
#include "engines/g729/decoder.h"
#include "engines/g729/encoder.h"

namespace quillon::codeclib {

namespace {

constexpr int32 kFrameSamples = 80;
constexpr int32 kSpeechBytes = 10;

const char* const kG729AModes[] = {"G729A"};
const char* const kG729Packings[] = {"RFC3551"};

int32 queryG729A(HandleRes*, int32, int32 direction, CodecLibInfo* info, CodecLibOptions* options,
                 const uint8*, int32, int16) {
  if (direction != kDirEncoder && direction != kDirDecoder) return 1;
  if (!info) {
    if (options) setG729Defaults(*options);
    return kOk;
  }
  fillG729Info(*info, direction, "G729A", "audio/G729A", kG729AModes, kSpeechBytes);
  return kOk;
}

int32 openG729A(HandleRes* h, int16) {
  h->engineState = nullptr;
  if (h->direction == kDirEncoder) {
    h->engineState = new (std::nothrow) g729a::Encoder();
  } else if (h->direction == kDirDecoder) {
    h->engineState = new (std::nothrow) g729a::Decoder();
  }
  return h->engineState ? kOk : 1;
}

int32 closeG729A(HandleRes* h, int16) {
  if (h->direction != kDirEncoder && h->direction != kDirDecoder) return 1;
  if (h->direction == kDirEncoder) delete static_cast<g729a::Encoder*>(h->engineState);
  if (h->direction == kDirDecoder) delete static_cast<g729a::Decoder*>(h->engineState);
  h->engineState = nullptr;
  return kOk;
}

int32 resetG729A(HandleRes* h) {
  if (!h->engineState) return 1;
  if (h->direction == kDirEncoder) static_cast<g729a::Encoder*>(h->engineState)->reset();
  if (h->direction == kDirDecoder) static_cast<g729a::Decoder*>(h->engineState)->reset();
  return kOk;
}

int32 encodeFrameG729A(HandleRes* h, const int16* frame, uint8* out, int32* outBytes, CodecLibOptions*, int16) {
  *outBytes = 0;
  if (h->direction != kDirEncoder || !h->engineState) return 1;
  static_cast<g729a::Encoder*>(h->engineState)->encode(frame, out);
  *outBytes = kSpeechBytes;
  return kOk;
}

// One 10-byte frame, or a concealed one when the options mark it bad.
int32 decodeFrameG729A(HandleRes* h, const uint8* data, int32 dataBytes, int32* inputUsed, int16* out,
                       int32* outSamples, CodecLibOptions* options, int16) {
  *inputUsed = 0;
  *outSamples = 0;
  if (h->direction != kDirDecoder || !h->engineState) return 1;
  auto* decoder = static_cast<g729a::Decoder*>(h->engineState);
  if (options->badFrame > 0) {
    decoder->decodeErased(out);
    *inputUsed = dataBytes < kSpeechBytes ? (dataBytes > 0 ? dataBytes : 0) : kSpeechBytes;
  } else {
    if (dataBytes < kSpeechBytes) return kOk;
    decoder->decode(data, out);
    *inputUsed = kSpeechBytes;
  }
  *outSamples = kFrameSamples;
  return kOk;
}

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
    info.outBytesPerFrame = info.outBytesPerFrameTyp = info.outBytesPerFrameMax = kSpeechBytes;
  } else {
    info.inBytesPerSecond = 1000;
    info.inBytesPerFrame = info.inSamplesPerFrame = nextFrameBytes;
    info.inBytesPerFrameMax = info.leftOverSize = kSpeechBytes;
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
  d.open = openG729A;
  d.close = closeG729A;
  d.reset = resetG729A;
  d.encodeFrame = encodeFrameG729A;
  d.decodeFrame = decodeFrameG729A;
}


namespace {

constexpr int32 kSidBytes = 2;

struct FamilyMember {
  int32 codecId;
  const char* shortName;
  const char* mimeName;
  g729a::Decoder::Variant variant;
  bool annexB;
};

constexpr FamilyMember kMembers[] = {
    {kCodecG729, "G729", "audio/G729", g729a::Decoder::Variant::Main, false},
    {kCodecG729AB, "G729AB", "audio/G729AB", g729a::Decoder::Variant::AnnexA, true},
    {kCodecG729B, "G729B", "audio/G729B", g729a::Decoder::Variant::Main, true},
};

const FamilyMember* memberOf(int32 codecId) {
  for (const FamilyMember& m : kMembers)
    if (m.codecId == codecId) return &m;
  return nullptr;
}

const char* const kModeNames[][1] = {{"G729"}, {"G729AB"}, {"G729B"}};

g729a::Encoder::Variant encoderVariant(const FamilyMember& m) {
  return m.variant == g729a::Decoder::Variant::Main ? g729a::Encoder::Variant::Main : g729a::Encoder::Variant::AnnexA;
}

// The size of the next frame in the decoder's buffered input.
int32 nextFrameBytes(const FamilyMember& m, const uint8*, int32 dataBytes) {
  if (!m.annexB || dataBytes >= kSpeechBytes) return kSpeechBytes;
  if (dataBytes == kSidBytes) return kSidBytes;
  if (dataBytes <= 0) return 0;
  return kSpeechBytes;
}

int32 queryFamily(HandleRes*, int32 codecId, int32 direction, CodecLibInfo* info, CodecLibOptions* options,
                  const uint8* data, int32 dataBytes, int16) {
  const FamilyMember* m = memberOf(codecId);
  if (!m || (direction != kDirEncoder && direction != kDirDecoder)) return 1;
  if (!info) {
    if (options) setG729Defaults(*options);
    return kOk;
  }
  // Without data the decoder query answers for a speech frame.
  const int32 next = data ? nextFrameBytes(*m, data, dataBytes) : kSpeechBytes;
  fillG729Info(*info, direction, m->shortName, m->mimeName, kModeNames[m - kMembers], next);
  return kOk;
}

int32 openFamily(HandleRes* h, int16) {
  h->engineState = nullptr;
  const FamilyMember* m = memberOf(h->codecId);
  if (!m) return 1;
  if (h->direction == kDirEncoder) {
    h->engineState = new (std::nothrow) g729a::Encoder(encoderVariant(*m), m->annexB);
  } else if (h->direction == kDirDecoder) {
    h->engineState = new (std::nothrow) g729a::Decoder(m->variant, m->annexB);
  }
  return h->engineState ? kOk : 1;
}

int32 closeFamily(HandleRes* h, int16) {
  if (h->direction == kDirEncoder) {
    delete static_cast<g729a::Encoder*>(h->engineState);
  } else if (h->direction == kDirDecoder) {
    delete static_cast<g729a::Decoder*>(h->engineState);
  } else {
    return 1;
  }
  h->engineState = nullptr;
  return kOk;
}

int32 resetFamily(HandleRes* h) {
  if (!h->engineState) return 1;
  if (h->direction == kDirEncoder) static_cast<g729a::Encoder*>(h->engineState)->reset();
  if (h->direction == kDirDecoder) static_cast<g729a::Decoder*>(h->engineState)->reset();
  return kOk;
}

// One frame of 80 samples; the bytes written are 10, or with Annex B also
// 2 (SID) or 0 (nothing transmitted).
int32 encodeFrameFamily(HandleRes* h, const int16* frame, uint8* out, int32* outBytes, CodecLibOptions*, int16) {
  *outBytes = 0;
  if (h->direction != kDirEncoder || !h->engineState) return 1;
  *outBytes = static_cast<g729a::Encoder*>(h->engineState)->encode(frame, out);
  return kOk;
}

// One frame from the front of data, sized as nextFrameBytes says, or a
// concealed frame when the options mark it bad.
int32 decodeFrameFamily(HandleRes* h, const uint8* data, int32 dataBytes, int32* inputUsed, int16* out,
                        int32* outSamples, CodecLibOptions* options, int16) {
  *inputUsed = 0;
  *outSamples = 0;
  if (h->direction != kDirDecoder || !h->engineState) return 1;
  auto* decoder = static_cast<g729a::Decoder*>(h->engineState);
  if (options->badFrame > 0) {
    // The lost frame's bytes (if the caller passed them) tell an empty
    // frame from one that carried bits.
    decoder->decodeErased(out, dataBytes > 0);
    *inputUsed = dataBytes < kSpeechBytes ? (dataBytes > 0 ? dataBytes : 0) : kSpeechBytes;
  } else if (dataBytes >= kSpeechBytes) {
    decoder->decode(data, out);
    *inputUsed = kSpeechBytes;
  } else if (!decoder->annexB()) {
    return kOk;  // a partial speech frame: nothing yet
  } else if (dataBytes >= kSidBytes) {
    decoder->decodeSid(data, out);
    *inputUsed = kSidBytes;
  } else {
    decoder->decodeUntransmitted(out);
  }
  *outSamples = kFrameSamples;
  return kOk;
}

void fillFamilyDescriptor(CodecDescriptor& d) {
  d = CodecDescriptor{};
  d.query = queryFamily;
  d.open = openFamily;
  d.close = closeFamily;
  d.reset = resetFamily;
  d.encodeFrame = encodeFrameFamily;
  d.decodeFrame = decodeFrameFamily;
}

}  // namespace

void fillG729Descriptor(CodecDescriptor& d) { fillFamilyDescriptor(d); }
void fillG729ABDescriptor(CodecDescriptor& d) { fillFamilyDescriptor(d); }
void fillG729BDescriptor(CodecDescriptor& d) { fillFamilyDescriptor(d); }

}  // namespace quillon::codeclib
