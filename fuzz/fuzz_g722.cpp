// libFuzzer target for the G.722 engine: the input bytes are decoded as
// octets in every mode (in frames of varying size) and encoded as 16-bit
// samples.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "engines/g722/g722_engine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The first byte chooses the frame size the stream is handed over in.
  const size_t frame = 1 + data[0] % 200;
  const uint8_t* body = data + 1;
  const size_t n = size - 1;

  std::vector<int16_t> out(2 * n + 2);
  for (int mode = 0; mode <= 4; mode++) {
    quillon::g722::Decoder dec;
    for (size_t i = 0; i < n; i += frame) {
      const size_t len = n - i < frame ? n - i : frame;
      dec.decode(body + i, len, out.data() + 2 * i, mode);
    }
  }
  quillon::g722::Decoder bands;
  for (size_t i = 0; i < n; i++) {
    int16_t rl, rh;
    bands.decodeBands(body[i], 1 + static_cast<int>(i % 3), rl, rh);
  }

  std::vector<int16_t> pcm(n / 2);
  if (!pcm.empty()) std::memcpy(pcm.data(), body, pcm.size() * sizeof(int16_t));
  std::vector<uint8_t> code(pcm.size() / 2 + 1);
  quillon::g722::Encoder enc;
  for (size_t i = 0; i < pcm.size(); i += 2 * frame) {
    const size_t len = pcm.size() - i < 2 * frame ? pcm.size() - i : 2 * frame;
    enc.encode(pcm.data() + i, len, code.data() + i / 2);
  }
  for (size_t i = 0; i < pcm.size(); i++) enc.encodeBands(pcm[i], pcm[pcm.size() - 1 - i]);
  return 0;
}
