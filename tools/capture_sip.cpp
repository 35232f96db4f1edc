#include "capture_sip.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace quillon::tool {

namespace {

constexpr size_t kMaxMessage = 65536;

std::string trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) b++;
  while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) e--;
  return s.substr(b, e - b);
}

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Splits text into lines ending in CRLF or LF.
std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    out.push_back(line);
    start = end + 1;
  }
  return out;
}

bool parseInt(const std::string& s, long& v) {
  if (s.empty() || s.size() > 9) return false;
  for (char c : s)
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
  v = std::strtol(s.c_str(), nullptr, 10);
  return true;
}

// The party of a From/To value: the user of its URI (a number or name
// that stays the same across calls), else the display name, else the text.
std::string partyOf(const std::string& value) {
  for (const char* scheme : {"sip:", "sips:", "tel:"}) {
    const size_t at = value.find(scheme);
    if (at == std::string::npos) continue;
    const size_t start = at + std::strlen(scheme);
    size_t end = start;
    while (end < value.size() && value[end] != '@' && value[end] != '>' && value[end] != ';') end++;
    if (end > start) return value.substr(start, end - start);
  }
  const size_t q1 = value.find('"');
  if (q1 != std::string::npos) {
    const size_t q2 = value.find('"', q1 + 1);
    if (q2 != std::string::npos && q2 > q1 + 1) return value.substr(q1 + 1, q2 - q1 - 1);
  }
  return trim(value.substr(0, value.find(';')));
}

}  // namespace

bool parseSdp(const std::string& text, SdpSession& out, std::string& error) {
  out = SdpSession{};
  Endpoint sessionAddress;
  bool haveSessionAddress = false;
  SdpMedia* media = nullptr;  // the current audio m= section
  bool inOtherMedia = false;
  bool sawVersion = false;
  for (const std::string& line : lines(text)) {
    if (line.size() < 2 || line[1] != '=') continue;
    const char type = line[0];
    const std::string value = line.substr(2);
    if (type == 'v') sawVersion = true;
    if (type == 'm') {
      inOtherMedia = value.compare(0, 6, "audio ") != 0;
      media = nullptr;
      if (inOtherMedia) continue;
      // m=audio PORT[/N] PROTO FMT...
      std::vector<std::string> words;
      size_t p = 0;
      while (p < value.size()) {
        while (p < value.size() && value[p] == ' ') p++;
        size_t e = p;
        while (e < value.size() && value[e] != ' ') e++;
        if (e > p) words.push_back(value.substr(p, e - p));
        p = e;
      }
      long port = 0;
      if (words.size() < 3 || !parseInt(words[1].substr(0, words[1].find('/')), port) || port > 65535) {
        error = "malformed m= line: " + line;
        continue;
      }
      out.audio.emplace_back();
      media = &out.audio.back();
      if (haveSessionAddress) {
        media->endpoint = sessionAddress;
        media->haveAddress = true;
      }
      media->endpoint.port = static_cast<uint16_t>(port);
      for (size_t i = 3; i < words.size(); i++) {
        long pt = 0;
        if (parseInt(words[i], pt) && pt < 128) media->payloadTypes.push_back(static_cast<int>(pt));
      }
    } else if (type == 'c') {
      // c=IN IP4 192.0.2.1[/ttl]
      const size_t a = value.find(' '), b = value.find(' ', a == std::string::npos ? a : a + 1);
      if (a == std::string::npos || b == std::string::npos) {
        error = "malformed c= line: " + line;
        continue;
      }
      std::string address = trim(value.substr(b + 1));
      address = address.substr(0, address.find('/'));
      Endpoint e;
      if (!Endpoint::parseAddress(address, e)) {
        error = "unusable connection address: " + address;
        continue;
      }
      if (media) {
        e.port = media->endpoint.port;
        media->endpoint = e;
        media->haveAddress = true;
      } else if (!inOtherMedia) {
        sessionAddress = e;
        haveSessionAddress = true;
      }
    } else if (type == 'a' && media) {
      const bool isMap = value.compare(0, 7, "rtpmap:") == 0;
      const bool isFmtp = value.compare(0, 5, "fmtp:") == 0;
      if (!isMap && !isFmtp) continue;
      const std::string rest = value.substr(isMap ? 7 : 5);
      const size_t space = rest.find(' ');
      long pt = 0;
      if (space == std::string::npos || !parseInt(rest.substr(0, space), pt) || pt > 127) {
        error = "malformed attribute: " + line;
        continue;
      }
      SdpFormat& f = media->formats[static_cast<int>(pt)];
      (isMap ? f.rtpmap : f.fmtp) = trim(rest.substr(space + 1));
    }
  }
  if (!sawVersion || out.audio.empty()) {
    if (error.empty()) error = "no audio description";
    return false;
  }
  return true;
}

bool looksLikeSip(const uint8_t* data, size_t bytes) {
  static const char* const kStarts[] = {"SIP/2.0 ", "INVITE ", "ACK ", "BYE ", "CANCEL ", "OPTIONS ", "REGISTER ",
                                        "PRACK ", "UPDATE ", "INFO ", "NOTIFY ", "SUBSCRIBE ", "REFER ", "MESSAGE "};
  for (const char* s : kStarts) {
    const size_t n = std::strlen(s);
    if (bytes >= n && std::memcmp(data, s, n) == 0) return true;
  }
  return false;
}

long parseSipMessage(const char* data, size_t bytes, SipMessage& out) {
  out = SipMessage{};
  if (!looksLikeSip(reinterpret_cast<const uint8_t*>(data), bytes)) return -1;
  const std::string text(data, std::min(bytes, kMaxMessage));
  size_t headerEnd = text.find("\r\n\r\n");
  size_t bodyStart = headerEnd == std::string::npos ? std::string::npos : headerEnd + 4;
  if (headerEnd == std::string::npos) {
    headerEnd = text.find("\n\n");
    bodyStart = headerEnd == std::string::npos ? std::string::npos : headerEnd + 2;
  }
  if (headerEnd == std::string::npos) return bytes >= kMaxMessage ? -1 : 0;
  std::vector<std::string> headerLines = lines(text.substr(0, headerEnd));
  if (headerLines.empty()) return -1;
  const std::string& first = headerLines[0];
  if (first.compare(0, 8, "SIP/2.0 ") == 0) {
    long status = 0;
    if (!parseInt(first.substr(8, 3), status)) return -1;
    out.status = static_cast<int>(status);
  } else {
    out.request = true;
    out.method = first.substr(0, first.find(' '));
  }
  long contentLength = -1;
  for (size_t i = 1; i < headerLines.size(); i++) {
    const std::string& line = headerLines[i];
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    const std::string name = lower(trim(line.substr(0, colon)));
    const std::string value = trim(line.substr(colon + 1));
    if (name == "call-id" || name == "i") out.callId = value;
    else if (name == "from" || name == "f") out.from = partyOf(value);
    else if (name == "to" || name == "t") out.to = partyOf(value);
    else if (name == "cseq") out.cseqMethod = trim(value.substr(value.find(' ') == std::string::npos ? value.size() : value.find(' ')));
    else if (name == "content-type" || name == "c") out.contentType = lower(value);
    else if (name == "content-length" || name == "l") {
      if (!parseInt(value, contentLength)) return -1;
    }
  }
  // Without Content-Length (allowed over UDP) the body runs to the end.
  const size_t available = text.size() - bodyStart;
  size_t bodyBytes = contentLength < 0 ? available : static_cast<size_t>(contentLength);
  if (bodyBytes > available) return bytes >= kMaxMessage ? -1 : 0;
  out.body = text.substr(bodyStart, bodyBytes);
  return static_cast<long>(bodyStart + bodyBytes);
}

}  // namespace quillon::tool
