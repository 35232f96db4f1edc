// SIP messages (RFC 3261, the parts a recorder needs) and their SDP
// bodies (RFC 4566): the call, its parties and each side's audio media.
#ifndef QUILLON_TOOLS_CAPTURE_SIP_H
#define QUILLON_TOOLS_CAPTURE_SIP_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "capture_packets.h"

namespace quillon::tool {

struct SdpFormat {
  std::string rtpmap;  // "AMR-WB/16000/1"; empty for a static type
  std::string fmtp;    // "octet-align=1"
};

struct SdpMedia {
  Endpoint endpoint;   // connection address and media port
  bool haveAddress = false;
  std::vector<int> payloadTypes;
  std::map<int, SdpFormat> formats;
};

struct SdpSession {
  std::vector<SdpMedia> audio;
};

// Parses an SDP body; false (and `error` says why) when it has no usable
// audio description. Unknown lines are ignored.
bool parseSdp(const std::string& text, SdpSession& out, std::string& error);

struct SipMessage {
  bool request = false;
  std::string method;   // requests: INVITE, ACK, BYE, ...
  int status = 0;       // responses
  std::string callId;
  std::string from, to; // user part (or display name) of the parties
  std::string cseqMethod;
  std::string contentType;
  std::string body;
};

// True when the bytes start like a SIP request or response line.
bool looksLikeSip(const uint8_t* data, size_t bytes);

// Parses one message from the front of `data`. Returns the bytes it took,
// 0 when the message is not complete yet (a stream transport), or -1 when
// the data is not SIP.
long parseSipMessage(const char* data, size_t bytes, SipMessage& out);

}  // namespace quillon::tool

#endif
