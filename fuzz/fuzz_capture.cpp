// libFuzzer target for the capture reader's parsers. First byte 0: the
// rest is one SIP message (and its body as SDP). Otherwise the first byte
// picks a link type and the rest is a series of captured frames, each
// preceded by a 16-bit little-endian length, fed to a capture session that
// decodes what it finds without writing files.
#include <cstddef>
#include <cstdint>
#include <string>

#include "capture_session.h"
#include "capture_sip.h"

using namespace quillon::tool;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  if (data[0] == 0) {
    SipMessage m;
    parseSipMessage(reinterpret_cast<const char*>(data + 1), size - 1, m);
    SdpSession s;
    std::string error;
    parseSdp(m.body, s, error);
    parseSdp(std::string(reinterpret_cast<const char*>(data + 1), size - 1), s, error);
    return 0;
  }
  static const int kLinkTypes[] = {1, 113, 276, 0, 108, 101, 228, 229, 12};
  const int link = kLinkTypes[data[0] % (sizeof kLinkTypes / sizeof kLinkTypes[0])];
  CaptureOptions options;
  options.dryRun = true;
  options.split = (data[0] & 0x80) != 0;
  CaptureSession session(options);
  size_t at = 1;
  uint64_t time = 1000000;
  while (at + 2 <= size) {
    const size_t n = static_cast<size_t>(data[at] | (data[at + 1] << 8));
    at += 2;
    const size_t len = n < size - at ? n : size - at;
    time += 20000;
    session.addFrame(link, data + at, len, time);
    at += len;
  }
  std::string error;
  session.finish(error);
  return 0;
}
