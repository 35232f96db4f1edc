// Streaming decode and encode pipelines of the tool, over the library's
// transcoder or its plain C exports. Memory stays bounded whatever the
// length of the stream: only a partial frame or packet is carried.
#ifndef QUILLON_TOOLS_PIPELINE_H
#define QUILLON_TOOLS_PIPELINE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "codecs/speech/icelp48/icelp48_encoder.h"
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
};

class DecodePipeline {
 public:
  ~DecodePipeline();
  bool open(const DecodeOptions& options, std::string& error);
  uint32_t outputRate() const { return m_outRate; }
  // Decodes what `bytes` completes; PCM is appended to `out`. False with
  // `error` set when the stream cannot go on.
  bool feed(const uint8_t* data, size_t bytes, std::vector<int16_t>& out, std::string& error);
  // The end of the stream: decodes what was held back waiting for more input.
  bool finish(std::vector<int16_t>& out, std::string& error);
  // Bytes held back at the end of the stream (a partial frame or packet).
  size_t leftoverBytes() const { return m_pending.size(); }
  uint64_t consumedBytes() const { return m_consumed; }

 private:
  bool decodeSlice(const uint8_t* data, uint32_t bytes, std::vector<int16_t>& out, std::string& error);
  bool decodePackets(std::vector<int16_t>& out, bool final, std::string& error);
  size_t packetSliceEnd(size_t offset, bool final) const;
  void emit(const int16_t* pcm, size_t samples, std::vector<int16_t>& out);

  DecodeOptions m_options;
  TAV::AudioFormat m_inFormat;
  std::unique_ptr<TAV::TransCoder> m_transcoder;
  quillon_decoder_handle m_handle = 0;
  std::unique_ptr<Halver> m_halver;
  bool m_packets = false;  // length-prefixed packet stream
  uint32_t m_unit = 0;     // whole-frame unit fed at once
  uint32_t m_outRate = 0;
  std::vector<uint8_t> m_pending;
  std::vector<uint8_t> m_outBuffer;
  uint64_t m_consumed = 0;
};

class EncodePipeline {
 public:
  // `inRate` is the PCM's rate (8000 or 16000); 16 kHz input for an 8 kHz
  // codec is halved first.
  bool open(TAV::CompressionType code, uint32_t inRate, std::string& error);
  // Encodes 16-bit PCM; coded bytes are appended to `out`.
  void feed(const int16_t* pcm, size_t samples, std::vector<uint8_t>& out);
  // Appends what the encoder still holds back.
  void flush(std::vector<uint8_t>& out);

 private:
  void encode(const int16_t* pcm, size_t samples, std::vector<uint8_t>& out);

  TAV::TransCoder m_transcoder;
  // ICELP48 has no TAV::Codec encoder: its engine is driven directly.
  std::unique_ptr<icelp48::Icelp48StreamEncoder> m_icelp48;
  std::unique_ptr<Halver> m_halver;
  std::vector<int16_t> m_halved;
  std::vector<uint8_t> m_outBuffer;
};

}  // namespace quillon::tool

#endif
