// The compiled half of the Python module: the tool's container readers,
// decode and encode pipelines and file conversion, with the GIL released
// while C++ works. The Python half (quillon/__init__.py) shapes arguments
// and results.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "batch_plan.h"
#include "codec_names.h"
#include "containers.h"
#include "convert.h"
#include "pipeline.h"
#include "quillon/quillon_c.h"
#include "wav_file.h"


namespace py = pybind11;
namespace fs = std::filesystem;
using namespace quillon::tool;

namespace {

constexpr size_t kReadChunk = 64 * 1024;

// Raised as quillon.Error with the library's or the reader's message.
struct LibraryError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Runs `work` without the GIL; any C++ exception (a fatal library error
// among them) becomes a LibraryError once the GIL is back.
template <typename F>
void unlocked(F&& work) {
  std::string failure;
  bool failed = false;
  {
    py::gil_scoped_release release;
    try {
      work();
    } catch (const LibraryError&) {
      throw;
    } catch (const std::exception& e) {
      failed = true;
      failure = e.what();
    } catch (...) {
      failed = true;
      failure = "unknown library failure";
    }
  }
  if (failed) throw LibraryError(failure);
}

TAV::CompressionType codecArgument(const std::string& name) {
  TAV::CompressionType code = TAV::CT_NONE;
  if (!parseCodec(name, code)) throw py::value_error("unknown codec '" + name + "'");
  return code;
}

py::array_t<int16_t> toArray(const std::vector<int16_t>& pcm) {
  return py::array_t<int16_t>(static_cast<py::ssize_t>(pcm.size()), pcm.data());
}

// One decoder or encoder object used from two threads at once is refused,
// not raced.
class UseGuard {
 public:
  explicit UseGuard(std::atomic<bool>& busy) : m_busy(busy) {
    if (m_busy.exchange(true)) throw LibraryError("this object is in use by another thread; use one per thread");
  }
  ~UseGuard() { m_busy = false; }

 private:
  std::atomic<bool>& m_busy;
};

ProbeResult probeOrThrow(const std::string& path) {
  ProbeResult probe;
  std::string error;
  bool ok = false;
  unlocked([&] { ok = probeFile(path, probe, error); });
  if (!ok) throw LibraryError(error);
  return probe;
}

// "keep" (as the recording has them) besides the tool's --channels words.
ChannelMode channelArgument(const std::string& text) {
  ChannelMode mode = ChannelMode::Keep;
  if (text != "keep" && (text == "split" || !parseChannelMode(text, mode)))
    throw py::value_error("channels must be 'mix', 'left', 'right', 'stereo' or 'keep', not '" + text + "'");
  return mode;
}

struct FileDecode {
  std::vector<int16_t> pcm;  // interleaved when stereo
  ConvertResult result;
};

// Decodes a whole file as the tool does (codec choice, containers,
// channels); `keep` false counts the samples only.
FileDecode decodeWholeFile(const std::string& path, const std::string& codec, uint32_t rate,
                           const std::string& channels, bool keep) {
  ConvertOptions options;
  if (!codec.empty()) {
    options.code = codecArgument(codec);
    options.haveCodec = true;
  }
  options.rate = rate;
  options.channels = channelArgument(channels);
  FileDecode d;
  std::string error;
  bool ok = false;
  unlocked([&] {
    ConvertResult& result = d.result;
    if (!probeFile(path, result.probe, error) || !chooseCodec(path, options, result, error)) return;
    std::unique_ptr<StreamSource> source = openStream(path, result.probe, error);
    if (!source) return;
    const FrameSink sink = [&](const int16_t* pcm, size_t frames) {
      if (keep) d.pcm.insert(d.pcm.end(), pcm, pcm + frames * result.channels);
      return true;
    };
    ok = decodeSource(*source, options, result, sink, error);
  });
  if (!ok) {
    if (d.result.usage) throw py::value_error(error);
    throw LibraryError(error);
  }
  return d;
}

class PyDecoder {
 public:
  PyDecoder(const std::string& codec, uint32_t rate) {
    m_options.code = codecArgument(codec);
    m_options.rate = rate;
    open();
  }
  py::array_t<int16_t> decode(py::buffer chunk) {
    UseGuard guard(m_busy);
    const py::buffer_info info = chunk.request();
    const auto* data = static_cast<const uint8_t*>(info.ptr);
    const size_t bytes = static_cast<size_t>(info.size * info.itemsize);
    std::vector<int16_t> out;
    std::string error;
    bool ok = false;
    unlocked([&] { ok = m_pipeline->feed(data, bytes, out, error); });
    if (!ok) throw LibraryError(error);
    return toArray(out);
  }
  // Decodes what was held back and makes the decoder ready for a new stream.
  py::array_t<int16_t> flush() {
    UseGuard guard(m_busy);
    std::vector<int16_t> out;
    std::string error;
    bool ok = false;
    unlocked([&] { ok = m_pipeline->finish(out, error); });
    m_leftover = m_pipeline->leftoverBytes();
    open();
    if (!ok) throw LibraryError(error);
    return toArray(out);
  }
  uint32_t rate() const { return m_pipeline->outputRate(); }
  size_t leftover() const { return m_leftover; }

 private:
  void open() {
    auto pipeline = std::make_unique<DecodePipeline>();
    std::string error;
    bool ok = false;
    unlocked([&] { ok = pipeline->open(m_options, error); });
    if (!ok) throw LibraryError(error);
    m_pipeline = std::move(pipeline);
  }
  DecodeOptions m_options;
  std::unique_ptr<DecodePipeline> m_pipeline;
  size_t m_leftover = 0;
  std::atomic<bool> m_busy{false};
};

class PyEncoder {
 public:
  PyEncoder(const std::string& codec, uint32_t rate, int mode, bool dtx) : m_rate(rate) {
    m_code = codecArgument(codec);
    const bool amrwbOption = mode >= 0 || dtx;
    if (amrwbOption && m_code != TAV::CT_AMRWB) throw py::value_error("mode and dtx apply to codec 'amrwb' only");
    if (mode > 8) throw py::value_error("mode needs a number from 0 to 8");
    if (mode >= 0) m_options.amrwbMode = mode;
    m_options.amrwbDtx = dtx;
    open();
  }
  py::bytes encode(py::array_t<int16_t, py::array::c_style | py::array::forcecast> samples) {
    UseGuard guard(m_busy);
    std::vector<uint8_t> out;
    const int16_t* data = samples.data();
    const size_t n = static_cast<size_t>(samples.size());
    unlocked([&] { m_pipeline->feed(data, n, out); });
    return py::bytes(reinterpret_cast<const char*>(out.data()), out.size());
  }
  py::bytes flush() {
    UseGuard guard(m_busy);
    std::vector<uint8_t> out;
    unlocked([&] { m_pipeline->flush(out); });
    open();
    return py::bytes(reinterpret_cast<const char*>(out.data()), out.size());
  }

 private:
  void open() {
    auto pipeline = std::make_unique<EncodePipeline>();
    std::string error;
    bool ok = false;
    unlocked([&] { ok = pipeline->open(m_code, m_rate, error, m_options); });
    if (!ok) throw LibraryError(error);
    m_pipeline = std::move(pipeline);
  }
  TAV::CompressionType m_code;
  uint32_t m_rate;
  EncodeOptions m_options;
  std::unique_ptr<EncodePipeline> m_pipeline;
  std::atomic<bool> m_busy{false};
};

py::dict probeSource(const std::string& path) {
  const ProbeResult probe = probeOrThrow(path);
  py::dict d;
  d["container"] = probe.container;
  d["codec"] = probe.code == TAV::CT_NONE ? py::object(py::none()) : py::object(py::str(codecName(probe.code)));
  d["channels"] = probe.channels;
  d["detail"] = probe.detail;
  d["refusal"] = probe.refusal;
  return d;
}

void writeWav(const std::string& path, py::array_t<int16_t, py::array::c_style | py::array::forcecast> samples,
              uint32_t rate, unsigned channels) {
  std::string error;
  bool ok = false;
  const int16_t* data = samples.data();
  const size_t bytes = static_cast<size_t>(samples.size()) * 2;
  unlocked([&] {
    OutputFile out;
    const TAV::AudioFormat format(rate == 16000 ? TAV::CT_PCM16_16K : TAV::CT_PCM16, 1);
    if (!out.open(path, format, rate, OutputFile::Header::Plain, error, static_cast<uint16_t>(channels))) return;
    const bool written = out.write(data, bytes);
    if (!out.finish(error) || !written) {
      if (written) return;
      error = "cannot write " + path;
      return;
    }
    ok = true;
  });
  if (!ok) throw LibraryError(error);
}

// --- one file of an archive, by the rules of `quillon batch` ---------------

// The work list of `quillon batch`: (input, output, problem, whole name)
// for every input under `inDir`, paths relative to the two folders, with
// colliding outputs already renamed. The output folder is made here.
std::vector<std::tuple<std::string, std::string, std::string, bool>> batchInputs(const std::string& inDir,
                                                                                const std::string& outDir) {
  std::vector<std::tuple<std::string, std::string, std::string, bool>> work;
  std::string error;
  unlocked([&] {
    std::error_code ec;
    if (!fs::is_directory(inDir, ec)) {
      error = inDir + " is not a folder";
      return;
    }
    bool outInside = false;
    if (!checkBatchFolders(inDir, outDir, outInside, error)) return;
    fs::create_directories(outDir, ec);
    FileIdentity outId;
    if (!identifyFile(outDir, outId)) {
      error = "cannot create the folder " + outDir;
      return;
    }
    std::vector<BatchEntry> entries = listBatchInputs(inDir, outInside ? &outId : nullptr);
    nameBatchOutputs(entries);
    for (const BatchEntry& e : entries) work.emplace_back(e.input.string(), e.output.string(), e.problem, e.wholeName);
  });
  if (!error.empty()) throw LibraryError(error);
  return work;
}

// One entry of batchInputs: (state, reason, seconds of audio, summary line).
std::tuple<std::string, std::string, double, std::string> convertBatchFile(
    const std::string& inDir, const std::string& outDir, const std::string& input, const std::string& output,
    const std::string& problem, bool wholeName, const std::string& codec, uint32_t rate, bool force) {
  ConvertOptions options;
  if (!codec.empty() && codec != "auto") {
    options.code = codecArgument(codec);
    options.haveCodec = true;
  }
  options.rate = rate;
  const BatchEntry entry{input, output, wholeName, problem};
  BatchOutcome outcome;
  unlocked([&] { outcome = convertBatchEntry(entry, inDir, outDir, options, force); });
  return {batchStateName(outcome.state), outcome.reason, outcome.audioSeconds,
          batchSummaryLine(entry, outcome, inDir, outDir)};
}

// Installed at import: the library then throws TAV::FatalError when this
// returns, instead of ending the interpreter; unlocked() makes it a quillon.Error.
void QUILLON_STDCALL onFatalError(const char*, int, void*) {}

}  // namespace

PYBIND11_MODULE(_quillon, m) {
  m.doc() = "Compiled part of quillon; use the quillon package.";
  py::register_exception<LibraryError>(m, "Error", PyExc_RuntimeError);
  quillon_set_fatal_handler(&onFatalError, nullptr);

  m.def("codecs", [] {
    std::vector<std::tuple<std::string, int, std::string>> list;
    for (const CodecName& c : codecNames()) list.emplace_back(c.name, static_cast<int>(c.code), c.description);
    return list;
  });
  m.def("decode_file", [](const std::string& path, const std::string& codec, uint32_t rate, const std::string& channels) {
    FileDecode d = decodeWholeFile(path, codec, rate, channels, true);
    py::array_t<int16_t> samples = toArray(d.pcm);
    if (d.result.channels == 2) samples = samples.reshape({static_cast<py::ssize_t>(d.pcm.size() / 2), py::ssize_t{2}});
    return py::make_tuple(samples, d.result.rate, d.result.warnings);
  }, py::arg("path"), py::arg("codec"), py::arg("rate"), py::arg("channels"));
  m.def("count_file", [](const std::string& path) {
    FileDecode d = decodeWholeFile(path, "", 0, "keep", false);
    return py::make_tuple(d.result.samples, d.result.rate, d.result.channels);
  }, py::arg("path"));
  m.def("probe_file", &probeSource, py::arg("path"));
  m.def("write_wav", &writeWav, py::arg("path"), py::arg("samples"), py::arg("rate"), py::arg("channels"));
  m.def("batch_inputs", &batchInputs, py::arg("in_dir"), py::arg("out_dir"));
  m.def("convert_batch_file", &convertBatchFile, py::arg("in_dir"), py::arg("out_dir"), py::arg("input"),
        py::arg("output"), py::arg("problem"), py::arg("whole_name"), py::arg("codec"), py::arg("rate"),
        py::arg("force"));

  py::class_<PyDecoder>(m, "Decoder")
      .def(py::init<const std::string&, uint32_t>(), py::arg("codec"), py::arg("rate") = 0)
      .def("decode", &PyDecoder::decode, py::arg("chunk"))
      .def("flush", &PyDecoder::flush)
      .def_property_readonly("rate", &PyDecoder::rate)
      .def_property_readonly("leftover_bytes", &PyDecoder::leftover);
  py::class_<PyEncoder>(m, "Encoder")
      .def(py::init<const std::string&, uint32_t, int, bool>(), py::arg("codec"), py::arg("rate"),
           py::arg("mode") = -1, py::arg("dtx") = false)
      .def("encode", &PyEncoder::encode, py::arg("samples"))
      .def("flush", &PyEncoder::flush);
}
