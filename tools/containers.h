// Recognising recording files and unwrapping them into the raw streams the
// codecs read: RIFF/WAVE (and RF64), AMR-WB storage files, SILK_V3 files
// and Ogg Opus. Files and standard input ("-") are read front to back
// without seeking, so a pipe works like a file.
#ifndef QUILLON_TOOLS_CONTAINERS_H
#define QUILLON_TOOLS_CONTAINERS_H

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "quillon/audio_format.h"
#include "wav_file.h"

namespace quillon::tool {

// A byte source that yields a codec's raw input stream, possibly in
// several segments (the links of a chained Ogg file), each to be decoded
// by a fresh decoder.
class StreamSource {
 public:
  virtual ~StreamSource() = default;
  // Up to `bytes` bytes of the stream; 0 at the end of a segment or on error (see error()).
  virtual size_t read(uint8_t* buffer, size_t bytes) = 0;
  // After read() returned 0: true when another segment follows (reading goes on with it).
  virtual bool nextSegment() { return false; }
  // Decoded samples of the current segment to drop at its start, and the
  // most to keep from its start (the drop included), in units of 1/48000 s.
  virtual uint64_t leadingSamples48k() const { return 0; }
  virtual uint64_t segmentLimit48k() const { return UINT64_MAX; }
  const std::string& error() const { return m_error; }
  // Things that were wrong with the input but did not stop it.
  const std::vector<std::string>& warnings() const { return m_warnings; }

 protected:
  std::string m_error;
  std::vector<std::string> m_warnings;
};

struct ProbeResult {
  std::string container;  // "raw", "WAVE", "AMR-WB storage", "SILK_V3", "Ogg Opus"
  TAV::CompressionType code = TAV::CT_NONE;  // CT_NONE: container known, codec not decodable
  TAV::CompressionType described = TAV::CT_NONE;  // the codec the container names, even when refused
  unsigned channels = 1;  // channels of the coded stream (interleaved per sample in WAVE)
  std::string detail;     // what was found, for `quillon probe`
  std::string refusal;    // why a recognised file cannot be decoded
  WaveFormat wave;        // the header of a WAVE file
};

// Recognises the container at the start of `input`. A WAVE header is read
// (the stream is left at its data); other containers are only looked at.
// A file of no known container is "raw" with code CT_NONE. False only when
// the input cannot be read.
bool probeInput(InputStream& input, ProbeResult& result, std::string& error);

// Opens the stream of `input` as probeInput() found it.
std::unique_ptr<StreamSource> openStream(std::unique_ptr<InputStream> input, const ProbeResult& probe,
                                         std::string& error);

// The same for a path ("-": standard input, which can then be read only once).
bool probeFile(const std::string& path, ProbeResult& result, std::string& error);
std::unique_ptr<StreamSource> openStream(const std::string& path, const ProbeResult& probe, std::string& error);

// --- pieces the readers are made of, open for testing ---------------------

// Splits an Ogg bitstream into packets; feed it bytes in any chunking.
// Pages with a bad checksum and bytes that are no page are skipped (with a
// warning) and reading resumes at the next page; a gap in the page sequence
// drops the packet it cut. A new beginning-of-stream page after the first
// stream starts a new link (chained streams).
class OggPacketReader {
 public:
  struct Info {
    uint64_t granule = UINT64_MAX;  // the granule position of the page this packet ends on
    unsigned link = 0;              // which link of a chained stream
    bool last = false;              // on the last page of its link (end of stream flag)
  };
  // Appends bytes; complete packets can then be taken with nextPacket().
  // Always true: damage is reported through warnings().
  bool push(const uint8_t* data, size_t bytes, std::string& error);
  // The end of the input: bytes held for a page that never completed are
  // searched for a later page (a damaged header can claim more bytes than
  // are left); what cannot make a page is dropped with a warning.
  void finish();
  bool nextPacket(std::vector<uint8_t>& packet);
  bool nextPacket(std::vector<uint8_t>& packet, Info& info);
  // True when bytes that make no whole page are still held.
  bool hasPartialPage() const { return !m_buffer.empty(); }
  size_t heldBytes() const { return m_buffer.size(); }
  uint64_t pagesRead() const { return m_pages; }
  const std::vector<std::string>& warnings() const { return m_warnings; }

 private:
  struct Ready {
    std::vector<uint8_t> data;
    Info info;
  };
  std::vector<uint8_t> m_buffer;
  std::vector<uint8_t> m_partial;  // a packet continued on the next page
  std::vector<Ready> m_ready;
  size_t m_readyHead = 0;
  uint32_t m_serial = 0;
  uint32_t m_sequence = 0;
  bool m_haveSerial = false;
  bool m_havePage = false;
  bool m_ended = false;     // the current link's last page was seen
  bool m_sawData = false;   // a page after the current link's first
  bool m_skipping = false;  // looking for the next page after damage
  bool m_lost = false;      // a page of the current link was lost
  std::vector<uint8_t> m_check;
  unsigned m_link = 0;
  uint64_t m_pages = 0;
  uint64_t m_offset = 0;
  std::vector<std::string> m_warnings;
};

uint32_t oggCrc(const uint8_t* data, size_t bytes);

// Samples (at 48 kHz) an Opus packet decodes to, from its table-of-contents
// byte and frame count; 0 for a malformed packet.
uint32_t opusPacketSamples48k(const uint8_t* packet, size_t bytes);

// Speech bytes that follow the table-of-contents byte of an AMR-WB storage
// frame of type `frameType` (0-15); -1 for reserved types.
int amrWbStorageFrameBytes(unsigned frameType);

}  // namespace quillon::tool

#endif
