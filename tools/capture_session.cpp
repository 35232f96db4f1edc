#include "capture_session.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sstream>

#include "output_file.h"
#include "wav_file.h"

namespace quillon::tool {

namespace {

constexpr size_t kProbationPackets = 3;  // consistent packets before a stream counts as RTP
constexpr size_t kProbationLimit = 8;    // packets tried before giving up
constexpr size_t kMaxCandidate = 1600;   // bytes of a held packet
constexpr size_t kMaxStreams = 4096;     // address pairs followed

// Short names accepted by --pt, as rtpmap and fmtp text.
struct ShortName {
  const char* name;
  const char* rtpmap;
  const char* fmtp;
};
constexpr ShortName kShortNames[] = {
    {"pcmu", "PCMU/8000", ""},          {"pcma", "PCMA/8000", ""},
    {"g722", "G722/8000", ""},          {"g729", "G729/8000", ""},
    {"g726-16", "G726-16/8000", ""},    {"g726-24", "G726-24/8000", ""},
    {"g726-32", "G726-32/8000", ""},    {"g726-40", "G726-40/8000", ""},
    {"aal2-g726-16", "AAL2-G726-16/8000", ""}, {"aal2-g726-24", "AAL2-G726-24/8000", ""},
    {"aal2-g726-32", "AAL2-G726-32/8000", ""}, {"aal2-g726-40", "AAL2-G726-40/8000", ""},
    {"amrwb", "AMR-WB/16000", ""},      {"amrwb-oa", "AMR-WB/16000", "octet-align=1"},
    {"opus", "opus/48000/2", ""},       {"silk8", "SILK/8000", ""},
    {"silk12", "SILK/12000", ""},       {"silk16", "SILK/16000", ""},
    {"silk24", "SILK/24000", ""},       {"cn", "CN/8000", ""},
    {"telephone-event", "telephone-event/8000", ""},
};

// File-system-safe text: letters, digits and ".-+@" kept, the rest "_".
std::string sanitise(const std::string& text, size_t limit) {
  std::string out;
  for (char c : text) {
    if (out.size() >= limit) break;
    const bool ok = std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '+' || c == '@' || c == '.';
    out += ok ? c : '_';
  }
  while (!out.empty() && out[0] == '.') out[0] = '_';
  return out.empty() ? "unknown" : out;
}

std::string timeText(uint64_t micros) {
  const time_t seconds = static_cast<time_t>(micros / 1000000u);
  struct tm t{};
  gmtime_r(&seconds, &t);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y%m%d-%H%M%S", &t);
  return buffer;
}

std::string jsonEscape(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char b[8];
      std::snprintf(b, sizeof b, "\\u%04x", c);
      out += b;
    } else {
      out += c;
    }
  }
  return out;
}

std::string csvField(const std::string& s) {
  if (s.find_first_of(",\"\n") == std::string::npos) return s;
  std::string out = "\"";
  for (char c : s) out += c == '"' ? std::string("\"\"") : std::string(1, c);
  return out + "\"";
}

}  // namespace

struct CaptureSession::Stream {
  Endpoint source, destination;
  enum class State { Probation, Decoding, Unknown, Rejected } state = State::Probation;
  uint64_t firstTime = 0, lastTime = 0;
  uint32_t ssrc = 0;
  int payloadType = -1;
  std::vector<std::vector<uint8_t>> held;
  std::vector<uint64_t> heldTimes;
  size_t tried = 0;
  // A different SSRC on a decoding stream must prove itself too.
  std::vector<std::vector<uint8_t>> switchHeld;
  std::vector<uint64_t> switchTimes;
  rtp::PayloadDescription payload;
  std::unique_ptr<rtp::RtpStreamDecoder> decoder;
  std::vector<int16_t> pcm;
  uint64_t pcmStart = 0;  // capture time of the first decoded sample
  uint64_t garbage = 0;
  uint64_t packets = 0;
  Call* call = nullptr;
  bool callerSide = true;
};

struct CaptureSession::Call {
  std::string callId;
  std::string caller, callee;
  uint64_t start = 0;
  bool fromSip = false;
  std::vector<SdpMedia> callerMedia, calleeMedia;
  std::vector<Stream*> streams;
};

std::vector<int16_t> upsample(const std::vector<int16_t>& in, uint32_t from, uint32_t to) {
  if (from == 0 || to <= from || in.empty()) return in;
  if (to % from != 0) {
    // Ratios such as 12 -> 16 kHz: linear interpolation.
    const size_t n = static_cast<size_t>(static_cast<uint64_t>(in.size()) * to / from);
    std::vector<int16_t> out(n);
    for (size_t i = 0; i < n; i++) {
      const double pos = static_cast<double>(i) * from / to;
      const size_t k = static_cast<size_t>(pos);
      const double f = pos - static_cast<double>(k);
      const double a = in[k], b = k + 1 < in.size() ? in[k + 1] : in[k];
      out[i] = static_cast<int16_t>(std::lrint(a + (b - a) * f));
    }
    return out;
  }
  // Integer ratio L: zero-stuffing and a windowed-sinc low-pass at 0.45 of
  // the input rate (Blackman window, 48 input samples per output sample),
  // centred so that output sample L*k falls on input sample k.
  const int ratio = static_cast<int>(to / from);
  constexpr int kHalfTaps = 24;  // input samples on each side
  const int half = kHalfTaps * ratio;
  std::vector<double> h(static_cast<size_t>(2 * half + 1));
  const double cutoff = 0.45 / ratio;  // of the output rate
  for (int n = -half; n <= half; n++) {
    const double x = 2 * M_PI * cutoff * n;
    const double sinc = n == 0 ? 1.0 : std::sin(x) / x;
    const double w = 0.42 + 0.5 * std::cos(M_PI * n / half) + 0.08 * std::cos(2 * M_PI * n / half);
    h[static_cast<size_t>(n + half)] = 2 * cutoff * ratio * sinc * w;
  }
  const size_t length = in.size() * static_cast<size_t>(ratio);
  std::vector<int16_t> out(length);
  for (size_t m = 0; m < length; m++) {
    const long centre = static_cast<long>(m / static_cast<size_t>(ratio));
    double acc = 0;
    for (long k = centre - kHalfTaps; k <= centre + kHalfTaps; k++) {
      if (k < 0 || k >= static_cast<long>(in.size())) continue;
      const long tap = static_cast<long>(m) - k * ratio + half;
      if (tap < 0 || tap > 2 * half) continue;
      acc += in[static_cast<size_t>(k)] * h[static_cast<size_t>(tap)];
    }
    out[m] = static_cast<int16_t>(std::lrint(std::clamp(acc, -32768.0, 32767.0)));
  }
  return out;
}

bool parsePayloadOption(const std::string& text, int& payloadType, SdpFormat& format) {
  const size_t eq = text.find('=');
  if (eq == std::string::npos || eq == 0 || eq > 3) return false;
  for (size_t i = 0; i < eq; i++)
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
  payloadType = std::atoi(text.substr(0, eq).c_str());
  if (payloadType > 127) return false;
  std::string value = text.substr(eq + 1);
  format = SdpFormat{};
  for (const ShortName& s : kShortNames) {
    if (value == s.name) {
      format.rtpmap = s.rtpmap;
      format.fmtp = s.fmtp;
      return true;
    }
  }
  const size_t semi = value.find(';');
  format.rtpmap = value.substr(0, semi);
  if (semi != std::string::npos) format.fmtp = value.substr(semi + 1);
  return rtp::describePayload(payloadType, format.rtpmap.c_str(), format.fmtp.c_str()).codec !=
         rtp::PayloadCodec::Unknown;
}

double eModelRating(rtp::PayloadCodec codec, int bitsPerCode, double lossPercent, double delayMs, double& mos) {
  // Equipment impairment Ie and packet-loss robustness Bpl: ITU-T G.113
  // Appendix I where it lists the codec (G.711 with Appendix I
  // concealment, G.729A with VAD, G.726); wideband and newer codecs are
  // rated on the narrowband scale at no impairment and a robustness like
  // the other concealing codecs (our estimate).
  double ie = 0, bpl = 25.1;
  switch (codec) {
    case rtp::PayloadCodec::Pcmu:
    case rtp::PayloadCodec::Pcma: ie = 0; bpl = 25.1; break;
    case rtp::PayloadCodec::G729: ie = 11; bpl = 19.0; break;
    case rtp::PayloadCodec::G726:
    case rtp::PayloadCodec::G726Aal2:
      ie = bitsPerCode == 2 ? 50 : bitsPerCode == 3 ? 25 : bitsPerCode == 5 ? 2 : 7;
      bpl = 25.1;
      break;
    case rtp::PayloadCodec::G722: ie = 0; bpl = 25.1; break;
    case rtp::PayloadCodec::AmrWb: ie = 0; bpl = 19.0; break;
    case rtp::PayloadCodec::Opus:
    case rtp::PayloadCodec::Silk: ie = 0; bpl = 20.0; break;
    default: break;
  }
  const double ppl = std::max(0.0, lossPercent);
  const double ieEff = ie + (95.0 - ie) * ppl / (ppl + bpl);  // random loss: BurstR = 1
  const double d = std::max(0.0, delayMs);
  const double id = 0.024 * d + (d > 177.3 ? 0.11 * (d - 177.3) : 0.0);
  const double r = 93.2 - id - ieEff;
  if (r <= 0) mos = 1.0;
  else if (r >= 100) mos = 4.5;
  else mos = 1.0 + 0.035 * r + r * (r - 60.0) * (100.0 - r) * 7e-6;
  return r;
}

CaptureSession::CaptureSession(CaptureOptions options) : m_options(std::move(options)) {}
CaptureSession::~CaptureSession() = default;

void CaptureSession::warn(const std::string& text) {
  if (m_warnings.size() < 1000) m_warnings.push_back(text);
}

bool CaptureSession::addSdp(const std::string& text, std::string& error) {
  SdpSession s;
  if (!parseSdp(text, s, error)) return false;
  m_extraSdp.push_back(s);
  return true;
}

namespace {

// The capture as libpcap reads it. A classic pcap header's snap length is
// raised to libpcap's maximum on the way in: libpcap cuts every record
// longer than the declared snap length, and a header that understates it
// would otherwise cost every packet. The declared value is kept to warn.
struct CaptureInput {
  FILE* file = nullptr;
  bool ownFile = false;
  unsigned char head[24] = {};
  size_t headBytes = 0;
  size_t headPos = 0;
  uint32_t declaredSnap = 0;  // 0: not a classic pcap file

  static ssize_t read(void* cookie, char* buffer, size_t n) {
    auto* in = static_cast<CaptureInput*>(cookie);
    size_t done = 0;
    while (done < n && in->headPos < in->headBytes) buffer[done++] = static_cast<char>(in->head[in->headPos++]);
    if (done < n) done += std::fread(buffer + done, 1, n - done, in->file);
    return static_cast<ssize_t>(done);
  }
  static int close(void* cookie) {
    auto* in = static_cast<CaptureInput*>(cookie);
    if (in->ownFile) std::fclose(in->file);
    delete in;
    return 0;
  }
};

// Opens the capture; null with `error` set when it cannot be read.
pcap_t* openCapture(const std::string& path, uint32_t& declaredSnap, std::string& error) {
  auto* in = new CaptureInput;
  in->ownFile = path != "-";
  in->file = in->ownFile ? std::fopen(path.c_str(), "rb") : stdin;
  if (!in->file) {
    error = path + ": " + std::strerror(errno);
    delete in;
    return nullptr;
  }
  in->headBytes = std::fread(in->head, 1, sizeof in->head, in->file);
  if (in->headBytes == sizeof in->head) {
    uint32_t magic = 0;
    std::memcpy(&magic, in->head, 4);
    const bool native = magic == 0xa1b2c3d4u || magic == 0xa1b23c4du;
    const bool swapped = magic == 0xd4c3b2a1u || magic == 0x4d3cb2a1u;
    if (native || swapped) {
      uint32_t snap = 0;
      std::memcpy(&snap, in->head + 16, 4);
      in->declaredSnap = swapped ? __builtin_bswap32(snap) : snap;
      const uint32_t raised = swapped ? __builtin_bswap32(262144u) : 262144u;
      if (in->declaredSnap < 262144u) std::memcpy(in->head + 16, &raised, 4);
    }
  }
  declaredSnap = in->declaredSnap;
  cookie_io_functions_t io{};
  io.read = &CaptureInput::read;
  io.close = &CaptureInput::close;
  FILE* wrapped = fopencookie(in, "rb", io);
  if (!wrapped) {
    error = path + ": " + std::strerror(errno);
    CaptureInput::close(in);
    return nullptr;
  }
  char errbuf[PCAP_ERRBUF_SIZE] = {};
  pcap_t* p = pcap_fopen_offline(wrapped, errbuf);
  if (!p) {
    std::fclose(wrapped);
    error = (path == "-" ? std::string("standard input") : path) + ": " + errbuf;
  }
  return p;
}

}  // namespace

bool CaptureSession::readCapture(const std::string& path, std::string& error) {
  uint32_t declaredSnap = 0;
  pcap_t* p = openCapture(path, declaredSnap, error);
  if (!p) return false;
  m_captureIndex++;
  const int linkType = pcap_datalink(p);
  if (!linkTypeSupported(linkType)) {
    const char* name = pcap_datalink_val_to_name(linkType);
    warn(path + ": link type " + (name ? name : std::to_string(linkType)) + " is not handled; frames skipped");
  }
  struct pcap_pkthdr* header = nullptr;
  const u_char* data = nullptr;
  uint64_t overlong = 0;
  int r;
  while ((r = pcap_next_ex(p, &header, &data)) == 1) {
    if (declaredSnap && header->caplen > declaredSnap) overlong++;
    const uint64_t time = static_cast<uint64_t>(header->ts.tv_sec) * 1000000u + static_cast<uint64_t>(header->ts.tv_usec);
    addFrame(linkType, data, header->caplen, time);
  }
  if (overlong)
    warn(path + ": " + std::to_string(overlong) + " records are longer than the snap length the file declares (" +
         std::to_string(declaredSnap) + "); read in full");
  if (r == -1) warn(path + ": capture ends early: " + pcap_geterr(p));
  pcap_close(p);
  return true;
}

void CaptureSession::addFrame(int linkType, const uint8_t* frame, size_t bytes, uint64_t timeMicros) {
  Datagram d;
  if (!m_packets.decode(linkType, frame, bytes, timeMicros, d)) return;
  if (d.protocol == Datagram::Protocol::Tcp) handleTcp(d);
  else handleUdp(d);
}

void CaptureSession::handleTcp(const Datagram& d) {
  // SIP over TCP: segments in capture order, concatenated per direction.
  const bool sipPort = d.source.port == 5060 || d.destination.port == 5060;
  auto found = m_tcpBuffers.find({d.source, d.destination});
  if (found == m_tcpBuffers.end()) {
    if (!looksLikeSip(d.payload, d.bytes) && !sipPort) return;
    // Connections that never close keep their buffers; bound how many.
    if (m_tcpBuffers.size() >= 1024) m_tcpBuffers.clear();
    found = m_tcpBuffers.emplace(std::make_pair(d.source, d.destination), std::string()).first;
  }
  std::string& buffer = found->second;
  if (buffer.empty() && !looksLikeSip(d.payload, d.bytes) && !sipPort) return;
  buffer.append(reinterpret_cast<const char*>(d.payload), d.bytes);
  while (!buffer.empty()) {
    SipMessage m;
    const long used = parseSipMessage(buffer.data(), buffer.size(), m);
    if (used == 0) break;
    if (used < 0) {
      buffer.clear();
      break;
    }
    handleSip(m, d.timeMicros);
    buffer.erase(0, static_cast<size_t>(used));
  }
  if (buffer.size() > 262144) buffer.clear();
}

void CaptureSession::handleSip(const SipMessage& m, uint64_t time) {
  m_sipMessages++;
  if (m.callId.empty()) {
    warn("SIP message without Call-ID skipped");
    return;
  }
  const bool invite = (m.request && m.method == "INVITE") || (!m.request && m.cseqMethod == "INVITE");
  const bool ack = m.request && m.method == "ACK";
  auto found = m_byCallId.find(m.callId);
  Call* call = found == m_byCallId.end() ? nullptr : found->second;
  if (!call) {
    if (!(m.request && m.method == "INVITE")) return;
    m_calls.push_back(std::make_unique<Call>());
    call = m_calls.back().get();
    call->callId = m.callId;
    call->caller = m.from;
    call->callee = m.to;
    call->start = time;
    call->fromSip = true;
    m_byCallId[m.callId] = call;
  }
  if (m.body.empty() || (!invite && !ack)) return;
  if (!m.contentType.empty() && m.contentType.find("application/sdp") == std::string::npos) return;
  if (!m.request && (m.status < 180 || m.status >= 300)) return;
  SdpSession sdp;
  std::string error;
  if (!parseSdp(m.body, sdp, error)) {
    warn("call " + m.callId + ": SDP not usable: " + error);
    return;
  }
  if (!error.empty()) warn("call " + m.callId + ": " + error);
  // The offer in the INVITE (or the answer in the ACK) is the caller's,
  // the SDP of a response the callee's.
  (m.request ? call->callerMedia : call->calleeMedia) = sdp.audio;
}

const SdpMedia* CaptureSession::announced(const Endpoint& e, Call** call) const {
  for (const auto& c : m_calls) {
    for (const auto* list : {&c->callerMedia, &c->calleeMedia})
      for (const SdpMedia& m : *list)
        if (m.endpoint.port == e.port && (!m.haveAddress || m.endpoint.sameAddress(e))) {
          if (call) *call = c.get();
          return &m;
        }
  }
  for (const SdpSession& s : m_extraSdp)
    for (const SdpMedia& m : s.audio)
      if (m.endpoint.port == e.port && (!m.haveAddress || m.endpoint.sameAddress(e))) {
        if (call) *call = nullptr;
        return &m;
      }
  return nullptr;
}

void CaptureSession::handleUdp(const Datagram& d) {
  if (looksLikeSip(d.payload, d.bytes)) {
    SipMessage m;
    const long used = parseSipMessage(reinterpret_cast<const char*>(d.payload), d.bytes, m);
    if (used > 0) handleSip(m, d.timeMicros);
    else warn("damaged SIP message from " + d.source.text() + " skipped");
    return;
  }
  if (rtp::looksLikeRtcp(d.payload, d.bytes)) {
    m_rtcp++;
    return;
  }
  Stream* s = streamFor(d.source, d.destination, d.timeMicros);
  if (!s) return;
  s->lastTime = d.timeMicros;
  switch (s->state) {
    case Stream::State::Rejected:
      m_otherUdp++;
      return;
    case Stream::State::Probation:
      probe(*s, d.payload, d.bytes, d.timeMicros);
      return;
    case Stream::State::Unknown:
    case Stream::State::Decoding:
      accept(*s, d.payload, d.bytes, d.timeMicros);
      return;
  }
}

CaptureSession::Stream* CaptureSession::streamFor(const Endpoint& source, const Endpoint& destination, uint64_t time) {
  auto found = m_byTuple.find({source, destination});
  if (found != m_byTuple.end()) return found->second;
  if (m_streams.size() >= kMaxStreams) {
    if (!m_tooManyStreams) warn("more than " + std::to_string(kMaxStreams) + " address pairs; the rest are skipped");
    m_tooManyStreams = true;
    m_otherUdp++;
    return nullptr;
  }
  m_streams.push_back(std::make_unique<Stream>());
  Stream* s = m_streams.back().get();
  s->source = source;
  s->destination = destination;
  s->firstTime = time;
  m_byTuple[{source, destination}] = s;
  return s;
}

// A new address pair: RTP once SDP announces one of its ends, or once a
// few packets agree on version, SSRC, payload type and sequence.
void CaptureSession::probe(Stream& s, const uint8_t* data, size_t bytes, uint64_t time) {
  rtp::RtpPacket p;
  s.tried++;
  if (!rtp::parseRtp(data, bytes, p) || bytes > kMaxCandidate) {
    m_otherUdp++;
    if (s.tried >= kProbationLimit) {
      s.state = Stream::State::Rejected;
      m_otherUdp += s.held.size();
      s.held.clear();
      s.heldTimes.clear();
    }
    return;
  }
  const bool sdp = announced(s.destination, nullptr) || announced(s.source, nullptr);
  if (!s.held.empty()) {
    rtp::RtpPacket last;
    rtp::parseRtp(s.held.back().data(), s.held.back().size(), last);
    const uint16_t step = static_cast<uint16_t>(p.sequence - last.sequence);
    if (p.ssrc != last.ssrc || step == 0 || step > 10) {
      // Inconsistent: start the count again from this packet.
      m_otherUdp += s.held.size();
      s.held.clear();
      s.heldTimes.clear();
    }
  }
  s.held.emplace_back(data, data + bytes);
  s.heldTimes.push_back(time);
  if (!sdp && s.held.size() < kProbationPackets) {
    if (s.tried >= kProbationLimit) {
      s.state = Stream::State::Rejected;
      m_otherUdp += s.held.size();
      s.held.clear();
    }
    return;
  }
  s.ssrc = p.ssrc;
  startDecoding(s);
}

bool CaptureSession::resolvePayload(Stream& s, int payloadType, rtp::PayloadDescription& out, int& eventType,
                                    int& noiseType) {
  Call* call = nullptr;
  const SdpMedia* media = announced(s.destination, &call);
  if (!media) media = announced(s.source, &call);
  // The map to use: --pt first, then the SDP of either side of the call.
  std::map<int, SdpFormat> map;
  if (call) {
    for (const auto* list : {&call->calleeMedia, &call->callerMedia})
      for (const SdpMedia& m : *list)
        for (const auto& [pt, f] : m.formats) map.emplace(pt, f);
  } else if (media) {
    map = media->formats;
  }
  for (const auto& [pt, f] : m_options.payloadTypes) map[pt] = f;
  eventType = -1;
  noiseType = 13;
  for (const auto& [pt, f] : map) {
    const rtp::PayloadDescription d = rtp::describePayload(pt, f.rtpmap.c_str(), f.fmtp.c_str());
    if (d.codec == rtp::PayloadCodec::TelephoneEvent) eventType = pt;
    if (d.codec == rtp::PayloadCodec::ComfortNoise) noiseType = pt;
  }
  auto found = map.find(payloadType);
  out = found != map.end() ? rtp::describePayload(payloadType, found->second.rtpmap.c_str(), found->second.fmtp.c_str())
                           : rtp::describeStaticPayload(payloadType);
  if (call && !s.call) {
    s.call = call;
    // The caller's voice goes from the caller's media address to the callee's.
    bool callerSpeaks = false;
    for (const SdpMedia& m : call->calleeMedia)
      if (m.endpoint.port == s.destination.port && (!m.haveAddress || m.endpoint.sameAddress(s.destination)))
        callerSpeaks = true;
    for (const SdpMedia& m : call->callerMedia)
      if (m.endpoint.port == s.source.port && (!m.haveAddress || m.endpoint.sameAddress(s.source)))
        callerSpeaks = true;
    s.callerSide = callerSpeaks;
    call->streams.push_back(&s);
  }
  return out.codec != rtp::PayloadCodec::Unknown;
}

void CaptureSession::startDecoding(Stream& s) {
  // The stream's payload type: the first held packet that is not comfort
  // noise or a telephone event.
  rtp::PayloadDescription d;
  int eventType = -1, noiseType = 13;
  int chosen = -1;
  for (const auto& h : s.held) {
    rtp::RtpPacket p;
    rtp::parseRtp(h.data(), h.size(), p);
    rtp::PayloadDescription candidate;
    resolvePayload(s, p.payloadType, candidate, eventType, noiseType);
    if (candidate.codec == rtp::PayloadCodec::TelephoneEvent || candidate.codec == rtp::PayloadCodec::ComfortNoise)
      continue;
    if (chosen < 0) {
      chosen = p.payloadType;
      d = candidate;
    }
  }
  if (chosen < 0) {
    // Only events or noise so far: wait for speech.
    if (s.held.size() > kProbationLimit) {
      s.held.erase(s.held.begin());
      s.heldTimes.erase(s.heldTimes.begin());
    }
    return;
  }
  s.payloadType = chosen;
  s.payload = d;
  if (d.codec == rtp::PayloadCodec::Unknown) {
    s.state = Stream::State::Unknown;
    warn("stream " + s.source.text() + " -> " + s.destination.text() + ": payload type " + std::to_string(chosen) +
         " is not described (SIP/SDP, --sdp or --pt); not decoded");
  } else {
    s.decoder = rtp::RtpStreamDecoder::create(d, m_options.wideRate);
    if (!s.decoder) {
      s.state = Stream::State::Unknown;
      warn("stream " + s.source.text() + ": no decoder for " + rtp::payloadCodecName(d.codec));
    } else {
      s.decoder->setEventPayloadType(eventType);
      s.decoder->setComfortNoisePayloadType(noiseType);
      s.state = Stream::State::Decoding;
    }
  }
  std::vector<std::vector<uint8_t>> held;
  std::vector<uint64_t> times;
  held.swap(s.held);
  times.swap(s.heldTimes);
  for (size_t i = 0; i < held.size(); i++) accept(s, held[i].data(), held[i].size(), times[i]);
}

// A packet of a recognised stream. Packets that do not parse, and a new
// SSRC until it has shown a few consistent packets, are not passed on.
void CaptureSession::accept(Stream& s, const uint8_t* data, size_t bytes, uint64_t time) {
  rtp::RtpPacket p;
  if (!rtp::parseRtp(data, bytes, p)) {
    s.garbage++;
    return;
  }
  if (p.ssrc != s.ssrc) {
    if (!s.switchHeld.empty()) {
      rtp::RtpPacket last;
      rtp::parseRtp(s.switchHeld.back().data(), s.switchHeld.back().size(), last);
      const uint16_t step = static_cast<uint16_t>(p.sequence - last.sequence);
      if (last.ssrc != p.ssrc || step == 0 || step > 10) {
        s.garbage += s.switchHeld.size();
        s.switchHeld.clear();
        s.switchTimes.clear();
      }
    }
    if (bytes <= kMaxCandidate) {
      s.switchHeld.emplace_back(data, data + bytes);
      s.switchTimes.push_back(time);
    } else {
      s.garbage++;
    }
    if (s.switchHeld.size() < kProbationPackets) return;
    s.ssrc = p.ssrc;
    std::vector<std::vector<uint8_t>> held;
    std::vector<uint64_t> times;
    held.swap(s.switchHeld);
    times.swap(s.switchTimes);
    for (size_t i = 0; i < held.size(); i++) feed(s, held[i].data(), held[i].size(), times[i]);
    return;
  }
  if (!s.switchHeld.empty()) {
    s.garbage += s.switchHeld.size();
    s.switchHeld.clear();
    s.switchTimes.clear();
  }
  feed(s, data, bytes, time);
}

void CaptureSession::feed(Stream& s, const uint8_t* data, size_t bytes, uint64_t time) {
  s.packets++;
  if (!s.decoder) return;
  if (s.pcm.empty() && s.decoder->available() == 0 && s.pcmStart == 0) s.pcmStart = time;
  s.decoder->push(data, bytes, time);
  int16_t buffer[4096];
  size_t n;
  while ((n = s.decoder->pull(buffer, sizeof buffer / sizeof buffer[0])) > 0) s.pcm.insert(s.pcm.end(), buffer, buffer + n);
}

// Streams that no signalling placed in a call: a stream and the one in the
// opposite direction between the same two ends make a call.
void CaptureSession::groupCalls() {
  int index = 0;
  for (auto& owned : m_streams) {
    Stream& s = *owned;
    if (s.call || (s.state != Stream::State::Decoding && s.state != Stream::State::Unknown)) continue;
    m_calls.push_back(std::make_unique<Call>());
    Call* c = m_calls.back().get();
    c->callId = "rtp" + std::to_string(++index);
    c->start = s.firstTime;
    s.call = c;
    s.callerSide = true;
    c->streams.push_back(&s);
    auto reverse = m_byTuple.find({s.destination, s.source});
    if (reverse != m_byTuple.end() && !reverse->second->call &&
        (reverse->second->state == Stream::State::Decoding || reverse->second->state == Stream::State::Unknown)) {
      Stream& r = *reverse->second;
      r.call = c;
      r.callerSide = false;
      c->streams.push_back(&r);
    }
    c->caller = s.source.text();
    c->callee = s.destination.text();
  }
}

bool CaptureSession::finish(std::string& error) {
  m_packets.finish();
  for (auto& s : m_streams) {
    if (s->state == Stream::State::Probation && !s->held.empty()) {
      // Too few packets to be sure by their numbering; announced ones
      // would already decode.
      m_otherUdp += s->held.size();
      s->held.clear();
    }
    if (s->decoder) {
      s->decoder->flush();
      int16_t buffer[4096];
      size_t n;
      while ((n = s->decoder->pull(buffer, 4096)) > 0) s->pcm.insert(s->pcm.end(), buffer, buffer + n);
    }
    if (s->garbage) warn("stream " + s->source.text() + " -> " + s->destination.text() + ": " +
                         std::to_string(s->garbage) + " packets that were not its RTP skipped");
  }
  groupCalls();
  bool ok = true;
  for (auto& c : m_calls) {
    if (c->streams.empty()) {
      if (c->fromSip) warn("call " + c->callId + ": no RTP found for it");
      continue;
    }
    std::string e;
    if (!writeCall(*c, e)) {
      ok = false;
      if (error.empty()) error = e;
    }
  }
  std::string e;
  if (!writeReport(e)) {
    ok = false;
    if (error.empty()) error = e;
  }
  return ok;
}

bool CaptureSession::writeCall(Call& c, std::string& error) {
  uint64_t start = UINT64_MAX;
  for (Stream* s : c.streams) start = std::min(start, s->firstTime);
  // The call starts with its INVITE, or without signalling with its first packet.
  const std::string base = timeText(c.fromSip ? std::min(c.start, start) : start) + "_" + sanitise(c.caller, 40) + "_" + sanitise(c.callee, 40) + "_" +
                           sanitise(c.callId, 60);
  std::vector<std::pair<Stream*, std::string>> files;
  bool ok = true;
  auto summarise = [&](Stream& s, const std::string& file) {
    StreamSummary r;
    r.callId = c.callId;
    r.side = s.callerSide ? "caller" : "callee";
    r.source = s.source;
    r.destination = s.destination;
    r.ssrc = s.ssrc;
    r.payloadType = s.payloadType;
    r.codec = s.state == Stream::State::Decoding ? rtp::payloadCodecName(s.payload.codec) : "unknown";
    r.garbage = s.garbage;
    r.file = file;
    if (s.decoder) {
      r.sampleRate = s.decoder->sampleRate();
      r.stats = s.decoder->statistics();
      r.durationSeconds = static_cast<double>(s.pcm.size()) / r.sampleRate;
      const double expected = static_cast<double>(r.stats.packets + r.stats.lost);
      const double loss = expected > 0 ? 100.0 * static_cast<double>(r.stats.lost) / expected : 0.0;
      // One-way delay estimate: two packet times of buffering plus twice the jitter.
      const double packetMs = r.stats.packets > 1 ? static_cast<double>(s.lastTime - s.firstTime) / 1000.0 /
                                                     static_cast<double>(r.stats.packets - 1)
                                                 : 20.0;
      r.rFactor = eModelRating(s.payload.codec, s.payload.bitsPerCode, loss, 2 * packetMs + 2 * r.stats.jitterMs, r.mos);
    } else {
      r.durationSeconds = static_cast<double>(s.lastTime - s.firstTime) / 1e6;
    }
    m_summaries.push_back(r);
  };
  std::vector<Stream*> decoded;
  for (Stream* s : c.streams)
    if (s->decoder) decoded.push_back(s);
  if (decoded.empty()) {
    for (Stream* s : c.streams) summarise(*s, std::string());
    return true;
  }
  if (m_options.split || decoded.size() == 1) {
    for (Stream* s : c.streams) {
      std::string finalName;
      if (s->decoder) {
        char ssrc[16];
        std::snprintf(ssrc, sizeof ssrc, "%08x", s->ssrc);
        const std::string name = base + (m_options.split ? std::string("_") + (s->callerSide ? "caller" : "callee") + "_" + ssrc : "") + ".wav";
        if (!publish(name, s->pcm, s->decoder->sampleRate(), 1, finalName, error)) ok = false;
      }
      summarise(*s, finalName);
    }
    return ok;
  }
  // Stereo: the caller left, the callee right, both at the highest rate;
  // every stream of a side (a new port or source after a re-INVITE) is
  // placed in its channel by the capture time of its first packet.
  uint32_t rate = 0;
  for (Stream* s : decoded) rate = std::max(rate, s->decoder->sampleRate());
  std::vector<int16_t> channel[2];
  for (Stream* s : decoded) {
    std::vector<int16_t>& side = channel[s->callerSide ? 0 : 1];
    const std::vector<int16_t> pcm = upsample(s->pcm, s->decoder->sampleRate(), rate);
    const uint64_t first = std::max(s->pcmStart, start);
    const size_t lead = static_cast<size_t>((first - start) * rate / 1000000u);
    if (side.size() < lead + pcm.size()) side.resize(lead + pcm.size(), 0);
    for (size_t i = 0; i < pcm.size(); i++)
      side[lead + i] = static_cast<int16_t>(std::clamp(side[lead + i] + pcm[i], -32768, 32767));
  }
  const size_t length = std::max(channel[0].size(), channel[1].size());
  std::vector<int16_t> stereo(2 * length, 0);
  for (int k = 0; k < 2; k++)
    for (size_t i = 0; i < channel[k].size(); i++) stereo[2 * i + static_cast<size_t>(k)] = channel[k][i];
  std::string finalName;
  if (!publish(base + ".wav", stereo, rate, 2, finalName, error)) ok = false;
  for (Stream* s : c.streams) summarise(*s, s->decoder ? finalName : std::string());
  return ok;
}

// Writes under a temporary name in the output folder and renames it into
// place: never over an existing file without --force, never through a
// link (the final name is replaced, not followed).
bool CaptureSession::publish(const std::string& name, const std::vector<int16_t>& pcm, uint32_t rate, int channels,
                             std::string& finalName, std::string& error) {
  if (m_options.dryRun) {
    finalName = name;
    return true;
  }
  const std::string dir = m_options.outDir.empty() ? "." : m_options.outDir;
  const std::string target = dir + "/" + name;
  SafeOutput file;
  if (file.open(target, {m_options.force, false}, {}, error) != SafeOutput::Status::Ok) {
    if (!m_options.force && error.find(" exists") != std::string::npos) error += " (use --force to replace it)";
    warn(error);
    return false;
  }
  OutputFile out;
  const TAV::AudioFormat format(TAV::CT_PCM16, 1);
  const bool ok = out.open(file.stream(), format, rate, OutputFile::Header::Plain, error,
                           static_cast<uint16_t>(channels)) &&
                  out.write(pcm.data(), pcm.size() * sizeof(int16_t)) && out.finish(error) && file.commit(error);
  if (ok) {
    finalName = name;
    m_written.push_back(target);
  }
  return ok;
}

bool CaptureSession::writeReport(std::string& error) {
  if (m_options.report.empty() || m_options.dryRun) return true;
  std::ostringstream o;
  const PacketCounters& pc = m_packets.counters();
  char num[64];
  auto f1 = [&](double v, const char* fmt) {
    std::snprintf(num, sizeof num, fmt, v);
    return std::string(num);
  };
  if (m_options.report == "csv") {
    o << "call_id,side,source,destination,ssrc,payload_type,codec,sample_rate,packets,lost,duplicated,reordered,late,"
         "jitter_ms,max_jitter_ms,duration_s,concealed_ms,comfort_noise_ms,events,ssrc_changes,bad_payloads,"
         "not_rtp,r_factor,mos,file\n";
    for (const StreamSummary& r : m_summaries) {
      const double rate = r.sampleRate ? r.sampleRate : 1;
      std::snprintf(num, sizeof num, "%08x", r.ssrc);
      o << csvField(r.callId) << ',' << r.side << ',' << r.source.text() << ',' << r.destination.text() << ',' << num
        << ',' << r.payloadType << ',' << r.codec << ',' << r.sampleRate << ',' << r.stats.packets << ','
        << r.stats.lost << ',' << r.stats.duplicated << ',' << r.stats.reordered << ',' << r.stats.late << ','
        << f1(r.stats.jitterMs, "%.3f") << ',' << f1(r.stats.maxJitterMs, "%.3f") << ','
        << f1(r.durationSeconds, "%.3f") << ',' << f1(1000.0 * r.stats.concealedSamples / rate, "%.1f") << ','
        << f1(1000.0 * r.stats.comfortNoiseSamples / rate, "%.1f") << ',' << r.stats.events << ','
        << r.stats.ssrcChanges << ',' << r.stats.badPayloads << ',' << r.garbage << ','
        << f1(r.rFactor, "%.1f") << ',' << f1(r.mos, "%.2f") << ',' << csvField(r.file) << '\n';
    }
  } else {
    o << "{\n  \"frames\": " << pc.frames << ", \"udp\": " << pc.udp << ", \"tcp\": " << pc.tcp
      << ", \"skipped_link\": " << pc.otherLink << ", \"skipped_transport\": " << pc.otherTransport
      << ", \"truncated\": " << pc.truncated << ", \"fragments\": " << pc.fragments
      << ", \"reassembled\": " << pc.reassembled << ", \"fragments_dropped\": " << pc.fragmentsDropped
      << ", \"rtcp\": " << m_rtcp << ", \"other_udp\": " << m_otherUdp << ", \"sip_messages\": " << m_sipMessages
      << ",\n  \"streams\": [";
    for (size_t i = 0; i < m_summaries.size(); i++) {
      const StreamSummary& r = m_summaries[i];
      const double rate = r.sampleRate ? r.sampleRate : 1;
      std::snprintf(num, sizeof num, "%08x", r.ssrc);
      o << (i ? "," : "") << "\n    {\"call_id\": \"" << jsonEscape(r.callId) << "\", \"side\": \"" << r.side
        << "\", \"source\": \"" << r.source.text() << "\", \"destination\": \"" << r.destination.text()
        << "\", \"ssrc\": \"" << num << "\", \"payload_type\": " << r.payloadType << ", \"codec\": \"" << r.codec
        << "\", \"sample_rate\": " << r.sampleRate << ", \"packets\": " << r.stats.packets
        << ", \"lost\": " << r.stats.lost << ", \"duplicated\": " << r.stats.duplicated
        << ", \"reordered\": " << r.stats.reordered << ", \"late\": " << r.stats.late
        << ", \"jitter_ms\": " << f1(r.stats.jitterMs, "%.3f") << ", \"max_jitter_ms\": " << f1(r.stats.maxJitterMs, "%.3f")
        << ", \"duration_s\": " << f1(r.durationSeconds, "%.3f")
        << ", \"concealed_ms\": " << f1(1000.0 * r.stats.concealedSamples / rate, "%.1f")
        << ", \"comfort_noise_ms\": " << f1(1000.0 * r.stats.comfortNoiseSamples / rate, "%.1f")
        << ", \"events\": " << r.stats.events << ", \"ssrc_changes\": " << r.stats.ssrcChanges
        << ", \"bad_payloads\": " << r.stats.badPayloads << ", \"not_rtp\": " << r.garbage
        << ", \"r_factor\": " << f1(r.rFactor, "%.1f") << ", \"mos\": " << f1(r.mos, "%.2f")
        << ", \"file\": \"" << jsonEscape(r.file) << "\"}";
    }
    o << "\n  ],\n  \"warnings\": [";
    for (size_t i = 0; i < m_warnings.size(); i++) o << (i ? ", " : "") << '"' << jsonEscape(m_warnings[i]) << '"';
    o << "]\n}\n";
  }
  const std::string text = o.str();
  const std::string dir = m_options.outDir.empty() ? "." : m_options.outDir;
  const std::string target = dir + "/quillon-capture-report." + m_options.report;
  SafeOutput file;
  if (file.open(target, {m_options.force, false}, {}, error) != SafeOutput::Status::Ok) {
    if (!m_options.force && error.find(" exists") != std::string::npos) error += " (use --force to replace it)";
    return false;
  }
  if (std::fwrite(text.data(), 1, text.size(), file.stream()) != text.size() || !file.commit(error)) {
    if (error.empty()) error = "cannot write " + target + ": " + std::strerror(errno);
    return false;
  }
  m_written.push_back(target);
  return true;
}

}  // namespace quillon::tool
