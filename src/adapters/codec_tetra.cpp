#include "quillon/codecs/codec_tetra.h"

#include <cstring>
#include <new>
#include <type_traits>

#include "engines/tetra/tetra_decoder.h"

namespace TAV {

namespace {

using quillon::tetra::TetraDecoderState;

static_assert(std::is_trivially_copyable_v<TetraDecoderState>);
static_assert(std::is_trivially_destructible_v<TetraDecoderState>);
static_assert(alignof(TetraDecoderState) <= 8);
static_assert(CodecTetra::kFrameBytes == quillon::tetra::kFrameBytes);
static_assert(CodecTetra::kFrameSamples == quillon::tetra::kFrameSamples);

TetraDecoderState& stateIn(unsigned char* storage) {
  return *std::launder(reinterpret_cast<TetraDecoderState*>(storage));
}

const TetraDecoderState& stateIn(const unsigned char* storage) {
  return *std::launder(reinterpret_cast<const TetraDecoderState*>(storage));
}

}  // namespace

CodecTetra::CodecTetra() {
  static_assert(sizeof(TetraDecoderState) <= kStateBytes);
  quillon::tetra::resetTetraDecoder(*new (m_state) TetraDecoderState());
}

CodecTetra::CodecTetra(const CodecTetra& other) : Codec(other) {
  new (m_state) TetraDecoderState(stateIn(other.m_state));
}

CodecTetra& CodecTetra::operator=(const CodecTetra& other) {
  Codec::operator=(other);
  stateIn(m_state) = stateIn(other.m_state);
  return *this;
}

CodecTetra::~CodecTetra() = default;

bool CodecTetra::open(const AudioFormat& format, bool encoder) {
  if (format.getCompression() != CT_TETRA) return false;
  return Codec::open(format, encoder);
}

bool CodecTetra::init() {
  quillon::tetra::resetTetraDecoder(stateIn(m_state));
  return true;
}

uint32 CodecTetra::decode(const uint8* in, uint32& inBytes, int16* out, uint32 /*outCapacity*/) {
  if (inBytes == 0) return 0;
  TetraDecoderState& state = stateIn(m_state);
  uint32 frames = 0;
  do {
    quillon::tetra::decodeTetraFrame(state, in, out);
    in += kFrameBytes;
    out += kFrameSamples;
    inBytes -= kFrameBytes;
    frames++;
  } while (inBytes != 0);
  return frames * kFrameSamples * 2;
}

uint32 CodecTetra::encode(const int16*, uint32&, uint8*, uint32) { return 0; }

}  // namespace TAV
