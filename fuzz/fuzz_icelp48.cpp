// libFuzzer target for ICELP48: the input is decoded as whole 18-byte
// frames under a configuration taken from its first bytes (synchronisation,
// alternation mode, thresholds), through the engine and through the codec
// adapter, and its bytes are also encoded as 16-bit PCM.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "engines/icelp48/icelp48_decoder.h"
#include "engines/icelp48/icelp48_encoder.h"
#include "quillon/codecs/codec_icelp48.h"

using namespace quillon::icelp48;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  Icelp48Config cfg = defaultConfig();
  cfg.words[kCfgForceNoise] = (data[0] & 0x80) ? 1 : 0;
  cfg.words[kCfgAlternationMode] = data[0] & 1;
  cfg.words[kCfgSyncEnable] = (data[0] >> 1) & 1;
  cfg.words[kCfgNoiseSource] = (data[0] >> 2) & 1;
  cfg.words[kCfgSyncFrames] = static_cast<int16_t>(data[1] % 70);
  cfg.words[kCfgThreshold] = static_cast<int16_t>(static_cast<int8_t>(data[2]));
  const uint8_t* body = data + 3;
  const size_t frames = (size - 3) / kFrameBytes;

  Icelp48Decoder* dec = createIcelp48Decoder(&cfg);
  if (dec == nullptr) return 0;
  int16_t pcm[kFrameSamples];
  for (size_t f = 0; f < frames; f++) {
    uint16_t words[kFrameWords];
    wordsFromBytes(body + f * kFrameBytes, words);
    decodeIcelp48Frame(dec, words, pcm);
  }
  destroyIcelp48Decoder(dec);

  if (frames > 0) {
    TAV::Codec* codec = TAV::Codec::getCodec(TAV::AudioFormat(TAV::CT_ICELP48, 1), false);
    if (codec != nullptr) {
      std::vector<int16_t> out(frames * kFrameSamples);
      TAV::uint32 n = static_cast<TAV::uint32>(frames * kFrameBytes);
      codec->decode(body, n, out.data(), static_cast<TAV::uint32>(2 * out.size()));
      delete codec;
    }
  }

  Icelp48Encoder enc;
  const size_t samples = (size - 3) / 2;
  std::vector<int16_t> in(samples);
  if (samples) std::memcpy(in.data(), body, samples * 2);
  uint8_t frame[kFrameBytes];
  for (size_t i = 0; i + kFrameSamples <= samples; i += kFrameSamples) enc.encode(in.data() + i, frame);
  return 0;
}
