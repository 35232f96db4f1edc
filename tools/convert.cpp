#include "convert.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "codec_names.h"
#include "library_errors.h"
#include "output_file.h"
#include "wav_file.h"

namespace quillon::tool {

using namespace TAV;

namespace {

constexpr size_t kReadChunk = 64 * 1024;

// Codes that differ only in rate or frame grouping of one codec.
int codecFamily(CompressionType c) {
  if (c == CT_PCM16 || c == CT_PCM16_16K) return 1;
  if (c == CT_G722 || c == CT_G722_MODE2 || c == CT_G722_MODE3) return 2;
  if (c == CT_SILK_20MS || c == CT_SILK_30MS || c == CT_SILK_40MS || c == CT_SILK_60MS) return 3;
  return 100 + static_cast<int>(c);
}

bool isSampleCode(CompressionType c) {
  return c == CT_G711_ALAW || c == CT_G711_ULAW || c == CT_PCM8 || c == CT_PCM16 || c == CT_PCM16_16K;
}

// Splits interleaved per-sample channels, carrying a partial frame.
class Deinterleaver {
 public:
  Deinterleaver(unsigned channels, unsigned sampleBytes) : m_channels(channels), m_sampleBytes(sampleBytes) {}
  void split(const uint8_t* data, size_t bytes, std::vector<std::vector<uint8_t>>& out) {
    m_carry.insert(m_carry.end(), data, data + bytes);
    const size_t frame = static_cast<size_t>(m_channels) * m_sampleBytes;
    const size_t frames = m_carry.size() / frame;
    for (unsigned c = 0; c < m_channels; c++) {
      out[c].resize(frames * m_sampleBytes);
      for (size_t f = 0; f < frames; f++)
        std::memcpy(out[c].data() + f * m_sampleBytes, m_carry.data() + f * frame + c * m_sampleBytes, m_sampleBytes);
    }
    m_carry.erase(m_carry.begin(), m_carry.begin() + static_cast<std::ptrdiff_t>(frames * frame));
  }
  size_t carried() const { return m_carry.size(); }

 private:
  unsigned m_channels, m_sampleBytes;
  std::vector<uint8_t> m_carry;
};

}  // namespace

bool parseChannelMode(const std::string& text, ChannelMode& mode) {
  static const std::pair<const char*, ChannelMode> kModes[] = {{"stereo", ChannelMode::Stereo},
                                                                {"mix", ChannelMode::Mix},
                                                                {"left", ChannelMode::Left},
                                                                {"right", ChannelMode::Right},
                                                                {"split", ChannelMode::Split}};
  for (const auto& m : kModes)
    if (text == m.first) {
      mode = m.second;
      return true;
    }
  return false;
}

bool chooseCodec(const std::string& input, const ConvertOptions& options, ConvertResult& result, std::string& error) {
  const ProbeResult& probe = result.probe;
  const CompressionType named = probe.described;
  if (options.haveCodec && named != CT_NONE && options.code != named) {
    if (codecFamily(options.code) != codecFamily(named)) {
      error = input + ": the " + probe.container + " container says it holds " + codecName(named) + ", not " +
              codecName(options.code) + " (leave out --codec to decode what it holds)";
      result.usage = true;
      return false;
    }
    result.warnings.push_back("the " + probe.container + " container says " + codecName(named) + "; --codec " +
                              codecName(options.code) + " is ignored");
  }
  if (!probe.refusal.empty() && (named != CT_NONE || !options.haveCodec || probe.wave.formatTag == 0)) {
    error = input + ": " + probe.container + ": " + probe.refusal;
    return false;
  }
  if (probe.code != CT_NONE) {
    result.code = probe.code;
  } else if (options.haveCodec) {
    result.code = options.code;  // a raw stream, or a WAVE data chunk of a format tag we do not know
  } else {
    error = input + ": not a recognised container; give --codec for a raw stream";
    return false;
  }
  if (!checkDecodable(result.code, error)) {
    result.usage = options.haveCodec;
    return false;
  }
  return true;
}

bool decodeSource(StreamSource& source, const ConvertOptions& options, ConvertResult& result, const FrameSink& sink,
                  std::string& error) {
  const ProbeResult& probe = result.probe;
  const bool wave = probe.container.rfind("WAVE", 0) == 0 && probe.wave.formatTag != 0;
  // WAVE channels interleave per sample, each decoded on its own (stereo is
  // refused for every other codec); a stereo Ogg Opus stream decodes to
  // interleaved pairs in one decoder.
  const bool opusStereo = result.code == CT_OPUS && probe.channels == 2;
  const unsigned decoded = opusStereo ? 2 : wave && isSampleCode(result.code) ? probe.wave.channels : 1;
  const unsigned pipeCount = opusStereo ? 1 : decoded;
  const unsigned sampleBytes = result.code == CT_PCM16 || result.code == CT_PCM16_16K ? 2 : 1;
  if (decoded == 1 && options.channels != ChannelMode::Keep && probe.channels == 2) {
    error = "this file's channels cannot be decoded apart: --channels is refused";
    result.usage = true;
    return false;
  }
  if (opusStereo && options.useApi) {
    error = "the C decoder API decodes Opus to one channel only: leave out --api for this stereo file";
    result.usage = true;
    return false;
  }
  const ChannelMode mode =
      decoded == 2 && options.channels != ChannelMode::Stereo ? options.channels : ChannelMode::Keep;
  result.channels = mode == ChannelMode::Keep || mode == ChannelMode::Split ? decoded : 1;

  DecodeOptions decode;
  decode.code = result.code;
  decode.rate = options.rate;
  decode.useApi = options.useApi;
  decode.channels = opusStereo ? 2 : 1;
  // A stream of samples at another rate than its code's (16 kHz A-law,
  // 44.1 kHz PCM) decodes sample for sample; the output keeps the file's rate.
  uint32_t fileRate = 0;
  if (wave && isSampleCode(result.code) && probe.wave.sampleRate != AudioFormat(result.code, 1).getSamplesPerSecond()) {
    fileRate = probe.wave.sampleRate;
    if (options.rate != 0 && options.rate != fileRate) {
      error = "--rate " + std::to_string(options.rate) + " cannot resample a " + std::to_string(fileRate) +
              " Hz file (only 16000 to 8000 Hz is offered)";
      result.usage = true;
      return false;
    }
    decode.rate = 0;
  } else if (!checkOutputRate(result.code, options.rate, error)) {
    result.usage = true;
    return false;
  }

  std::vector<uint8_t> chunk(kReadChunk);
  std::vector<std::vector<uint8_t>> split(decoded);
  std::vector<std::vector<int16_t>> pcm(decoded);
  std::vector<int16_t> frames;
  Deinterleaver deinterleaver(decoded, sampleBytes);
  bool any = false;
  uint64_t consumed = 0;
  // What the source noticed is reported however the decode ends.
  struct Warnings {
    StreamSource& source;
    std::vector<std::string>& out;
    ~Warnings() { out.insert(out.end(), source.warnings().begin(), source.warnings().end()); }
  } warnings{source, result.warnings};
  for (;;) {  // one segment (link) after the other
    std::vector<std::unique_ptr<DecodePipeline>> pipes;
    for (unsigned c = 0; c < pipeCount; c++) {
      pipes.push_back(std::make_unique<DecodePipeline>());
      if (!pipes.back()->open(decode, error)) return false;
    }
    result.rate = fileRate ? fileRate : pipes[0]->outputRate();
    uint64_t position = 0;  // output frames of this segment, dropped ones included
    // Hands on the frames of this segment that lie between the pre-skip and
    // the end its last page gives.
    auto deliver = [&](const int16_t* p, size_t n) {
      // Known once the segment's header was read, before any of its audio.
      const uint64_t skip = source.leadingSamples48k() * result.rate / 48000;
      const uint64_t limit48 = source.segmentLimit48k();
      const uint64_t limit = limit48 == UINT64_MAX ? UINT64_MAX : limit48 * result.rate / 48000;
      const uint64_t from = std::max(position, skip), to = std::min(position + n, limit);
      const uint64_t first = position;
      position += n;
      if (to <= from) return true;
      result.samples += to - from;
      return sink(p + (from - first) * result.channels, static_cast<size_t>(to - from));
    };
    // Mono goes straight from the decoder to the sink, so even a packet
    // stream that expands enormously is never held whole.
    const PcmSink mono = [&](const int16_t* p, size_t n) { return deliver(p, n); };
    // Stereo codecs decode a sample per byte (or two): a chunk's PCM is small.
    auto combine = [&]() {
      const size_t n = std::min(pcm[0].size(), pcm[1].size());
      frames.resize(n * result.channels);
      for (size_t i = 0; i < n; i++) {
        const int16_t l = pcm[0][i], r = pcm[1][i];
        switch (mode) {
          case ChannelMode::Mix: frames[i] = static_cast<int16_t>((l + r) >> 1); break;
          case ChannelMode::Left: frames[i] = l; break;
          case ChannelMode::Right: frames[i] = r; break;
          default:
            frames[2 * i] = l;
            frames[2 * i + 1] = r;
            break;
        }
      }
      for (auto& c : pcm) c.erase(c.begin(), c.begin() + static_cast<std::ptrdiff_t>(n));
      return deliver(frames.data(), n);
    };
    // Stereo Opus comes interleaved from its one decoder, a packet at a time.
    const PcmSink pairs = [&](const int16_t* p, size_t n) {
      for (unsigned c = 0; c < 2; c++) {
        pcm[c].resize(n / 2);
        for (size_t i = 0; i < n / 2; i++) pcm[c][i] = p[2 * i + c];
      }
      return combine();
    };
    auto step = [&](const uint8_t* data, size_t bytes, bool last) {
      if (pipeCount == 1) {
        const PcmSink& to = opusStereo ? pairs : mono;
        return last ? pipes[0]->finish(to, error) : pipes[0]->feed(data, bytes, to, error);
      }
      if (!last) deinterleaver.split(data, bytes, split);
      for (unsigned c = 0; c < decoded; c++) {
        const bool ok = last ? pipes[c]->finish(pcm[c], error) : pipes[c]->feed(split[c].data(), split[c].size(), pcm[c], error);
        if (!ok) return false;
      }
      return combine();
    };
    for (size_t n; (n = source.read(chunk.data(), chunk.size())) > 0;) {
      if (interruptSignal()) {
        error = "interrupted";
        return false;
      }
      any = true;
      if (!step(chunk.data(), n, false)) return false;
    }
    if (!source.error().empty()) {
      step(nullptr, 0, true);
      error = source.error();
      return false;
    }
    if (!step(nullptr, 0, true)) return false;
    for (auto& p : pipes) {
      result.leftoverBytes += p->leftoverBytes();
      consumed += p->consumedBytes();
      for (const std::string& w : p->warnings()) result.warnings.push_back(w);
    }
    if (!source.nextSegment()) break;
  }
  result.leftoverBytes += deinterleaver.carried();
  if (!any) {
    error = "holds no coded data";
    return false;
  }
  if (consumed == 0) {
    error = "holds no whole frame of " + codecName(result.code);
    return false;
  }
  return true;
}

bool convertFile(const std::string& input, const std::string& output, const ConvertOptions& options,
                 ConvertResult& result, std::string& error) {
  result = ConvertResult();
  takeFatalError();
  auto in = std::make_unique<InputStream>();
  if (!in->open(input, error)) return false;
  if (!probeInput(*in, result.probe, error)) return false;
  const std::string& name = in->name();  // "standard input" for "-"
  if (!chooseCodec(name, options, result, error)) return false;
  std::unique_ptr<StreamSource> source = openStream(std::move(in), result.probe, error);
  if (!source) return false;

  // Outputs are opened with the first samples, each under a temporary name
  // renamed when the whole input decoded; an output that is the input is
  // refused before anything is written.
  const bool split = options.channels == ChannelMode::Split;
  std::vector<std::unique_ptr<SafeOutput>> targets;
  std::vector<std::unique_ptr<OutputFile>> outs;
  std::vector<std::string> names;
  std::vector<int16_t> half[2];
  std::string writeError;
  auto open = [&]() {
    const OutputFile::Header header = options.raw ? OutputFile::Header::None : OutputFile::Header::Plain;
    const AudioFormat format(result.rate == 16000 ? CT_PCM16_16K : CT_PCM16, 1);
    if (split && result.channels == 2) {
      const size_t dot = output.rfind('.');
      const bool ext = dot != std::string::npos && output.find('/', dot) == std::string::npos && dot > 0;
      const std::string stem = ext ? output.substr(0, dot) : output, suffix = ext ? output.substr(dot) : ".wav";
      names = {stem + ".left" + suffix, stem + ".right" + suffix};
    } else {
      names = {output};
    }
    const uint16_t channels = static_cast<uint16_t>(names.size() == 2 ? 1 : result.channels);
    for (const std::string& name : names) {
      targets.push_back(std::make_unique<SafeOutput>());
      const SafeOutput::Status status =
          targets.back()->open(name, {options.replace, options.followLinks}, {input}, writeError);
      if (status != SafeOutput::Status::Ok) {
        result.usage = status == SafeOutput::Status::Refused;
        return false;
      }
      outs.push_back(std::make_unique<OutputFile>());
      if (!outs.back()->open(targets.back()->stream(), format, result.rate, header, writeError, channels))
        return false;
    }
    return true;
  };
  const FrameSink sink = [&](const int16_t* pcm, size_t frames) {
    if (outs.empty() && !open()) return false;
    bool ok;
    if (outs.size() == 2) {
      for (int c = 0; c < 2; c++) {
        half[c].resize(frames);
        for (size_t i = 0; i < frames; i++) half[c][i] = pcm[2 * i + c];
      }
      ok = outs[0]->write(half[0].data(), frames * 2) && outs[1]->write(half[1].data(), frames * 2);
    } else {
      ok = outs[0]->write(pcm, frames * 2 * result.channels);
    }
    if (!ok) writeError = "cannot write " + output + ": " + std::strerror(errno);
    return ok;
  };
  bool ok = decodeSource(*source, options, result, sink, error);
  // The C functions report a fatal library error only as an empty result.
  const std::string fatal = takeFatalError();
  if (ok && !fatal.empty()) {
    error = "the library stopped: " + fatal;
    ok = false;
  }
  if (!ok) {
    if (!writeError.empty()) error = writeError;
    else if (!result.usage && error.rfind(name, 0) != 0) error = name + ": " + error;
  }
  for (auto& out : outs) {
    std::string finishError;
    if (!out->finish(finishError) && ok) {
      error = finishError;
      ok = false;
    }
  }
  for (auto& target : targets)
    if (ok && !target->commit(error)) ok = false;
  return ok;
}

}  // namespace quillon::tool
