// quillon decode / encode / codecs
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "codec/codec_registry.h"
#include "codec_names.h"
#include "commands.h"
#include "pipeline.h"
#include "wav_file.h"

using namespace TAV;
using namespace quillon::tool;

namespace {

constexpr size_t kReadChunk = 64 * 1024;

int fail(const std::string& message) {
  std::fprintf(stderr, "quillon: %s\n", message.c_str());
  return 1;
}

int usageError(const char* command, const std::string& message) {
  std::fprintf(stderr, "quillon %s: %s\n(see 'quillon help')\n", command, message.c_str());
  return 2;
}

bool hasWaveDescription(CompressionType code) {
  return code == CT_G711_ALAW || code == CT_G711_ULAW || code == CT_PCM16 || code == CT_PCM16_16K ||
         code == CT_MSADPCM || code == CT_PCM8;
}

}  // namespace

int runDecodeCommand(int argc, char** argv) {
  DecodeOptions options;
  bool haveCodec = false, raw = false;
  std::vector<std::string> files;
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    if (a == "--codec" && i + 1 < argc) {
      if (!parseCodec(argv[++i], options.code)) return usageError("decode", std::string("unknown codec '") + argv[i] + "'");
      haveCodec = true;
    } else if (a == "--rate" && i + 1 < argc) {
      options.rate = static_cast<uint32_t>(std::strtoul(argv[++i], nullptr, 10));
      if (options.rate == 0) return usageError("decode", "--rate needs a number of Hz");
    } else if (a == "--raw") {
      raw = true;
    } else if (a == "--api") {
      options.useApi = true;
    } else if (!a.empty() && a[0] == '-' && a != "-") {
      return usageError("decode", "unknown or incomplete option '" + a + "'");
    } else {
      files.push_back(a);
    }
  }
  if (!haveCodec) return usageError("decode", "--codec is required");
  if (files.size() != 2) return usageError("decode", "expected INPUT and OUTPUT");

  DecodePipeline pipeline;
  std::string error;
  if (!pipeline.open(options, error)) return fail(error);

  FILE* in = std::fopen(files[0].c_str(), "rb");
  if (!in) return fail("cannot open " + files[0] + ": " + std::strerror(errno));
  std::vector<uint8_t> chunk(kReadChunk);
  size_t n = std::fread(chunk.data(), 1, chunk.size(), in);
  if (n == 0) {
    std::fclose(in);
    return fail(files[0] + " is empty");
  }

  const uint32_t rate = pipeline.outputRate();
  OutputFile output;
  if (!output.open(files[1], AudioFormat(rate == 16000 ? CT_PCM16_16K : CT_PCM16, 1), rate,
                   raw ? OutputFile::Header::None : OutputFile::Header::Plain, error)) {
    std::fclose(in);
    return fail(error);
  }
  std::vector<int16_t> pcm;
  int status = 0;
  while (n > 0) {
    pcm.clear();
    if (!pipeline.feed(chunk.data(), n, pcm, error)) {
      status = fail(error);
      break;
    }
    if (!output.write(pcm.data(), pcm.size() * 2)) {
      status = fail("cannot write " + files[1] + ": " + std::strerror(errno));
      break;
    }
    n = std::fread(chunk.data(), 1, chunk.size(), in);
  }
  if (status == 0 && std::ferror(in)) status = fail("read error on " + files[0]);
  std::fclose(in);
  if (!output.finish(error)) return fail(error);
  if (status != 0) return status;
  if (pipeline.consumedBytes() == 0) return fail(files[0] + " holds no whole frame of " + codecName(options.code));
  if (pipeline.leftoverBytes())
    std::fprintf(stderr, "quillon: warning: %zu trailing bytes do not make a whole frame or packet and were not decoded\n",
                 pipeline.leftoverBytes());
  return 0;
}

int runEncodeCommand(int argc, char** argv) {
  CompressionType code = CT_NONE;
  bool haveCodec = false;
  std::vector<std::string> files;
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    if (a == "--codec" && i + 1 < argc) {
      if (!parseCodec(argv[++i], code)) return usageError("encode", std::string("unknown codec '") + argv[i] + "'");
      haveCodec = true;
    } else if (!a.empty() && a[0] == '-' && a != "-") {
      return usageError("encode", "unknown or incomplete option '" + a + "'");
    } else {
      files.push_back(a);
    }
  }
  if (!haveCodec) return usageError("encode", "--codec is required");
  if (files.size() != 2) return usageError("encode", "expected INPUT.wav and OUTPUT");

  std::string error;
  WavReader wav;
  if (!wav.open(files[0], error)) return fail(error);
  if (wav.formatTag != 1 || wav.bitsPerSample != 16)
    return fail(files[0] + ": only 16-bit PCM WAVE input is accepted (format tag " + std::to_string(wav.formatTag) +
                ", " + std::to_string(wav.bitsPerSample) + " bits)");
  if (wav.channels != 1) return fail(files[0] + ": only mono input is accepted (" + std::to_string(wav.channels) + " channels)");

  EncodePipeline pipeline;
  if (!pipeline.open(code, wav.sampleRate, error)) return fail(error);
  const AudioFormat outFormat(code, 1);
  OutputFile::Header header = OutputFile::Header::None;
  if (hasWaveDescription(code)) header = code == CT_MSADPCM ? OutputFile::Header::MsAdpcm : OutputFile::Header::Plain;
  OutputFile output;
  if (!output.open(files[1], outFormat, outFormat.getSamplesPerSecond(), header, error)) return fail(error);

  std::vector<uint8_t> chunk(kReadChunk);
  std::vector<uint8_t> coded;
  size_t carry = 0;  // an odd byte left from the previous read
  int status = 0;
  for (;;) {
    const size_t n = wav.read(chunk.data() + carry, chunk.size() - carry);
    if (n == 0) break;
    const size_t total = carry + n;
    const size_t samples = total / 2;
    std::vector<int16_t> pcm(samples);
    for (size_t i = 0; i < samples; i++) pcm[i] = static_cast<int16_t>(chunk[2 * i] | (chunk[2 * i + 1] << 8));
    carry = total & 1;
    if (carry) chunk[0] = chunk[total - 1];
    coded.clear();
    pipeline.feed(pcm.data(), pcm.size(), coded);
    if (!output.write(coded.data(), coded.size())) {
      status = fail("cannot write " + files[1] + ": " + std::strerror(errno));
      break;
    }
  }
  if (status == 0) {
    coded.clear();
    pipeline.flush(coded);
    if (!output.write(coded.data(), coded.size())) status = fail("cannot write " + files[1]);
  }
  if (!output.finish(error)) return fail(error);
  return status;
}

int runCodecsCommand(int, char**) {
  std::printf("%-12s %5s %7s  %-24s %-7s %-7s %s\n", "name", "code", "rate", "framing", "decode", "encode",
              "description");
  for (const CodecName& c : codecNames()) {
    const AudioFormat f(c.code, 1);
    const bool pcm = c.code == CT_PCM16 || c.code == CT_PCM16_16K;
    bool dec = pcm, enc = pcm;
    if (!pcm) {
      if (Codec* d = Codec::getCodec(f, false)) { dec = true; d->close(); delete d; }
      // Some decode-only classes open for encoding but write nothing: try a second of silence.
      EncodePipeline probe;
      std::string ignored;
      if (probe.open(c.code, f.getSamplesPerSecond(), ignored)) {
        std::vector<int16_t> silence(f.getSamplesPerSecond());
        std::vector<uint8_t> coded;
        probe.feed(silence.data(), silence.size(), coded);
        probe.flush(coded);
        enc = !coded.empty();
      }
    }
    std::printf("%-12s %5d %7u  %-24s %-7s %-7s %s\n", c.name, static_cast<int>(c.code), f.getSamplesPerSecond(),
                c.framing, dec ? "yes" : "-", enc ? "yes" : "-", c.description);
  }
  return 0;
}
