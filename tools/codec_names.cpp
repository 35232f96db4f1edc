#include "codec_names.h"

#include <strings.h>

#include <cstdlib>
#include <map>
#include <mutex>
#include <vector>

#include "quillon/codec.h"
#include "library_errors.h"
#include "pipeline.h"

namespace quillon::tool {

using namespace TAV;

const std::vector<CodecName>& codecNames() {
  static const std::vector<CodecName> table = {
      {"alaw", CT_G711_ALAW, "G.711 A-law", "1 byte/sample"},
      {"ulaw", CT_G711_ULAW, "G.711 mu-law", "1 byte/sample"},
      {"g726-40", CT_G726_40, "G.726 40 kbit/s, MSB-first packing", "5 bytes/8 samples"},
      {"g726-32", CT_G726_32, "G.726 32 kbit/s, MSB-first packing", "4 bytes/8 samples"},
      {"g726-24", CT_G726_24, "G.726 24 kbit/s, MSB-first packing", "3 bytes/8 samples"},
      {"g726-16", CT_G726_16, "G.726 16 kbit/s, MSB-first packing", "2 bytes/8 samples"},
      {"g726-40-lsb", CT_G726_40_LSB, "G.726 40 kbit/s, LSB-first packing", "5 bytes/8 samples"},
      {"g726-32-lsb", CT_G726_32_LSB, "G.726 32 kbit/s, LSB-first packing", "4 bytes/8 samples"},
      {"g726-24-lsb", CT_G726_24_LSB, "G.726 24 kbit/s, LSB-first packing", "3 bytes/8 samples"},
      {"g726-16-lsb", CT_G726_16_LSB, "G.726 16 kbit/s, LSB-first packing", "2 bytes/8 samples"},
      {"g729", CT_G729, "G.729 Annex A", "10 bytes/10 ms"},
      {"icelp48", CT_ICELP48, "ICELP 4.8 kbit/s", "18 bytes/30 ms"},
      {"tetra", CT_TETRA, "TETRA full-rate speech", "18 bytes/30 ms"},
      {"g722", CT_G722, "G.722 64 kbit/s", "1 byte/2 samples"},
      {"g722-mode2", CT_G722_MODE2, "G.722, second code (decode)", "1 byte/2 samples"},
      {"g722-mode3", CT_G722_MODE3, "G.722, third code (decode)", "1 byte/2 samples"},
      {"silk-20", CT_SILK_20MS, "SILK, 20 ms packets", "length-prefixed packets"},
      {"silk-30", CT_SILK_30MS, "SILK, 30 ms packets", "length-prefixed packets"},
      {"silk-40", CT_SILK_40MS, "SILK, 40 ms packets", "length-prefixed packets"},
      {"silk-60", CT_SILK_60MS, "SILK, 60 ms packets", "length-prefixed packets"},
      {"opus", CT_OPUS, "Opus", "length-prefixed packets"},
      {"amrwb", CT_AMRWB, "AMR-WB", "length-prefixed frames"},
      {"pcm16-16k", CT_PCM16_16K, "16-bit linear PCM, 16 kHz", "2 bytes/sample"},
      {"pcm16", CT_PCM16, "16-bit linear PCM, 8 kHz", "2 bytes/sample"},
      {"msadpcm", CT_MSADPCM, "Microsoft ADPCM", "256-byte blocks"},
      {"pcm8", CT_PCM8, "8-bit linear PCM", "1 byte/sample"},
  };
  return table;
}

bool parseCodec(const std::string& text, CompressionType& code) {
  for (const CodecName& c : codecNames())
    if (strcasecmp(text.c_str(), c.name) == 0) {
      code = c.code;
      return true;
    }
  if (text.empty() || text.size() > 9) return false;
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0') return false;
  for (const CodecName& c : codecNames())
    if (static_cast<long>(c.code) == v) {
      code = c.code;
      return true;
    }
  return false;
}

namespace {

bool isPcm(CompressionType code) { return code == CT_PCM16 || code == CT_PCM16_16K; }

bool tryDecode(CompressionType code) {
  const AudioFormat f(code, 1);
  Codec* d = Codec::getCodec(f, false);
  if (!d) return false;
  bool ok = true;
  if (f.getBytesPerFrame() != 0) {
    std::vector<uint8_t> frames(f.getBytesPerFrame() * 160, 0x55);
    std::vector<int16_t> pcm(f.getSamplesPerFrame() * 160 * 2);
    uint32_t inBytes = static_cast<uint32_t>(frames.size());
    ok = d->decode(frames.data(), inBytes, pcm.data(), static_cast<uint32_t>(pcm.size())) > 0;
  }
  d->close();
  delete d;
  return ok;
}

bool tryEncode(CompressionType code) {
  const AudioFormat f(code, 1);
  EncodePipeline probe;
  std::string ignored;
  if (!probe.open(code, f.getSamplesPerSecond(), ignored)) return false;
  std::vector<int16_t> silence(f.getSamplesPerSecond());
  std::vector<uint8_t> coded;
  probe.feed(silence.data(), silence.size(), coded);
  probe.flush(coded);
  return !coded.empty();
}

// A trial the library abandons with a fatal error (a trace line that cannot
// be written) answers yes: the conversion itself then reports the error.
bool tryDirection(CompressionType code, bool decode) {
  try {
    return decode ? tryDecode(code) : tryEncode(code);
  } catch (const std::exception&) {
    takeFatalError();
    return true;
  }
}

// Each answer is found once per process; batch workers ask concurrently.
bool cachedAnswer(CompressionType code, bool decode) {
  static std::mutex lock;
  static std::map<std::pair<int, bool>, bool> answers;
  if (isPcm(code)) return true;
  std::lock_guard<std::mutex> guard(lock);
  const auto key = std::make_pair(static_cast<int>(code), decode);
  auto it = answers.find(key);
  if (it == answers.end()) it = answers.emplace(key, tryDirection(code, decode)).first;
  return it->second;
}

std::string namesOf(bool decode) {
  std::string names;
  for (const CodecName& c : codecNames())
    if (cachedAnswer(c.code, decode)) names += (names.empty() ? "" : ", ") + std::string(c.name);
  return names;
}

}  // namespace

bool canDecode(CompressionType code) { return cachedAnswer(code, true); }
bool canEncode(CompressionType code) { return cachedAnswer(code, false); }
bool checkDecodable(CompressionType code, std::string& error) {
  if (canDecode(code)) return true;
  error = codecName(code) + " cannot be decoded by this build; it decodes " + namesOf(true);
  return false;
}

bool checkEncodable(CompressionType code, std::string& error) {
  if (canEncode(code)) return true;
  error = codecName(code) + " cannot be encoded by this build; it encodes " + namesOf(false);
  return false;
}

bool checkOutputRate(CompressionType code, uint32_t rate, std::string& error) {
  const uint32_t native = AudioFormat(code, 1).getSamplesPerSecond();
  if (rate == 0 || rate == native || rate == 8000) return true;
  error = "--rate " + std::to_string(rate) + " does not fit " + codecName(code) + ": give --rate 8000 or its own rate (" +
          std::to_string(native) + ")";
  return false;
}

std::string codecName(CompressionType code) {
  for (const CodecName& c : codecNames())
    if (c.code == code) return c.name;
  return "code " + std::to_string(static_cast<int>(code));
}

}  // namespace quillon::tool
