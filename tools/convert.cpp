#include "convert.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "codec_names.h"
#include "output_file.h"
#include "wav_file.h"

namespace quillon::tool {

using namespace TAV;

namespace {
constexpr size_t kReadChunk = 64 * 1024;
}

bool convertFile(const std::string& input, const std::string& outputPath, const ConvertOptions& options,
                 ConvertResult& result, std::string& error) {
  result = ConvertResult();
  // Refused before anything is read: an output that is the input, a folder,
  // or one that exists when it may not be replaced.
  SafeOutput output;
  const SafeOutput::Status status = output.open(outputPath, {options.replace, options.followLinks}, {input}, error);
  if (status != SafeOutput::Status::Ok) {
    result.usage = status == SafeOutput::Status::Refused;
    return false;
  }
  if (!probeFile(input, result.probe, error)) return false;
  const ProbeResult& probe = result.probe;
  if (options.haveCodec) {
    result.code = options.code;
  } else if (!probe.refusal.empty()) {
    error = input + ": " + probe.container + ": " + probe.refusal;
    return false;
  } else if (probe.code == CT_NONE) {
    error = input + ": not a recognised container; give --codec for a raw stream";
    return false;
  } else {
    result.code = probe.code;
  }

  if (!checkDecodable(result.code, error)) {
    result.usage = options.haveCodec;
    return false;
  }
  if (!checkOutputRate(result.code, options.rate, error)) {
    result.usage = true;
    return false;
  }
  DecodeOptions decode;
  decode.code = result.code;
  decode.rate = options.rate;
  decode.useApi = options.useApi;
  DecodePipeline pipeline;
  if (!pipeline.open(decode, error)) return false;
  std::unique_ptr<StreamSource> source = openStream(input, probe, error);
  if (!source) return false;

  std::vector<uint8_t> chunk(kReadChunk);
  size_t n = source->read(chunk.data(), chunk.size());
  if (n == 0) {
    error = input + (source->error().empty() ? " holds no coded data" : ": " + source->error());
    return false;
  }
  result.rate = pipeline.outputRate();
  OutputFile out;
  if (!out.open(output.stream(), AudioFormat(result.rate == 16000 ? CT_PCM16_16K : CT_PCM16, 1), result.rate,
                options.raw ? OutputFile::Header::None : OutputFile::Header::Plain, error))
    return false;
  std::vector<int16_t> pcm;
  bool ok = true;
  while (n > 0) {
    if (interruptSignal()) {
      error = "interrupted";
      ok = false;
      break;
    }
    pcm.clear();
    if (!pipeline.feed(chunk.data(), n, pcm, error)) {
      error = input + ": " + error;
      ok = false;
      break;
    }
    if (!out.write(pcm.data(), pcm.size() * 2)) {
      error = "cannot write " + output.name() + ": " + std::strerror(errno);
      ok = false;
      break;
    }
    result.samples += pcm.size();
    n = source->read(chunk.data(), chunk.size());
  }
  if (ok) {
    pcm.clear();
    if (!pipeline.finish(pcm, error)) {
      error = input + ": " + error;
      ok = false;
    } else if (!out.write(pcm.data(), pcm.size() * 2)) {
      error = "cannot write " + output.name() + ": " + std::strerror(errno);
      ok = false;
    }
    result.samples += pcm.size();
  }
  if (ok && !source->error().empty()) {
    error = input + ": " + source->error();
    ok = false;
  }
  std::string finishError;
  if (!out.finish(finishError)) {
    if (ok) error = finishError;
    return false;
  }
  if (!ok) return false;
  result.leftoverBytes = pipeline.leftoverBytes();
  if (pipeline.consumedBytes() == 0) {
    error = input + " holds no whole frame of " + codecName(result.code);
    return false;
  }
  return output.commit(error);
}

}  // namespace quillon::tool
