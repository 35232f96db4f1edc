#include "quillon/codecs/codec_icelp48.h"

#include <cstring>

#include "engines/icelp48/icelp48_decoder.h"

namespace TAV {

using namespace quillon::icelp48;

CodecICELP48::~CodecICELP48() {
  destroyIcelp48Decoder(m_engine);
  m_engine = nullptr;
  Codec::close();
}

bool CodecICELP48::open(const AudioFormat& format, bool encoder) {
  if (format.getCompression() != CT_ICELP48 || encoder) return false;
  return Codec::open(format, false);
}

bool CodecICELP48::close() {
  destroyIcelp48Decoder(m_engine);
  m_engine = nullptr;
  return Codec::close();
}

bool CodecICELP48::init() {
  // A close first: any previous engine goes and the base close runs.
  close();
  if (m_engine == nullptr) m_engine = createIcelp48Decoder(nullptr);
  return true;
}

uint32 CodecICELP48::decode(const uint8* in, uint32& inBytes, int16* out, uint32 outCapacity) {
  if (m_format.getCompression() != CT_ICELP48 || m_engine == nullptr) return 0;
  if (static_cast<uint32>(outCapacity * 9u) != static_cast<uint32>(inBytes * 240u)) return 0;
  const uint32 words = inBytes / 2;
  if (words == 0) return 0;
  const uint32 frames = (words - 1) / kFrameWords + 1;
  const uint32 outSamples = outCapacity / 2;

  for (uint32 f = 0; f < frames; f++) {
    uint8 bytes[kFrameBytes] = {};
    const uint32 offset = f * kFrameBytes;
    const uint32 avail = inBytes - offset < static_cast<uint32>(kFrameBytes) ? inBytes - offset : kFrameBytes;
    std::memcpy(bytes, in + offset, avail);
    uint16_t frame[kFrameWords];
    wordsFromBytes(bytes, frame);

    const uint32 first = f * kFrameSamples;
    if (first + kFrameSamples <= outSamples) {
      decodeIcelp48Frame(m_engine, frame, out + first);
    } else {
      int16_t pcm[kFrameSamples];
      decodeIcelp48Frame(m_engine, frame, pcm);
      if (first < outSamples) std::memcpy(out + first, pcm, sizeof(int16_t) * (outSamples - first));
    }
  }
  inBytes = kFrameBytes * frames + (inBytes & 1u);
  return 2u * kFrameSamples * frames;
}

uint32 CodecICELP48::encode(const int16*, uint32&, uint8*, uint32) { return 0; }

}  // namespace TAV
