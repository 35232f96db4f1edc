// Streaming WAVE input and output for the tool.
#ifndef QUILLON_TOOLS_WAV_FILE_H
#define QUILLON_TOOLS_WAV_FILE_H

#include <cstdint>
#include <cstdio>
#include <string>

#include "quillon/audio_format.h"

namespace quillon::tool {

// A RIFF/WAVE file positioned at the start of its data chunk.
class WavReader {
 public:
  ~WavReader();
  // Opens and checks the header; on failure `error` says why.
  bool open(const std::string& path, std::string& error);
  // Reads up to `bytes` bytes of the data chunk; 0 at its end.
  size_t read(uint8_t* buffer, size_t bytes);

  uint16_t formatTag = 0;
  uint16_t channels = 0;
  uint32_t sampleRate = 0;
  uint16_t bitsPerSample = 0;
  uint32_t dataBytes = 0;
  uint16_t blockAlign = 0;

 private:
  FILE* m_file = nullptr;
  uint32_t m_left = 0;
};

// Writes a coded stream or PCM to a file, as bare bytes or under a WAVE
// header whose lengths are fixed when the file is finished.
class OutputFile {
 public:
  enum class Header { None, Plain, MsAdpcm };
  ~OutputFile();
  bool open(const std::string& path, const TAV::AudioFormat& format, uint32_t sampleRate, Header header,
            std::string& error);
  // Writes to a stream already open; it is not closed, finish() flushes it.
  bool open(FILE* stream, const TAV::AudioFormat& format, uint32_t sampleRate, Header header, std::string& error);
  bool write(const void* data, size_t bytes);
  // Rewrites the header with the final length and closes the file.
  bool finish(std::string& error);
  uint64_t bytesWritten() const { return m_bytes; }

 private:
  bool writeHeader();

  FILE* m_file = nullptr;
  bool m_ownsFile = true;
  TAV::AudioFormat m_format;
  uint32_t m_rate = 0;
  Header m_header = Header::None;
  uint64_t m_bytes = 0;
};

}  // namespace quillon::tool

#endif
