// `quillon capture`: RTP calls out of packet captures. Reads pcap and
// pcapng files through libpcap, follows SIP/SDP signalling, recognises RTP
// streams, decodes them through the library's RTP stream decoder and
// writes one WAVE file per call (or per stream) and a report.
#ifndef QUILLON_TOOLS_CAPTURE_SESSION_H
#define QUILLON_TOOLS_CAPTURE_SESSION_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "capture_packets.h"
#include "capture_sip.h"
#include "quillon/rtp.h"

namespace quillon::tool {

struct CaptureOptions {
  std::string outDir = ".";
  bool split = false;          // one mono file per stream
  bool force = false;          // replace existing outputs
  bool dryRun = false;         // decode and summarise, write nothing
  std::string report;          // "", "csv" or "json"
  uint32_t wideRate = 16000;   // Opus and SILK output rate (8000, 16000, 48000)
  std::map<int, SdpFormat> payloadTypes;  // --pt overrides
};

// Parses a --pt value "96=amrwb", "96=AMR-WB/16000;octet-align=1".
bool parsePayloadOption(const std::string& text, int& payloadType, SdpFormat& format);

// Raises a mono signal from `from` to `to` Hz (to > from) for a call whose
// legs differ in rate: a windowed-sinc interpolator for integer ratios,
// linear interpolation otherwise.
std::vector<int16_t> upsample(const std::vector<int16_t>& in, uint32_t from, uint32_t to);

// The E-model (ITU-T G.107, simplified: default values but for the
// equipment impairment, its packet-loss robustness and the delay) for one
// stream: returns the R-factor; mos receives the estimated MOS.
double eModelRating(rtp::PayloadCodec codec, int bitsPerCode, double lossPercent, double delayMs, double& mos);

struct StreamSummary {
  std::string callId;
  std::string side;  // "caller" or "callee"
  Endpoint source, destination;
  uint32_t ssrc = 0;
  int payloadType = -1;
  std::string codec;
  uint32_t sampleRate = 0;
  rtp::StreamStatistics stats;
  double durationSeconds = 0;
  double rFactor = 0, mos = 0;
  std::string file;
  uint64_t garbage = 0;  // packets on the stream's ports that were not its RTP
};

class CaptureSession {
 public:
  explicit CaptureSession(CaptureOptions options);
  ~CaptureSession();

  // A session description for streams that no signalling in the capture
  // describes (--sdp).
  bool addSdp(const std::string& text, std::string& error);
  // Reads one capture ("-": standard input). Problems inside the capture
  // become warnings; false only when it cannot be read at all.
  bool readCapture(const std::string& path, std::string& error);
  // One frame of a capture (what readCapture does per packet).
  void addFrame(int linkType, const uint8_t* frame, size_t bytes, uint64_t timeMicros);
  // Decodes what is left, writes the files and the report. False when an
  // output could not be written.
  bool finish(std::string& error);

  const std::vector<std::string>& warnings() const { return m_warnings; }
  const std::vector<std::string>& written() const { return m_written; }
  const std::vector<StreamSummary>& streams() const { return m_summaries; }
  const PacketCounters& packetCounters() const { return m_packets.counters(); }
  uint64_t rtcpPackets() const { return m_rtcp; }
  uint64_t otherUdp() const { return m_otherUdp; }
  uint64_t sipMessages() const { return m_sipMessages; }

 private:
  struct Stream;
  struct Call;

  void handleUdp(const Datagram& d);
  void handleSip(const SipMessage& m, uint64_t time);
  void handleTcp(const Datagram& d);
  Stream* streamFor(const Endpoint& source, const Endpoint& destination, uint64_t time);
  void probe(Stream& s, const uint8_t* data, size_t bytes, uint64_t time);
  void accept(Stream& s, const uint8_t* data, size_t bytes, uint64_t time);
  void startDecoding(Stream& s);
  void feed(Stream& s, const uint8_t* data, size_t bytes, uint64_t time);
  const SdpMedia* announced(const Endpoint& e, Call** call) const;
  bool resolvePayload(Stream& s, int payloadType, rtp::PayloadDescription& out, int& eventType, int& noiseType);
  void groupCalls();
  bool writeCall(Call& c, std::string& error);
  bool writeReport(std::string& error);
  bool publish(const std::string& name, const std::vector<int16_t>& pcm, uint32_t rate, int channels,
               std::string& finalName, std::string& error);
  void warn(const std::string& text);

  CaptureOptions m_options;
  PacketDecoder m_packets;
  std::vector<std::unique_ptr<Stream>> m_streams;
  std::map<std::pair<Endpoint, Endpoint>, Stream*> m_byTuple;
  std::vector<std::unique_ptr<Call>> m_calls;
  std::map<std::string, Call*> m_byCallId;
  std::vector<SdpSession> m_extraSdp;
  std::map<std::pair<Endpoint, Endpoint>, std::string> m_tcpBuffers;
  std::vector<std::string> m_warnings;
  std::vector<std::string> m_written;
  std::vector<StreamSummary> m_summaries;
  uint64_t m_rtcp = 0, m_otherUdp = 0, m_sipMessages = 0;
  uint64_t m_captureIndex = 0;
  bool m_tooManyStreams = false;
};

}  // namespace quillon::tool

#endif
