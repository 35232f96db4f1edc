#include "quillon/codecs/codec_g72x.h"

#include <cstring>
#include <new>

#include "engines/g726/g726_engine.h"

namespace TAV {

namespace {

// Codewords come in groups that end on a byte boundary.
struct G72xLayout {
  uint32 bitsPerCode;
  uint32 bytesPerGroup;  // bytesPerGroup * 8 / bitsPerCode codewords
  bool lsbFirst;
};

bool layoutFor(CompressionType code, G72xLayout& layout) {
  switch (code) {
    case CT_G726_40: layout = {5, 5, false}; return true;
    case CT_G726_32: layout = {4, 1, false}; return true;
    case CT_G726_24: layout = {3, 3, false}; return true;
    case CT_G726_16: layout = {2, 1, false}; return true;
    case CT_G726_40_LSB: layout = {5, 5, true}; return true;
    case CT_G726_32_LSB: layout = {4, 1, true}; return true;
    case CT_G726_24_LSB: layout = {3, 3, true}; return true;
    case CT_G726_16_LSB: layout = {2, 1, true}; return true;
    default: return false;
  }
}

}  // namespace

CodecG72X::CodecG72X()
    : m_engine(new (std::nothrow) quillon::G726Engine()),
      m_bytesPerGroup(1),
      m_bitsPerCode(4),
      m_codesPerGroup(2),
      m_codeMask(15),
      m_lsbFirst(false) {}

CodecG72X::~CodecG72X() { delete m_engine; }

bool CodecG72X::open(const AudioFormat& format, bool encoder) {
  G72xLayout layout;
  if (!layoutFor(format.getCompression(), layout) || encoder) return false;
  return Codec::open(format, false);
}

bool CodecG72X::close() { return Codec::close(); }

bool CodecG72X::init() {
  if (isEncoder()) return false;
  G72xLayout layout;
  if (!layoutFor(m_format.getCompression(), layout)) throw "invalid codec";
  if (!m_engine) return false;
  m_bitsPerCode = layout.bitsPerCode;
  m_bytesPerGroup = layout.bytesPerGroup;
  m_codesPerGroup = layout.bytesPerGroup * 8 / layout.bitsPerCode;
  m_codeMask = static_cast<uint8>((1u << layout.bitsPerCode) - 1);
  m_lsbFirst = layout.lsbFirst;
  m_engine->setBitsPerCode(static_cast<int>(layout.bitsPerCode));
  return true;
}

uint32 CodecG72X::decode(const uint8* in, uint32& inBytes, int16* out, uint32 /*outCapacity*/) {
  if (inBytes == 0 || !m_engine || !isDecoder()) {
    inBytes = 0;
    return 0;
  }
  const uint32 groupBits = m_bytesPerGroup * 8;
  uint32 groups = 0;
  uint32 samples = 0;
  for (uint64 taken = 0; taken < inBytes; taken += m_bytesPerGroup) {
    const uint8* group = in + taken;
    uint8 padded[8];
    if (inBytes - taken < m_bytesPerGroup) {
      // A trailing partial group is completed with zero bits rather than
      // read past the caller's buffer.
      std::memset(padded, 0, sizeof padded);
      std::memcpy(padded, group, static_cast<size_t>(inBytes - taken));
      group = padded;
    }
    // The whole group as one integer, first byte first (MSB packing) or
    // first byte lowest (LSB packing).
    uint64 bits = 0;
    if (m_lsbFirst) {
      for (uint32 i = m_bytesPerGroup; i-- > 0;) bits = (bits << 8) | group[i];
      for (uint32 k = 0; k < m_codesPerGroup; k++) {
        out[samples++] = m_engine->decodeLinear(static_cast<unsigned>(bits & m_codeMask));
        bits >>= m_bitsPerCode;
      }
    } else {
      for (uint32 i = 0; i < m_bytesPerGroup; i++) bits = (bits << 8) | group[i];
      for (uint32 shift = groupBits; shift != 0;) {
        shift -= m_bitsPerCode;
        out[samples++] = m_engine->decodeLinear(static_cast<unsigned>((bits >> shift) & m_codeMask));
      }
    }
    groups++;
  }
  inBytes = groups;
  return samples * 2;
}

uint32 CodecG72X::encode(const int16*, uint32&, uint8*, uint32) { return 0; }

}  // namespace TAV
