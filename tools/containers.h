// Recognising recording files and unwrapping them into the raw streams the
// codecs read: RIFF/WAVE, AMR-WB storage files, SILK_V3 files and Ogg Opus.
#ifndef QUILLON_TOOLS_CONTAINERS_H
#define QUILLON_TOOLS_CONTAINERS_H

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "quillon/audio_format.h"

namespace quillon::tool {

// A byte source that yields a codec's raw input stream.
class StreamSource {
 public:
  virtual ~StreamSource() = default;
  // Up to `bytes` bytes of the stream; 0 at its end or on error (see error()).
  virtual size_t read(uint8_t* buffer, size_t bytes) = 0;
  const std::string& error() const { return m_error; }

 protected:
  std::string m_error;
};

struct ProbeResult {
  std::string container;  // "raw", "WAVE", "AMR-WB storage", "SILK_V3", "Ogg Opus"
  TAV::CompressionType code = TAV::CT_NONE;  // CT_NONE: container known, codec not decodable
  std::string detail;     // what was found, for `quillon probe`
  std::string refusal;    // why a recognised file cannot be decoded
};

// Looks at the start of the file. A file of no known container is "raw"
// with code CT_NONE. False only when the file cannot be read.
bool probeFile(const std::string& path, ProbeResult& result, std::string& error);

// Opens the stream of `path` as `probe` found it (a raw file is read whole).
std::unique_ptr<StreamSource> openStream(const std::string& path, const ProbeResult& probe, std::string& error);

// --- pieces the readers are made of, open for testing ---------------------

// Splits an Ogg bitstream into packets; feed it bytes in any chunking.
class OggPacketReader {
 public:
  // Appends bytes; complete packets can then be taken with nextPacket().
  // False with `error` set when a page is malformed.
  bool push(const uint8_t* data, size_t bytes, std::string& error);
  bool nextPacket(std::vector<uint8_t>& packet);
  // True when bytes that make no whole page are still held.
  bool hasPartialPage() const { return !m_buffer.empty(); }
  uint64_t pagesRead() const { return m_pages; }

 private:
  std::vector<uint8_t> m_buffer;
  std::vector<uint8_t> m_partial;  // a packet continued on the next page
  std::vector<std::vector<uint8_t>> m_ready;
  size_t m_readyHead = 0;
  uint32_t m_serial = 0;
  bool m_haveSerial = false;
  uint64_t m_pages = 0;
  uint64_t m_offset = 0;
};

uint32_t oggCrc(const uint8_t* data, size_t bytes);

// Speech bytes that follow the table-of-contents byte of an AMR-WB storage
// frame of type `frameType` (0-15); -1 for reserved types.
int amrWbStorageFrameBytes(unsigned frameType);

}  // namespace quillon::tool

#endif
