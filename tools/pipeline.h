// Streaming decode and encode pipelines of the tool, over the library's
// transcoder or its plain C exports. Memory stays bounded whatever the
// length of the stream: only a partial frame or packet is carried.
#ifndef QUILLON_TOOLS_PIPELINE_H
#define QUILLON_TOOLS_PIPELINE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quillon/quillon.h"

namespace quillon::tool {

// Halves 16 kHz PCM to 8 kHz with the library's default resampler, keeping
// an odd trailing sample for the next call so any chunking gives the same
// output as one call.
class Halver {
 public:
  bool open(std::string& error);
  void process(const int16_t* in, size_t samples, std::vector<int16_t>& out);

 private:
  TAV::TransCoder m_transcoder;
  std::vector<int16_t> m_carry;
  std::vector<int16_t> m_work;
};

struct DecodeOptions {
  TAV::CompressionType code = TAV::CT_NONE;
  uint32_t rate = 0;   // 0: the codec's own rate; else 8000 or that rate
  bool useApi = false; // through the plain C exports instead of TAV::TransCoder
  unsigned channels = 1; // 2: a stereo Opus stream, handed on as interleaved pairs
};

// Receives decoded PCM as it is made; false stops the decode.
using PcmSink = std::function<bool(const int16_t* pcm, size_t samples)>;

class DecodePipeline {
 public:
  ~DecodePipeline();
  bool open(const DecodeOptions& options, std::string& error);
  uint32_t outputRate() const { return m_outRate; }
  // Decodes what `bytes` completes, handing PCM to `sink` in pieces of
  // bounded size whatever the input holds. False with `error` set when the
  // stream cannot go on (or the sink refused).
  bool feed(const uint8_t* data, size_t bytes, const PcmSink& sink, std::string& error);
  // The end of the stream: decodes what was held back waiting for more input.
  bool finish(const PcmSink& sink, std::string& error);
  // The same, appending all PCM to `out`.
  bool feed(const uint8_t* data, size_t bytes, std::vector<int16_t>& out, std::string& error);
  bool finish(std::vector<int16_t>& out, std::string& error);
  // Bytes held back at the end of the stream (a partial frame or packet).
  size_t leftoverBytes() const { return m_pending.size(); }
  uint64_t consumedBytes() const { return m_consumed; }
  // Things about the stream worth a warning (each said once).
  const std::vector<std::string>& warnings() const { return m_warnings; }

 private:
  bool decodeSlice(const uint8_t* data, uint32_t bytes, const PcmSink& sink, std::string& error);
  bool decodePackets(const PcmSink& sink, bool final, std::string& error);
  size_t packetSliceEnd(size_t offset, bool final) const;
  void countEmptyPackets(size_t offset, size_t bytes);
  bool emit(const int16_t* pcm, size_t samples, const PcmSink& sink, std::string& error);
  bool decodeOpusPackets(const PcmSink& sink, std::string& error);

  DecodeOptions m_options;
  TAV::AudioFormat m_inFormat;
  std::unique_ptr<TAV::TransCoder> m_transcoder;
  quillon_decoder_handle m_handle = 0;
  std::unique_ptr<Halver> m_halver;
  // Stereo Opus: the library's packet decoder, two channels at the output rate.
  std::unique_ptr<OpusPacketDecoder> m_opus;
  std::vector<int16_t> m_opusOut;
  uint64_t m_rejectedPackets = 0;
  bool m_packets = false;  // length-prefixed packet stream
  uint32_t m_unit = 0;     // whole-frame unit fed at once
  uint32_t m_outRate = 0;
  std::vector<uint8_t> m_pending;
  std::vector<uint8_t> m_outBuffer;
  std::vector<int16_t> m_halved;
  uint64_t m_consumed = 0;
  uint32_t m_sampleBytes = 0;  // a stream of samples (G.711, PCM): bytes per sample; else 0
  uint64_t m_packetCount = 0, m_emptyPackets = 0;
  bool m_warnedEmpty = false;
  std::vector<std::string> m_warnings;
};

// Codec settings of an encode that only some codecs take.
struct EncodeOptions {
  int amrwbMode = 2;      // AMR-WB mode 0..8 (6.60 to 23.85 kbit/s)
  bool amrwbDtx = false;  // AMR-WB discontinuous transmission (SID/NO_DATA in pauses)
};

class EncodePipeline {
 public:
  // `inRate` is the PCM's rate (8000 or 16000); 16 kHz input for an 8 kHz
  // codec is halved first.
  bool open(TAV::CompressionType code, uint32_t inRate, std::string& error,
            const EncodeOptions& options = EncodeOptions());
  // Encodes 16-bit PCM; coded bytes are appended to `out`.
  void feed(const int16_t* pcm, size_t samples, std::vector<uint8_t>& out);
  // Appends what the encoder still holds back.
  void flush(std::vector<uint8_t>& out);

 private:
  void encode(const int16_t* pcm, size_t samples, std::vector<uint8_t>& out);

  TAV::TransCoder m_transcoder;
  // ICELP48 has no TAV::Codec encoder and AMR-WB's is decode-only: their
  // stream encoders serve instead.
  std::unique_ptr<StreamEncoder> m_frames;
  std::unique_ptr<Halver> m_halver;
  std::vector<int16_t> m_halved;
  std::vector<uint8_t> m_outBuffer;
};

}  // namespace quillon::tool

#endif
