#include "quillon/codecs/codec_opus.h"

#include <opus.h>

#include <cstring>
#include <new>

namespace TAV {

namespace {

constexpr opus_int32 kSampleRate = 16000;
constexpr int kChannels = 1;
constexpr uint32 kPrefixBytes = 2;

}  // namespace

CodecOpus::CodecOpus() : m_decoder(nullptr), m_scratch(nullptr) {}

CodecOpus::~CodecOpus() {
  releaseDecoder();
  delete[] m_scratch;
}

void CodecOpus::releaseDecoder() {
  if (m_decoder) {
    opus_decoder_destroy(m_decoder);
    m_decoder = nullptr;
  }
}

bool CodecOpus::open(const AudioFormat& format, bool encoder) {
  if (format.getCompression() != CT_OPUS) return false;
  if (!m_scratch) {
    m_scratch = new (std::nothrow) int16[kScratchSamples];
    if (!m_scratch) return false;
  }
  return Codec::open(format, encoder);
}

bool CodecOpus::close() {
  releaseDecoder();
  if (m_scratch) {
    delete[] m_scratch;
    m_scratch = nullptr;
  }
  return Codec::close();
}

bool CodecOpus::init() {
  // Opening again without a close starts from a fresh decoder state.
  releaseDecoder();
  int error = OPUS_OK;
  m_decoder = opus_decoder_create(kSampleRate, kChannels, &error);
  return error == OPUS_OK;
}

uint32 CodecOpus::decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) {
  if (outCapacity == 0) return 0;
  if (!m_decoder || !m_scratch) return 0;

  uint8* dst = reinterpret_cast<uint8*>(out);
  uint32 written = 0;
  uint32 room = outCapacity;
  do {
    if (inBytes < kPrefixBytes) break;
    const int16 length = static_cast<int16>(in[0] | (in[1] << 8));
    in += kPrefixBytes;
    inBytes -= kPrefixBytes;  // the prefix stays consumed from here on
    // A negative length sign-extends to a huge unsigned count and stops here.
    if (inBytes < static_cast<uint32>(static_cast<int32>(length))) break;

    const int samples = opus_decode(m_decoder, in, length, m_scratch,
                                    static_cast<int>(kScratchSamples), 0);
    if (samples < 0) break;
    in += length;
    inBytes -= static_cast<uint32>(length);

    const uint32 n = 2u * static_cast<uint32>(samples);
    if (n > room) break;  // consumed, but its samples do not fit: dropped
    std::memcpy(dst + written, m_scratch, n);
    written += n;
    room -= n;
  } while (written < outCapacity);
  return written;
}

uint32 CodecOpus::encode(const int16*, uint32&, uint8*, uint32) { return 0; }

}  // namespace TAV
