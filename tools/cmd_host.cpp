// quillon host: what the host information exports report here.
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "quillon/charset.h"
#include "quillon/host_info.h"

namespace {

// UTF-16 units to UTF-8 for printing.
std::string utf16ToUtf8(const quillon_wchar_t* units, uint32_t count) {
  std::vector<TAV::uint8> in;
  for (uint32_t i = 0; i < count; i++) {
    in.push_back(static_cast<TAV::uint8>(units[i] & 0xFF));
    in.push_back(static_cast<TAV::uint8>(units[i] >> 8));
  }
  std::vector<TAV::uint8> out(in.size() * 3 / 2 + 1);
  TAV::CharsetConverter converter;
  converter.open(TAV::CharsetUCS2, TAV::CharsetUTF8, '?', TAV::FilterNone);
  TAV::uint32 inPos = 0, outPos = 0;
  converter.convert(in.data(), inPos, static_cast<TAV::uint32>(in.size()), out.data(), outPos,
                    static_cast<TAV::uint32>(out.size()));
  return std::string(out.begin(), out.begin() + outPos);
}

// Calls a char-buffer export twice: once for the size, once for the text.
std::string askText(int32_t(QUILLON_STDCALL* query)(char*, uint32_t*), int32_t& rc) {
  uint32_t size = 0;
  rc = query(nullptr, &size);
  if (rc != -1) return std::string();
  std::vector<char> buffer(size + 1);
  rc = query(buffer.data(), &size);
  return rc == 0 ? std::string(buffer.data()) : std::string();
}

}  // namespace

int runHostCommand(int argc, char** argv) {
  (void)argv;
  if (argc > 1) {
    std::fprintf(stderr, "usage: quillon host\n");
    return 2;
  }
  initQL();
  int32_t rc = 0;
  const std::string host = askText(getHostName, rc);
  if (rc == 0) std::printf("host name:      %s\n", host.c_str());
  else std::printf("host name:      unavailable (%d)\n", static_cast<int>(rc));

  const std::string ip = askText(getLocalIP, rc);
  if (rc == 0) std::printf("IPv4 address:   %s\n", ip.c_str());
  else std::printf("IPv4 address:   unavailable (%d)\n", static_cast<int>(rc));

  uint32_t size = 0;
  rc = getLoginUser(nullptr, &size);
  if (rc == -1) {
    std::vector<quillon_wchar_t> user(size + 1);
    rc = getLoginUser(user.data(), &size);
    if (rc == 0) std::printf("user:           %s\n", utf16ToUtf8(user.data(), size).c_str());
  }
  if (rc != 0) std::printf("user:           unavailable (%d)\n", static_cast<int>(rc));

  std::printf("remote session: %s\n", isTerminalServicesEnabled() ? "yes" : "no");
  const uint32_t version = getVersionNumber();
  std::printf("version:        %u.%u.%u (0x%X)\n", static_cast<unsigned>(s_QuillonVersionHigh),
              static_cast<unsigned>(s_QuillonVersionLow), static_cast<unsigned>(s_QuillonVersionBuild),
              static_cast<unsigned>(version));
  return 0;
}
