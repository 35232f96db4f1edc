// quillon demo: every encoder and decoder of this build on a built-in clip.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "codec_names.h"
#include "commands.h"
#include "demo_streams.h"
#include "embedded_data.h"
#include "output_file.h"
#include "pipeline.h"
#include "wav_file.h"


using namespace TAV;
using namespace quillon::tool;
using Clock = std::chrono::steady_clock;

namespace {

std::vector<int16_t> clipAt16k() {
  const EmbeddedFile* clip = findEmbeddedFile("demo_clip_16k.raw");
  std::vector<int16_t> pcm(clip ? clip->size / 2 : 0);
  for (size_t i = 0; i < pcm.size(); i++) pcm[i] = static_cast<int16_t>(clip->data[2 * i] | (clip->data[2 * i + 1] << 8));
  return pcm;
}

std::vector<int16_t> halve(const std::vector<int16_t>& pcm16k) {
  std::vector<int16_t> out;
  Halver h;
  std::string error;
  if (h.open(error)) h.process(pcm16k.data(), pcm16k.size(), out);
  return out;
}

// Waveform codecs keep the signal's shape, so a signal-to-noise ratio
// against the source means something for them (at the best small delay).
bool isWaveformCodec(CompressionType c) {
  return (c >= CT_G711_ALAW && c <= CT_G726_16) || (c >= CT_G726_40_LSB && c <= CT_G726_16_LSB) ||
         (c >= CT_G722 && c <= CT_G722_MODE3) || c == CT_PCM8 || c == CT_MSADPCM;
}

double snrDb(const std::vector<int16_t>& ref, const std::vector<int16_t>& out) {
  double best = -1e9;
  for (size_t lag = 0; lag <= 64 && lag < out.size(); lag++) {
    const size_t n = std::min(ref.size(), out.size() - lag);
    double signal = 0, noise = 0;
    for (size_t i = 0; i < n; i++) {
      const double d = static_cast<double>(out[i + lag]) - ref[i];
      signal += static_cast<double>(ref[i]) * ref[i];
      noise += d * d;
    }
    if (noise == 0) return INFINITY;
    best = std::max(best, 10 * std::log10(signal / noise));
  }
  return best;
}

// Writes one demo file under a temporary name, renamed when complete.
bool writeOutput(const std::filesystem::path& path, const AudioFormat& format, uint32_t rate, OutputFile::Header header,
                 const void* data, size_t bytes) {
  SafeOutput target;
  OutputFile f;
  std::string error;
  return target.open(path.string(), OutputRules(), {}, error) == SafeOutput::Status::Ok &&
         f.open(target.stream(), format, rate, header, error) && f.write(data, bytes) &&
         f.finish(error) && target.commit(error);
}

bool writeWave(const std::filesystem::path& path, const std::vector<int16_t>& pcm, uint32_t rate) {
  return writeOutput(path, AudioFormat(rate == 16000 ? CT_PCM16_16K : CT_PCM16, 1), rate, OutputFile::Header::Plain,
                     pcm.data(), pcm.size() * 2);
}

bool writeStream(const std::filesystem::path& path, CompressionType code, const std::vector<uint8_t>& bytes) {
  const bool wave = code == CT_G711_ALAW || code == CT_G711_ULAW || code == CT_PCM8 || code == CT_MSADPCM;
  const AudioFormat format(code, 1);
  return writeOutput(path, format, format.getSamplesPerSecond(),
                     !wave ? OutputFile::Header::None
                           : (code == CT_MSADPCM ? OutputFile::Header::MsAdpcm : OutputFile::Header::Plain),
                     bytes.data(), bytes.size());
}

bool encodeClip(CompressionType code, const std::vector<int16_t>& clip, uint32_t rate, std::vector<uint8_t>& out,
                double& seconds) {
  EncodePipeline enc;
  std::string error;
  if (!enc.open(code, rate, error)) return false;
  const auto t0 = Clock::now();
  for (size_t i = 0; i < clip.size(); i += 4000) enc.feed(clip.data() + i, std::min<size_t>(4000, clip.size() - i), out);
  enc.flush(out);
  seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  return !out.empty();  // some decode-only codecs open for encoding but write nothing
}

// Decodes the whole stream, repeating until the timing is meaningful.
bool decodeStream(CompressionType code, uint32_t rate, const std::vector<uint8_t>& stream, std::vector<int16_t>& pcm,
                  double& seconds) {
  int runs = 0;
  const auto t0 = Clock::now();
  do {
    DecodeOptions options;
    options.code = code;
    options.rate = rate;
    DecodePipeline dec;
    std::string error;
    if (!dec.open(options, error)) return false;
    pcm.clear();
    for (size_t i = 0; i < stream.size(); i += 16000)
      if (!dec.feed(stream.data() + i, std::min<size_t>(16000, stream.size() - i), pcm, error)) return false;
    if (!dec.finish(pcm, error)) return false;
    runs++;
  } while (std::chrono::duration<double>(Clock::now() - t0).count() < 0.2 && runs < 1000);
  seconds = std::chrono::duration<double>(Clock::now() - t0).count() / runs;
  return true;
}

std::string speed(double audioSeconds, double seconds) {
  if (seconds <= 0) return "-";
  char text[32];
  std::snprintf(text, sizeof text, "%.0fx", audioSeconds / seconds);
  return text;
}

}  // namespace

int runDemoCommand(int argc, char** argv) {
  const std::filesystem::path dir = argc > 1 ? argv[1] : "quillon-demo";
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) {
    std::fprintf(stderr, "quillon: cannot create %s: %s\n", dir.string().c_str(), ec.message().c_str());
    return 1;
  }
  const std::vector<int16_t> clip16 = clipAt16k();
  const std::vector<int16_t> clip8 = halve(clip16);
  const double audioSeconds = clip16.size() / 16000.0;
  if (!writeWave(dir / "source-16k.wav", clip16, 16000) || !writeWave(dir / "source-8k.wav", clip8, 8000)) {
    std::fprintf(stderr, "quillon: cannot write to %s\n", dir.string().c_str());
    return 1;
  }
  std::printf("built-in clip: %.1f s of speech; files in %s\n\n", audioSeconds, dir.string().c_str());
  std::printf("%-12s %-14s %9s %8s %10s %10s %8s\n", "codec", "stream", "bytes", "kbit/s", "encode", "decode",
              "SNR dB");

  struct DemoStream {
    std::vector<uint8_t> bytes;
    std::string origin;
    double encodeSeconds = 0;
  };
  for (const CodecName& c : codecNames()) {
    if (c.code == CT_PCM16 || c.code == CT_PCM16_16K) continue;
    const AudioFormat format(c.code, 1);
    const uint32_t rate = format.getSamplesPerSecond();
    const std::vector<int16_t>& source = rate == 16000 ? clip16 : clip8;
    std::vector<DemoStream> streams;
    DemoStream encoded;
    if (encodeClip(c.code, source, rate, encoded.bytes, encoded.encodeSeconds)) {
      encoded.origin = "encoded";
      streams.push_back(std::move(encoded));
    }
    // Streams of the clip made by Debian tools (tools/scripts/make_*_demo.sh).
    if (const EmbeddedFile* shipped = findEmbeddedFile((std::string("streams/") + c.name + ".raw").c_str()))
      streams.push_back({std::vector<uint8_t>(shipped->data, shipped->data + shipped->size), "built in", 0});
    if (streams.empty()) {
      DemoStream generated;
      if (!makeDemoStream(c.code, clip16, generated.bytes)) continue;  // no way to make a stream in this build
      generated.origin = "generated";
      streams.push_back(std::move(generated));
    }

    for (size_t k = 0; k < streams.size(); k++) {
      const DemoStream& ds = streams[k];
      const std::vector<uint8_t>& stream = ds.bytes;
      const std::string base = std::string(c.name) + (k == 0 ? "" : "-" + std::to_string(k + 1));
      const bool wave = c.code == CT_G711_ALAW || c.code == CT_G711_ULAW || c.code == CT_PCM8 || c.code == CT_MSADPCM;
      writeStream(dir / (base + (wave ? "-stream.wav" : "-stream.raw")), c.code, stream);

      std::vector<int16_t> decoded;
      double decodeSeconds = 0;
      // Some encode-only classes open for decoding but produce nothing.
      const bool canDecode = decodeStream(c.code, 0, stream, decoded, decodeSeconds) && !decoded.empty();
      std::string snr = "-";
      if (canDecode) {
        writeWave(dir / (base + "-decoded.wav"), decoded, rate);
        if (isWaveformCodec(c.code)) {
          char text[16];
          std::snprintf(text, sizeof text, "%.1f", snrDb(source, decoded));
          snr = text;
        }
      }
      std::printf("%-12s %-14s %9zu %8.1f %10s %10s %8s\n", k == 0 ? c.name : "", ds.origin.c_str(), stream.size(),
                  stream.size() * 8 / audioSeconds / 1000,
                  ds.origin == "encoded" ? speed(audioSeconds, ds.encodeSeconds).c_str() : "-",
                  canDecode ? speed(audioSeconds, decodeSeconds).c_str() : "no decoder", snr.c_str());
      if (canDecode && rate == 16000) {  // the same stream halved to 8 kHz
        std::vector<int16_t> narrow;
        double t = 0;
        if (decodeStream(c.code, 8000, stream, narrow, t)) {
          writeWave(dir / (base + "-decoded-8k.wav"), narrow, 8000);
          std::string narrowSnr = "-";
          if (isWaveformCodec(c.code)) {
            char text[16];
            std::snprintf(text, sizeof text, "%.1f", snrDb(clip8, narrow));
            narrowSnr = text;
          }
          std::printf("%-12s %-14s %9s %8s %10s %10s %8s\n", "", "  at 8000 Hz", "", "", "",
                      speed(audioSeconds, t).c_str(), narrowSnr.c_str());
        }
      }
    }
  }
  std::printf("\nencode/decode: speed as a multiple of real time on this machine.\n");
  return 0;
}
