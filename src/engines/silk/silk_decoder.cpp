// SILK decoder entry points and the per-frame driver.
#include "engines/silk/silk_decoder.h"

#include <cstring>

namespace quillon::silk {

namespace {

constexpr int kMaxFramesPerPacket = 5;
constexpr int kMaxApiRate = 48000;
constexpr int kNoFecThreshold = 10;
// Frame termination codes.
constexpr int32_t kLastFrame = 0;
constexpr int32_t kMoreFrames = 1;
constexpr int32_t kFecOnePacketBack = 2;
constexpr int32_t kFecTwoPacketsBack = 3;
constexpr int32_t kRcTooLong = -8;

// Decodes (or conceals, lost = true) one 20 ms frame at the internal rate.
int decodeFrame(DecoderState& st, int16_t* out, int16_t* nOut, const uint8_t* payload, int nBytes,
                bool lost, int32_t* usedBytes) {
  FrameParams fp;
  std::memset(&fp, 0, sizeof(fp));
  alignas(16) int32_t pulses[kMaxFrameLength];
  int len = st.frameLength;
  int ret = kOk;
  *usedBytes = 0;
  if (!lost) {
    const int32_t oldFs = st.fsKhz;
    if (st.framesDecoded == 0) rangeInit(st.rc, payload, nBytes);
    decodeParameters(st, fp, pulses, true);
    if (st.rc.error) {
      // Corrupt or empty: conceal instead, back at the previous rate.
      st.bytesLeft = 0;
      lost = true;
      setInternalRate(st, oldFs);
      *usedBytes = st.rc.length;
      ret = st.rc.error == kRcTooLong ? kErrPayloadTooLarge : kErrPayloadError;
    } else {
      *usedBytes = st.rc.length - st.bytesLeft;
      st.framesDecoded++;
      len = st.frameLength;
      decodeCore(st, fp, out, pulses);
      plcProcess(st, fp, out, len, false);
      st.lossCount = 0;
      st.prevSigType = fp.sigType;
      st.firstFrameAfterReset = 0;
    }
  }
  if (lost) plcProcess(st, fp, out, len, true);

  std::memcpy(st.history, out, len * sizeof(int16_t));
  plcGlue(st, out, len);
  cngProcess(st, fp, out, len);
  highPassFilter(st, out, len);
  *nOut = static_cast<int16_t>(len);
  st.lagPrev = fp.pitchLag[kSubframes - 1];
  return ret;
}

}  // namespace

int getDecoderSize(int32_t* sizeBytes) {
  *sizeBytes = static_cast<int32_t>(sizeof(DecoderState));
  return kOk;
}

int initDecoder(void* state) {
  DecoderState& st = *static_cast<DecoderState*>(state);
  std::memset(&st, 0, sizeof(st));
  setInternalRate(st, 24);
  st.firstFrameAfterReset = 1;
  st.prevInvGainQ16 = 65536;
  cngReset(st);
  plcReset(st);
  return kOk;
}

int decode(void* state, DecControl* control, int lost, const uint8_t* payload, int nBytes,
           int16_t* out, int16_t* nSamplesOut) {
  DecoderState& st = *static_cast<DecoderState*>(state);
  const int32_t apiRate = control->API_sampleRate;
  int ret = kOk;
  if (st.moreFrames == 0) st.framesDecoded = 0;
  if (st.moreFrames == 0 && lost == 0 && nBytes > kMaxPayloadBytes) {
    lost = 1;
    ret = kErrPayloadTooLarge;
  }
  const int32_t prevFs = st.fsKhz;
  alignas(16) int16_t frame[kMaxFrameLength];
  int32_t used;
  ret += decodeFrame(st, frame, nSamplesOut, payload, nBytes, lost != 0, &used);

  if (used) {
    if (st.bytesLeft > 0 && st.frameTermination == kMoreFrames && st.framesDecoded < kMaxFramesPerPacket) {
      st.moreFrames = 1;
    } else {
      st.moreFrames = 0;
      st.framesInPacket = st.framesDecoded;
      if (st.vadFlag == 1) {
        if (st.frameTermination == kLastFrame) {
          if (++st.noFecCounter > kNoFecThreshold) st.fecOffset = 0;
        } else if (st.frameTermination == kFecOnePacketBack) {
          st.fecOffset = 1;
          st.noFecCounter = 0;
        } else if (st.frameTermination == kFecTwoPacketsBack) {
          st.fecOffset = 2;
          st.noFecCounter = 0;
        }
      }
    }
  }

  if (apiRate > kMaxApiRate || apiRate < 8000) {
    // The frame is decoded but only lands in the output when it was
    // decoded in place there (internal rate not above the output rate).
    if (prevFs * 1000 <= apiRate) std::memcpy(out, frame, *nSamplesOut * sizeof(int16_t));
    return kErrInvalidSampleRate;
  }

  const int32_t internalRate = st.fsKhz * 1000;
  if (internalRate != apiRate) {
    if (prevFs != st.fsKhz || st.prevApiRate != apiRate) ret = resamplerInit(st.resampler, internalRate, apiRate);
    if (resamplerRun(st.resampler, out, frame, *nSamplesOut) != 0) {
      ret += -1;
      std::memset(out, 0, static_cast<size_t>(*nSamplesOut) * apiRate / internalRate * sizeof(int16_t));
    }
    *nSamplesOut = static_cast<int16_t>(static_cast<int32_t>(*nSamplesOut) * apiRate / internalRate);
  } else {
    std::memcpy(out, frame, *nSamplesOut * sizeof(int16_t));
  }
  st.prevApiRate = apiRate;

  control->frameSize = apiRate / 50;
  control->framesPerPacket = st.framesInPacket;
  control->inBandFECOffset = st.fecOffset;
  control->moreInternalDecoderFrames = st.moreFrames;
  return ret;
}

}  // namespace quillon::silk
