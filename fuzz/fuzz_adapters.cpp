// The codec adapters under odd chunkings, each within its caller contract:
// the first byte picks the code, then each step takes a length byte and
// appends that many bytes to what the caller holds.
// - codecLib engines (G.729, G.722) keep partial frames themselves: every
//   chunk goes in as it is.
// - length-prefixed streams (SILK, Opus, AMR-WB) report the bytes left:
//   those are held and handed over again with the next chunk, so packets
//   are joined across calls and random prefixes claim more than is there.
// - fixed-frame codecs take whole frames: the caller holds the rest.
// Output room is generous: the codecLib engines count a byte capacity as
// samples, so twice the room offered is allocated, plus one engine frame.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "quillon/codec.h"
#include "quillon/trace.h"

namespace {

enum class Feed { Engine, Prefixed, Frames };

struct Target {
  TAV::CompressionType code;
  Feed feed;
  uint32_t frameBytes;  // Frames: bytes per call unit
};

constexpr Target kTargets[] = {
    {TAV::CT_G711_ALAW, Feed::Frames, 1},   {TAV::CT_G711_ULAW, Feed::Frames, 1},
    {TAV::CT_G726_40, Feed::Frames, 5},     {TAV::CT_G726_32, Feed::Frames, 1},
    {TAV::CT_G726_24, Feed::Frames, 3},     {TAV::CT_G726_16, Feed::Frames, 1},
    {TAV::CT_G726_40_LSB, Feed::Frames, 5}, {TAV::CT_G726_16_LSB, Feed::Frames, 1},
    {TAV::CT_ICELP48, Feed::Frames, 18},    {TAV::CT_TETRA, Feed::Frames, 18},
    {TAV::CT_PCM8, Feed::Frames, 1},        {TAV::CT_G729, Feed::Engine, 0},
    {TAV::CT_G722, Feed::Engine, 0},        {TAV::CT_G722_MODE3, Feed::Engine, 0},
    {TAV::CT_SILK_20MS, Feed::Prefixed, 0}, {TAV::CT_SILK_60MS, Feed::Prefixed, 0},
    {TAV::CT_OPUS, Feed::Prefixed, 0},      {TAV::CT_AMRWB, Feed::Prefixed, 0},
};
constexpr size_t kHeldMax = 512;           // a caller gives up on a stream that never parses
constexpr uint32_t kBytesPerByte = 1280;  // PCM bytes one coded byte can give at most (Opus, 2-byte packet)
constexpr uint32_t kEngineFrame = 8192;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  quillon_set_trace_sink(nullptr);
  if (size < 1) return 0;
  const Target& t = kTargets[data[0] % (sizeof kTargets / sizeof kTargets[0])];
  std::unique_ptr<TAV::Codec> codec(TAV::Codec::getCodec(TAV::AudioFormat(t.code, 1), false));
  if (!codec) return 0;
  std::vector<uint8_t> held;
  size_t pos = 1;
  while (pos < size) {
    const size_t n = std::min<size_t>(data[pos] % 97, size - pos - 1);
    pos++;
    held.insert(held.end(), data + pos, data + pos + n);
    pos += n;
    uint32_t given = static_cast<uint32_t>(held.size());
    if (t.feed == Feed::Frames) given -= given % t.frameBytes;
    if (given == 0) continue;
    const uint32_t room = kBytesPerByte * given + kEngineFrame;
    const auto out = std::make_unique_for_overwrite<int16_t[]>(room);  // room bytes offered, twice that allocated
    // A copy of exactly the bytes given, so that reads past them are caught.
    const std::vector<uint8_t> in(held.begin(), held.begin() + given);
    uint32_t inBytes = given;
    const uint32_t written = codec->decode(in.data(), inBytes, out.get(), room);
    if (written > 2 * room) __builtin_trap();
    size_t used = given;
    if (t.feed == Feed::Prefixed) used = inBytes <= given ? given - inBytes : given;
    if (t.feed == Feed::Engine) used = held.size();
    held.erase(held.begin(), held.begin() + static_cast<std::ptrdiff_t>(used));
    if (held.size() > kHeldMax) held.clear();
  }
  return 0;
}
