// quillon decode / encode / codecs
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "codec_names.h"
#include "commands.h"
#include "convert.h"
#include "output_file.h"
#include "pipeline.h"
#include "resampler_choice.h"
#include "wav_file.h"

using namespace TAV;
using namespace quillon::tool;

namespace {

constexpr size_t kReadChunk = 64 * 1024;

int fail(const std::string& message) {
  std::fprintf(stderr, "quillon: %s\n", message.c_str());
  return 1;
}

bool hasWaveDescription(CompressionType code) {
  return code == CT_G711_ALAW || code == CT_G711_ULAW || code == CT_PCM16 || code == CT_PCM16_16K ||
         code == CT_MSADPCM || code == CT_PCM8;
}

}  // namespace

int runDecodeCommand(int argc, char** argv) {
  ConvertOptions options;
  std::vector<std::string> files;
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    if (a == "--codec" && i + 1 < argc) {
      if (!parseCodec(argv[++i], options.code)) return usageError("decode", std::string("unknown codec '") + argv[i] + "'");
      options.haveCodec = true;
    } else if (a == "--rate" && i + 1 < argc) {
      options.rate = static_cast<uint32_t>(std::strtoul(argv[++i], nullptr, 10));
      if (options.rate != 8000 && options.rate != 16000) return usageError("decode", "--rate needs 8000 or 16000");
    } else if (a == "--resampler" && i + 1 < argc) {
      if (!selectResampler(argv[++i])) return usageError("decode", std::string("unknown resampler '") + argv[i] + "'");
    } else if (a == "--raw") {
      options.raw = true;
    } else if (a == "--api") {
      options.useApi = true;
    } else if (a == "--channels" && i + 1 < argc) {
      if (!parseChannelMode(argv[++i], options.channels))
        return usageError("decode", std::string("--channels must be mix, left, right, split or stereo, not '") +
                                        argv[i] + "'");
    } else if (!a.empty() && a[0] == '-' && a != "-") {
      return usageError("decode", "unknown or incomplete option '" + a + "'");
    } else {
      files.push_back(a);
    }
  }
  if (files.size() != 2) return usageError("decode", "expected INPUT and OUTPUT");
  std::string error;
  // A --rate that does not fit is found once the file says its rate.
  if (options.haveCodec && !checkDecodable(options.code, error)) return usageError("decode", error);
  if (inputIsFolder(files[0], error)) return usageError("decode", error);
  installInterruptHandlers(false);
  ConvertResult result;
  const bool ok = convertFile(files[0], files[1], options, result, error);
  for (const std::string& w : result.warnings) std::fprintf(stderr, "quillon: warning: %s\n", w.c_str());
  if (!ok) return result.usage ? usageError("decode", error) : fail(error);
  if (!options.haveCodec)
    std::fprintf(stderr, "quillon: %s: %s, %s\n", files[0] == "-" ? "standard input" : files[0].c_str(),
                 result.probe.container.c_str(),
                 codecName(result.code).c_str());
  if (result.leftoverBytes)
    std::fprintf(stderr, "quillon: warning: %zu trailing bytes do not make a whole frame or packet and were not decoded\n",
                 result.leftoverBytes);
  return 0;
}

int runProbeCommand(int argc, char** argv) {
  if (argc != 2) return usageError("probe", "expected FILE");
  ProbeResult probe;
  std::string error;
  if (inputIsFolder(argv[1], error)) return usageError("probe", error);
  if (!probeFile(argv[1], probe, error)) return fail(error);
  std::printf("file:      %s\ncontainer: %s\n", argv[1], probe.container.c_str());
  if (!probe.detail.empty()) std::printf("details:   %s\n", probe.detail.c_str());
  if (probe.container != "raw") std::printf("channels:  %u\n", probe.channels);
  if (!probe.refusal.empty()) {
    std::printf("decodable: no (%s)\n", probe.refusal.c_str());
    return 1;
  }
  if (probe.code == CT_NONE) {
    std::printf("decodable: only with --codec (a raw stream)\n");
    return 1;
  }
  std::printf("codec:     %s (code %d)\n", codecName(probe.code).c_str(), static_cast<int>(probe.code));
  return 0;
}

int runEncodeCommand(int argc, char** argv) {
  CompressionType code = CT_NONE;
  bool haveCodec = false, haveAmrWbOption = false;
  EncodeOptions encodeOptions;
  std::vector<std::string> files;
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    if (a == "--codec" && i + 1 < argc) {
      if (!parseCodec(argv[++i], code)) return usageError("encode", std::string("unknown codec '") + argv[i] + "'");
      haveCodec = true;
    } else if (a == "--mode" && i + 1 < argc) {
      char* end = nullptr;
      const long mode = std::strtol(argv[++i], &end, 10);
      if (end == argv[i] || *end != '\0' || mode < 0 || mode > 8)
        return usageError("encode", std::string("--mode needs a number from 0 to 8, not '") + argv[i] + "'");
      encodeOptions.amrwbMode = static_cast<int>(mode);
      haveAmrWbOption = true;
    } else if (a == "--dtx") {
      encodeOptions.amrwbDtx = true;
      haveAmrWbOption = true;
    } else if (!a.empty() && a[0] == '-' && a != "-") {
      return usageError("encode", "unknown or incomplete option '" + a + "'");
    } else {
      files.push_back(a);
    }
  }
  if (!haveCodec) return usageError("encode", "--codec is required");
  if (haveAmrWbOption && code != CT_AMRWB) return usageError("encode", "--mode and --dtx apply to --codec amrwb only");
  if (files.size() != 2) return usageError("encode", "expected INPUT.wav and OUTPUT");
  std::string error;
  if (!checkEncodable(code, error)) return usageError("encode", error);
  if (inputIsFolder(files[0], error)) return usageError("encode", error);
  WavReader wav;
  if (!wav.open(files[0], error)) return fail(error);
  const WaveFormat& in = wav.format();
  if (in.formatTag != 1 || in.bitsPerSample != 16)
    return fail(files[0] + ": only 16-bit PCM WAVE input is accepted (format tag " + std::to_string(in.formatTag) +
                ", " + std::to_string(in.bitsPerSample) + " bits)");
  if (in.channels != 1) return fail(files[0] + ": only mono input is accepted (" + std::to_string(in.channels) + " channels)");
  if (!in.warning.empty()) std::fprintf(stderr, "quillon: warning: %s\n", in.warning.c_str());

  EncodePipeline pipeline;
  if (!pipeline.open(code, in.sampleRate, error, encodeOptions)) return fail(error);
  const AudioFormat outFormat(code, 1);
  OutputFile::Header header = OutputFile::Header::None;
  if (hasWaveDescription(code)) header = code == CT_MSADPCM ? OutputFile::Header::MsAdpcm : OutputFile::Header::Plain;
  installInterruptHandlers(false);
  SafeOutput target;
  if (const int status = SafeOutput::exitStatus(target.open(files[1], OutputRules(), {files[0]}, error)))
    return status == 2 ? usageError("encode", error) : fail(error);
  OutputFile output;
  if (!output.open(target.stream(), outFormat, outFormat.getSamplesPerSecond(), header, error))
    return fail(error);

  std::vector<uint8_t> chunk(kReadChunk);
  std::vector<uint8_t> coded;
  std::vector<int16_t> pcm;
  size_t carry = 0;  // an odd byte left from the previous read
  uint64_t samplesIn = 0;
  int status = 0;
  for (;;) {
    const size_t n = wav.read(chunk.data() + carry, chunk.size() - carry);
    if (n == 0) break;
    const size_t total = carry + n;
    const size_t samples = total / 2;
    pcm.resize(samples);
    for (size_t i = 0; i < samples; i++) pcm[i] = static_cast<int16_t>(chunk[2 * i] | (chunk[2 * i + 1] << 8));
    carry = total & 1;
    if (carry) chunk[0] = chunk[total - 1];
    samplesIn += samples;
    coded.clear();
    pipeline.feed(pcm.data(), pcm.size(), coded);
    if (!output.write(coded.data(), coded.size())) {
      status = fail("cannot write " + target.name() + ": " + std::strerror(errno));
      break;
    }
  }
  if (status == 0) {
    coded.clear();
    pipeline.flush(coded);
    if (!output.write(coded.data(), coded.size())) status = fail("cannot write " + target.name());
  }
  // Sample frames at the codec's rate, for the MS ADPCM fact chunk.
  output.setSampleFrames(samplesIn * outFormat.getSamplesPerSecond() / in.sampleRate);
  if (!output.finish(error)) return fail(error);
  if (status == 0 && !target.commit(error)) return fail(error);
  return status;
}

int runCodecsCommand(int, char**) {
  std::printf("%-12s %5s %7s  %-24s %-7s %-7s %s\n", "name", "code", "rate", "framing", "decode", "encode",
              "description");
  for (const CodecName& c : codecNames()) {
    const AudioFormat f(c.code, 1);
    const bool dec = canDecode(c.code), enc = canEncode(c.code);
    std::printf("%-12s %5d %7u  %-24s %-7s %-7s %s\n", c.name, static_cast<int>(c.code), f.getSamplesPerSecond(),
                c.framing, dec ? "yes" : "-", enc ? "yes" : "-", c.description);
  }
  return 0;
}

int usageError(const char* command, const std::string& message) {
  std::fprintf(stderr, "quillon %s: %s\n(see 'quillon help')\n", command, message.c_str());
  return 2;
}
