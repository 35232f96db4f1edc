#include "quillon/codecs/codec_lib_adapter.h"

#include "codeclib/codeclib.h"

namespace TAV {

using namespace quillon::codeclib;

namespace {
constexpr int16 kDecodeTrace = 4;  // decoding of codes 20 and 50-52 traces at this level
constexpr int32 kG722FrameSamples = 320;
}  // namespace

CodecLibAdapter::CodecLibAdapter() : m_codecId(0), m_handle(nullptr), m_options{}, m_spareOptions{} {}

CodecLibAdapter::~CodecLibAdapter() {
  if (m_handle) {
    codecLibClose(&m_handle, 0);
    m_handle = nullptr;
  }
  Codec::close();
}

bool CodecLibAdapter::open(const AudioFormat& format, bool encoder) {
  m_options = CodecLibOptions{};
  m_spareOptions = CodecLibOptions{};
  const CompressionType code = format.getCompression();
  if (code < CT_G729 || code > CT_AMRWB) return false;
  switch (code) {
    case CT_G729:
      m_codecId = kCodecG729A;
      break;
    case CT_G722:
      m_codecId = kCodecG722;
      break;
    case CT_G722_MODE2:
    case CT_G722_MODE3:
      if (encoder) return false;
      m_codecId = kCodecG722;
      m_options.mode = code == CT_G722_MODE2 ? 2 : 3;
      break;
    case CT_AMRWB:
      if (encoder) return false;
      m_codecId = kCodecAmrWb;
      m_options.mode = 8;
      m_options.dtx = 0;
      break;
    default:
      return false;
  }
  return Codec::open(format, encoder);
}

bool CodecLibAdapter::init() {
  if (m_handle) {
    codecLibClose(&m_handle, 0);
    m_handle = nullptr;
  }
  // The engine defaults replace whatever open() stored in the options.
  if (codecLibQuery(nullptr, m_codecId, kDirEncoder, nullptr, &m_options, 0) != kOk) return false;
  const int32 direction = m_direction == 1 ? kDirEncoder : kDirDecoder;
  if (codecLibOpen(&m_handle, m_codecId, direction, 0) != kOk) return false;
  m_options.frameLength = kG722FrameSamples;
  return true;
}

bool CodecLibAdapter::close() {
  if (m_handle) {
    codecLibClose(&m_handle, 0);
    m_handle = nullptr;
  }
  return Codec::close();
}

uint32 CodecLibAdapter::decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) {
  if (m_codecId == kCodecAmrWb) return decodeLengthPrefixed(in, inBytes, out, outCapacity);
  // The byte capacity goes to the engine as its sample capacity.
  int32 outSamples = static_cast<int32>(outCapacity);
  int32 bytes = static_cast<int32>(inBytes);
  const int32 result = codecLibDecode(&m_handle, in, &bytes, out, &outSamples, &m_options, kDecodeTrace);
  inBytes = static_cast<uint32>(bytes);
  if (result != kOk) return 0;
  return static_cast<uint32>(outSamples) * 2;
}

// Frames each preceded by a 16-bit little-endian length. The samples one
// frame produced are the capacity offered to the next.
uint32 CodecLibAdapter::decodeLengthPrefixed(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) {
  uint32 written = 0;
  int32 outSamples = static_cast<int32>(outCapacity);
  if (outCapacity == 0) return 0;
  do {
    if (inBytes < 2) break;
    const uint32 length = static_cast<uint32>(static_cast<int32>(static_cast<int16>(in[0] | (in[1] << 8))));
    in += 2;
    inBytes -= 2;
    if (inBytes < length) break;
    int32 frameBytes = static_cast<int32>(length);
    int16* frameOut = reinterpret_cast<int16*>(reinterpret_cast<uint8*>(out) + written);
    // A length prefix from a damaged recording can span several frames; the
    // engine is never offered more samples than the bytes left can hold, so
    // the output stays inside the caller's room. For well-formed streams the
    // sample count carried from the previous frame is already the smaller.
    const int32 room = static_cast<int32>((outCapacity - written) / 2);
    if (outSamples > room) outSamples = room;
    if (codecLibDecode(&m_handle, in, &frameBytes, frameOut, &outSamples, &m_options, 0) != kOk) break;
    inBytes -= length;
    in += length;
    written += static_cast<uint32>(outSamples) * 2;
  } while (written < outCapacity);
  return written;
}

uint32 CodecLibAdapter::encode(const int16* in, uint32& inBytes, uint8* out, uint32 outCapacity) {
  int32 samples = static_cast<int32>(inBytes / 2);
  int32 outBytes = static_cast<int32>(outCapacity);
  const int32 result = codecLibEncode(&m_handle, in, &samples, out, &outBytes, &m_options, 0);
  inBytes = static_cast<uint32>(samples) * 2;
  return result == kOk ? static_cast<uint32>(outBytes) : 0;
}

}  // namespace TAV
