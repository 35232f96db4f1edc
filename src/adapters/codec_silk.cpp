#include "quillon/codecs/codec_silk.h"

#include <cstring>
#include <new>

#include "engines/silk/silk_decoder.h"

namespace TAV {

namespace {

constexpr int32 kOutputRate = 8000;
constexpr uint32 kScratchSamples = CodecSILK::kScratchBytes / 2;
// Room the engine may need after the cursor for one internal frame.
constexpr uint32 kFrameRoom = 480;

}  // namespace

CodecSILK::CodecSILK() : m_decoderState(nullptr), m_scratch(nullptr), m_control{kOutputRate, 0, 1, 0, 0} {}

CodecSILK::~CodecSILK() { release(); }

void CodecSILK::release() {
  delete[] static_cast<uint8*>(m_decoderState);
  m_decoderState = nullptr;
  delete[] m_scratch;
  m_scratch = nullptr;
}

bool CodecSILK::open(const AudioFormat& format, bool encoder) {
  const CompressionType code = format.getCompression();
  if (code != CT_SILK_20MS && code != CT_SILK_30MS && code != CT_SILK_40MS && code != CT_SILK_60MS)
    return false;
  int32_t size = 0;
  if (quillon::silk::getDecoderSize(&size) != 0 || size <= 0) return false;
  release();
  m_decoderState = new (std::nothrow) uint8[static_cast<size_t>(size)];
  m_scratch = new (std::nothrow) int16[kScratchSamples];
  if (!m_decoderState || !m_scratch) {
    release();
    return false;
  }
  return Codec::open(format, encoder);
}

bool CodecSILK::close() {
  release();
  return Codec::close();
}

bool CodecSILK::init() {
  if (!m_decoderState) return false;
  return quillon::silk::initDecoder(m_decoderState) == 0;
}

uint32 CodecSILK::decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) {
  if (outCapacity == 0 || !m_decoderState || !m_scratch || !in) return 0;
  uint8* dst = reinterpret_cast<uint8*>(out);
  uint32 written = 0;
  do {
    if (inBytes < 2) break;
    const int16 length = static_cast<int16>(in[0] | (in[1] << 8));
    in += 2;
    inBytes -= 2;
    if (inBytes < static_cast<uint32>(static_cast<int32>(length))) break;

    // The engine reads four bytes at the payload pointer even for shorter
    // payloads; at the very end of the input they come from a zeroed copy.
    uint8 tail[4] = {0, 0, 0, 0};
    const uint8* payload = in;
    if (inBytes < 4) {
      std::memcpy(tail, in, inBytes);
      payload = tail;
    }

    int16 frames = 0;
    uint32 total = 0;
    quillon::silk::DecControl ctl{m_control.API_sampleRate, m_control.frameSize, m_control.framesPerPacket,
                                  m_control.moreInternalDecoderFrames, m_control.inBandFECOffset};
    do {
      int16_t got = 0;
      quillon::silk::decode(m_decoderState, &ctl, 0, payload, length, m_scratch + total, &got);
      frames++;
      total += static_cast<uint32>(got);
    } while (ctl.moreInternalDecoderFrames != 0 && total + kFrameRoom <= kScratchSamples);
    m_control = DecControl{ctl.API_sampleRate, ctl.frameSize, ctl.framesPerPacket, ctl.moreInternalDecoderFrames,
                           ctl.inBandFECOffset};

    in += length;
    inBytes -= static_cast<uint32>(length);

    if (frames <= kMaxFramesPerPacket) {
      const int16 n = static_cast<int16>(2 * total);
      if (n < 0 || static_cast<uint32>(n) > outCapacity - written) break;
      std::memcpy(dst + written, m_scratch, static_cast<size_t>(n));
      written += static_cast<uint32>(n);
    }
  } while (written < outCapacity);
  return written;
}

uint32 CodecSILK::encode(const int16*, uint32&, uint8*, uint32) { return 0; }

}  // namespace TAV
