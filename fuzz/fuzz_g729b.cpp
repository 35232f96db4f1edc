// libFuzzer target for the rest of the G.729 family. The first byte picks
// one path and variant, so that each input runs through one of them only:
// a stream of speech, SID, untransmitted and lost frames through a decoder
// variant (the first byte of each record picks the frame kind), whole
// packets through descriptor 24, 26 or 27 of the codecLib front, or PCM
// through the main-body or Annex B encoder.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "codeclib/codeclib.h"
#include "engines/g729/decoder.h"
#include "engines/g729/encoder.h"
#include "quillon/trace.h"

namespace {

constexpr int kMaxRecords = 8;

using quillon::g729a::Decoder;
using quillon::g729a::Encoder;
namespace cl = quillon::codeclib;

void engines(int variant, const uint8_t* data, size_t size) {
  Decoder decoders[] = {Decoder(Decoder::Variant::Main), Decoder(Decoder::Variant::Main, true),
                        Decoder(Decoder::Variant::AnnexA, true)};
  Decoder& d = decoders[variant];
  int16_t out[Decoder::kFrameSamples];
  size_t pos = 0;
  // Untransmitted and lost frames take one byte each: a cap on the records
  // keeps every input quick.
  for (int records = 0; pos < size && records < kMaxRecords; records++) {
    const uint8_t kind = data[pos++];
    uint8_t frame[Decoder::kFrameBytes] = {};
    const size_t n = std::min<size_t>(Decoder::kFrameBytes, size - pos);
    std::memcpy(frame, data + pos, n);
    switch (kind & 3) {
      case 0: d.decode(frame, out); break;
      case 1: d.decodeSid(frame, out); break;
      case 2: d.decodeUntransmitted(out); break;
      default: d.decodeErased(out, (kind & 4) != 0); break;
    }
    pos += (kind & 3) == 0 ? n : (kind & 3) == 1 ? std::min<size_t>(2, n) : 0;
  }
}

void front(int variant, const uint8_t* data, size_t size) {
  static constexpr int32_t kIds[] = {cl::kCodecG729, cl::kCodecG729AB, cl::kCodecG729B};
  const int32_t id = kIds[variant];
  cl::HandleRes* h = nullptr;
  if (cl::codecLibOpen(&h, id, cl::kDirDecoder, 0) != 0) return;
  cl::CodecLibOptions options{};
  cl::codecLibQuery(&h, id, cl::kDirDecoder, nullptr, &options, 0);
  std::vector<int16_t> out(80 * 40);
  size_t pos = 0;
  for (int records = 0; pos < size && records < kMaxRecords; records++) {
    // Packets of 0 to 22 bytes with room for every frame in them.
    const size_t len = std::min<size_t>(data[pos] % 23, size - pos - 1);
    pos++;
    int32_t n = static_cast<int32_t>(len), room = static_cast<int32_t>(out.size());
    cl::codecLibDecode(&h, data + pos, &n, out.data(), &room, &options, 0);
    pos += len;
  }
  cl::codecLibClose(&h, 0);
}

void encoders(int variant, const uint8_t* data, size_t size) {
  const size_t frames = size / (2 * Encoder::kFrameSamples);
  Encoder encs[] = {Encoder(Encoder::Variant::Main), Encoder(Encoder::Variant::Main, true),
                    Encoder(Encoder::Variant::AnnexA, true)};
  Encoder& e = encs[variant];
  int16_t pcm[Encoder::kFrameSamples];
  uint8_t out[Encoder::kFrameBytes];
  for (size_t f = 0; f < frames && f < 4; f++) {
    std::memcpy(pcm, data + f * 2 * Encoder::kFrameSamples, sizeof pcm);
    e.encode(pcm, out);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    quillon_set_trace_sink(nullptr);
    return true;
  }();
  (void)quiet;
  if (size < 1) return 0;
  const int variant = data[0] % 3;
  switch ((data[0] / 3) % 3) {
    case 0: engines(variant, data + 1, size - 1); break;
    case 1: front(variant, data + 1, size - 1); break;
    default: encoders(variant, data + 1, size - 1); break;
  }
  return 0;
}
