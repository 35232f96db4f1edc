// Streaming input (files and standard input) and WAVE input and output for
// the tool.
#ifndef QUILLON_TOOLS_WAV_FILE_H
#define QUILLON_TOOLS_WAV_FILE_H

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "quillon/audio_format.h"

namespace quillon::tool {

// A file, or standard input for "-", read front to back without ever
// seeking (so a pipe reads like a file). Bytes can be looked at before they
// are read, which is how a container is recognised.
class InputStream {
 public:
  ~InputStream();
  bool open(const std::string& path, std::string& error);
  // Makes up to `bytes` bytes ahead visible through ahead() without reading
  // them; returns how many are (fewer only at the end of the input).
  size_t peek(size_t bytes);
  const uint8_t* ahead() const { return m_ahead.data() + m_head; }
  size_t read(uint8_t* buffer, size_t bytes);
  // Reads and drops `bytes` bytes; false when the input ends first.
  bool skip(uint64_t bytes);
  bool failed() const { return m_failed; }
  const std::string& name() const { return m_name; }

 private:
  FILE* m_file = nullptr;
  bool m_own = false;
  bool m_failed = false;
  std::string m_name;
  std::vector<uint8_t> m_ahead;
  size_t m_head = 0;
};

// What a RIFF/WAVE (or RF64/BW64) header says about its data chunk.
struct WaveFormat {
  uint16_t formatTag = 0;      // WAVE_FORMAT_EXTENSIBLE resolved to its sub-format
  bool extensible = false;
  bool rf64 = false;
  uint16_t channels = 0;
  uint32_t sampleRate = 0;
  uint16_t bitsPerSample = 0;
  uint16_t blockAlign = 0;
  uint64_t dataBytes = 0;
  bool lengthKnown = true;     // false: a size of 0 or 0xFFFFFFFF, read to the end
  std::string warning;         // what was odd about the header, if anything
};

// Reads a WAVE header up to the start of its data chunk. False with `error`
// set when it is not one or is cut short.
bool readWaveHeader(InputStream& input, WaveFormat& format, std::string& error);

// A RIFF/WAVE file (or standard input) positioned at the start of its data chunk.
class WavReader {
 public:
  // Opens and checks the header; on failure `error` says why.
  bool open(const std::string& path, std::string& error);
  // Takes over a stream whose header was already read into `format`.
  void attach(std::unique_ptr<InputStream> input, const WaveFormat& format);
  // Reads up to `bytes` bytes of the data chunk; 0 at its end.
  size_t read(uint8_t* buffer, size_t bytes);
  // Data bytes still expected when the file ended early (0 when it did not).
  uint64_t missingBytes() const { return m_format.lengthKnown && m_ended ? m_left : 0; }

  const WaveFormat& format() const { return m_format; }

 private:
  std::unique_ptr<InputStream> m_input;
  WaveFormat m_format;
  uint64_t m_left = 0;
  bool m_ended = false;
};

// Writes a coded stream or PCM to a file, as bare bytes or under a WAVE
// header whose lengths are fixed when the file is finished. On an output
// that cannot seek (a pipe) the header's lengths say "unknown" (0xFFFFFFFF).
class OutputFile {
 public:
  enum class Header { None, Plain, MsAdpcm };
  ~OutputFile();
  bool open(const std::string& path, const TAV::AudioFormat& format, uint32_t sampleRate, Header header,
            std::string& error, uint16_t channels = 1);
  // Writes to a stream already open (standard output); it is not closed.
  bool open(FILE* stream, const TAV::AudioFormat& format, uint32_t sampleRate, Header header, std::string& error,
            uint16_t channels = 1);
  bool write(const void* data, size_t bytes);
  // Sample frames in the file, for the MS ADPCM fact chunk (patched in when
  // the output can seek).
  void setSampleFrames(uint64_t frames) { m_frames = frames; }
  // Rewrites the header with the final length and closes the file.
  bool finish(std::string& error);
  uint64_t bytesWritten() const { return m_bytes; }

 private:
  bool start(std::string& error);
  bool writeHeader();

  FILE* m_file = nullptr;
  bool m_own = true;
  bool m_seekable = true;
  TAV::AudioFormat m_format;
  uint32_t m_rate = 0;
  uint16_t m_channels = 1;
  Header m_header = Header::None;
  uint64_t m_bytes = 0;
  uint64_t m_frames = 0;
};

}  // namespace quillon::tool

#endif
